#pragma once

// In the global namespace, where the host has them.

enum FontWeightType : int {
    FONT_WEIGHT_LIGHT = 0,
    FONT_WEIGHT_NORMAL = 1,
    FONT_WEIGHT_DEMI = 2,
    FONT_WEIGHT_BOLD = 3,
};

enum FontAngleType : int {
    FONT_ANGLE_NORMAL = 0,
    FONT_ANGLE_ITALIC = 1,
    FONT_ANGLE_OBLIQUE = 2,
};
