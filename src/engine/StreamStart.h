#pragma once

#include "capture/ScreenStream.h"

#include <chrono>
#include <stdexcept>

// What a stream reports arrives as text; it becomes an error of its own domain so that it reads
// like every other error in the log.
class StreamFailure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

namespace StreamStart {

// Starts `stream` and waits for whichever comes first: its start completion or `limit`. Throws
// StreamFailure with the stream's own sentence, or RecorderError::writerFailed when the limit
// passed first. The wait is on the stream's thread and a timer queue of the process's own, never
// on a pool task.
void within(ScreenStream &stream, std::chrono::milliseconds limit);

} // namespace StreamStart
