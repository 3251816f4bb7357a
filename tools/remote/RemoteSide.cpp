#include "remote/RemoteSide.h"

#include <algorithm>
#include <exception>
#include <sstream>
#include <utility>

#include "base/Text.h"
#include "base/Uri.h"
#include "remote/Data.h"
#include "remote/Words.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t LONGEST_PHASE = 40;
constexpr std::size_t LONGEST_GREETING = 200;
constexpr int MOST_REMARKS = 10; // lines
constexpr int MOST_NOTES = 100;
constexpr std::chrono::minutes LATEST_GREETING(10); // somebody may have to type a password before

// As many ranges as fit into a message, from one of them on.
Ranges batchFrom(const std::vector<Range>& ranges, std::size_t first)
{
    const auto from = ranges.begin() + static_cast<std::ptrdiff_t>(std::min(first, ranges.size()));
    const auto count = std::min(std::ssize(ranges) - (from - ranges.begin()), std::ptrdiff_t {Ranges::MOST});
    return {{from, from + count}, from + count == ranges.end()};
}

} // namespace

std::optional<RemotePath> remotePath(const std::string& argument)
{
    if (isExport(argument)) {
        return std::nullopt;
    }
    const std::size_t open = std::min(argument.find("@[") + 1, argument.size()); // 0 when there is none
    const std::size_t closed
        = !argument.empty() && argument[open] == '[' ? argument.find("]:", open) : std::string::npos;
    const bool isBracketed = closed != std::string::npos && argument.find_first_of("/:") > open;
    const std::size_t colon = isBracketed ? closed + 1 : argument.find(':');
    if (colon == std::string::npos || argument.find('/') < colon) {
        return std::nullopt;
    }
    const std::string shownHost = argument.substr(0, colon);
    std::string path = argument.substr(colon + 1);
    if (path.starts_with(':') || path.starts_with("//")) {
        throw Failure(argument,
                      "there is no such address; HOST:PATH is a file on another machine, reached by ssh, and ./"
                          + argument + " one here");
    }
    std::string host = shownHost;
    if (isBracketed) {
        host.erase(closed, 1).erase(open, 1);
    }
    // What leads to the host would take it for one of its options.
    if (host.empty() || host.front() == '-' || host.back() == '@' || host.find("@-") != std::string::npos) {
        throw Failure(argument, "the host before the colon is none; a file here is ./" + argument);
    }
    return RemotePath {host, shownHost, path};
}

template <class Work>
auto RemoteSide::guarded(Work work)
{
    try {
        return work();
    } catch (const ProtocolError& error) {
        throw Failure(m_host, error.what());
    }
}

RemoteSide::Line::Line() = default;
RemoteSide::Line::~Line() = default;

RemoteSide::RemoteSide(const RemotePath& path, Open open, const RemoteOptions& options, Reporter& reporter, Line* line)
    : m_name(path.shownHost + ":" + path.path)
    , m_host(path.shownHost)
    , m_program(options.program)
    , m_isDestination(open.isDestination)
    , m_compression(options.compression)
    , m_reporter(reporter)
    , m_line(line)
{
    open.path = path.path;
    open.compression = options.compression;
    open.bytesPerSecond = options.bytesPerSecond;
    if (line != nullptr && line->m_channel && line->m_host == m_host) {
        m_peer = std::move(line->m_peer);
        m_channel = std::move(line->m_channel);
        m_before = {m_channel->bytesSent(), m_channel->bytesReceived(), 0};
        m_isGreeted = true;
    } else {
        connect(options, path.host);
    }
    request(FrameType::Open, open.encode());
}

void RemoteSide::connect(const RemoteOptions& options, const std::string& host)
{
    std::vector<std::string> words = splitWords(options.rsh);
    if (words.empty()) {
        throw Failure("--rsh", "no command");
    }
    words.insert(words.end(), {host, options.program, "serve"});
    m_peer = std::make_unique<Peer>(words);
    m_channel = std::make_unique<Channel>(m_peer->takeOutput(), m_peer->takeInput(), m_host);
    m_channel->limitBandwidth(options.bytesPerSecond);
    m_channel->expectLateBeginning(LATEST_GREETING);
    m_channel->setTimeout(options.timeout);
    Hello hello;
    hello.timeout = static_cast<std::uint32_t>(options.timeout.count());
    request(FrameType::Hello, hello.encode());
}

RemoteSide::~RemoteSide()
{
    if (m_line != nullptr && m_isConcluded) {
        m_line->m_channel.reset(); // of another host
        m_line->m_host = m_host;
        m_line->m_peer = std::move(m_peer);
        m_line->m_channel = std::move(m_channel);
    }
    m_channel.reset(); // before the process is waited for
}

