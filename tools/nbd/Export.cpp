#include "nbd/Export.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <utility>
#include <vector>

#include "base/Bytes.h"
#include "base/Interrupt.h"
#include "nbd/Connection.h"

namespace kelvane::tool {

namespace {

// Between threads, each of which has one at a time.
class Connections {
public:
    Connections(std::string uri, unsigned most, std::chrono::seconds timeout, const std::string& bitmap)
        : m_uri(std::move(uri))
        , m_timeout(timeout)
        , m_first(m_uri, timeout, bitmap)
        , m_most(m_first.traits().takesSeveral ? most : 1)
        , m_free {&m_first}
    {
    }

    const ExportTraits& traits() const { return m_first.traits(); }

    // Calls `work` with a connection; `onFirst`: with the one that all writes go over.
    template <class Work>
    auto with(bool onFirst, Work work)
    {
        Connection* const connection = take(onFirst);
        struct GivingBack {
            ~GivingBack()
            {
                const std::scoped_lock lock(connections.m_mutex);
                connections.m_free.push_back(connection);
                connections.m_isFreed.notify_all();
            }
            Connections& connections;
            Connection* connection;
        } const givingBack {*this, connection};
        return work(*connection);
    }

private:
    Connection* take(bool onFirst)
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            const auto found = onFirst ? std::find(m_free.begin(), m_free.end(), &m_first) : m_free.begin();
            if (found != m_free.end()) {
                Connection* const connection = *found;
                m_free.erase(found);
                return connection;
            }
            if (!onFirst && m_others.size() + 1 < m_most) {
                m_others.push_back(std::make_unique<Connection>(m_uri, m_timeout));
                if (m_others.back()->traits() != traits()) {
                    throw Failure(m_uri, "the server says something else of it on another connection");
                }
                return m_others.back().get();
            }
            m_isFreed.wait(lock);
        }
    }

    std::string m_uri;
    std::chrono::seconds m_timeout;
    Connection m_first;
    unsigned m_most;
    std::mutex m_mutex; // of all that follows
    std::condition_variable m_isFreed;
    std::vector<std::unique_ptr<Connection>> m_others;
    std::vector<Connection*> m_free;
};

// Ascending ranges, in bounded memory: where there are too many, they take in what lies between them.
class CoarseRanges {
public:
    explicit CoarseRanges(std::int64_t end)
        : m_end(end)
    {
    }

    void add(Range range)
    {
        append(range);
        constexpr std::size_t MOST = 1 << 18;
        while (m_ranges.size() > MOST) {
            m_unit *= 2;
            for (const Range& each : std::exchange(m_ranges, {})) {
                append(each);
            }
        }
    }

    std::vector<Range> all() && { return std::move(m_ranges); }

private:
    void append(Range range)
    {
        const std::int64_t begin = roundDown(range.offset, m_unit);
        const std::int64_t end = m_end - range.end() < m_unit ? m_end : roundUp(range.end(), m_unit);
        if (range.length == 0) {
            return;
        }
        if (!m_ranges.empty() && begin <= m_ranges.back().end()) {
            m_ranges.back() = between(m_ranges.back().offset, end);
        } else {
            m_ranges.push_back(between(begin, end));
        }
    }

    std::int64_t m_end;
    std::int64_t m_unit = 1; // of which they are whole ones
    std::vector<Range> m_ranges;
};

// The value of a field of a URI's query; empty when there is none.
std::string fieldOf(const std::string& uri, const std::string& name)
{
    const std::size_t query = std::min(uri.find('?'), uri.size());
    const std::size_t field = std::min(uri.find(name + "=", query), uri.size());
    std::string value;
    for (std::size_t at = std::min(field + name.size() + 1, uri.size()); at < uri.size() && uri[at] != '&'; ++at) {
        if (uri[at] == '%' && at + 2 < uri.size()) {
            value += static_cast<char>(std::strtol(uri.substr(at + 1, 2).c_str(), nullptr, 16));
            at += 2;
        } else {
            value += uri[at];
        }
    }
    return value;
}

Identity identityOf(const std::string& uri, const ExportTraits& traits)
{
    const std::size_t host = uri.find("://") + 3;
    std::error_code error;
    const std::string socket = fieldOf(uri, "socket");
    return {uri,
            {{"kind", "export"},
             {"host", uri.substr(host, uri.find_first_of("/?", host) - host)},
             {"socket", socket.empty() ? "" : std::filesystem::absolute(socket, error).lexically_normal().string()},
             {"export", traits.name},
             {"size", std::to_string(traits.size)}},
            bootTraits(),
            EXPORT_DOUBT};
}

