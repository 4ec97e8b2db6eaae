#pragma once

#include <linux/input.h>

#include <cstdint>
#include <vector>

// Builds the byte stream an event device delivers, for tests that stand in for a keyboard.
inline std::vector<unsigned char> evdevRecords(std::initializer_list<input_event> events)
{
    std::vector<unsigned char> bytes;
    for (const input_event &event : events) {
        const auto *raw = reinterpret_cast<const unsigned char *>(&event);
        bytes.insert(bytes.end(), raw, raw + sizeof event);
    }
    return bytes;
}

inline input_event evdevKey(uint16_t code, int32_t value)
{
    input_event event {};
    event.type = EV_KEY;
    event.code = code;
    event.value = value;
    return event;
}

inline input_event evdevSyn(uint16_t code = SYN_REPORT)
{
    input_event event {};
    event.type = EV_SYN;
    event.code = code;
    return event;
}

// One key change as the kernel frames it: the key, then the report that closes the frame.
inline std::vector<unsigned char> evdevKeyFrame(uint16_t code, int32_t value)
{
    return evdevRecords({evdevKey(code, value), evdevSyn()});
}
