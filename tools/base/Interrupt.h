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

// While one lives, nothing is interrupted: what was begun is brought to an end.
class LettingFinish {
public:
    LettingFinish();
    ~LettingFinish();
    LettingFinish(const LettingFinish&) = delete;
    LettingFinish& operator=(const LettingFinish&) = delete;
};

} // namespace kelvane::tool
