#include "image/ExclusiveUse.h"

#include <fcntl.h>

#include <atomic>
#include <csignal>

namespace kelvane::tool {

namespace {

std::atomic<int> leased = -1; // the descriptor
std::atomic<bool> shared = false;

// The one that opens the image waits until the lease is given back.
extern "C" void giveBack(int /*signal*/)
{
    shared = true;
    ::fcntl(leased, F_SETLEASE, F_UNLCK);
}

} // namespace

ExclusiveUse::ExclusiveUse(const Image& image)
{
    struct sigaction action = {};
    action.sa_handler = giveBack;
    action.sa_flags = SA_RESTART;
    sigaction(SIGIO, &action, nullptr);
    shared = false;
    leased = image.descriptor();
    m_isGranted = ::fcntl(leased, F_SETLEASE, F_WRLCK) == 0;
}

ExclusiveUse::~ExclusiveUse()
{
    ::fcntl(leased, F_SETLEASE, F_UNLCK);
    leased = -1;
}

bool ExclusiveUse::isGranted() const
{
    return m_isGranted && !shared;
}

} // namespace kelvane::tool
