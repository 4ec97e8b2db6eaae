#pragma once

#include <QString>

// The one object that owns the live capture. For now it only holds the engine's log writer.
class ClipEngine
{
public:
    // Appends one dated line to the log file and sends the message to the system log too.
    static void log(const QString &message);
};
