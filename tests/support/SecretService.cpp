#include "support/SecretService.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

using namespace std::chrono_literals;

SecretService::SecretService(const std::string &dir, bool withKeyring)
{
    const std::string runtime = dir + "/.run";
    mkdir(runtime.c_str(), 0700);
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);

    // The system's session configuration would start gnome-keyring on the first request; this
    // bus only has what the test puts there.
    const std::string config = dir + "/session-bus.conf";
    std::ofstream(config)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:path="
        << runtime << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
        << "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
        << "<allow own=\"*\"/></policy></busconfig>\n";
    m_bus = std::make_unique<ChildProcess>(std::vector<std::string> {
        "dbus-daemon", "--config-file=" + config, "--nofork", "--print-address=1"});
    const std::optional<std::string> address = m_bus->readLine(10s);
    if (!address) {
        m_error = "dbus-daemon did not start";
        return;
    }
    m_address = *address;
    setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
    if (!withKeyring)
        return;

    // --unlock reads the new login keyring's password from standard input.
    m_keyring = std::make_unique<ChildProcess>(
        std::vector<std::string> {"bash", "-c",
                                  "exec gnome-keyring-daemon --foreground --unlock "
                                  "--components=secrets <<< test-password"},
        ChildProcess::Environment {}, dir + "/gnome-keyring.log");
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (keyringAnswers())
            return;
        if (!m_keyring->running())
            break;
        std::this_thread::sleep_for(50ms);
    }
    m_error = "gnome-keyring-daemon did not come up on the bus (see gnome-keyring.log)";
}

SecretService::~SecretService()
{
    m_keyring.reset();
    m_bus.reset();
}

bool SecretService::keyringAnswers()
{
    ChildProcess probe({"dbus-send", "--bus=" + m_address, "--print-reply",
                        "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                        "org.freedesktop.DBus.NameHasOwner", "string:org.freedesktop.secrets"});
    while (std::optional<std::string> line = probe.readLine(5s)) {
        if (line->find("boolean true") != std::string::npos)
            return true;
    }
    return false;
}
