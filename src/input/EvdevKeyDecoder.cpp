#include "input/EvdevKeyDecoder.h"

#include "input/ClipHotkey.h"

#include <cstring>

namespace {

struct ModifierKey
{
    uint16_t code;
    uint32_t stored;
};

// Right Alt counts as Alt, as it does on the US layout. FIXME: on layouts where it is AltGr
// (Level 3), X11 does not report it as Alt, so the X paths and this one disagree about it.
constexpr ModifierKey modifierKeys[] = {
    {KEY_LEFTCTRL, ClipHotkey::controlKey}, {KEY_RIGHTCTRL, ClipHotkey::controlKey},
    {KEY_LEFTALT, ClipHotkey::altKey},      {KEY_RIGHTALT, ClipHotkey::altKey},
    {KEY_LEFTSHIFT, ClipHotkey::shiftKey},  {KEY_RIGHTSHIFT, ClipHotkey::shiftKey},
    {KEY_LEFTMETA, ClipHotkey::superKey},   {KEY_RIGHTMETA, ClipHotkey::superKey},
};

} // namespace

void EvdevKeyDecoder::feed(const void *data, size_t size, const Sink &sink)
{
    const auto *bytes = static_cast<const unsigned char *>(data);
    if (m_partialSize > 0) {
        const size_t take = std::min(size, sizeof(input_event) - m_partialSize);
        std::memcpy(m_partial + m_partialSize, bytes, take);
        m_partialSize += take;
        bytes += take;
        size -= take;
        if (m_partialSize < sizeof(input_event))
            return;
        input_event event;
        std::memcpy(&event, m_partial, sizeof event);
        m_partialSize = 0;
        handle(event, sink);
    }
    while (size >= sizeof(input_event)) {
        input_event event;
        std::memcpy(&event, bytes, sizeof event);
        bytes += sizeof event;
        size -= sizeof event;
        handle(event, sink);
    }
    std::memcpy(m_partial, bytes, size);
    m_partialSize = size;
}

void EvdevKeyDecoder::handle(const input_event &event, const Sink &sink)
{
    if (event.type == EV_SYN) {
        if (event.code == SYN_DROPPED) {
            m_dropping = true;
        } else if (event.code == SYN_REPORT && m_dropping) {
            m_dropping = false;
            m_resyncRequested = true;
        }
        return;
    }
    if (m_dropping || event.type != EV_KEY || event.code >= KEY_CNT)
        return;
    KeyInput::Action action;
    switch (event.value) {
    case 0:
        action = KeyInput::Action::release;
        // A release of a key we never saw go down (it was down before we opened the device)
        // still matters: it ends a held clip key.
        m_down.reset(event.code);
        break;
    case 1:
        action = KeyInput::Action::press;
        m_down.set(event.code);
        break;
    case 2:
        action = KeyInput::Action::repeat;
        m_down.set(event.code);
        break;
    default:
        return;
    }
    sink(event.code, action);
}

uint32_t EvdevKeyDecoder::modifiers() const
{
    uint32_t stored = 0;
    for (const ModifierKey &key : modifierKeys)
        if (m_down.test(key.code))
            stored |= key.stored;
    return stored;
}

bool EvdevKeyDecoder::takeResyncRequest()
{
    return std::exchange(m_resyncRequested, false);
}

void EvdevKeyDecoder::resync(const unsigned char *keyBits, size_t size, const Sink &sink)
{
    for (size_t code = 0; code < m_down.size(); ++code) {
        const bool nowDown = keyBits && code / 8 < size && (keyBits[code / 8] >> (code % 8)) & 1;
        if (m_down.test(code) && !nowDown) {
            m_down.reset(code);
            sink(uint32_t(code), KeyInput::Action::release);
        } else if (nowDown) {
            // Pressed while records were lost: held from now on (it counts as a modifier), but
            // not reported, since the press itself was missed.
            m_down.set(code);
        }
    }
}
