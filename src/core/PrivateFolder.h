#pragma once

#include <QString>

// Folders only this user can enter, for what another local user must neither read nor plant: the
// single-instance socket (links carry sign-in codes) and downloaded updates. Never the shared
// temporary folder: anyone can create a name there first.
namespace PrivateFolder {

// The folder at `path`, made with mode 0700 (and its missing parents) when it does not exist.
// Empty when what is there cannot be trusted: a symbolic link, something other than a folder, a
// folder of another user, or one of ours open to others that cannot be closed.
QString ensure(const QString &path);

// A new folder with a unique name ("PREFIX" and six random characters) inside the private folder
// `parent` (made as ensure() makes it), created 0700; empty when either cannot be made.
QString makeUnique(const QString &parent, const QString &prefix);

// $XDG_RUNTIME_DIR when it is set and a folder of this user's that only they can enter; empty
// otherwise.
QString runtimeBase();
// The user's cache folder: $XDG_CACHE_HOME, or ~/.cache.
QString cacheBase();

} // namespace PrivateFolder
