#include "remote/Channel.h"

#include <fcntl.h>
#include <isa-l/crc.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <iterator>
#include <kelvane/BlakeHash.h>
#include <utility>

#include "base/Interrupt.h"
#include "base/Text.h"
#include "remote/Wire.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t HEADER = 13;               // a frame's length, type, check of its payload, check of all this
constexpr std::size_t AT_ONCE = 1 << 16;         // bytes per read of what may be several frames
constexpr std::chrono::milliseconds MOMENT(100); // after which a signal is noticed at the latest
constexpr std::int64_t SLOWEST = 1 << 20;        // bytes per second at which an image is read
constexpr std::chrono::hours LONGEST_WAIT(31 * 24);
constexpr std::size_t LONGEST_LINE = 1000; // that is looked at where there are no frames
constexpr const char* BLANK = " \t\r\n";

// That a frame takes while it is held, what it costs to hold it included.
std::size_t roomOf(const Frame& frame)
{
    return 256 + frame.payload.room();
}

void makeNonBlocking(int fd)
{
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// A pipe takes as much at once as it is allowed to, so that whoever carries it on is called seldom.
void makeLarge(int fd)
{
    static_cast<void>(::fcntl(fd, F_SETPIPE_SZ, 1 << 20));
}

// CRC-32C, whatever its parts. The greeting has another check, which all versions understand.
class CheckSum {
public:
    explicit CheckSum(std::int64_t frameNumber)
        : m_isOfGreeting(frameNumber == 0)
    {
    }

    void add(std::string_view bytes)
    {
        if (m_isOfGreeting) {
            m_greeting += bytes;
            return;
        }
        auto* const data = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())); // which is only read
        m_crc = ::crc32_iscsi(data, static_cast<int>(bytes.size()), m_crc);
    }

    std::uint32_t value()
    {
        if (!m_isOfGreeting) {
            return ~m_crc;
        }
        const auto digest = BlakeHash().get_hash(m_greeting.data(), std::ssize(m_greeting));
        return FieldReader({reinterpret_cast<const char*>(digest.data()), digest.size()}).u32();
    }

private:
    bool m_isOfGreeting;
    std::string m_greeting;
    std::uint32_t m_crc = 0xffffffff;
};

std::uint32_t checkOf(Channel::Parts payload, std::int64_t number)
{
    CheckSum sum(number);
    for (const std::string_view part : payload) {
        sum.add(part);
    }
    return sum.value();
}

// The check of a header takes in the frame's number in its direction, so that no loss goes unnoticed.
std::uint32_t checkOfHeader(std::string_view header, std::int64_t number)
{
    return checkOf({header, FieldWriter().i64(number).done()}, number);
}

std::size_t sizeOf(Channel::Parts payload)
{
    std::size_t size = 0;
    for (const std::string_view part : payload) {
        size += part.size();
    }
    return size;
}

std::string headerOf(FrameType type, Channel::Parts payload, std::int64_t number)
{
    FieldWriter header;
    header.u32(static_cast<std::uint32_t>(sizeOf(payload)))
        .u8(static_cast<std::uint8_t>(type))
        .u32(checkOf(payload, number));
    return header.u32(checkOfHeader(header.done(), number)).done();
}

// Of a text, behind which frames may begin.
std::optional<std::string> firstLineOf(const std::string& beginning)
{
    const std::size_t start = std::min(beginning.find_first_not_of(BLANK), beginning.size());
    const std::size_t end = std::min(beginning.find_first_of(std::string_view("\n\0", 2), start), beginning.size());
    const bool isCut = end < beginning.size() && beginning[end] == 0; // by a length, of which the first byte is none
    std::string line = beginning.substr(start, end - start - (isCut && end > start ? 1 : 0));
    const bool isText = std::any_of(line.begin(), line.end(), [](char c) { return c > ' ' && c < 0x7f; });
    return isText ? std::optional(std::move(line)) : std::nullopt;
}

