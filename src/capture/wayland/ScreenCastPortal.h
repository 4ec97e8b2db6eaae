#pragma once

#include <QDBusConnection>
#include <QString>

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>

// The desktop portal's ScreenCast interface: the Wayland way to be allowed to record a monitor.
// open() creates a session, asks for one monitor with the cursor drawn in, starts it (the
// desktop may ask the user here, unless a restore token from an earlier arming stands for the
// user's answer) and returns the PipeWire node to read; pipeWireRemote() opens the connection to
// PipeWire that reaches it. The session lasts until close() or the destructor.
//
// Blocking: every call waits on the calling thread (see DesktopPortal::request). Not meant to be
// used from two threads at once, except close(), which may race with the rest.
class ScreenCastPortal
{
public:
    // What the portal gave us to record.
    struct Stream
    {
        uint32_t node = 0; // the PipeWire node
        int width = 0; // the monitor's size in pixels as the portal reports it; 0 when it did not
        int height = 0;
        QString restoreToken; // for the next arming; empty when the portal gave none
        bool cursorEmbedded = false;
    };

    // The user said no (cancelled the chooser, refused), or the desktop would not share.
    struct Refused : std::runtime_error
    {
        Refused(bool cancelled, const std::string &what)
            : std::runtime_error(what)
            , cancelled(cancelled)
        {
        }
        const bool cancelled; // response 1; otherwise response 2
    };

    ScreenCastPortal();
    ~ScreenCastPortal(); // closes
    ScreenCastPortal(const ScreenCastPortal &) = delete;
    ScreenCastPortal &operator=(const ScreenCastPortal &) = delete;

    // Throws Refused, or DesktopPortal::Failure when the portal is missing, failed or did not
    // answer (the selection has `consentTime` for the user to decide; every other step 10 s).
    Stream open(const QString &restoreToken, std::chrono::milliseconds consentTime);
    // A new descriptor of the PipeWire connection for this session, owned by the caller.
    // Throws DesktopPortal::Failure.
    int pipeWireRemote();
    // Ends the session: the desktop stops sharing. Safe to call twice.
    void close();

private:
    QDBusConnection m_bus;
    std::mutex m_lock; // guards m_session
    QString m_session; // the session's object path; empty when none is open
};
