#include "remote/Peer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <thread>

#include "base/Failure.h"

extern char** environ;

namespace kelvane::tool {

namespace {

struct Pipe {
    Pipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw Failure("pipe", errorText(errno));
        }
        out = Descriptor(ends[0]);
        in = Descriptor(ends[1]);
    }

    Descriptor out; // what is read from
    Descriptor in;
};

} // namespace

Peer::Peer(const std::vector<std::string>& words)
    : m_exceptions(std::uncaught_exceptions())
{
    Pipe there;
    Pipe back;
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, there.out.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, back.in.get(), STDOUT_FILENO);
    const int error = ::posix_spawnp(&m_process, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw Failure(words[0], "cannot run: " + errorText(error));
    }
    m_input = std::move(there.in);
    m_output = std::move(back.out);
}

Peer::~Peer()
{
    using Clock = std::chrono::steady_clock;
    const auto patience = std::chrono::milliseconds(std::uncaught_exceptions() > m_exceptions ? 200 : 5000);
    const auto begin = Clock::now();
    auto pause = std::chrono::milliseconds(1);
    bool isTold = false;
    while (!hasEnded()) {
        if (Clock::now() - begin >= patience + (isTold ? std::chrono::seconds(2) : std::chrono::seconds(0))) {
            ::kill(m_process, std::exchange(isTold, true) ? SIGKILL : SIGTERM);
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, std::chrono::milliseconds(20));
    }
}

std::string Peer::end()
{
    for (int i = 0; i < 100 && !hasEnded(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return !hasEnded()        ? "closed the connection"
        : WIFEXITED(m_status) ? "ended with " + std::to_string(WEXITSTATUS(m_status))
                              : "was ended by signal " + std::to_string(WTERMSIG(m_status));
}

bool Peer::hasEnded()
{
    if (m_process != 0 && ::waitpid(m_process, &m_status, WNOHANG) != 0) {
        m_process = 0;
    }
    return m_process == 0;
}

} // namespace kelvane::tool
