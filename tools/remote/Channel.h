// Frames to and from the other side, over two pipes.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/Bytes.h"
#include "base/Descriptor.h"
#include "base/Failure.h"

namespace kelvane::tool {

enum class FrameType : std::uint8_t {
    Hello = 1,
    Open,
    Opened,
    Start,
    Started,
    Progress,
    AskNodes,
    AskBytes,
    Digests,
    DropCache,
    Read,
    Data,
    End,
    StartWriting,
    Written,
    Distrust,
    Conclude,
    Concluded,
    Error,
    Alive,
    Note,
    Announce
};

struct Frame {
    FrameType type;
    Bytes payload;
};

// The other side has gone.
class ChannelClosed : public Failure {
public:
    using Failure::Failure;
};

// Everything that waits ends with Interrupted at a signal, and with a Failure when the other side has said nothing for
// the timeout, or nothing but that it is alive and busy for far longer. To be used by one thread at a time; one of its
// own tells the other side that this one is alive.
class Channel {
public:
    static constexpr std::uint32_t LARGEST_FRAME = (1 << 20) + (1 << 12);

    Channel(Descriptor in, Descriptor out, std::string peer);
    ~Channel();

    const std::string& peer() const { return m_peer; }
    void setTimeout(std::chrono::seconds timeout);

    // Until the first byte has come, the timeout is this long at least.
    void expectLateBeginning(std::chrono::seconds time) { m_beginsWithin = time; }

    // What is waited for comes within a day, or later where one side may have to read an image of so many bytes first.
    void allowTimeFor(std::int64_t bytes);

    void limitSending(std::int64_t bytesPerSecond) { m_bytesPerSecond = bytesPerSecond; } // of what is sent; 0: none
    std::int64_t bytesPerSecond() const { return m_bytesPerSecond; }

    // The payload is what its parts hold, one behind the other; they are only read.
    using Parts = std::initializer_list<std::string_view>;
    void send(FrameType type, Parts payload);
    void send(FrameType type, const std::string& payload = {}) { send(type, {std::string_view(payload)}); }

    // Memory for what is to be sent or received.
    BytesPool& pool() { return *m_pool; }

    // Unless the other side has not yet taken what was sent before, or it is more than a pipe takes at once.
    bool sendIfIdle(FrameType type, const std::string& payload = {});

    // So far, all frames counted.
    std::int64_t bytesSent() const { return m_bytesSent; }
    std::int64_t bytesReceived() const { return m_bytesReceived; }

    // The next frame that is no sign of life.
    Frame receive();

    // The first line of what has come instead of frames, when that looks like a text.
    std::optional<std::string> textInsteadOfFrames();

    // Whether all that waits ends with Interrupted, without a signal. From any thread.
    void stopWaiting(bool stops) { m_stops = stops; }

private:
    using Clock = std::chrono::steady_clock;

    enum class Wait { ToRead, ToWrite, ForTime };

    void sendAll(std::vector<iovec> parts);
    void showLife(const std::stop_token& stop);
    void waitFor(Wait wait);
    bool waitShortly(Wait wait, std::chrono::milliseconds most);
    void endWhenLate();
    void readSome();
    void take(std::string_view received);
    void takeHeader();
    void takePayload();
    void holdBack(std::size_t bytes);

    Descriptor m_in;
    Descriptor m_out;
    std::string m_peer;
    std::chrono::seconds m_timeout {60};
    std::chrono::seconds m_beginsWithin {0};
    std::chrono::seconds m_patience {std::chrono::hours(24)};
    std::optional<Clock::time_point> m_givesUp; // what is waited for
    std::int64_t m_bytesPerSecond = 0;
    Clock::time_point m_mayBeSent = Clock::now();
    Clock::time_point m_heard = Clock::now();
    std::shared_ptr<BytesPool> m_pool = std::make_shared<BytesPool>(LARGEST_FRAME);
    std::string m_beginning;         // of what has come, up to the first frame
    std::string m_header;            // of the next frame, as much of it as has come
    std::optional<Frame> m_arriving; // once its header has come
    std::uint32_t m_check = 0;       // of its payload
    std::size_t m_arrived = 0;       // of that
    std::deque<Frame> m_frames;
    std::size_t m_held = 0;      // bytes in these
    std::exception_ptr m_broken; // why what follows them is none
    std::atomic<bool> m_stops = false;
    std::int64_t m_taken = 0; // frames that have come
    std::int64_t m_sent = 0;
    std::atomic<std::int64_t> m_bytesReceived = 0;
    std::atomic<std::int64_t> m_bytesSent = 0;
    std::mutex m_sending;
    std::condition_variable_any m_ends;
    std::jthread m_life;
};

} // namespace kelvane::tool
