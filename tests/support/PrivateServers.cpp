#include "support/PrivateServers.h"

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

using namespace std::chrono_literals;

namespace {

std::string tail(const std::string &path, size_t bytes = 1500)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    const std::string all = text.str();
    return all.size() > bytes ? all.substr(all.size() - bytes) : all;
}

PrivateServer startX(std::vector<std::string> argv, const std::string &log, const char *what)
{
    PrivateServer result;
    argv.insert(argv.end(), {"-displayfd", "1", "-nolisten", "tcp"});
    result.server = std::make_unique<ChildProcess>(argv, ChildProcess::Environment {}, log);
    // The server writes its display number once it accepts connections.
    if (std::optional<std::string> number = result.server->readLine(20s)) {
        result.address = ":" + *number;
        return result;
    }
    result.server.reset();
    result.error = std::string(what) + " did not start: " + tail(log);
    return result;
}

} // namespace

PrivateServer startXvfb(const std::string &dir, const std::string &size)
{
    return startX({"Xvfb", "-screen", "0", size + "x24", "-noreset"}, dir + "/xvfb.log", "Xvfb");
}

PrivateServer startXorgDummy(const std::string &dir)
{
    const std::string config = dir + "/xorg-dummy.conf";
    std::ofstream(config) << R"(Section "Device"
  Identifier "dummy"
  Driver "dummy"
  VideoRam 256000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5.0-1000.0
  VertRefresh 5.0-200.0
  Modeline "1920x1080" 148.50 1920 2008 2052 2200 1080 1084 1089 1125 +hsync +vsync
EndSection
Section "Screen"
  Identifier "screen"
  Device "dummy"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Modes "1920x1080"
    Virtual 3840 1080
  EndSubSection
EndSection
)";
    const std::string log = dir + "/xorg.log";
    return startX({"Xorg", "-config", config, "-noreset", "-logfile", log}, dir + "/xorg.out",
                  "Xorg with the dummy driver");
}

PrivateServer startPulse(const std::string &dir)
{
    PrivateServer result;
    const std::string socket = dir + "/pulse.sock";
    result.server = std::make_unique<ChildProcess>(
        std::vector<std::string> {"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1",
                                  "--disallow-exit", "--use-pid-file=no",
                                  "--load=module-native-protocol-unix socket=" + socket +
                                      " auth-anonymous=1",
                                  "--load=module-null-sink sink_name=private_null"},
        ChildProcess::Environment {{"HOME", dir}, {"XDG_RUNTIME_DIR", dir}}, dir + "/pulse.log");
    result.address = "unix:" + socket;
    const ChildProcess::Environment env {{"PULSE_SERVER", result.address}};
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (ChildProcess::run({"pactl", "set-default-sink", "private_null"}, env) == 0)
            return result;
        if (!result.server->running())
            break;
        std::this_thread::sleep_for(100ms);
    }
    result.server.reset();
    result.error = "pulseaudio did not start: " + tail(dir + "/pulse.log");
    return result;
}
