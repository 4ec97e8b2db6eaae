#include "input/EvdevKeyDecoder.h"
#include "input/ClipHotkey.h"

#include "input/EvdevRecords.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Action = KeyInput::Action;

struct Seen
{
    uint32_t code;
    Action action;
    bool operator==(const Seen &) const = default;
};

class Recorder
{
public:
    EvdevKeyDecoder::Sink sink()
    {
        return [this](uint32_t code, Action action) { seen.push_back({code, action}); };
    }
    std::vector<Seen> take() { return std::exchange(seen, {}); }
    std::vector<Seen> seen;
};

TEST(EvdevKeyDecoder, DecodesRecordsSplitAnywhereAndTracksModifiers)
{
    EvdevKeyDecoder decoder;
    Recorder recorder;
    auto bytes = evdevRecords({evdevKey(KEY_LEFTCTRL, 1), evdevSyn(), evdevKey(KEY_RIGHTSHIFT, 1),
                               evdevSyn(), evdevKey(KEY_F12, 1), evdevSyn(), evdevKey(KEY_F12, 2),
                               evdevSyn(), evdevKey(KEY_F12, 0), evdevSyn()});
    // A reader may get any number of bytes at a time; one byte at a time is the worst case.
    for (unsigned char byte : bytes) {
        decoder.feed(&byte, 1, recorder.sink());
        if (recorder.seen.size() == 3) {
            EXPECT_EQ(decoder.modifiers(), ClipHotkey::controlKey | ClipHotkey::shiftKey);
        }
    }
    EXPECT_EQ(recorder.take(),
              (std::vector<Seen> {{KEY_LEFTCTRL, Action::press},
                                  {KEY_RIGHTSHIFT, Action::press},
                                  {KEY_F12, Action::press},
                                  {KEY_F12, Action::repeat},
                                  {KEY_F12, Action::release}}));

    // Records that are not keys, codes beyond the table and unknown values are dropped; so is a
    // hostile stream of random bytes, without crashing.
    input_event beyond = evdevKey(KEY_CNT + 5, 1);
    input_event oddValue = evdevKey(KEY_A, 7);
    input_event relative {};
    relative.type = EV_REL;
    relative.code = REL_X;
    relative.value = 1;
    bytes = evdevRecords({beyond, oddValue, relative, evdevSyn()});
    decoder.feed(bytes.data(), bytes.size(), recorder.sink());
    EXPECT_TRUE(recorder.take().empty());
    std::vector<unsigned char> noise(sizeof(input_event) * 50);
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = static_cast<unsigned char>(i * 131 + 7);
    decoder.feed(noise.data(), noise.size(),
                 [](uint32_t code, Action) { EXPECT_LT(code, KEY_CNT); });

    decoder.resync(nullptr, 0, recorder.sink());
    EXPECT_EQ(decoder.modifiers(), 0u);
}

TEST(EvdevKeyDecoder, DroppedRecordsAreIgnoredUntilTheFrameClosesAndThenResynced)
{
    EvdevKeyDecoder decoder;
    Recorder recorder;
    auto bytes = evdevRecords({evdevKey(KEY_LEFTALT, 1), evdevSyn(), evdevKey(KEY_VOLUMEUP, 1),
                               evdevSyn(), evdevSyn(SYN_DROPPED), evdevKey(KEY_F12, 1)});
    decoder.feed(bytes.data(), bytes.size(), recorder.sink());
    EXPECT_EQ(recorder.take().size(), 2u);
    EXPECT_FALSE(decoder.takeResyncRequest()) << "the frame after the drop has not closed yet";

    bytes = evdevRecords({evdevKey(KEY_F11, 1), evdevSyn()});
    decoder.feed(bytes.data(), bytes.size(), recorder.sink());
    EXPECT_TRUE(recorder.take().empty());
    EXPECT_TRUE(decoder.takeResyncRequest());
    EXPECT_FALSE(decoder.takeResyncRequest());

    // The device says: Alt went up during the drop, Ctrl went down, volume-up is still held.
    unsigned char bits[KEY_CNT / 8 + 1] = {};
    bits[KEY_LEFTCTRL / 8] |= 1 << (KEY_LEFTCTRL % 8);
    bits[KEY_VOLUMEUP / 8] |= 1 << (KEY_VOLUMEUP % 8);
    decoder.resync(bits, sizeof bits, recorder.sink());
    EXPECT_EQ(recorder.take(), (std::vector<Seen> {{KEY_LEFTALT, Action::release}}));
    EXPECT_EQ(decoder.modifiers(), ClipHotkey::controlKey);

    decoder.releaseAll(recorder.sink());
    EXPECT_EQ(
        recorder.take(),
        (std::vector<Seen> {{KEY_LEFTCTRL, Action::release}, {KEY_VOLUMEUP, Action::release}}));
    EXPECT_EQ(decoder.modifiers(), 0u);
}

} // namespace
