// The far side of a comparison or a copy: answers on standard output what is asked on standard input.
#pragma once

#include <string>

#include "base/Reporter.h"

namespace kelvane::tool {

struct ServeArguments {
    std::string root; // empty: every path is served
    bool isReadOnly = false;
};

// Until the other side is done, or has gone. What fails is told to the other side; false then. So are notes; those that
// it does not take are told by the reporter.
bool serveOther(const ServeArguments& arguments, Reporter& reporter);

} // namespace kelvane::tool
