#pragma once

#include "input/KeyInput.h"

#include <linux/input.h>

#include <bitset>
#include <cstddef>
#include <functional>

// Decodes the `struct input_event` records that one event device delivers, keeping which keys are
// down. Knows nothing of opening devices, so it can be fed from a pipe or a test buffer.
// Not thread-safe: one decoder per device, used on one thread.
class EvdevKeyDecoder
{
public:
    using Sink = std::function<void(uint32_t keyCode, KeyInput::Action action)>;

    // Decodes every record that `data` completes; a trailing partial record waits for the next
    // call. Key records reach `sink` in order. Records other than keys, codes beyond KEY_MAX and
    // values other than 0, 1 and 2 are dropped.
    void feed(const void *data, size_t size, const Sink &sink);

    // The four binding modifiers currently down on this device, in ClipHotkey's encoding.
    uint32_t modifiers() const;

    // After the kernel dropped records (SYN_DROPPED), this device's key state is unknown until
    // the caller reads it back: true once per drop, after the frame that followed it closed.
    bool takeResyncRequest();

    // Replaces the key state with `keyBits` (the EVIOCGKEY bit array, `size` bytes); every key
    // that was down and no longer is reaches `sink` as a release. Null bits mean "unknown": every
    // key is released.
    void resync(const unsigned char *keyBits, size_t size, const Sink &sink);

    // The device is gone: every key still down is released.
    void releaseAll(const Sink &sink) { resync(nullptr, 0, sink); }

private:
    void handle(const input_event &event, const Sink &sink);

    unsigned char m_partial[sizeof(input_event)] = {};
    size_t m_partialSize = 0;
    std::bitset<KEY_CNT> m_down;
    // Between SYN_DROPPED and the next SYN_REPORT every record is stale.
    bool m_dropping = false;
    bool m_resyncRequested = false;
};
