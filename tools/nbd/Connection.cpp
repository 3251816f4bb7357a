#include "nbd/Connection.h"

#include <libnbd.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "base/Interrupt.h"
#include "base/Text.h"

namespace kelvane::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t PIECE = 256 << 10;
constexpr std::int64_t LONGEST_PIECE = 32 << 20;  // that every server takes
constexpr std::int64_t LONGEST_ZEROS = 128 << 20; // that go by one request
constexpr std::int64_t LONGEST_EXTENTS = 1 << 30; // that are asked for by one
constexpr std::size_t MOST_EXTENTS = 1 << 14;     // that are kept of its answer
constexpr const char* BITMAP = "qemu:dirty-bitmap:";
constexpr std::uint32_t DIRTY = 1;                // a flag of its extents
constexpr std::size_t MOST = 64;                  // requests on their way
constexpr std::chrono::seconds LONGEST_STEP(2);   // that a signal waits for what is on its way, while that comes
constexpr std::chrono::seconds LONGEST_END(5);    // that a command which was to stop waits in the end
constexpr std::chrono::milliseconds SILENCE(100); // the same, while nothing comes

std::string lastError()
{
    const char* const text = ::nbd_get_error();
    return text != nullptr ? text : "the server has closed the connection";
}

} // namespace

struct Connection::Request {
    Place place;
    Range range;
    bool isRead = false;
    std::vector<Extent>* told = nullptr;
    const char* about = nullptr; // the name of the extents that are told
    std::shared_ptr<const void> memory = {};
    std::vector<Range> chunks = {}; // of data that has come
    bool isWrong = false;
    Connection* connection = nullptr;
    std::list<Request>::iterator self = {};
};

struct Connection::Calls {
    static int chunk(void* data, const void* /*place*/, std::size_t length, std::uint64_t offset, unsigned /*status*/,
                     int* /*error*/)
    {
        static_cast<Request*>(data)->chunks.push_back(
            {static_cast<std::int64_t>(offset), static_cast<std::int64_t>(length)});
        return 0;
    }

    // Lengths and flags in turn; they may reach farther than was asked for.
    static int extent(void* data, const char* context, std::uint64_t /*offset*/, std::uint32_t* entries,
                      std::size_t count, int* /*error*/)
    {
        Request& request = *static_cast<Request*>(data);
        if (std::strcmp(context, request.about) != 0) {
            return 0;
        }
        const std::int64_t size = request.connection->m_traits.size;
        const std::uint32_t flag = request.about == request.connection->m_changes.c_str() ? DIRTY : LIBNBD_STATE_ZERO;
        std::int64_t offset = request.range.offset;
        request.isWrong = request.isWrong || !request.told->empty();
        for (std::size_t i = 0; i + 1 < count && !request.isWrong; i += 2) {
            const Range range = {offset, entries[i]};
            request.isWrong = range.length == 0 || range.length % request.connection->m_traits.unit != 0
                || range.length > size - offset;
            if (request.told->size() < MOST_EXTENTS) {
                request.told->push_back({range, (entries[i + 1] & flag) != 0});
            }
            offset = range.end();
        }
        return 0;
    }

    static int completed(void* data, int* error)
    {
        Request& request = *static_cast<Request*>(data);
        std::optional<Failure>& failure = request.connection->m_failure;
        if (!failure && (*error != 0 || !isRight(request))) {
            failure = request.connection->failure(
                request.place, *error != 0 ? errorText(*error) : "the server's answer is not what was asked for");
        }
        return 1; // the library forgets it
    }

    static void free(void* data)
    {
        const Request& request = *static_cast<Request*>(data);
        request.connection->m_onTheirWay.erase(request.self);
    }

private:
    // Whether all that was asked for has come, once.
    static bool isRight(Request& request)
    {
        if (request.told != nullptr) {
            return !request.isWrong && !request.told->empty();
        }
        std::sort(request.chunks.begin(), request.chunks.end(),
                  [](const Range& a, const Range& b) { return a.offset < b.offset; });
        std::int64_t end = request.range.offset;
        for (const Range& chunk : request.chunks) {
            if (chunk.offset != end) {
                return false;
            }
            end = chunk.end();
        }
        return !request.isRead || end == request.range.end();
    }
};

Connection::Connection(std::string uri, std::chrono::seconds timeout, const std::string& bitmap)
    : m_uri(std::move(uri))
    , m_timeout(timeout)
    , m_changes(bitmap.empty() ? "" : BITMAP + bitmap)
    , m_handle(::nbd_create())
{
    if (m_handle == nullptr) {
        throw Failure(m_uri, lastError());
    }
    try {
        connect();
        learn();
    } catch (...) {
        close();
        throw;
    }
}

