#include "media/VTLBridge.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <typeinfo>

namespace {

// Copies `text` whole or cut before a character that would not fit, always terminated.
void copyText(char *out, size_t capacity, const char *text)
{
    size_t length = std::strlen(text);
    if (length >= capacity) {
        length = capacity - 1;
        // Never leave half of a UTF-8 sequence behind.
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
            --length;
    }
    std::memcpy(out, text, length);
    out[length] = '\0';
}

void report(VTLError *errorOut, int code, const char *description)
{
    if (!errorOut)
        return;
    copyText(errorOut->domain, sizeof errorOut->domain, "Vantrel");
    errorOut->code = code;
    copyText(errorOut->description, sizeof errorOut->description, description);
}

std::string typeName(const std::type_info &type)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled ? demangled.get() : type.name();
}

// The exception in flight as the code-1 error: its message, or its type's name when it has none.
// Must be called from a catch block; never throws itself.
void reportCurrentException(VTLError *errorOut) noexcept
{
    try {
        try {
            throw;
        } catch (const std::exception &e) {
            const char *what = e.what();
            report(errorOut, VTLErrorCodeException,
                   what && *what ? what : typeName(typeid(e)).c_str());
        } catch (...) {
            const std::type_info *type = abi::__cxa_current_exception_type();
            report(errorOut, VTLErrorCodeException,
                   type ? typeName(*type).c_str() : "unknown exception");
        }
    } catch (...) {
        // Naming the exception failed (no memory for the name).
        report(errorOut, VTLErrorCodeException, "unknown exception");
    }
}

} // namespace

bool VTLAppendSample(VTLWriterInput *input, const VTLSampleBuffer *sampleBuffer, VTLError *errorOut)
{
    try {
        if (input && input->writer && sampleBuffer &&
            input->writer->append(input->input, *sampleBuffer))
            return true;
        report(errorOut, VTLErrorCodeRefused, "Could not write a frame into the clip.");
    } catch (...) {
        reportCurrentException(errorOut);
    }
    return false;
}

bool VTLRun(void (*block)(void *context), void *context, VTLError *errorOut)
{
    try {
        if (block)
            block(context);
        return true;
    } catch (...) {
        reportCurrentException(errorOut);
    }
    return false;
}

QString vtlErrorText(const VTLError &error)
{
    return QString::fromUtf8(error.description);
}
