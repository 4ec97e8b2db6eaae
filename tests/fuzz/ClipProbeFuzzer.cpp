// A small uploaded file, as the upload check reads it once the body is in: the probe, and the
// poster frame when the probe accepts it. FFmpeg reads it from a memory file by its path.
// (Debian's FFmpeg is not instrumented: the fuzzer sees the coverage of our own code only, and
// finds faults inside FFmpeg by mutation alone.)

#include "FuzzCheck.h"

#include "service/ClipProbe.h"
#include "service/FileStore.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace {

// The poster goes nowhere; only its size is kept.
class DroppedFile : public PendingFile
{
public:
    void write(const char *, size_t size) override { m_size += size; }
    void finish() override { }
    uint64_t size() const override { return m_size; }
    const std::string &path() const override { return m_path; }

private:
    uint64_t m_size = 0;
    std::string m_path;
};

int memoryFile = -1;
std::string memoryPath;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    ClipProbe::silenceLibraryLog();
    memoryFile = memfd_create("upload", 0);
    FUZZ_CHECK(memoryFile >= 0);
    memoryPath = "/proc/self/fd/" + std::to_string(memoryFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FUZZ_CHECK(ftruncate(memoryFile, 0) == 0);
    FUZZ_CHECK(pwrite(memoryFile, data, size, 0) == ssize_t(size));

    const ClipProbeResult probe = ClipProbe::probe(memoryPath);
    FUZZ_CHECK(probe.isMp4 == probe.problem.empty());
    if (!probe.isMp4)
        return 0;
    DroppedFile poster;
    if (ClipProbe::writePoster(memoryPath, poster))
        FUZZ_CHECK(poster.size() > 0);
    return 0;
}