class ExportImage final : public Image {
public:
    ExportImage(const std::string& uri, Access access, unsigned jobs, std::chrono::seconds timeout,
                const std::string& bitmap)
        : m_uri(uri)
        , m_connections(uri, jobs, timeout, bitmap)
        , m_identity(identityOf(uri, traits()))
    {
        if (access != Access::Read && traits().isReadOnly) {
            throw Failure(m_uri, "cannot write: the export is read-only");
        }
    }

    const std::string& path() const override { return m_uri; }
    std::int64_t size() const override { return traits().size; }
    std::int64_t currentSize() const override { return size(); }
    bool hasFixedSize() const override { return true; }
    bool isMissing() const override { return false; }
    mode_t permissions() const override { return 0600; }
    std::string hashFile() const override
    {
        throw Failure(m_uri, "an export: say where its hash file is, with --hash-file or its like");
    }
    std::string place() const override
    {
        const Traits& is = m_identity.traits;
        return "//" + is.at("host") + "/" + is.at("export") + "?" + is.at("socket");
    }
    bool isAt(const std::string& place) const override { return place == this->place(); }

    Identity identity() const override { return m_identity; }
    ImageState state() const override
    {
        ImageState state;
        state.identity = m_identity;
        state.marks.size = size();
        return state;
    }
    Writers writers() const override { return {}; }

    // On the user's word.
    class NobodyElse final : public Watch {
        bool wasAlone(const ImageState& /*before*/, const ImageState& /*after*/) const override { return true; }
    };
    std::unique_ptr<Watch> watch() const override { return std::make_unique<NobodyElse>(); }

    void read(char* buffer, Range range) const override
    {
        with([&](Connection& connection) {
            forParts(range, [&](Range part, bool isWhole) {
                char* const place = buffer + (part.offset - range.offset);
                if (isWhole) {
                    connection.read(place, part);
                } else {
                    const Around around(connection, part);
                    std::memcpy(place, around.place, static_cast<std::size_t>(part.length));
                }
            });
        });
    }

    Range nextData(std::int64_t offset, std::int64_t end) const override
    {
        if (!traits().tellsHoles) {
            return between(offset, end);
        }
        const std::scoped_lock lock(m_seeing);
        for (std::int64_t at = offset; at < end; at = m_seen.end()) {
            if (at < m_seen.offset || at >= m_seen.end()) {
                look(at);
            }
            const auto data
                = std::upper_bound(m_data.begin(), m_data.end(), at,
                                   [](std::int64_t place, const Range& each) { return place < each.end(); });
            if (data != m_data.end()) {
                const std::int64_t start = std::min(end, std::max(offset, data->offset));
                return between(start, std::min(end, data->end()));
            }
        }
        return between(end, end);
    }

    std::vector<Range> changedRanges() const override
    {
        CoarseRanges changed(size());
        m_connections.with(true, [&](Connection& connection) {
            for (std::int64_t at = 0; at < size();) {
                throwWhenInterrupted();
                for (const Extent& extent : connection.extents(between(at, size()), Connection::Asked::Changes)) {
                    changed.add(extent.isSet ? extent.range : Range {at, 0});
                    at = extent.range.end();
                }
            }
        });
        return std::move(changed).all();
    }

    void readFromDisk(char* buffer, Range range) const override { read(buffer, range); }
    bool isAnyInMemory(Range /*range*/) const override { return true; }
    std::vector<Run> residency(Range range) const override { return {{range, false}}; }
    const Descriptor& mappable() const override
    {
        static const Descriptor NONE;
        return NONE;
    }
    bool dropCache() const override { return true; }
    void drop(Range /*range*/) const override { }
    void checkSize(std::int64_t /*size*/) const override { }
    void create(mode_t /*permissions*/) override { refuseResizing(); }
    void beginWriting() override { m_isWriting = true; }
    bool isWriting() const override { return m_isWriting; }
    void endWriting() override { m_isWriting = false; }
    void resize(std::int64_t /*size*/) override { refuseResizing(); }
    void write(const char* buffer, Range range, const std::shared_ptr<const void>& memory) override
    {
        with([&](Connection& connection) {
            forParts(range, [&](Range part, bool isWhole) {
                const char* const place = buffer + (part.offset - range.offset);
                if (isWhole) {
                    connection.write(place, part, memory);
                } else {
                    const Around around(connection, part);
                    std::memcpy(around.place, place, static_cast<std::size_t>(part.length));
                    connection.write(around.memory.get(), around.units, around.memory);
                }
            });
            if (!memory) {
                connection.settle();
            }
        });
        forget(range);
    }

