#include "remote/Channel.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <kelvane/BlakeHash.h>
#include <utility>

#include "base/Interrupt.h"
#include "base/Text.h"
#include "remote/Wire.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t HEADER = 13;               // a frame's length, type, check of its payload, check of all this
constexpr std::size_t AT_ONCE = 1 << 18;         // bytes per read
constexpr std::chrono::milliseconds MOMENT(100); // after which a signal is noticed at the latest

void makeNonBlocking(int fd)
{
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

std::uint32_t checkOf(std::string_view bytes)
{
    const auto digest = BlakeHash().get_hash(const_cast<char*>(bytes.data()), std::ssize(bytes)); // which is only read
    return FieldReader({reinterpret_cast<const char*>(digest.data()), digest.size()}).u32();
}

// The check of a header takes in the frame's number in its direction, so that no loss goes unnoticed.
std::uint32_t checkOfHeader(std::string_view header, std::int64_t number)
{
    return checkOf(FieldWriter().bytes(header.data(), header.size()).i64(number).done());
}

std::string frameOf(FrameType type, const std::string& payload, std::int64_t number)
{
    FieldWriter frame;
    frame.u32(static_cast<std::uint32_t>(payload.size())).u8(static_cast<std::uint8_t>(type)).u32(checkOf(payload));
    return frame.u32(checkOfHeader(frame.done(), number)).bytes(payload.data(), payload.size()).done();
}

} // namespace

Channel::Channel(Descriptor in, Descriptor out, std::string peer)
    : m_in(std::move(in))
    , m_out(std::move(out))
    , m_peer(std::move(peer))
{
    makeNonBlocking(m_in.get());
    makeNonBlocking(m_out.get());
    std::signal(SIGPIPE, SIG_IGN); // writing fails then
}

Channel::~Channel() = default;

void Channel::setTimeout(std::chrono::seconds timeout)
{
    m_timeout = timeout;
    m_life = std::jthread([this](const std::stop_token& stop) { showLife(stop); });
}

void Channel::showLife(const std::stop_token& stop)
{
    std::mutex mutex;
    std::unique_lock lock(mutex);
    const auto interval = std::chrono::milliseconds(m_timeout) / 4;
    while (!m_ends.wait_for(lock, stop, interval, [&] { return stop.stop_requested(); })) {
        sendIfIdle(FrameType::Alive);
    }
}

// Small frames: a pipe that takes anything takes them whole.
bool Channel::sendIfIdle(FrameType type, const std::string& payload)
{
    const std::unique_lock sending(m_sending, std::try_to_lock);
    pollfd out = {m_out.get(), POLLOUT, 0};
    if (sending && ::poll(&out, 1, 0) == 1 && (out.revents & POLLOUT) != 0) {
        const std::string frame = frameOf(type, payload, m_sent);
        if (frame.size() <= PIPE_BUF && ::write(m_out.get(), frame.data(), frame.size()) > 0) {
            ++m_sent;
            m_bytesSent += std::ssize(frame);
            return true;
        }
    }
    return false;
}

// Waits for a moment at most. Whatever it waits for, it takes in what has arrived, for the other side may be waiting
// for that, and what has gone is noticed.
bool Channel::waitShortly(Wait wait, std::chrono::milliseconds most)
{
    throwWhenInterrupted();
    if (m_stops) {
        throw Interrupted();
    }
    const bool isWriting = wait == Wait::ToWrite;
    const bool hasRoom = m_received.size() - m_used + m_held < 2 * LARGEST_FRAME;
    pollfd both[] = {{m_in.get(), static_cast<short>(wait == Wait::ToRead || hasRoom ? POLLIN : 0), 0},
                     {m_out.get(), POLLOUT, 0}};
    const int ready = ::poll(both, isWriting ? 2 : 1, static_cast<int>(most.count()));
    if (ready > 0 && both[0].revents != 0) {
        readSome();
    }
    if (Clock::now() - m_heard > m_timeout) {
        throw Failure(m_peer, "no sign of life for " + counted(m_timeout.count(), "second"));
    }
    return ready > 0 && (!isWriting || both[1].revents != 0);
}

