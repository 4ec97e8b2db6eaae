#pragma once

#include "cloud/CloudError.h"

#include <QEventLoop>
#include <QString>

#include <exception>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>

#include <qcoro/qcorotask.h>

// How a service call ended, for comparing in one line: a CloudError message, `unauthorized`, a
// failure below HTTP ("other", with its sentence) or no failure at all.
struct Outcome
{
    enum class Kind { none, message, unauthorized, other };
    Kind kind = Kind::none;
    QString text;

    static Outcome message(const QString &text) { return {Kind::message, text}; }
    static Outcome unauthorized()
    {
        return {Kind::unauthorized, QStringLiteral("Please sign in again.")};
    }
    static Outcome other(const QString &text) { return {Kind::other, text}; }

    friend bool operator==(const Outcome &, const Outcome &) = default;
    friend std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
    {
        static const char *const names[] = {"none", "message", "unauthorized", "other"};
        return out << names[int(outcome.kind)] << " \"" << outcome.text.toStdString() << '"';
    }
};

namespace detail {

template<typename T> struct Settled
{
    std::optional<T> value;
};
template<> struct Settled<void>
{
};

template<typename T>
QCoro::Task<void> settle(QCoro::Task<T> task, Settled<T> &result, std::exception_ptr &error,
                         bool &done, QEventLoop &loop)
{
    try {
        if constexpr (std::is_void_v<T>)
            co_await task;
        else
            result.value = co_await task;
    } catch (...) {
        error = std::current_exception();
    }
    done = true;
    loop.quit();
}

} // namespace detail

// Runs the call to its end in a local event loop and returns its result or throws its error
// (QCoro's own waitFor never returns when the task throws).
template<typename T> T await(QCoro::Task<T> task)
{
    QEventLoop loop;
    detail::Settled<T> result;
    std::exception_ptr error;
    bool done = false;
    detail::settle(std::move(task), result, error, done, loop);
    if (!done)
        loop.exec();
    if (error)
        std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*result.value);
}

// How the call ended.
template<typename T> Outcome outcomeOf(QCoro::Task<T> task)
{
    try {
        await(std::move(task));
    } catch (const CloudError &error) {
        return error == CloudError::unauthorized() ? Outcome::unauthorized()
                                                   : Outcome::message(error.text());
    } catch (const std::exception &error) {
        return Outcome::other(QString::fromUtf8(error.what()));
    }
    return {};
}

// Spins the event loop until `done` or the time runs out; true when done.
bool waitUntil(const std::function<bool()> &done, int timeoutMs);
