#pragma once

#include <QString>

#include <exception>

// The status line's sentences for what the capture pipeline reports.
namespace StatusTexts {

// What the user reads for a failed operation: a RecorderError's sentence, with the clip key's
// name where it tells the user to press it; any other error's message.
QString forError(const std::exception &error);

} // namespace StatusTexts
