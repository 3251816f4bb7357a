// Ctrl-C, SIGTERM, and a terminal that is closed: commands stop between two steps, with everything in order.
#pragma once

#include <exception>

namespace kelvane::tool {

// Thrown where a command can stop.
class Interrupted : public std::exception {
public:
    explicit Interrupted(bool startsAnew = false)
        : m_startsAnew(startsAnew)
    {
    }

    const char* what() const noexcept override
    {
        return m_startsAnew ? "interrupted; the hash files are in order, the same command checks everything again"
                            : "interrupted; the hash files are in order, the same command goes on from here";
    }

private:
    bool m_startsAnew;
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

// While one lives that is true, the next run has to do again what is interrupted.
class StartingAnew {
public:
    explicit StartingAnew(bool startsAnew = true);
    ~StartingAnew();
    StartingAnew(const StartingAnew&) = delete;
    StartingAnew& operator=(const StartingAnew&) = delete;

private:
    bool m_startsAnew;
};

} // namespace kelvane::tool
