#include "input/InputAccess.h"

#include "xcb/XcbHandles.h"

#include <QDir>
#include <QFile>

#include <xcb/xinput.h>

#include <unistd.h>

namespace InputAccess {

QString inputDirectory()
{
    const QString configured = qEnvironmentVariable("VANTREL_INPUT_DIR");
    return configured.isEmpty() ? QStringLiteral("/dev/input") : configured;
}

bool keyboardsReadable()
{
    const QDir folder(inputDirectory());
    const QStringList names = folder.entryList({QStringLiteral("event*")},
                                               QDir::System | QDir::Files | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        if (::access(QFile::encodeName(folder.filePath(name)).constData(), R_OK) == 0)
            return true;
    }
    return false;
}

bool xinput2Available()
{
    Xcb::Connection connection = Xcb::connect();
    if (!connection)
        return false;
    const xcb_query_extension_reply_t *extension =
        xcb_get_extension_data(connection.get(), &xcb_input_id);
    if (!extension || !extension->present)
        return false;
    Xcb::Reply<xcb_input_xi_query_version_reply_t> version(xcb_input_xi_query_version_reply(
        connection.get(), xcb_input_xi_query_version(connection.get(), 2, 2), nullptr));
    return version &&
        (version->major_version > 2 ||
         (version->major_version == 2 && version->minor_version >= 1));
}

} // namespace InputAccess
