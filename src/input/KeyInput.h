#pragma once

#include <cstdint>

// One key event as a hotkey path reports it to the manager, whatever the path's own encoding.
struct KeyInput
{
    enum class Action : uint8_t { press, repeat, release };

    uint32_t keyCode = 0; // evdev code (X key code - 8)
    Action action = Action::press;
    // The four binding modifiers held when the key changed, in ClipHotkey's stored encoding.
    uint32_t modifiers = 0;
};
