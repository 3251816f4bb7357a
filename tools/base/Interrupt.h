// Ctrl-C and SIGTERM: commands stop between two steps, with everything in order.
#pragma once

#include <exception>

namespace kelvane::tool {

// Thrown where a command can stop.
class Interrupted : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted"; }
};

void installInterruptHandler();

// The signal that asked to stop, or 0.
int interruptSignal();

void throwWhenInterrupted();

} // namespace kelvane::tool