const Opening& RemoteSide::opening()
{
    if (!m_opening) {
        beGreeted();
        m_opening = guarded([&] { return decodeOpening(answer(FrameType::Opened).view()); });
        if (m_opening->isMissing && !m_isDestination) {
            throw Failure(m_name, "the program there says that it is missing, and goes on");
        }
        m_channel->allowTimeFor(m_opening->size);
        m_opening->hashFile = m_host + ":" + printable(m_opening->hashFile, LONGEST_TEXT);
    }
    return *m_opening;
}

void RemoteSide::beGreeted()
{
    if (std::exchange(m_isGreeted, true)) {
        return;
    }
    const Hello hello = greeting();
    if (m_compression > 0 && (hello.capabilities & Hello::ZSTD) == 0) {
        throw Failure(m_host, "the program there has no zstd; leave --compress away");
    }
}

Hello RemoteSide::greeting()
{
    try {
        return Hello::decode(m_channel->receive().payload.view());
    } catch (const std::runtime_error&) {
        throwWhyNotGreeted();
    }
}

// For the failure that is being handled.
void RemoteSide::throwWhyNotGreeted()
{
    if (const auto text = m_channel->textInsteadOfFrames()) {
        throw Failure(m_host,
                      "before the program there answers, something else does, such as a login shell that greets: \""
                          + printable(*text, LONGEST_GREETING) + '"');
    }
    try {
        throw;
    } catch (const ProtocolError& error) {
        throw Failure(m_host, std::string("what answers there does not do so as it should: ") + error.what());
    } catch (const ChannelClosed&) {
        throw Failure(m_host,
                      "the way there " + m_peer->end() + " before " + m_program
                          + " there had answered; if it is not in the PATH there, see --remote-program");
    }
}

template <class Work>
void RemoteSide::sending(Work work)
{
    guarded([&] {
        try {
            work();
        } catch (const ChannelClosed&) {
            throwWhatItSaid();
        }
    });
}

void RemoteSide::request(FrameType type, const std::string& payload)
{
    m_hasAsked = true;
    m_isConcluded = false;
    sending([&] { m_channel->send(type, payload); });
}

// The error that a side told before it closed the connection; that it is closed, if it told none. What was not yet
// greeted by it may be no such side at all.
void RemoteSide::throwWhatItSaid()
{
    beGreeted();
    for (;;) {
        tell(m_channel->receive());
    }
}

// What it says is not of this program: a line of a length that can be read, behind the host's name.
bool RemoteSide::tell(const Frame& frame)
{
    if (frame.type == FrameType::Error) {
        throw Failure(m_host, printable(std::string(frame.payload.view()), LONGEST_TEXT));
    }
    if (frame.type == FrameType::Note) {
        if (++m_notes > MOST_NOTES) {
            throw ProtocolError("notes without end");
        }
        m_reporter.note(m_host + ": " + printable(std::string(frame.payload.view()), LONGEST_TEXT));
    }
    return frame.type == FrameType::Note;
}

// The payload of the next frame, which must be of a type. An error that is told instead ends the command.
Bytes RemoteSide::answer(FrameType type)
{
    return guarded([&] {
        for (;;) {
            Frame frame = m_channel->receive();
            if (tell(frame)) {
                continue;
            }
            if (frame.type == FrameType::Progress) {
                show(frame.payload.view());
                continue;
            }
            if (frame.type != type) {
                throw ProtocolError("an answer of type " + std::to_string(static_cast<int>(frame.type)));
            }
            m_progress.reset();
            m_phase.clear();
            m_roundTrips += std::exchange(m_hasAsked, false) ? 1 : 0;
            return std::move(frame.payload);
        }
    });
}

void RemoteSide::show(std::string_view payload)
{
    FieldReader from(payload);
    const std::string phase = printable(from.string(), LONGEST_PHASE);
    const std::int64_t done = from.i64();
    const std::int64_t total = from.i64();
    from.end();
    if (!m_progress || phase != m_phase) {
        m_progress.reset();
        m_progress = m_reporter.begin(phase, total);
        m_phase = phase;
    }
    m_progress->reach(done);
}

HashedSide& RemoteSide::openHashes(const Start& start)
{
    m_start = start;
    return *this;
}

StartedSide& RemoteSide::start(bool isFirst)
{
    m_channel->allowTimeFor(m_start.targetSize);
    request(FrameType::Start, StartSide {m_start, isFirst}.encode());
    return *this;
}

const Started& RemoteSide::started()
{
    if (!m_started) {
        opening();
        m_started = guarded([&] { return decodeStarted(answer(FrameType::Started).view()); });
    }
    return *m_started;
}

