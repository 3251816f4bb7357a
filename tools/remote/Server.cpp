#include "remote/Server.h"

#include <memory>
#include <optional>
#include <utility>

#include "base/Interrupt.h"
#include "base/Text.h"
#include "remote/Channel.h"
#include "remote/Data.h"
#include "remote/Messages.h"
#include "remote/ServedPaths.h"
#include "work/LocalSide.h"

namespace kelvane::tool {

namespace {

class Frames final : public Reporter {
public:
    using Shown = std::function<std::string(const std::string& text)>;

    // `shown`: a text for the other side. What it does not take as a note is told by the other reporter.
    Frames(Channel& channel, Shown shown, Reporter& otherwise)
        : m_channel(channel)
        , m_shown(std::move(shown))
        , m_otherwise(otherwise)
    {
    }

    void note(const std::string& text) override
    {
        if (!m_channel.sendIfIdle(FrameType::Note, printable(m_shown(text), LONGEST_TEXT))) {
            m_otherwise.note(text);
        }
    }

    // Whether the other side waits for what takes long.
    void setAwaited(bool isAwaited) { m_isAwaited = isAwaited; }

private:
    class Told final : public Phase {
    public:
        Told(const std::string& name, std::optional<std::int64_t> total, const Frames& frames)
            : Phase(name, total)
            , m_frames(frames)
        {
        }

    private:
        void show() override
        {
            if (m_frames.m_isAwaited) {
                FieldWriter fields;
                fields.string(name()).i64(done()).i64(total().value_or(0));
                m_frames.m_channel.sendIfIdle(FrameType::Progress, fields.done());
            }
        }

        const Frames& m_frames;
    };

    std::unique_ptr<Phase> phaseOf(const std::string& name, std::optional<std::int64_t> total) override
    {
        return std::make_unique<Told>(name, total, *this);
    }

    Channel& m_channel;
    Shown m_shown;
    Reporter& m_otherwise;
    bool m_isAwaited = false;
};

class Server {
public:
    Server(Channel& channel, const ServeArguments& arguments, Reporter& reporter)
        : m_channel(channel)
        , m_arguments(arguments)
        , m_frames(
              channel, [this](const std::string& text) { return shown(text); }, reporter)
    {
    }

    void run()
    {
        greet();
        m_paths.emplace(m_arguments.root); // a failure is told to a side that was greeted
        begin(Open::decode(expect(FrameType::Open).view()));
        for (;;) {
            serve(m_channel.receive());
        }
    }

    // A text for the other side.
    std::string shown(const std::string& text) const { return m_paths ? m_paths->shown(text) : text; }

    // The other side has gone: what it sent is kept, and recorded.
    void goOnAlone()
    {
        if (m_side) {
            m_side->abandon();
        }
    }

private:
    Bytes expect(FrameType type)
    {
        Frame frame = m_channel.receive();
        if (frame.type != type) {
            throw ProtocolError("a frame of type " + std::to_string(static_cast<int>(frame.type)) + " out of order");
        }
        return std::move(frame.payload);
    }

    static void expectNothing(const Frame& frame) { FieldReader(frame.payload.view()).end(); }

    void greet()
    {
        const Bytes payload = expect(FrameType::Hello);
        m_channel.send(FrameType::Hello, Hello().encode()); // so that a side of another version can tell
        const Hello hello = Hello::decode(payload.view());
        m_channel.setTimeout(std::chrono::seconds(hello.timeout));
        m_takesZstd = (hello.capabilities & Hello::ZSTD) != 0;
    }

    // Of one image after the other.
    void begin(const Open& open)
    {
        m_started = nullptr;
        m_side.reset();
        m_paths->letGo();
        this->open(open);
        start(StartSide::decode(expect(FrameType::Start).view()));
    }

    void open(const Open& open)
    {
        if (open.path.empty()) {
            throw ProtocolError("no image is named");
        }
        if (m_arguments.isReadOnly && open.isDestination) {
            throw Failure(open.path, "nothing is written here: served read-only");
        }
        if (open.compression > 0 && !m_takesZstd) {
            throw ProtocolError("zstd for a side that has none");
        }
        m_form.compression = open.compression;
        m_channel.limitSending(open.bytesPerSecond);
        m_common.jobs = open.jobs;
        m_common.trust = open.trust;
        m_common.cache = open.cache;
        HashFileOptions options;
        options.adopts = open.adopts;
        options.isReadOnly = m_arguments.isReadOnly;
        options.atLink = m_paths->atLink();
        if (open.partitionOffset) {
            options.partitionOffset = static_cast<std::uint64_t>(*open.partitionOffset);
        }
        const std::string path = m_paths->resolve(open.path);
        options.path = m_paths->resolveHashFile(open.hashFile, path);
        const auto access = open.isDestination ? Image::Access::WriteOrMissing : Image::Access::Read;
        m_side = std::make_unique<LocalSide>(path, access, options, m_common);
        m_isDestination = open.isDestination;
        Opening opening = m_side->opening();
        m_channel.allowTimeFor(opening.size);
        opening.hashFile = shown(opening.hashFile);
        m_channel.send(FrameType::Opened, encode(opening));
    }

    void start(const StartSide& wanted)
    {
        const Start& start = wanted.start;
        m_size = m_side->sizeAfter(start);
        if (start.compared > m_size) {
            throw ProtocolError("more than there is");
        }
        m_channel.allowTimeFor(m_size);
        m_form.blockSize = start.blockSize;
        m_form.end = start.compared;
        m_frames.setAwaited(true);
        m_started = &m_side->openHashes(start).start(wanted.isFirst);
        m_frames.setAwaited(false);
        m_channel.send(FrameType::Started, encode(m_started->started()));
    }

