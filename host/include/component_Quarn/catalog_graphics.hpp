#pragma once

/// The keys of the catalogue "Quarn:graphics", as types.
namespace component_Quarn::catalog_graphics {

/// Internal time-out warning. Arguments: time-out in seconds, requestor, token, details.
struct key_drawnowTimeout {
    static constexpr const char* component = "Quarn:graphics";
    static constexpr const char* key = "drawnowTimeout";
};

/// Time-out warning for the user. Argument: the cause.
struct key_timeoutDuringDrawnow {
    static constexpr const char* component = "Quarn:graphics";
    static constexpr const char* key = "timeoutDuringDrawnow";
};

/// Argument: the sender's channel for commands, not its binary channel.
struct key_GraphicsBinarySendFailure {
    static constexpr const char* component = "Quarn:graphics";
    static constexpr const char* key = "GraphicsBinarySendFailure";
};

/// No argument.
struct key_GraphicsBinaryOOM {
    static constexpr const char* component = "Quarn:graphics";
    static constexpr const char* key = "GraphicsBinaryOOM";
};

/// Argument: what happened.
struct key_newView {
    static constexpr const char* component = "Quarn:graphics";
    static constexpr const char* key = "newView";
};

/// Argument: what happened.
struct key_reconnect {
    static constexpr const char* component = "Quarn:graphics";
    static constexpr const char* key = "reconnect";
};

}  // namespace component_Quarn::catalog_graphics
