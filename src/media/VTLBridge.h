#pragma once

// A plain C interface to a writer input, for callers that must never see a C++ exception: an
// append either succeeds or reports why not in an error record. Error domain "Vantrel"; code 1:
// the writer raised an exception (the description is its message), code 2: the input refused
// the sample ("Could not write a frame into the clip.").

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { VTLErrorCodeException = 1, VTLErrorCodeRefused = 2 };

typedef struct VTLError
{
    char domain[16]; // "Vantrel"
    int code;
    char description[512]; // UTF-8, always terminated; a longer message is cut at a character
} VTLError;

// One input of one writer (C++: the writer and the input handle).
typedef struct VTLWriterInput VTLWriterInput;
// One sample ready for a writer (C++: MediaSample).
typedef struct MediaSample VTLSampleBuffer;

// Appends `sampleBuffer` to `input`. True when the input took it; otherwise false, and
// `errorOut`, when given, receives the reason. Never throws.
bool VTLAppendSample(VTLWriterInput *input, const VTLSampleBuffer *sampleBuffer,
                     VTLError *errorOut);

// Runs `block(context)`. True when it returns normally; false with the code-1 error when it
// throws. Never throws.
bool VTLRun(void (*block)(void *context), void *context, VTLError *errorOut);

#ifdef __cplusplus
}

#include "media/Mp4Writer.h"

#include <QString>

#include <utility>

struct VTLWriterInput
{
    Mp4Writer *writer = nullptr;
    Mp4Writer::Input input;
};

// The error's description as a QString.
QString vtlErrorText(const VTLError &error);

// VTLRun for any C++ callable.
template<typename Block> bool vtlRun(Block &&block, VTLError *errorOut)
{
    return VTLRun(
        [](void *context) { (*static_cast<std::remove_reference_t<Block> *>(context))(); },
        const_cast<void *>(static_cast<const void *>(&block)), errorOut);
}
#endif
