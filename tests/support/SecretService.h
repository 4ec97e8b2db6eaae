#pragma once

#include "support/ChildProcess.h"

#include <memory>
#include <string>

// A session bus of the test's own, with nothing on it that starts by itself, and optionally the
// Secret Service (gnome-keyring) on it with a fresh, unlocked login keyring under the test's
// HOME. Starting one points this process's DBUS_SESSION_BUS_ADDRESS and XDG_RUNTIME_DIR at it,
// so child processes started afterwards share it. Both servers stop when it goes.
class SecretService
{
public:
    // `dir` is a private folder (the test's home); empty `error` means it runs.
    SecretService(const std::string &dir, bool withKeyring);
    ~SecretService();
    SecretService(const SecretService &) = delete;
    SecretService &operator=(const SecretService &) = delete;

    const std::string &error() const { return m_error; }
    const std::string &busAddress() const { return m_address; }

private:
    bool keyringAnswers();

    std::unique_ptr<ChildProcess> m_bus;
    std::unique_ptr<ChildProcess> m_keyring;
    std::string m_address;
    std::string m_error;
};
