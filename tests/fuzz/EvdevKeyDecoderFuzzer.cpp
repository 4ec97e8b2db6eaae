// The records an event device delivers, read whole and in uneven pieces: both readings report
// the same keys, the modifiers follow what was reported, and a resync or an unplugged device
// leaves no key down.

#include "FuzzCheck.h"

#include "input/ClipHotkey.h"
#include "input/EvdevKeyDecoder.h"

#include <cstdint>
#include <vector>

namespace {

struct Report
{
    uint32_t code;
    KeyInput::Action action;
    bool operator==(const Report &) const = default;
};

uint32_t modifiersOf(const std::vector<bool> &down)
{
    uint32_t stored = 0;
    if (down[KEY_LEFTCTRL] || down[KEY_RIGHTCTRL])
        stored |= ClipHotkey::controlKey;
    if (down[KEY_LEFTALT] || down[KEY_RIGHTALT])
        stored |= ClipHotkey::altKey;
    if (down[KEY_LEFTSHIFT] || down[KEY_RIGHTSHIFT])
        stored |= ClipHotkey::shiftKey;
    if (down[KEY_LEFTMETA] || down[KEY_RIGHTMETA])
        stored |= ClipHotkey::superKey;
    return stored;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<Report> whole, pieces;
    std::vector<bool> down(KEY_CNT);
    const auto recordInto = [](std::vector<Report> &reports) {
        return [&reports](uint32_t code, KeyInput::Action action) {
            FUZZ_CHECK(code < KEY_CNT);
            reports.push_back({code, action});
        };
    };

    EvdevKeyDecoder once;
    once.feed(data, size, recordInto(whole));
    const bool onceResync = once.takeResyncRequest();
    FUZZ_CHECK(!once.takeResyncRequest());

    EvdevKeyDecoder split;
    const EvdevKeyDecoder::Sink sink = [&](uint32_t code, KeyInput::Action action) {
        FUZZ_CHECK(code < KEY_CNT);
        pieces.push_back({code, action});
        down[code] = action != KeyInput::Action::release;
    };
    bool splitResync = false;
    for (size_t at = 0, piece = size % 29 + 1; at < size; piece = piece % 53 + 1) {
        const size_t take = std::min(piece, size - at);
        split.feed(data + at, take, sink);
        at += take;
        splitResync = split.takeResyncRequest() || splitResync;
        FUZZ_CHECK(split.modifiers() == modifiersOf(down));
    }
    FUZZ_CHECK(whole == pieces);
    FUZZ_CHECK(onceResync == splitResync);
    FUZZ_CHECK(once.modifiers() == split.modifiers());

    // After a resync only the keys the state names are down; a key released by it was down.
    const size_t bitsSize = std::min<size_t>(size, KEY_CNT / 8);
    std::vector<bool> before = down;
    split.resync(data, bitsSize, [&](uint32_t code, KeyInput::Action action) {
        FUZZ_CHECK(code < KEY_CNT && action == KeyInput::Action::release && before[code]);
    });
    for (size_t code = 0; code < KEY_CNT; ++code)
        down[code] = code / 8 < bitsSize && (data[code / 8] >> (code % 8)) & 1;
    FUZZ_CHECK(split.modifiers() == modifiersOf(down));

    split.releaseAll([&](uint32_t code, KeyInput::Action action) {
        FUZZ_CHECK(code < KEY_CNT && action == KeyInput::Action::release && down[code]);
    });
    FUZZ_CHECK(split.modifiers() == 0);
    return 0;
}
