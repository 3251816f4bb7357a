// The command that leads to the other machine, such as ssh.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "base/Descriptor.h"

namespace kelvane::tool {

// It ends when its input does. What hangs is told to end, and then made to, by the destructor, which waits for it: for
// some seconds, or for less after a failure.
class Peer {
public:
    // Fails when there is no such program.
    explicit Peer(const std::vector<std::string>& words);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // The other ends of its standard input and output, once.
    Descriptor takeInput() { return std::move(m_input); }
    Descriptor takeOutput() { return std::move(m_output); }

    // How it has ended, once its output has, for people: "ended with 127".
    std::string end();

private:
    bool hasEnded();

    Descriptor m_input;
    Descriptor m_output;
    pid_t m_process = 0; // until it has ended
    int m_status = 0;
    int m_exceptions;
};

} // namespace kelvane::tool
