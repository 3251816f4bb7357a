#include "terminal/Note.h"

#include <cstdio>
#include <utility>

namespace kelvane::tool {

namespace {

std::function<bool(const std::string&)> listener;

} // namespace

void note(const std::string& text)
{
    if (!listener || !listener(text)) {
        std::fprintf(stderr, "kelvane-hash: note: %s\n", text.c_str());
    }
}

void listenToNotes(std::function<bool(const std::string& text)> next)
{
    listener = std::move(next);
}

} // namespace kelvane::tool
