#include "engine/StreamStart.h"

#include "core/ResumeBox.h"
#include "core/SerialQueue.h"
#include "media/RecorderError.h"

#include <exception>
#include <future>
#include <memory>

namespace StreamStart {

namespace {

// Where the start limit's timer runs: one small queue for the process, so that no pool thread
// sleeps through the eight seconds.
SerialQueue &timerQueue()
{
    static SerialQueue queue("com.quillfen.vantrel.timer", "vt-timer");
    return queue;
}

} // namespace

void within(ScreenStream &stream, std::chrono::milliseconds limit)
{
    // The other one finds the box used and does nothing.
    struct Start
    {
        ResumeBox box;
        std::promise<std::exception_ptr> outcome;
    };
    auto start = std::make_shared<Start>();
    std::future<std::exception_ptr> outcome = start->outcome.get_future();

    auto timer = timerQueue().asyncAfter(limit, [start, limit] {
        start->box.resume([&] {
            start->outcome.set_value(std::make_exception_ptr(RecorderError::writerFailed(
                QStringLiteral("The screen capture did not start within %1 seconds.")
                    .arg(double(limit.count()) / 1000.0))));
        });
    });
    stream.startCapture([start, timer](std::optional<std::string> error) mutable {
        timer.cancel();
        start->box.resume([&] {
            start->outcome.set_value(
                error ? std::make_exception_ptr(StreamFailure(std::move(*error))) : nullptr);
        });
    });
    if (std::exception_ptr error = outcome.get())
        std::rethrow_exception(error);
}

} // namespace StreamStart
