#pragma once

#include "service/ClipVetting.h"

#include <chrono>
#include <string>

// A small process forked when the server starts, before it has threads or open stores, that
// forks the children checking uploads. Starting the service's executable afresh for every
// check costs 50 to 100 ms of loading its libraries, about as long as receiving a 60 MB clip
// (and a poster made meanwhile takes that time from the next upload); a fork of this helper
// costs a millisecond. The child is the same as ever: it limits its own
// memory and CPU time before it reads the file (which it gets as a descriptor), and reports on a
// pipe of the server's. The helper ends when the server does.
namespace VettingHelper {

// Forks the helper; false when it could not (checks then start the executable instead).
bool start();

// Checks the file open as `fd` in a child of the helper (and with `poster`, makes its poster);
// writes what the child writes (the report line, then the JPEG) to `output` and sets `ended`
// when the child finished by `deadline`. False when there is no helper to ask.
bool inspect(int fd, const ClipVetting::Budget &budget, bool poster,
             std::chrono::steady_clock::time_point deadline, std::string &output, bool &ended);

} // namespace VettingHelper
