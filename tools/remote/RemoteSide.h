// A side on another machine: a `kelvane-hash serve` at the other end of a command like ssh.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "base/Reporter.h"
#include "remote/Channel.h"
#include "remote/Messages.h"
#include "remote/Peer.h"
#include "work/Side.h"

namespace kelvane::tool {

struct RemoteOptions {
    std::string rsh = "ssh"; // split into words at spaces, but for what is quoted
    std::string program = "kelvane-hash";
    std::chrono::seconds timeout {60};
    std::uint32_t compression = 0;
    std::int64_t bytesPerSecond = 0;
};

// "[USER@]HOST:PATH", as with rsync: a colon before any slash; around a host with colons "[" and "]". A Failure for
// what no host is called, and for what other programs understand and this one does not: "HOST::PATH", "SCHEME://...".
struct RemotePath {
    std::string host;
    std::string shownHost; // as it was given, with "[" and "]"
    std::string path;
};
std::optional<RemotePath> remotePath(const std::string& argument);

class RemoteSide : public Side, private HashedSide, private StartedSide, private WritingSide {
public:
    // A connection that is kept for the next image.
    class Line;

    // Through the connection that a line holds, if it leads to the same host; it takes that back once all has been
    // concluded. The line must outlive the side; null: a connection for this image alone.
    RemoteSide(const RemotePath& path, Open open, const RemoteOptions& options, Reporter& reporter,
               Line* line = nullptr);
    ~RemoteSide() override;
    RemoteSide(const RemoteSide&) = delete;
    RemoteSide& operator=(const RemoteSide&) = delete;

    const std::string& name() const override { return m_name; }
    bool isFar() const override { return true; }
    const Opening& opening() override;
    HashedSide& openHashes(const Start& start) override;
    void abandon() override { } // the other machine sees that this one has gone
    std::optional<LineTraffic> lineTraffic() const override
    {
        return LineTraffic {m_channel->bytesSent() - m_before.bytesSent,
                            m_channel->bytesReceived() - m_before.bytesReceived, m_roundTrips};
    }

private:
    StartedSide& start(bool isFirst) override;
    const Started& started() override;
    void ask(const Nodes& nodes) override;
    void askBytes(Range range, std::int64_t unit) override;
    std::vector<Digest> digests() override;
    void dropCache() override;
    void read(const std::vector<Range>& ranges, const Sink& sink) override;
    WritingSide& startWriting(bool isSparse) override;
    void announce(const std::vector<Range>& ranges) override;
    void write(const Piece& piece) override;
    OwnChange finish() override;
    void distrust() override;
    const Conclusion& conclude() override;

    template <class Work>
    auto guarded(Work work); // errors of the protocol name the host
    template <class Work>
    void sending(Work work); // an error that the other side told is what comes out
    void connect(const RemoteOptions& options, const std::string& host);
    void beGreeted();
    Hello greeting();
    [[noreturn]] void throwWhyNotGreeted();
    void request(FrameType type, const std::string& payload = {});
    Bytes answer(FrameType type);
    bool tell(const Frame& frame); // an error, or a note: true
    void show(std::string_view payload);
    void throwWhatItSaid();
    Conclusion shown(Conclusion conclusion) const;
    void receive(const std::vector<Range>& ranges, const Sink& sink);
    void receiveSome(const std::vector<Range>& ranges, const Sink& sink);

    std::string m_name;
    std::string m_host; // as it is shown
    std::string m_program;
    bool m_isDestination;
    bool m_isAnsweredFor;
    std::uint32_t m_compression;
    Reporter& m_reporter;
    Line* m_line;
    bool m_isGreeted = false;
    bool m_isConcluded = false; // and nothing was asked since
    std::unique_ptr<Peer> m_peer;
    std::unique_ptr<Channel> m_channel;
    LineTraffic m_before; // for other images
    std::optional<Opening> m_opening;
    Start m_start;
    std::optional<Started> m_started;
    bool m_hasAsked = false; // since the last answer
    std::atomic<std::int64_t> m_roundTrips = 0;
    int m_notes = 0;
    std::deque<std::size_t> m_asked;        // how many digests each question will have
    std::optional<Conclusion> m_conclusion; // the last one, as it was told
    Conclusion m_shown;
    std::string m_phase; // as it was told
    std::unique_ptr<Phase> m_progress;
};

class RemoteSide::Line {
public:
    Line();
    ~Line();
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

private:
    friend class RemoteSide;

    std::string m_host;
    std::unique_ptr<Peer> m_peer;
    std::unique_ptr<Channel> m_channel; // is closed before that is waited for
};

} // namespace kelvane::tool
