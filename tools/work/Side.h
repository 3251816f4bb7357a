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
    bool hasFixedSize = false; // as that of a block device
    bool isBlank = false;      // a destination that is missing, of no size, or one hole: there is nothing to compare
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
    bool isNew = false;                  // a destination that was just made, or was blank
};

// A destination that is written.
class WritingSide {
public:
    virtual ~WritingSide() = default;

    // Ranges of which all data will come, ascending, before any does: so what is known of them is forgotten in one go.
    virtual void announce(const std::vector<Range>& ranges) = 0;

    virtual void write(const Piece& piece) = 0;

    // All is on its disk then. How the image was found is told.
    virtual OwnChange finish() = 0;
};

// A side whose hashes are known, or will be. Answers come in the order of the questions.
class StartedSide {
public:
    virtual ~StartedSide() = default;

    virtual const std::string& name() const = 0;
    virtual const Started& started() = 0; // waited for

    // The hashes of nodes, at most MOST_NODES; waited for by `digests`, which has as many.
    static constexpr std::size_t MOST_NODES = 8192;
    virtual void ask(const Nodes& nodes) = 0;
    virtual std::vector<Digest> digests() = 0;

    // The hashes of the bytes of a range in units, at most MOST_NODES of them; waited for by `digests`.
    virtual void askBytes(Range range, std::int64_t unit) = 0;

    // What is read from now on comes from the disk, where the system can be made to read it.
    virtual void dropCache() = 0;

    // Gives the data of ranges of whole blocks, but for the image's end, to a sink on this thread, while what follows
    // is read. Blocks whose hash is not known become known by that.
    virtual void read(const std::vector<Range>& ranges, const Sink& sink) = 0;

    // Of a destination. `isSparse`: zeros become holes; otherwise no hole is left in the end.
    virtual WritingSide& startWriting(bool isSparse) = 0;

    // What the hashes say of the data has turned out to be wrong.
    virtual void distrust() = 0;

    // The last one.
    virtual const Conclusion& conclude() = 0;
};

// A side whose hash file is open, or was made; a far one does that when it is started.
class HashedSide {
public:
    virtual ~HashedSide() = default;

    // What starting it does, where that matters to the other side.
    struct Effects {
        bool changesImage = false;   // which waits until the other side has agreed
        bool takesLong = false;      // so that what is wrong with the other side is best known before
        bool mayFailToStore = false; // so that this is best known before the other side is changed
    };
    virtual Effects effects() const { return {}; }

    // A destination is brought to its size; then the hashes are made known, but of a destination that is new, or was
    // empty, and where `isFirst`: of a source for such a one. A far side is not waited for.
    virtual StartedSide& start(bool isFirst) = 0;
};

// Nothing of the image, or of the other one, has been changed so far. Every failure is a Failure that names the side.
class Side {
public:
    virtual ~Side() = default;

    virtual const std::string& name() const = 0;
    virtual bool isFar() const = 0;       // best asked first
    virtual const Opening& opening() = 0; // a far side may have to be waited for

    virtual HashedSide& openHashes(const Start& start) = 0;

    // Instead of all that follows, after a failure: what was written so far is kept and recorded.
    virtual void abandon() = 0;

    virtual std::optional<LineTraffic> lineTraffic() const { return std::nullopt; } // of a near one none
};

} // namespace kelvane::tool