iovec vectorOf(std::string_view part)
{
    return {const_cast<char*>(part.data()), part.size()}; // which is only read
}

} // namespace

Channel::Channel(Descriptor in, Descriptor out, std::string peer)
    : m_in(std::move(in))
    , m_out(std::move(out))
    , m_peer(std::move(peer))
{
    for (const Descriptor* const end : {&m_in, &m_out}) {
        makeNonBlocking(end->get());
        makeLarge(end->get());
    }
    std::signal(SIGPIPE, SIG_IGN); // writing fails then
}

Channel::~Channel() = default;

void Channel::setTimeout(std::chrono::seconds timeout)
{
    m_timeout = timeout;
    m_life = std::jthread([this](const std::stop_token& stop) { showLife(stop); });
}

void Channel::allowTimeFor(std::int64_t bytes)
{
    const std::chrono::seconds patience = std::chrono::hours(24) + std::chrono::seconds(bytes / SLOWEST);
    m_patience = std::clamp<std::chrono::seconds>(patience, m_patience, LONGEST_WAIT);
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
        const std::string frame = headerOf(type, {payload}, m_sent) + payload;
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
    const bool hasRoom = m_held < 2 * LARGEST_FRAME;
    pollfd both[] = {{m_in.get(), static_cast<short>(wait == Wait::ToRead || hasRoom ? POLLIN : 0), 0},
                     {m_out.get(), POLLOUT, 0}};
    const int ready = ::poll(both, isWriting ? 2 : 1, static_cast<int>(most.count()));
    if (ready > 0 && both[0].revents != 0) {
        readSome();
    }
    endWhenLate();
    return ready > 0 && (!isWriting || both[1].revents != 0);
}

void Channel::endWhenLate()
{
    const auto timeout = m_bytesReceived > 0 ? m_timeout : std::max(m_timeout, m_beginsWithin);
    if (Clock::now() - m_heard > timeout) {
        throw Failure(m_peer, "no sign of life for " + counted(timeout.count(), "second"));
    }
    if (m_givesUp && Clock::now() > *m_givesUp) {
        throw Failure(m_peer,
                      "nothing but signs of life for "
                          + counted(std::chrono::duration_cast<std::chrono::hours>(m_patience).count(), "hour"));
    }
}

void Channel::waitFor(Wait wait)
{
    m_givesUp = m_givesUp.value_or(Clock::now() + m_patience);
    while (!waitShortly(wait, MOMENT)) { }
}

// A payload that is under way is read to its place; what else has come is a few frames at most.
void Channel::readSome()
{
    std::array<char, AT_ONCE> some;
    const bool isToPlace = m_arriving && m_arriving->payload.size() - m_arrived >= AT_ONCE;
    char* const place = isToPlace ? m_arriving->payload.data() + m_arrived : some.data();
    const std::size_t most = isToPlace ? m_arriving->payload.size() - m_arrived : some.size();
    const ssize_t count = ::read(m_in.get(), place, most);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        throw ChannelClosed(m_peer, "the connection was closed");
    }
    if (count < 0) {
        return;
    }
    m_bytesReceived += count;
    m_heard = Clock::now();
    if (m_taken == 0 && m_beginning.size() < LONGEST_LINE) {
        m_beginning.append(place, std::min(static_cast<std::size_t>(count), LONGEST_LINE));
    }
    try {
        if (isToPlace) {
            m_arrived += static_cast<std::size_t>(count);
            takePayload();
        } else if (!m_broken) {
            take({some.data(), static_cast<std::size_t>(count)});
        }
    } catch (const ProtocolError&) {
        m_broken = std::current_exception(); // to be told behind what came before
        m_arriving.reset();
    }
}

void Channel::take(std::string_view received)
{
    while (!received.empty()) {
        if (!m_arriving) {
            const std::string_view part = received.substr(0, HEADER - m_header.size());
            m_header += part;
            received.remove_prefix(part.size());
            if (m_header.size() == HEADER) {
                takeHeader();
            }
        } else {
            const std::string_view part = received.substr(0, m_arriving->payload.size() - m_arrived);
            std::memcpy(m_arriving->payload.data() + m_arrived, part.data(), part.size());
            m_arrived += part.size();
            received.remove_prefix(part.size());
        }
        takePayload();
    }
}