// The first question, for all of the image, may be the last one.
void RemoteSide::ask(const Nodes& nodes)
{
    const bool mayBeLast = nodes.indexes.size() == 1 && !m_started;
    m_asked.push_back(nodes.indexes.size());
    m_conclusion.reset();
    request(FrameType::AskNodes, AskNodes {nodes, mayBeLast}.encode());
}

void RemoteSide::askBytes(Range range, std::int64_t unit)
{
    m_asked.push_back(static_cast<std::size_t>(roundUp(range.length, unit) / unit));
    m_conclusion.reset();
    request(FrameType::AskBytes, AskBytes {range, unit}.encode());
}

std::vector<Digest> RemoteSide::digests()
{
    Digests found = guarded([&] { return Digests::decode(answer(FrameType::Digests).view()); });
    if (found.digests.size() != m_asked.front()) {
        throw Failure(m_host, "it gave another number of hashes than asked for");
    }
    m_asked.pop_front();
    m_conclusion = std::move(found.conclusion);
    return std::move(found.digests);
}

void RemoteSide::dropCache()
{
    request(FrameType::DropCache);
}

void RemoteSide::read(const std::vector<Range>& ranges, const Sink& sink)
{
    if (ranges.empty()) {
        return;
    }
    m_conclusion.reset();
    takeIn(
        *m_channel, [&](const Sink& found) { receive(ranges, found); }, sink);
}

// The next ranges are asked for before the data of these has come, so that the line is never idle.
void RemoteSide::receive(const std::vector<Range>& ranges, const Sink& sink)
{
    Ranges next = batchFrom(ranges, 0);
    request(FrameType::Read, next.encode());
    for (std::size_t done = Ranges::MOST; !next.ranges.empty(); done += Ranges::MOST) {
        const Ranges read = std::exchange(next, batchFrom(ranges, done));
        if (!next.ranges.empty()) {
            sending([&] { m_channel->send(FrameType::Read, next.encode()); });
        }
        receiveSome(read.ranges, sink);
    }
}

void RemoteSide::receiveSome(const std::vector<Range>& ranges, const Sink& sink)
{
    for (Range rest : ranges) {
        while (rest.length > 0) {
            Piece piece = guarded([&] {
                return receivedPiece(answer(FrameType::Data), rest.offset, {m_start.blockSize, rest.end()},
                                     m_channel->pool());
            });
            if (piece.range.offset != rest.offset) {
                throw Failure(m_host, "data is missing");
            }
            rest = between(piece.range.end(), rest.end());
            sink(std::move(piece));
        }
    }
    guarded([&] {
        const Bytes payload = answer(FrameType::End);
        FieldReader end(payload.view());
        m_conclusion = decodeOptionalConclusion(end);
        end.end();
    });
}

WritingSide& RemoteSide::startWriting(bool isSparse)
{
    m_conclusion.reset();
    request(FrameType::StartWriting, encodeStartWriting(isSparse));
    return *this;
}

void RemoteSide::announce(const std::vector<Range>& ranges)
{
    Ranges batch;
    for (std::size_t done = 0; !batch.isLast; done += Ranges::MOST) {
        batch = batchFrom(ranges, done);
        sending([&] { m_channel->send(FrameType::Announce, batch.encode()); });
    }
}

void RemoteSide::write(const Piece& piece)
{
    sending([&] { tool::send(*m_channel, piece, {m_start.blockSize, m_start.compared, m_compression}); });
}

OwnChange RemoteSide::finish()
{
    request(FrameType::End);
    Written written = guarded([&] { return Written::decode(answer(FrameType::Written).view()); });
    m_conclusion = std::move(written.conclusion);
    return written.change;
}

void RemoteSide::distrust()
{
    m_conclusion.reset();
    request(FrameType::Distrust);
}

const Conclusion& RemoteSide::conclude()
{
    if (!m_conclusion) {
        request(FrameType::Conclude);
        guarded([&] {
            const Bytes payload = answer(FrameType::Concluded);
            FieldReader from(payload.view());
            m_conclusion = decodeConclusion(from);
            from.end();
        });
    }
    m_isConcluded = m_asked.empty();
    m_shown = shown(*m_conclusion);
    return m_shown;
}

// What the other machine says, as people may see it.
Conclusion RemoteSide::shown(Conclusion conclusion) const
{
    std::istringstream lines(std::exchange(conclusion.remarks, ""));
    int count = 0;
    for (std::string line; count < MOST_REMARKS && std::getline(lines, line); ++count) {
        conclusion.remarks += m_host + ": " + printable(line, LONGEST_TEXT) + "\n";
    }
    conclusion.doubt = printable(conclusion.doubt, LONGEST_TEXT);
    for (Program& program : conclusion.writers) {
        program.command = printable(program.command, LONGEST_PHASE);
    }
    return conclusion;
}

} // namespace kelvane::tool
