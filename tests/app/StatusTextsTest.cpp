#include "app/StatusTexts.h"
#include "input/ClipHotkey.h"
#include "media/RecorderError.h"

#include "support/TestEnvironment.h"

#include <linux/input-event-codes.h>

#include <stdexcept>

using StatusTextsTest = TempHomeTest;

// The pipeline's outcomes in the words of the status line: the sentences that send the user to
// the clip key name the key they bound, and a file the writer would not take whole is not
// announced as saved.
TEST_F(StatusTextsTest, NameTheClipKeyAndSayWhatAFileLacks)
{
    EXPECT_EQ(StatusTexts::forError(RecorderError::notArmed()),
              QStringLiteral("Arm Instant Replay first, then press F12 to save a clip."));
    ClipHotkey::save(KEY_F9, ClipHotkey::controlKey, QStringLiteral("Ctrl+F9"));
    EXPECT_EQ(StatusTexts::forError(RecorderError::stillStarting()),
              QStringLiteral("Still getting started. Wait a second, then press Ctrl+F9."));
    EXPECT_EQ(StatusTexts::forError(RecorderError::writerFailed(QStringLiteral("Disk gone."))),
              QStringLiteral("Disk gone."));
    EXPECT_EQ(StatusTexts::forError(std::runtime_error("Something else.")),
              QStringLiteral("Something else."));

    const QString clip = QStringLiteral("/v/Clip 2026-11-16 20-14-44 3F9A1C.mp4");
    EXPECT_EQ(StatusTexts::forSavedClip({clip, {}}),
              QStringLiteral("Saved Clip 2026-11-16 20-14-44 3F9A1C.mp4."));
    EXPECT_EQ(StatusTexts::forSavedClip({clip, {12, 600, 0, 1500, 0, 0}}),
              QStringLiteral("Clip 2026-11-16 20-14-44 3F9A1C.mp4 is incomplete: 12 of 600 "
                             "frames could not be written."));
    // Asking the 120 s key soon after arming, and a 30 s clip that starts just inside its key
    // frame.
    EXPECT_EQ(StatusTexts::forSavedClip({clip, {}, 120, 41.6}),
              QStringLiteral("Saved Clip 2026-11-16 20-14-44 3F9A1C.mp4: the replay held only 42 s "
                             "of the 120 s asked for."));
    EXPECT_EQ(StatusTexts::forSavedClip({clip, {}, 30, 29.7}),
              QStringLiteral("Saved Clip 2026-11-16 20-14-44 3F9A1C.mp4."));

    const QString session = QStringLiteral("/v/Session 2026-11-16 20-14-44.mp4");
    EXPECT_EQ(StatusTexts::forSession({WrittenFile {session, {}}, {}}),
              QStringLiteral("Saved Session 2026-11-16 20-14-44.mp4"));
    EXPECT_EQ(StatusTexts::forSession({WrittenFile {session, {0, 900, 1500, 1500, 0, 0}}, {}}),
              QStringLiteral("Session 2026-11-16 20-14-44.mp4 is incomplete: 1500 of 1500 "
                             "system audio packets could not be written."));
    EXPECT_EQ(StatusTexts::forSession({std::nullopt, QStringLiteral("No space left on device")}),
              QStringLiteral("The session recording could not be saved: No space left on device"));
    EXPECT_EQ(StatusTexts::forSession({}), QString());

    EXPECT_EQ(StatusTexts::forFallingBehind(47.6, 60, 1080),
              QStringLiteral("Recording at 48 frames a second: this computer cannot keep up with "
                             "1080p at 60. Choose a smoother quality in Settings."));
}