    void serve(const Frame& frame)
    {
        switch (frame.type) {
        case FrameType::Open:
            return begin(Open::decode(frame.payload.view()));
        case FrameType::AskNodes:
            return answer(AskNodes::decode(frame.payload.view()));
        case FrameType::AskBytes:
            return answer(AskBytes::decode(frame.payload.view()));
        case FrameType::DropCache:
            expectNothing(frame);
            return m_started->dropCache();
        case FrameType::Read:
            return read(Ranges::decode(frame.payload.view(), m_size));
        case FrameType::StartWriting:
            return write(decodeStartWriting(frame.payload.view()));
        case FrameType::Distrust:
            expectNothing(frame);
            return m_started->distrust();
        case FrameType::Conclude: {
            expectNothing(frame);
            FieldWriter to;
            encode(to, conclusion());
            return m_channel.send(FrameType::Concluded, to.done());
        }
        default:
            throw ProtocolError("a frame of type " + std::to_string(static_cast<int>(frame.type)) + " out of order");
        }
    }

    Conclusion conclusion()
    {
        Conclusion conclusion = m_started->conclude();
        conclusion.remarks = shown(conclusion.remarks);
        conclusion.doubt = shown(conclusion.doubt);
        return conclusion;
    }

    void answer(const AskNodes& ask)
    {
        m_started->ask(ask.nodes);
        Digests digests {m_started->digests(), {}};
        if (ask.mayBeLast) {
            digests.conclusion = conclusion();
        }
        m_channel.send(FrameType::Digests, digests.encode());
    }

    void answer(const AskBytes& ask)
    {
        if (ask.range.end() > m_size) {
            throw ProtocolError("bytes behind the end");
        }
        if (ask.unit > std::max(LONGEST_PIECE, m_form.blockSize)) { // which is in memory as a whole
            throw ProtocolError("units of " + std::to_string(ask.unit) + " bytes");
        }
        m_started->askBytes(ask.range, ask.unit);
        m_channel.send(FrameType::Digests, Digests {m_started->digests(), {}}.encode());
    }

    void read(const Ranges& read)
    {
        for (const Range& range : read.ranges) {
            checkBoundary(range.offset);
            checkBoundary(range.end());
        }
        m_started->read(read.ranges, [this](const Piece& piece) { send(m_channel, piece, m_form); });
        FieldWriter end;
        encode(end, read.isLast ? std::optional(conclusion()) : std::nullopt);
        m_channel.send(FrameType::End, end.done());
    }

    void write(bool isSparse)
    {
        if (!m_isDestination) {
            throw ProtocolError("data for an image that is only read");
        }
        WritingSide& writing = m_started->startWriting(isSparse);
        for (bool isMore = true; isMore;) {
            const Ranges announced = Ranges::decode(expect(FrameType::Announce).view(), m_size);
            writing.announce(announced.ranges);
            isMore = !announced.isLast;
        }
        takeIn(
            m_channel, [this](const Sink& sink) { receive(sink); }, [&](const Piece& piece) { writing.write(piece); });
        Written written;
        written.change = writing.finish();
        written.conclusion = conclusion();
        m_channel.send(FrameType::Written, written.encode());
    }

    // Data up to its end, in ascending order.
    void receive(const Sink& sink)
    {
        std::int64_t end = 0;
        Frame frame = m_channel.receive();
        while (frame.type != FrameType::End) {
            if (frame.type != FrameType::Data) {
                throw ProtocolError("a frame of type " + std::to_string(static_cast<int>(frame.type))
                                    + " between data");
            }
            Piece piece = receivedPiece(std::move(frame.payload), end, m_form, m_channel.pool());
            if (piece.range.offset != end) { // all that goes together are whole blocks
                checkBoundary(end);
                checkBoundary(piece.range.offset);
            }
            end = piece.range.end();
            sink(std::move(piece));
            frame = m_channel.receive();
        }
        expectNothing(frame);
        checkBoundary(end);
    }

    void checkBoundary(std::int64_t offset) const
    {
        if (offset % m_form.blockSize != 0 && offset != m_form.end) {
            throw ProtocolError("a range that is not of whole blocks");
        }
    }

    Channel& m_channel;
    const ServeArguments& m_arguments;
    Frames m_frames;
    std::optional<ServedPaths> m_paths;
    Common m_common {m_frames};
    std::unique_ptr<LocalSide> m_side;
    StartedSide* m_started = nullptr; // the same
    bool m_takesZstd = false;
    bool m_isDestination = false;
    DataForm m_form;
    std::int64_t m_size = 0;
};

} // namespace

bool serveOther(const ServeArguments& arguments, Reporter& reporter)
{
    Channel channel(Descriptor(::dup(STDIN_FILENO)), Descriptor(::dup(STDOUT_FILENO)), "the other side");
    Server server(channel, arguments, reporter);
    std::string failure;
    bool isClosed = false;
    try {
        server.run();
    } catch (const ChannelClosed&) {
        isClosed = true;
    } catch (const Interrupted&) {
        failure = "interrupted there";
    } catch (const std::bad_alloc&) {
        failure = "out of memory";
    } catch (const std::exception& error) {
        failure = printable(server.shown(error.what()), LONGEST_TEXT);
    }
    server.goOnAlone();
    try {
        const LettingFinish finishing;
        if (!isClosed) {
            channel.send(FrameType::Error, failure);
        }
    } catch (const std::exception&) {
        // Nobody is there to be told.
    }
    return isClosed;
}

} // namespace kelvane::tool
