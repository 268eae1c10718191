#include "engine/Properties.hpp"

#include <cstdint>

#include "kiro/web/JSONPayload.hpp"
#include "ui_objects/UTF16String.hpp"

namespace monitor::engine {

using kiro::web::JSONPayload;

namespace {

/// Sends the command `name` about `handle`, with one field.
template <typename T>
void setOne(Outlet& out, const char* name, Cookie handle, const char* key, const T& value) {
    out.command(name, [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", handle);
        payload.addDataToPayload(key, value);
    });
}

void sendData(Outlet& out, const char* name, Cookie handle, const DataRef& data) {
    out.command(name, [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", handle);
        payload.addDataToPayload("data", data.id);
        payload.addDataToPayload("first", data.first);
        payload.addDataToPayload("count", data.count);
        payload.addDataToPayload("columns", data.columns);
        payload.addDataToPayload("async", data.async);
    });
}

}  // namespace

Cookie newHandle() {
    static std::int64_t next = std::int64_t{1} << 53;
    return Cookie(++next);
}

void createFigure(Outlet& out, Cookie handle, const std::string& name) {
    out.command("create", [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", handle);
        payload.addDataToPayload("type", "figure");
        payload.addDataToPayload("name", name);
    });
}

void createObject(Outlet& out, Cookie handle, const char* type, const std::string& name,
                  Cookie parent) {
    out.command("create", [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", handle);
        payload.addDataToPayload("type", type);
        payload.addDataToPayload("name", name);
        payload.addDataToPayload("parent", parent);
    });
}

void setTitle(Outlet& out, Cookie handle, const ui_objects::UTF16String& text) {
    setOne(out, "setTitle", handle, "text", text);
}

void setLimits(Outlet& out, Cookie axes, Range x, Range y) {
    out.command("setLimits", [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", axes);
        payload.addDataToPayload("x", std::vector<double>{x.low, x.high});
        payload.addDataToPayload("y", std::vector<double>{y.low, y.high});
    });
}

void setLabels(Outlet& out, Cookie axes, const std::string& x, const std::string& y) {
    out.command("setLabels", [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", axes);
        payload.addDataToPayload("x", x);
        payload.addDataToPayload("y", y);
    });
}

void setTicks(Outlet& out, Cookie axes, const std::vector<double>& x,
              const std::vector<std::string>& labels) {
    out.command("setTicks", [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", axes);
        payload.addDataToPayload("x", x);
        payload.addDataToPayload("labels", labels);
    });
}

void setStyle(Outlet& out, Cookie handle, const std::vector<float>& color, double width) {
    out.command("setStyle", [&](JSONPayload& payload) {
        payload.addDataToPayload("handle", handle);
        payload.addDataToPayload("color", color);
        payload.addDataToPayload("width", width);
    });
}

void setFont(Outlet& out, Cookie handle, const Font& font) {
    JSONPayload description;
    description.addDataToPayload("family", font.family);
    description.addDataToPayload("points", font.points);
    description.addDataToPayload("weight", font.weight);
    description.addDataToPayload("angle", font.angle);
    setOne(out, "setFont", handle, "font", description);
}

void setText(Outlet& out, Cookie handle, const std::string& text) {
    setOne(out, "setText", handle, "text", text);
}

void setPosition(Outlet& out, Cookie handle, const std::vector<double>& position) {
    setOne(out, "setPosition", handle, "position", position);
}

void setVisible(Outlet& out, Cookie handle, bool visible) {
    setOne(out, "setVisible", handle, "visible", visible);
}

void setChildren(Outlet& out, Cookie handle, const std::vector<Cookie>& children) {
    setOne(out, "setChildren", handle, "children", children);
}

void setData(Outlet& out, Cookie handle, const DataRef& data) {
    sendData(out, "setData", handle, data);
}

void appendData(Outlet& out, Cookie handle, const DataRef& data) {
    sendData(out, "appendData", handle, data);
}

}  // namespace monitor::engine
