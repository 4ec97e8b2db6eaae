// A vantrel:// link as any web page, script or later launch can hand it over. Whatever the text,
// reading it gives one answer, the same every time, and only a link of ours is anything but
// unknown.

#include "FuzzCheck.h"

#include "app/AppLink.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const AppLink link = AppLink::parse(text);
    FUZZ_CHECK(AppLink::parse(text) == link);
    if (link.kind != AppLink::Kind::unknown)
        FUZZ_CHECK(text.startsWith(QLatin1String("vantrel:"), Qt::CaseInsensitive));
    if (link.kind != AppLink::Kind::auth)
        FUZZ_CHECK(link.code.isEmpty());
    else
        FUZZ_CHECK(link.code.size() <= text.size());
    return 0;
}