Connection::~Connection()
{
    if (m_handle != nullptr && m_onTheirWay.empty()) {
        ::nbd_aio_disconnect(m_handle, 0);
    }
    close();
}

void Connection::connect()
{
    ::nbd_set_pread_initialize(m_handle, false); // what has not come is noticed
    ::nbd_set_uri_allow_local_file(m_handle, true);
    if (::nbd_add_meta_context(m_handle, LIBNBD_CONTEXT_BASE_ALLOCATION) != 0
        || (!m_changes.empty() && ::nbd_add_meta_context(m_handle, m_changes.c_str()) != 0)
        || ::nbd_aio_connect_uri(m_handle, m_uri.c_str()) != 0) {
        lose(place(), lastError());
    }
    m_lastSign = Clock::now();
    while (::nbd_aio_is_connecting(m_handle) == 1) {
        step(m_lastSign);
    }
    if (::nbd_aio_is_ready(m_handle) != 1) {
        lose(place(), lastError());
    }
}

void Connection::learn()
{
    char* const name = ::nbd_get_export_name(m_handle);
    m_traits.name = name == nullptr ? "" : name;
    std::free(name);
    m_traits.size = ::nbd_get_size(m_handle);
    m_traits.unit = std::max<std::int64_t>(1, ::nbd_get_block_size(m_handle, LIBNBD_SIZE_MINIMUM));
    m_traits.isReadOnly = ::nbd_is_read_only(m_handle) == 1;
    m_traits.canFlush = ::nbd_can_flush(m_handle) == 1;
    m_traits.canZero = ::nbd_can_zero(m_handle) == 1;
    m_traits.takesSeveral = ::nbd_can_multi_conn(m_handle) == 1;
    m_traits.tellsHoles = ::nbd_can_meta_context(m_handle, LIBNBD_CONTEXT_BASE_ALLOCATION) == 1;
    const std::int64_t preferred = ::nbd_get_block_size(m_handle, LIBNBD_SIZE_PREFERRED);
    const std::int64_t longest = ::nbd_get_block_size(m_handle, LIBNBD_SIZE_MAXIMUM);
    m_traits.piece = std::min({std::max(PIECE, preferred), LONGEST_PIECE, longest > 0 ? longest : LONGEST_PIECE});
    m_traits.piece = roundDown(m_traits.piece, m_traits.unit);
    if (!m_changes.empty() && ::nbd_can_meta_context(m_handle, m_changes.c_str()) != 1) {
        throw Failure(m_uri, "the server does not show " + m_changes + "; without it all is to be checked");
    }
    if (m_traits.size < 0) {
        throw Failure(m_uri, lastError());
    }
    if (m_traits.piece == 0 || m_traits.size % m_traits.unit != 0) {
        throw Failure(m_uri, m_traits.size,
                      "the server's sizes do not fit: the export ends here, its smallest block is "
                          + std::to_string(m_traits.unit) + ", its largest " + std::to_string(longest));
    }
}

Connection::Place Connection::place() const
{
    return m_onTheirWay.empty() ? Place {"connect", -1} : m_onTheirWay.front().place;
}

Failure Connection::failure(Place place, const std::string& cause) const
{
    const std::string text = std::string("cannot ") + place.what + ": " + cause;
    return place.offset < 0 ? Failure(m_uri, text) : Failure(m_uri, place.offset, text);
}

void Connection::lose(Place place, const std::string& cause)
{
    close();
    throw failure(place, cause);
}

void Connection::close()
{
    ::nbd_close(std::exchange(m_handle, nullptr));
    m_onTheirWay.clear();
    m_failure.reset();
}

void Connection::stopWhenInterrupted()
{
    try {
        throwWhenInterrupted();
    } catch (const Interrupted&) {
        close();
        throw;
    }
}