void Channel::waitFor(Wait wait)
{
    while (!waitShortly(wait, MOMENT)) { }
}

void Channel::readSome()
{
    m_received.erase(0, std::exchange(m_used, 0));
    const std::size_t before = m_received.size();
    m_received.resize(before + AT_ONCE);
    const ssize_t count = ::read(m_in.get(), m_received.data() + before, AT_ONCE);
    m_received.resize(before + static_cast<std::size_t>(std::max<ssize_t>(0, count)));
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        throw ChannelClosed(m_peer, "the connection was closed");
    }
    if (count > 0) {
        m_bytesReceived += count;
        m_heard = Clock::now();
        try {
            while (!m_broken && takeFrame()) { }
        } catch (const ProtocolError&) {
            m_broken = std::current_exception(); // to be told behind what came before
        }
    }
}

void Channel::sendAll(const std::string& bytes)
{
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(m_out.get(), bytes.data() + done, bytes.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
            m_bytesSent += count;
        } else if (errno == EAGAIN) {
            waitFor(Wait::ToWrite);
        } else if (errno != EINTR) {
            throw ChannelClosed(m_peer, "the connection was closed");
        }
    }
}

void Channel::holdBack(std::size_t bytes)
{
    if (m_bytesPerSecond == 0) {
        return;
    }
    while (Clock::now() < m_mayBeSent) {
        waitShortly(Wait::ForTime,
                    std::min(MOMENT, std::chrono::ceil<std::chrono::milliseconds>(m_mayBeSent - Clock::now())));
    }
    const std::chrono::duration<double> taken(static_cast<double>(bytes) / static_cast<double>(m_bytesPerSecond));
    m_mayBeSent = Clock::now() + std::chrono::duration_cast<Clock::duration>(taken);
}

void Channel::send(FrameType type, const std::string& payload)
{
    if (type == FrameType::Data) {
        holdBack(payload.size());
    }
    const std::scoped_lock lock(m_sending);
    sendAll(frameOf(type, payload, m_sent++));
}

// The next one of what was received, if it is there as a whole.
bool Channel::takeFrame()
{
    const std::string_view received = std::string_view(m_received).substr(m_used);
    if (received.size() < HEADER) {
        return false;
    }
    FieldReader header(received);
    const std::uint32_t length = header.u32();
    const std::uint8_t type = header.u8();
    const std::uint32_t check = header.u32();
    if (header.u32() != checkOfHeader(received.substr(0, HEADER - 4), m_taken)) {
        throw ProtocolError("a frame is damaged, or none");
    }
    if (length > LARGEST_FRAME || type < static_cast<std::uint8_t>(FrameType::Hello)
        || type > static_cast<std::uint8_t>(FrameType::Note)) {
        throw ProtocolError("a frame of type " + std::to_string(type) + " with " + std::to_string(length) + " bytes");
    }
    if (received.size() < HEADER + length) {
        return false;
    }
    Frame frame = {static_cast<FrameType>(type), std::string(received.substr(HEADER, length))};
    m_used += HEADER + length;
    ++m_taken;
    if (checkOf(frame.payload) != check) {
        throw ProtocolError("a frame is damaged");
    }
    if (frame.type != FrameType::Alive) {
        m_held += HEADER + length;
        m_frames.push_back(std::move(frame));
    }
    return true;
}

Frame Channel::receive()
{
    while (m_frames.empty()) {
        if (m_broken) {
            std::rethrow_exception(m_broken);
        }
        waitFor(Wait::ToRead);
    }
    Frame frame = std::move(m_frames.front());
    m_frames.pop_front();
    m_held -= HEADER + frame.payload.size();
    return frame;
}

} // namespace kelvane::tool
