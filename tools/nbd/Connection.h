// One connection to an NBD server. Its requests are on their way side by side.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Failure.h"
#include "base/Range.h"

struct nbd_handle;

namespace kelvane::tool {

// What a server says of an export.
struct ExportTraits {
    std::string name;
    std::int64_t size = 0;
    std::int64_t unit = 1;  // all requests are of whole ones
    std::int64_t piece = 0; // what is best moved by one request
    bool isReadOnly = false;
    bool canFlush = false;
    bool canZero = false;
    bool tellsHoles = false;
    bool takesSeveral = false; // connections that see one another's writes

    bool operator==(const ExportTraits&) const = default;
};

struct Extent {
    Range range;
    bool isSet; // reads as zeros; or has changed
};

// For one thread at a time. All ranges are of whole units inside the export. Every failure is a Failure that names the
// export and the offset, or Interrupted; nothing is on its way any more then. A server that says nothing for longer
// than the timeout has failed; what it says is believed only as far as it cannot be checked.
class Connection {
public:
    // `bitmap`: shows what has changed since it was begun; empty where that is not asked for.
    Connection(std::string uri, std::chrono::seconds timeout, const std::string& bitmap = {});
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const ExportTraits& traits() const { return m_traits; }

    void read(char* buffer, Range range);

    // From the beginning of a range on, without a gap; perhaps not up to its end. Of what was changed with a bitmap
    // alone.
    enum class Asked { Zeros, Changes };
    std::vector<Extent> extents(Range range, Asked asked = Asked::Zeros);

    // These are on their way when they return. What fails then comes out of the next call of any of these.
    void write(const char* buffer, Range range, const std::shared_ptr<const void>& memory);
    void zero(Range range, bool takesRoom);

    // Waits for them.
    void settle() { await(0); }
    void flush();

private:
    struct Request;
    struct Calls; // back from the library

    struct Place {
        const char* what;
        std::int64_t offset; // negative: none
    };

    void connect();
    void learn();
    void await(std::size_t most);
    void step(std::chrono::steady_clock::time_point begin);
    void stopWhenInterrupted();
    void close();
    Place place() const; // of what has waited longest
    Failure failure(Place place, const std::string& cause) const;
    [[noreturn]] void lose(Place place, const std::string& cause);
    template <class Issue>
    void start(Request request, Issue issue);

    std::string m_uri;
    std::chrono::seconds m_timeout;
    std::string m_changes; // the name of a bitmap's extents; empty: none
    nbd_handle* m_handle;  // none once it was lost
    ExportTraits m_traits;
    std::list<Request> m_onTheirWay;
    std::optional<Failure> m_failure; // the first one of those that have ended
    std::chrono::steady_clock::time_point m_lastSign;
};

} // namespace kelvane::tool