// Signals are heeded when the server keeps silent, or when this takes long; otherwise by whoever goes on from here.
void Connection::step(Clock::time_point begin)
{
    const Place oldest = place();
    const unsigned direction = ::nbd_aio_get_direction(m_handle);
    const bool reads = (direction & LIBNBD_AIO_DIRECTION_READ) != 0;
    const bool writes = (direction & LIBNBD_AIO_DIRECTION_WRITE) != 0;
    pollfd socket = {::nbd_aio_get_fd(m_handle), static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0};
    const int ready = ::poll(&socket, 1, static_cast<int>(SILENCE.count()));
    const auto now = Clock::now();
    m_lastSign = ready > 0 ? now : m_lastSign;
    if (ready <= 0 || now - begin > LONGEST_STEP) {
        stopWhenInterrupted();
    }
    const auto patience = interruptSignal() != 0 ? std::min(m_timeout, LONGEST_END) : m_timeout;
    if (now - m_lastSign > patience) {
        lose(oldest, "the server has said nothing for " + counted(patience.count(), "second"));
    }
    int result = 0;
    if (reads && (socket.revents & ~POLLOUT) != 0) {
        result = ::nbd_aio_notify_read(m_handle);
    } else if (writes && socket.revents != 0) {
        result = ::nbd_aio_notify_write(m_handle);
    }
    if (result != 0 || ::nbd_aio_is_dead(m_handle) == 1 || ::nbd_aio_is_closed(m_handle) == 1) {
        lose(oldest, lastError());
    }
}

void Connection::await(std::size_t most)
{
    const auto begin = m_lastSign = Clock::now();
    while (m_onTheirWay.size() > (m_failure ? 0 : most)) {
        step(begin);
    }
    if (m_failure) {
        throw Failure(*std::exchange(m_failure, std::nullopt));
    }
}

template <class Issue>
void Connection::start(Request request, Issue issue)
{
    await(MOST - 1);
    const Place place = request.place;
    if (m_handle == nullptr) {
        throwWhenInterrupted(); // which had closed it
        throw failure(place, "the connection was lost");
    }
    Request& started = m_onTheirWay.emplace_back(std::move(request));
    started.connection = this;
    started.self = std::prev(m_onTheirWay.end());
    if (issue(&started, nbd_completion_callback {Calls::completed, &started, Calls::free}) < 0) {
        lose(place, lastError());
    }
}

void Connection::read(char* buffer, Range range)
{
    for (Range rest = range; rest.length > 0;) {
        const Range piece = takeFirst(rest, m_traits.piece - rest.offset % m_traits.piece);
        char* const place = buffer + (piece.offset - range.offset);
        start({{"read", piece.offset}, piece, true}, [&](Request* request, nbd_completion_callback completion) {
            return ::nbd_aio_pread_structured(m_handle, place, static_cast<std::size_t>(piece.length),
                                              static_cast<std::uint64_t>(piece.offset),
                                              {Calls::chunk, request, nullptr}, completion, 0);
        });
    }
    await(0);
}

std::vector<Extent> Connection::extents(Range range, Asked asked)
{
    std::vector<Extent> told;
    const bool isOfZeros = asked == Asked::Zeros;
    const char* const about = isOfZeros ? LIBNBD_CONTEXT_BASE_ALLOCATION : m_changes.c_str();
    const char* const what = isOfZeros ? "tell data from holes" : "tell what has changed";
    range.length = std::min(range.length, LONGEST_EXTENTS);
    start({{what, range.offset}, range, false, &told, about},
          [&](Request* request, nbd_completion_callback completion) {
              return ::nbd_aio_block_status(m_handle, static_cast<std::uint64_t>(range.length),
                                            static_cast<std::uint64_t>(range.offset), {Calls::extent, request, nullptr},
                                            completion, 0);
          });
    await(0);
    return told;
}

void Connection::write(const char* buffer, Range range, const std::shared_ptr<const void>& memory)
{
    for (Range rest = range; rest.length > 0;) {
        const Range piece = takeFirst(rest, m_traits.piece - rest.offset % m_traits.piece);
        const char* const place = buffer + (piece.offset - range.offset);
        start({{"write", piece.offset}, piece, false, nullptr, nullptr, memory},
              [&](Request* /*request*/, nbd_completion_callback completion) {
                  return ::nbd_aio_pwrite(m_handle, place, static_cast<std::size_t>(piece.length),
                                          static_cast<std::uint64_t>(piece.offset), completion, 0);
              });
    }
}

void Connection::zero(Range range, bool takesRoom)
{
    while (range.length > 0) {
        const Range piece = takeFirst(range, LONGEST_ZEROS);
        start({{"write zeros", piece.offset}, piece}, [&](Request* /*request*/, nbd_completion_callback completion) {
            return ::nbd_aio_zero(m_handle, static_cast<std::uint64_t>(piece.length),
                                  static_cast<std::uint64_t>(piece.offset), completion,
                                  takesRoom ? LIBNBD_CMD_FLAG_NO_HOLE : 0);
        });
    }
}

void Connection::flush()
{
    await(0);
    if (m_traits.canFlush) {
        start({{"flush", -1}, {}}, [&](Request* /*request*/, nbd_completion_callback completion) {
            return ::nbd_aio_flush(m_handle, completion, 0);
        });
        await(0);
    }
}

} // namespace kelvane::tool
