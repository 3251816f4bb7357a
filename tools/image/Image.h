// The disk images that the program works on, whatever holds them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "base/Failure.h"
#include "base/Range.h"
#include "image/ImageState.h"
#include "image/Writers.h"

namespace kelvane::tool {

// What an image's disk was given may never reach it, though the next flush succeeds.
class FlushFailed : public Failure {
public:
    using Failure::Failure;
};

// Is read alone until `beginWriting`. May be read by several threads at once. Every failure is a Failure that names the
// image and the offset.
class Image {
public:
    enum class Access { Read, Write, WriteOrMissing };

    virtual ~Image() = default;

    virtual const std::string& path() const = 0; // as it was given
    virtual std::int64_t size() const = 0;       // at the time of opening, or of the last resizing by this program
    virtual std::int64_t currentSize() const = 0;
    virtual bool hasFixedSize() const = 0; // as a block device: it is neither made nor resized
    virtual bool isMissing() const = 0;    // until it is created
    virtual mode_t permissions() const = 0;

    // Where its hash file is when the user names none. Fails where one must be named.
    virtual std::string hashFile() const = 0;

    // A text that leads to it, whatever it is called; whether one does. None of what is missing.
    virtual std::string place() const = 0;
    virtual bool isAt(const std::string& place) const = 0;

    // Evidence. The state is looked at after a flush, once no later change can look the same. What begins to write
    // before `writers` is called is over when that finds nobody.
    virtual Identity identity() const = 0;
    virtual ImageState state() const = 0;
    virtual Writers writers() const = 0;

    // While this program writes to it, others are noticed in another way, from the beginning of this on. One at a time.
    class Watch {
    public:
        virtual ~Watch() = default;

        // Whether others that wrote to it, too, would have been noticed. Between two states of it.
        virtual bool wasAlone(const ImageState& before, const ImageState& after) const = 0;
    };
    virtual std::unique_ptr<Watch> watch() const = 0;

    virtual void read(char* buffer, Range range) const = 0;

    // The first range of data at or behind an offset and before `end`; what lies before it is a hole. Empty, at `end`,
    // when there is only a hole. More data may follow at once.
    virtual Range nextData(std::int64_t offset, std::int64_t end) const = 0;

    // What has changed since the bitmap was begun that the image was opened with.
    virtual std::vector<Range> changedRanges() const = 0;

    // From the disk, past what the system holds in memory and without leaving anything there; as `read` does where that
    // cannot be done.
    virtual void readFromDisk(char* buffer, Range range) const = 0;

    // Whether any page of a range is in memory, while the image is written, too; true where that cannot be told.
    virtual bool isAnyInMemory(Range range) const = 0;

    // Which pages of a range are in memory: all of them where that cannot be told, or where nothing can be read past
    // it.
    struct Run {
        Range range;
        bool isInMemory;
    };
    virtual std::vector<Run> residency(Range range) const = 0;

    // To map what is in memory of it; none where what is mapped need not be what is read.
    virtual const Descriptor& mappable() const = 0;

    // What is read from now on comes from the disk. False when a part of it stays in memory.
    virtual bool dropCache() const = 0;

    // Drops a range from memory, once it is on the disk.
    virtual void drop(Range range) const = 0;

    // Fails when the image, or one that is made, could not have a size.
    virtual void checkSize(std::int64_t size) const = 0;

    virtual void create(mode_t permissions) = 0; // which begins writing
    virtual void beginWriting() = 0;
    virtual bool isWriting() const = 0;
    virtual void endWriting() = 0;
    virtual void resize(std::int64_t size) = 0; // unless its size is fixed

    // What is written may be on its way when this returns, and needs its memory for so long; a failure comes out of a
    // later call then, of `flush` at the latest. Without that memory all has been written.
    virtual void write(const char* buffer, Range range, const std::shared_ptr<const void>& memory) = 0;

    // Into zeros, which take room or not; false where that cannot be done.
    virtual bool zero(Range range, bool takesRoom) = 0;

    // Has the system write a range to the disk at once; waits until that has happened, and fails as `flush` does. Only
    // a flush makes it durable.
    virtual void beginWriteBack(Range range) const = 0;
    virtual void awaitWriteBack(Range range) const = 0;

    // Brings what was written to the disk. After a FlushFailed that is dropped from memory, as far as possible.
    virtual void flush() const = 0;

    // Whether a FlushFailed was thrown: what was written may be nowhere.
    virtual bool hasLostWrites() const = 0;
};

} // namespace kelvane::tool
