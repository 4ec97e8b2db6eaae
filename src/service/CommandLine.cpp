#include "service/CommandLine.h"

#include <charconv>
#include <cstdint>

CommandLine::CommandLine(const std::vector<std::string> &arguments,
                         const std::set<std::string> &valued, const std::set<std::string> &flags)
{
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string &argument = arguments[i];
        if (argument.size() < 3 || argument.compare(0, 2, "--") != 0) {
            m_words.push_back(argument);
            continue;
        }
        std::string name = argument.substr(2);
        std::optional<std::string> value;
        if (const size_t equals = name.find('='); equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
        }
        if (flags.contains(name) && !value) {
            m_flags.insert(name);
        } else if (valued.contains(name)) {
            if (!value) {
                if (i + 1 >= arguments.size())
                    throw Error("--" + name + " needs a value.");
                value = arguments[++i];
            }
            m_options[name].push_back(*value);
        } else {
            throw Error("Unknown option --" + name + ".");
        }
    }
}

std::optional<std::string> CommandLine::option(const std::string &name) const
{
    const auto it = m_options.find(name);
    if (it == m_options.end())
        return std::nullopt;
    return it->second.back();
}

std::vector<std::string> CommandLine::values(const std::string &name) const
{
    const auto it = m_options.find(name);
    return it == m_options.end() ? std::vector<std::string>() : it->second;
}

std::string CommandLine::required(const std::string &name) const
{
    const std::optional<std::string> value = option(name);
    if (!value || value->empty())
        throw Error("--" + name + " is required.");
    return *value;
}

uint64_t CommandLine::parseSize(const std::string &text, const std::string &option)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const std::string unit(end, text.data() + text.size());
    int shift = 0;
    if (unit == "K" || unit == "k")
        shift = 10;
    else if (unit == "M" || unit == "m")
        shift = 20;
    else if (unit == "G" || unit == "g")
        shift = 30;
    else if (!unit.empty())
        shift = -1;
    if (error != std::errc() || shift < 0 || value == 0 || value > (uint64_t(1) << (62 - shift)))
        throw Error("--" + option + " takes a size such as 2G, 500M or 1048576, not \"" + text +
                    "\".");
    return value << shift;
}

int CommandLine::parseInteger(const std::string &text, const std::string &option, int low, int high)
{
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high)
        throw Error("--" + option + " takes a whole number from " + std::to_string(low) + " to " +
                    std::to_string(high) + ", not \"" + text + "\".");
    return value;
}
