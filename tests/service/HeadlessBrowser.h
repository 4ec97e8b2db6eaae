#pragma once

#include <nlohmann/json.hpp>

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>

// Debian's Chromium without a display, driven over its DevTools pipe (no WebSocket, no npm): a
// page is opened, JavaScript is evaluated in it, and a screenshot taken. The browser trusts any
// certificate, since it is pointed only at the test's own server on 127.0.0.1.
class HeadlessBrowser
{
public:
    HeadlessBrowser();
    ~HeadlessBrowser();
    HeadlessBrowser(const HeadlessBrowser &) = delete;
    HeadlessBrowser &operator=(const HeadlessBrowser &) = delete;

    // Opens the page in a new tab and waits for its load event.
    void open(const std::string &url);
    // The value of a JavaScript expression evaluated in the page (promises are awaited).
    nlohmann::json evaluate(const std::string &expression);
    // Waits until the expression is true; false when the time ran out.
    bool waitUntil(const std::string &expression,
                   std::chrono::milliseconds timeout = std::chrono::seconds(20));
    void screenshot(const std::filesystem::path &png);

private:
    nlohmann::json call(const std::string &method,
                        const nlohmann::json &params = nlohmann::json::object());
    nlohmann::json readMessage(std::chrono::steady_clock::time_point deadline);

    pid_t m_pid = -1;
    int m_toBrowser = -1;
    int m_fromBrowser = -1;
    int m_nextId = 1;
    std::string m_pending;
    std::string m_session;
    bool m_loaded = false;
    std::filesystem::path m_profile;
};