void Channel::takeHeader()
{
    FieldReader header(m_header);
    const std::uint32_t length = header.u32();
    const std::uint8_t type = header.u8();
    m_check = header.u32();
    if (header.u32() != checkOfHeader(std::string_view(m_header).substr(0, HEADER - 4), m_taken)) {
        throw ProtocolError("a frame is damaged, or none");
    }
    if (length > LARGEST_FRAME || type < static_cast<std::uint8_t>(FrameType::Hello)
        || type > static_cast<std::uint8_t>(FrameType::Announce)) {
        throw ProtocolError("a frame of type " + std::to_string(type) + " with " + std::to_string(length) + " bytes");
    }
    m_arriving = {static_cast<FrameType>(type), m_pool->take(length)};
    m_arrived = 0;
    m_header.clear();
}

// Once it is there as a whole.
void Channel::takePayload()
{
    if (!m_arriving || m_arrived < m_arriving->payload.size()) {
        return;
    }
    Frame frame = std::move(*m_arriving);
    m_arriving.reset();
    if (checkOf({frame.payload.view()}, m_taken++) != m_check) {
        throw ProtocolError("a frame is damaged");
    }
    if (frame.type == FrameType::Alive) {
        FieldReader(frame.payload.view()).end();
    } else {
        m_held += roomOf(frame);
        m_frames.push_back(std::move(frame));
    }
}

void Channel::sendAll(std::vector<iovec> parts)
{
    std::size_t first = 0;
    while (first < parts.size()) {
        ssize_t count = ::writev(m_out.get(), parts.data() + first, static_cast<int>(parts.size() - first));
        if (count < 0 && errno == EAGAIN) {
            waitFor(Wait::ToWrite);
        } else if (count < 0 && errno != EINTR) {
            throw ChannelClosed(m_peer, "the connection was closed");
        }
        m_bytesSent += std::max<ssize_t>(0, count);
        for (; first < parts.size() && count >= static_cast<ssize_t>(parts[first].iov_len); ++first) {
            count -= static_cast<ssize_t>(parts[first].iov_len);
        }
        if (count > 0) {
            parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + count;
            parts[first].iov_len -= static_cast<std::size_t>(count);
        }
    }
    m_givesUp.reset();
}

// Until what was sent before has had its time.
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

// An error does not wait: it is the last frame.
void Channel::send(FrameType type, Parts payload)
{
    if (type != FrameType::Error) {
        holdBack(HEADER + sizeOf(payload));
    }
    const std::scoped_lock lock(m_sending);
    const std::string header = headerOf(type, payload, m_sent++);
    std::vector<iovec> parts = {vectorOf(header)};
    std::transform(payload.begin(), payload.end(), std::back_inserter(parts), vectorOf);
    sendAll(std::move(parts));
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
    m_held -= roomOf(frame);
    if (frame.type != FrameType::Progress && frame.type != FrameType::Note) {
        m_givesUp.reset();
    }
    return frame;
}

// A frame begins with two zeros at least behind its first bytes. The rest of a line comes within a second, or not at
// all.
std::optional<std::string> Channel::textInsteadOfFrames()
{
    const auto isLineWhole
        = [this] { return m_beginning.find('\n', m_beginning.find_first_not_of(BLANK)) < std::string::npos; };
    try {
        const auto until = Clock::now() + std::chrono::seconds(1);
        while (m_taken == 0 && m_beginning.size() < LONGEST_LINE && !isLineWhole() && Clock::now() < until) {
            waitShortly(Wait::ToRead, MOMENT);
        }
    } catch (const Failure&) {
        // What has come is all there is.
    }
    return m_taken > 0 ? std::nullopt : firstLineOf(m_beginning);
}

} // namespace kelvane::tool
