// What a command has to say while it works, for its user to know.
#pragma once

#include <functional>
#include <string>

namespace kelvane::tool {

// A line on standard error.
void note(const std::string& text);

// Who is told instead; whoever returns false did not take it. Nobody when empty. May be called by any thread.
void listenToNotes(std::function<bool(const std::string& text)> listener);

} // namespace kelvane::tool
