#pragma once

#include <functional>

#include "kirofigures/Window.hpp"

namespace scenes {

// Scenes that are only looked at.
void addKinds(kirofigures::Window& window);
void addCases(kirofigures::Window& window);
void addLabels(kirofigures::Window& window);

/// A scene that goes on and tells what somebody does with it; what the result does is one step.
std::function<void()> addLive(kirofigures::Window& window);

}  // namespace scenes
