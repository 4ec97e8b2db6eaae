#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

// The words and options of one command: "user add EMAIL --name NAME --data DIR". Options may
// stand anywhere after the command's words; "--name=NAME" works too.
class CommandLine
{
public:
    class Error : public std::runtime_error
    {
    public:
        using std::runtime_error::runtime_error;
    };

    // `valued` options take a value, `flags` do not. Throws Error for an unknown option or a
    // missing value.
    CommandLine(const std::vector<std::string> &arguments, const std::set<std::string> &valued,
                const std::set<std::string> &flags = {});

    const std::vector<std::string> &words() const { return m_words; }
    // The option's value; of an option given more than once, the last.
    std::optional<std::string> option(const std::string &name) const;
    // Every value of an option that may be repeated, in order.
    std::vector<std::string> values(const std::string &name) const;
    // The option's value; throws Error naming the option when it is missing.
    std::string required(const std::string &name) const;
    bool flag(const std::string &name) const { return m_flags.contains(name); }

    // "2G", "500M", "64K" or plain bytes.
    static uint64_t parseSize(const std::string &text, const std::string &option);
    static int parseInteger(const std::string &text, const std::string &option, int low, int high);

private:
    std::vector<std::string> m_words;
    std::map<std::string, std::vector<std::string>> m_options;
    std::set<std::string> m_flags;
};
