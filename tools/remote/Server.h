// The far side of a comparison or a copy: answers on standard output what is asked on standard input.
#pragma once

#include <string>

namespace kelvane::tool {

struct ServeArguments {
    std::string root; // empty: every path is served
    bool isReadOnly = false;
};

// Until the other side is done, or has gone. What fails is told to the other side; false then.
bool serveOther(const ServeArguments& arguments);

} // namespace kelvane::tool