    bool zero(Range range, bool takesRoom) override
    {
        if (!traits().canZero) {
            return false;
        }
        with([&](Connection& connection) {
            forParts(range, [&](Range part, bool isWhole) {
                if (isWhole) {
                    connection.zero(part, takesRoom);
                } else {
                    const Around around(connection, part);
                    std::memset(around.place, 0, static_cast<std::size_t>(part.length));
                    connection.write(around.memory.get(), around.units, around.memory);
                }
            });
        });
        forget(range);
        return true;
    }

    void beginWriteBack(Range /*range*/) const override { }
    void awaitWriteBack(Range /*range*/) const override { }

    void flush() const override
    {
        if (m_hasLostWrites) {
            throw FlushFailed(m_uri, "cannot flush: what was written before is lost");
        }
        try {
            with([](Connection& connection) { connection.flush(); });
        } catch (const Failure& failure) {
            m_hasLostWrites = true;
            throw FlushFailed(m_uri, std::string(failure.what()).substr(m_uri.size() + 2));
        }
    }

    bool hasLostWrites() const override { return m_hasLostWrites; }

private:
    // A part of one or two units, with these.
    struct Around {
        Around(Connection& connection, Range part)
            : units(between(roundDown(part.offset, connection.traits().unit),
                            roundUp(part.end(), connection.traits().unit)))
            , memory(pagesFor(static_cast<std::size_t>(units.length)))
            , place(memory.get() + (part.offset - units.offset))
        {
            connection.settle();
            connection.read(memory.get(), units);
        }

        Range units;
        std::shared_ptr<char[]> memory;
        char* place;
    };

    const ExportTraits& traits() const { return m_connections.traits(); }

    // While it is written, all goes over one connection, on which a failure can be that of an earlier write.
    template <class Work>
    void with(Work work) const
    {
        try {
            m_connections.with(m_isWriting, [&](Connection& connection) { work(connection); });
        } catch (const Failure&) {
            m_hasLostWrites = m_hasLostWrites || m_isWriting;
            throw;
        }
    }

    template <class Work>
    void forParts(Range range, Work work) const
    {
        const Range units = wholeBlocks(range, traits().unit);
        if (units.length == 0) {
            return work(range, false);
        }
        for (const auto& [part, isWhole] :
             {std::pair(between(range.offset, units.offset), false), std::pair(units, true),
              std::pair(between(units.end(), range.end()), false)}) {
            if (part.length > 0) {
                work(part, isWhole);
            }
        }
    }

    // Adds what lies behind what was seen, or begins anew.
    void look(std::int64_t at) const
    {
        constexpr std::size_t MOST = 1 << 14; // ranges in memory
        if (at != m_seen.end() || m_data.size() > MOST) {
            m_data.clear();
            m_seen = {at, 0};
        }
        const std::int64_t start = roundDown(at, traits().unit);
        std::vector<Extent> extents;
        with([&](Connection& connection) {
            connection.settle();
            extents = connection.extents(between(start, size()));
        });
        for (const Extent& extent : extents) {
            addData(between(std::max(at, extent.range.offset), extent.isSet ? 0 : extent.range.end()));
            m_seen.length = extent.range.end() - m_seen.offset;
        }
    }

    // A short hole is read faster than data is asked for in two goes.
    void addData(Range range) const
    {
        if (range.length > 0 && !m_data.empty() && range.offset - m_data.back().end() < traits().piece) {
            range = between(m_data.back().offset, range.end());
            m_data.pop_back();
        }
        append(m_data, range);
    }

    // What was written does not lie before what comes next, as a rule.
    void forget(Range range)
    {
        const std::scoped_lock lock(m_seeing);
        if (range.end() > m_seen.offset && range.offset < m_seen.end()) {
            m_seen = between(range.end(), m_seen.end());
        }
    }

    void refuseResizing() const { throw Failure(m_uri, "an export cannot be made, nor change its size"); }

    std::string m_uri;
    mutable Connections m_connections;
    Identity m_identity;
    bool m_isWriting = false;
    mutable std::atomic<bool> m_hasLostWrites = false;
    mutable std::mutex m_seeing; // of what the server told of data and holes, one stretch:
    mutable Range m_seen = {};
    mutable std::vector<Range> m_data;
};

} // namespace

std::unique_ptr<Image> openExport(const std::string& uri, Image::Access access, unsigned jobs,
                                  std::chrono::seconds timeout, const std::string& bitmap)
{
    return std::make_unique<ExportImage>(uri, access, jobs, timeout, bitmap);
}

} // namespace kelvane::tool
