#include "service/HeadlessBrowser.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

using nlohmann::json;

namespace {

std::string decodeBase64(const std::string &text)
{
    std::string bytes(text.size() / 4 * 3 + 3, '\0');
    const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                                     reinterpret_cast<const unsigned char *>(text.data()),
                                     static_cast<int>(text.size()));
    if (size < 0)
        throw std::runtime_error("screenshot is not base64");
    size_t padding = 0;
    for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i)
        ++padding;
    bytes.resize(size_t(size) - padding);
    return bytes;
}

} // namespace

HeadlessBrowser::HeadlessBrowser()
{
    char pattern[] = "/tmp/vantrel-chromium-XXXXXX";
    if (!::mkdtemp(pattern))
        throw std::runtime_error("cannot make a browser profile folder");
    m_profile = pattern;
    int commands[2], replies[2];
    if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(replies, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make pipes");
    const std::vector<std::string> arguments {"chromium",
                                              "--headless",
                                              "--no-sandbox",
                                              "--disable-gpu",
                                              "--disable-background-networking",
                                              "--disable-component-update",
                                              "--disable-sync",
                                              "--disable-quic",
                                              "--no-first-run",
                                              "--disable-default-apps",
                                              "--mute-audio",
                                              "--ignore-certificate-errors",
                                              "--window-size=1280,900",
                                              "--remote-debugging-pipe",
                                              "--user-data-dir=" + m_profile.string(),
                                              "about:blank"};
    std::vector<char *> argv;
    std::vector<std::string> copies = arguments;
    for (std::string &argument : copies)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const std::string log = (m_profile / "chromium.log").string();
    m_pid = ::fork();
    if (m_pid == 0) {
        ::setsid();
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The DevTools pipe is the browser's fd 3 (commands in) and fd 4 (replies out).
        ::dup2(commands[0], 3);
        ::dup2(replies[1], 4);
        const int devNull = ::open("/dev/null", O_RDWR);
        const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(devNull, 0);
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(commands[0]);
    ::close(replies[1]);
    m_toBrowser = commands[1];
    m_fromBrowser = replies[0];
    if (m_pid < 0)
        throw std::runtime_error("cannot start chromium");
}

HeadlessBrowser::~HeadlessBrowser()
{
    if (m_toBrowser >= 0)
        ::close(m_toBrowser);
    if (m_fromBrowser >= 0)
        ::close(m_fromBrowser);
    if (m_pid > 0) {
        ::kill(m_pid, SIGTERM);
        for (int i = 0; i < 50 && ::waitpid(m_pid, nullptr, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    std::error_code error;
    std::filesystem::remove_all(m_profile, error);
}

json HeadlessBrowser::readMessage(std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        const size_t end = m_pending.find('\0');
        if (end != std::string::npos) {
            json message = json::parse(m_pending.substr(0, end), nullptr, false);
            m_pending.erase(0, end + 1);
            return message;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            throw std::runtime_error("chromium did not answer in time");
        pollfd p {m_fromBrowser, POLLIN, 0};
        if (::poll(&p, 1, int(left.count())) <= 0)
            continue;
        char buffer[65536];
        const ssize_t n = ::read(m_fromBrowser, buffer, sizeof buffer);
        if (n <= 0)
            throw std::runtime_error("chromium closed its DevTools pipe");
        m_pending.append(buffer, size_t(n));
    }
}

json HeadlessBrowser::call(const std::string &method, const json &params)
{
    const int id = m_nextId++;
    json message {{"id", id}, {"method", method}, {"params", params}};
    if (!m_session.empty() && method.rfind("Target.", 0) != 0)
        message["sessionId"] = m_session;
    const std::string text = message.dump() + '\0';
    if (::write(m_toBrowser, text.data(), text.size()) != ssize_t(text.size()))
        throw std::runtime_error("cannot write to chromium");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const json reply = readMessage(deadline);
        if (reply.value("method", "") == "Page.loadEventFired")
            m_loaded = true;
        if (reply.value("id", -1) != id)
            continue;
        if (reply.contains("error"))
            throw std::runtime_error(method + " failed: " + reply["error"].dump());
        return reply.value("result", json::object());
    }
}

void HeadlessBrowser::open(const std::string &url)
{
    const json target = call("Target.createTarget", {{"url", "about:blank"}});
    const json attached =
        call("Target.attachToTarget", {{"targetId", target["targetId"]}, {"flatten", true}});
    m_session = attached["sessionId"];
    call("Page.enable");
    m_loaded = false;
    call("Page.navigate", {{"url", url}});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!m_loaded) {
        const json event = readMessage(deadline);
        if (event.value("method", "") == "Page.loadEventFired")
            m_loaded = true;
    }
}

json HeadlessBrowser::evaluate(const std::string &expression)
{
    const json result =
        call("Runtime.evaluate",
             {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
    if (result.contains("exceptionDetails"))
        throw std::runtime_error("JavaScript failed: " + result["exceptionDetails"].dump());
    return result["result"].value("value", json());
}

bool HeadlessBrowser::waitUntil(const std::string &expression, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (evaluate(expression) == true)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

void HeadlessBrowser::screenshot(const std::filesystem::path &png)
{
    const json shot = call("Page.captureScreenshot", {{"format", "png"}});
    std::ofstream out(png, std::ios::binary | std::ios::trunc);
    out << decodeBase64(shot["data"].get<std::string>());
}
