#include "service/SettingsFile.h"

#include "service/CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

namespace {

std::string trimmed(const std::string &text)
{
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return {};
    const size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

bool isName(const std::string &name)
{
    return !name.empty() && name.front() != '-' &&
        std::all_of(name.begin(), name.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
        });
}

// Finds "--settings FILE" or "--settings=FILE" in `arguments`, removes it and returns FILE.
std::string takeSettingsPath(std::vector<std::string> &arguments)
{
    std::string path;
    for (size_t i = 0; i < arguments.size();) {
        if (arguments[i] == "--settings") {
            if (i + 1 >= arguments.size())
                throw CommandLine::Error("--settings needs a value.");
            path = arguments[i + 1];
            arguments.erase(arguments.begin() + long(i), arguments.begin() + long(i) + 2);
        } else if (arguments[i].rfind("--settings=", 0) == 0) {
            path = arguments[i].substr(std::strlen("--settings="));
            arguments.erase(arguments.begin() + long(i));
        } else {
            ++i;
        }
    }
    return path;
}

bool hasOption(const std::vector<std::string> &arguments, const std::string &name)
{
    return std::any_of(arguments.begin(), arguments.end(), [&](const std::string &argument) {
        return argument == "--" + name || argument.rfind("--" + name + "=", 0) == 0;
    });
}

} // namespace

namespace SettingsFile {

const char *const defaultPath = "/etc/vantrel-service/vantrel-service.conf";

std::vector<std::string> read(const std::string &path)
{
    std::ifstream in(path);
    if (!in)
        throw CommandLine::Error("Cannot read the settings file " + path + ": " +
                                 std::strerror(errno) + ".");
    std::vector<std::string> options;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string text = trimmed(line);
        if (text.empty() || text.front() == '#')
            continue;
        const std::string where = path + " line " + std::to_string(number);
        const size_t equals = text.find('=');
        if (equals == std::string::npos)
            throw CommandLine::Error(where + " is not a setting: write it as name = value.");
        const std::string name = trimmed(text.substr(0, equals));
        const std::string value = trimmed(text.substr(equals + 1));
        if (!isName(name) || name == "settings")
            throw CommandLine::Error(where + ": \"" + name +
                                     "\" is not the name of a setting (see the long options of "
                                     "vantrel-service --help, without their dashes).");
        if (value.empty())
            throw CommandLine::Error(where + ": " + name + " has no value.");
        if (value == "true")
            options.push_back("--" + name);
        else if (value != "false")
            options.push_back("--" + name + "=" + value);
    }
    if (in.bad())
        throw CommandLine::Error("Cannot read the settings file " + path + ".");
    return options;
}

std::vector<std::string> expand(const std::vector<std::string> &arguments, std::string &used)
{
    std::vector<std::string> rest = arguments;
    used = takeSettingsPath(rest);
    if (used.empty())
        return rest;
    std::vector<std::string> expanded = read(used);
    expanded.insert(expanded.end(), rest.begin(), rest.end());
    return expanded;
}

std::vector<std::string> dataOnly(const std::vector<std::string> &arguments)
{
    std::vector<std::string> rest = arguments;
    std::string path = takeSettingsPath(rest);
    if (hasOption(rest, "data"))
        return rest;
    struct stat info
    {
    };
    if (path.empty() && ::stat(defaultPath, &info) == 0)
        path = defaultPath;
    if (path.empty())
        return rest;
    for (const std::string &option : read(path)) {
        if (option.rfind("--data=", 0) == 0)
            rest.push_back(option);
    }
    return rest;
}

} // namespace SettingsFile
