#pragma once

#include <string>
#include <utility>
#include <vector>

#include "engine/Outlet.hpp"
#include "ui_objects/Cookie.hpp"
#include "ui_objects/FontTypes.hpp"

namespace ui_objects {
class UTF16String;
}

namespace monitor::engine {

using ui_objects::Cookie;

/// A fresh handle. They begin above 2^53, where a client that reads handles as numbers instead of
/// text is found out at once. Engine's thread only.
[[nodiscard]] Cookie newHandle();

struct Range {
    double low = 0;
    double high = 0;
};

struct Font {
    std::string family = "sans-serif";
    double points = 10;
    FontWeightType weight = FONT_WEIGHT_NORMAL;
    FontAngleType angle = FONT_ANGLE_NORMAL;
};

/// A block as a data command names it.
struct DataRef {
    kiro::web::binary::DataID id;
    std::uint64_t first = 0;    ///< index of its first element among those of the object
    std::uint64_t count = 0;    ///< elements
    std::uint64_t columns = 1;  ///< numbers in one element
    bool async = false;         ///< whether the block may come at any time, before or after
};

// One command each; docs/figures.md describes them. All of them may be sent again.

void createFigure(Outlet& out, Cookie handle, const std::string& name);
/// `type` is "axes", "line", "path", "points" or "text".
void createObject(Outlet& out, Cookie handle, const char* type, const std::string& name,
                  Cookie parent);
void setTitle(Outlet& out, Cookie handle, const ui_objects::UTF16String& text);
void setLimits(Outlet& out, Cookie axes, Range x, Range y);
void setLabels(Outlet& out, Cookie axes, const std::string& x, const std::string& y);
void setTicks(Outlet& out, Cookie axes, const std::vector<double>& x,
              const std::vector<std::string>& labels);
void setStyle(Outlet& out, Cookie handle, const std::vector<float>& color, double width);
void setFont(Outlet& out, Cookie handle, const Font& font);
void setText(Outlet& out, Cookie handle, const std::string& text);
void setPosition(Outlet& out, Cookie handle, const std::vector<double>& position);
void setVisible(Outlet& out, Cookie handle, bool visible);
void setChildren(Outlet& out, Cookie handle, const std::vector<Cookie>& children);
void setData(Outlet& out, Cookie handle, const DataRef& data);
void appendData(Outlet& out, Cookie handle, const DataRef& data);

}  // namespace monitor::engine
