#pragma once

#include <QFuture>
#include <QString>

// The last step of saving a clip: hands the exported file over to the library.
namespace ClipFinish {

// The export already wrote the clip into the recordings folder under its final name, so the
// clip's place in the library is that same path; the library shows it at its next refresh.
// Never fails for an exported file.
QFuture<QString> publish(const QString &clip);

} // namespace ClipFinish
