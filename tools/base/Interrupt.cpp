#include "base/Interrupt.h"

#include <atomic>
#include <csignal>

namespace kelvane::tool {

namespace {

std::atomic<int> received = 0;
std::atomic<int> finishing = 0;
std::atomic<int> startingAnew = 0;
static_assert(std::atomic<int>::is_always_lock_free, "set in a signal handler");

extern "C" void rememberSignal(int signal)
{
    received = signal;
}

} // namespace

void installInterruptHandler()
{
    struct sigaction action = {};
    action.sa_handler = rememberSignal;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND); // the second one ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_flags = SA_RESTART; // a terminal that is closed sends it several times
    struct sigaction former = {};
    if (sigaction(SIGHUP, nullptr, &former) == 0 && former.sa_handler != SIG_IGN) { // as nohup leaves it
        sigaction(SIGHUP, &action, nullptr);
    }
    std::signal(SIGXFSZ, SIG_IGN); // a file at its largest size is an error with a cause
}

int interruptSignal()
{
    return received;
}

LettingFinish::LettingFinish()
{
    ++finishing;
}

LettingFinish::~LettingFinish()
{
    --finishing;
}

StartingAnew::StartingAnew(bool startsAnew)
    : m_startsAnew(startsAnew)
{
    startingAnew += m_startsAnew ? 1 : 0;
}

StartingAnew::~StartingAnew()
{
    startingAnew -= m_startsAnew ? 1 : 0;
}

void throwWhenInterrupted()
{
    if (received != 0 && finishing == 0) {
        throw Interrupted(startingAnew != 0);
    }
}

} // namespace kelvane::tool
