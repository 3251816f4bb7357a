// The words of a command that a user gives as one text.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/Failure.h"

namespace kelvane::tool {

// At spaces and tabs, but for those in quotes or behind a backslash; nothing else that a shell does. Fails when a quote
// is not closed. (wordexp runs what stands in $(); CLI11 takes a quote within a word, a backslash and a quote that is
// not closed for something else; GLib would do, as the largest library of the program for this alone.)
inline std::vector<std::string> splitWords(const std::string& command)
{
    std::vector<std::string> words;
    bool isInWord = false;
    char quote = 0;
    for (std::size_t i = 0; i < command.size(); ++i) {
        char c = command[i];
        if (quote == 0 && (c == ' ' || c == '\t')) {
            isInWord = false;
            continue;
        }
        if (!std::exchange(isInWord, true)) {
            words.emplace_back();
        }
        if (c == quote) {
            quote = 0;
        } else if (quote == 0 && (c == '\'' || c == '"')) {
            quote = c;
        } else {
            if (c == '\\' && quote != '\'' && i + 1 < command.size()) {
                c = command[++i];
            }
            words.back() += c;
        }
    }
    if (quote != 0) {
        throw Failure(command, "a quote is not closed");
    }
    return words;
}

} // namespace kelvane::tool
