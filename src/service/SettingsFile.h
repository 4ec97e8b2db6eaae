#pragma once

#include <string>
#include <vector>

// The settings file an operator edits, read at start: one "name = value" a line, each the long
// option --name of the command line, so every option serve takes (and any added later) can be
// set there without a list of its own here. "name = true" gives a flag, "name = false" leaves it
// out; "#" starts a comment line. An option that may be repeated is repeated on several lines.
// The command line still works and wins: its options come after the file's, and of an option
// given twice the last counts.
namespace SettingsFile {

// Where the .deb's unit and root's commands look when no file is named.
extern const char *const defaultPath;

// The file's options as arguments ("--listen=127.0.0.1:8443"). Throws CommandLine::Error with a
// sentence naming the file and line for a line that is no setting, or a file that cannot be read.
std::vector<std::string> read(const std::string &path);

// `arguments` with "--settings FILE" (or "--settings=FILE") replaced by the file's options, put
// before the rest. Sets `used` to the file read, or leaves it empty when none was named.
std::vector<std::string> expand(const std::vector<std::string> &arguments, std::string &used);

// For the commands that need only the data folder: "--settings FILE" is taken out, and when no
// --data is given, the file's "data" is added (from the default file when none is named and it
// exists), so root's commands find the installed service's data.
std::vector<std::string> dataOnly(const std::vector<std::string> &arguments);

} // namespace SettingsFile
