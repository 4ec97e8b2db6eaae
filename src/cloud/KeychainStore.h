#pragma once

#include <QString>

#include <optional>

#include <qcoro/qcorotask.h>

// The sign-in token in the user's secret store (the Secret Service: GNOME Keyring, KWallet…),
// under the service "com.quillfen.vantrel.session" and the key "session". The token is never
// written anywhere else: with no secret store the user stays signed in for this run only, and
// the log says why, once. Main thread only; the operations run one after another in the order
// they were started.
namespace KeychainStore {

// Stores the token, replacing any earlier one. True once the store has it.
QCoro::Task<bool> save(QString token);

// The stored token; none when there is none, or the store cannot be reached or read. Waits for
// the store's answer while the event loop keeps running.
std::optional<QString> load();

// Removes the stored token. True once it is gone (or was never there).
QCoro::Task<bool> remove();

} // namespace KeychainStore
