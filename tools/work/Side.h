// One of the two images that a command compares or makes equal, here or on another machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"
#include "work/Belief.h"
#include "work/Conclusion.h"
#include "work/Piece.h"

namespace kelvane::tool {

// Blocks in a tree: node `index` of level `level` is the blocks from index << level on, 1 << level of them, as far as
// there are so many whole ones.
struct Nodes {
    static constexpr int HIGHEST = 62;
    static constexpr int FAN_OUT = 5; // a node's children are that many levels below it

    int level = 0;
    std::vector<std::int64_t> indexes; // ascending
};

// What there is before anything was changed.
struct Opening {
    std::int64_t size = 0; // 0 where there is no image yet
    std::uint32_t permissions = 0;
    bool isMissing = false;
    bool isBlockDevice = false;
    std::string hashFile;
    std::optional<std::uint32_t> blockSize; // of the hash file, when there is one
};

struct Start {
    std::uint32_t blockSize = 0;
    std::int64_t targetSize = 0;   // to which a destination is brought; a block device keeps its own
    std::uint32_t permissions = 0; // of one that is made, but for what the umask takes
    std::int64_t compared = 0;     // how much of the image will be compared
};

// What went over the line to a far side, and how often an answer had to be waited for.
struct LineTraffic {
    std::int64_t bytesSent = 0;
    std::int64_t bytesReceived = 0;
    std::int64_t roundTrips = 0;
};

struct Started {
    std::int64_t partitionOffset = 0;
    std::int64_t bytesRead = 0;
    std::vector<std::int64_t> newBlocks; // see HashedImage::newBlocks
};

// In the order of a command: `openHashes`, `start`, what is asked, `conclude`. What takes long is asked of both sides
// before either one is waited for; answers come in the order of the questions. Every failure is a Failure that names
// the side.
class Side {
public:
    virtual ~Side() = default;

    virtual const std::string& name() const = 0;
    virtual bool isFar() const = 0;       // best asked first
    virtual const Opening& opening() = 0; // a far side may have to be waited for

    // Opens the hash file, or makes it. To be called for both before either is started, for no image is touched
    // before. A far side does that when it is started.
    virtual void openHashes(const Start& start) = 0;

    // A destination is brought to its size; then the hashes are made known. Waited for by `started`.
    virtual void start(const Start& start) = 0;

    // Whether that creates or resizes an image on this machine, which must wait until the other side has agreed.
    virtual bool isChangedBy(const Start& /*start*/) const { return false; }

    // Whether that reads all of an image on this machine: what is wrong with the other side is best known before.
    virtual bool takesLong() const { return false; }

    // Whether that can end because its hash file, on this machine, cannot be written: what is wrong with this side is
    // best known before the other one is changed.
    virtual bool mayFailToStore() const { return false; }

    virtual const Started& started() = 0;

    // The hashes of nodes, at most MOST_NODES; waited for by `digests`, which has as many.
    static constexpr std::size_t MOST_NODES = 8192;
    virtual void ask(const Nodes& nodes) = 0;
    virtual std::vector<Digest> digests() = 0;

    // The hashes of the bytes of a range in units, at most MOST_NODES of them; waited for by `digests`.
    virtual void askBytes(Range range, std::int64_t unit) = 0;

    // What is read from now on comes from the disk, where the system can be made to read it.
    virtual void dropCache() = 0;

    // Gives the data of ranges of whole blocks, but for the image's end. `withDigests`: where a piece is of whole
    // blocks, with its digest.
    virtual void read(const std::vector<Range>& ranges, bool withDigests, const Sink& sink) = 0;

    // Of a destination. `isSparse`: zeros become holes; otherwise no hole is left in the end. How it was found is told
    // then.
    virtual void startWriting(bool isSparse) = 0;
    virtual void write(const Piece& piece) = 0;
    virtual OwnChange finishWriting() = 0;

    // Instead of all that follows, after a failure: what was written so far is kept and recorded.
    virtual void abandon() = 0;

    // What the hashes say of the data has turned out to be wrong.
    virtual void distrust() = 0;

    // The last one.
    virtual const Conclusion& conclude() = 0;

    virtual std::optional<LineTraffic> lineTraffic() const { return std::nullopt; } // of a near one none
};

} // namespace kelvane::tool
