// What is recorded beside a hash file: of which image its hashes are, and whether they are true of it.
#pragma once

#include <optional>
#include <string>

#include "image/ImageState.h"
#include "image/Traits.h"
#include "image/Writers.h"

namespace kelvane::tool {

struct Record {
    enum class Standing {
        True,       // every known hash was true of the image in this state
        Unproven,   // for a reason
        Open,       // a run is under way, or was cut short
        FlushFailed // what it left in memory may never have reached the disk
    };

    Standing standing = Standing::Open;
    std::string reason;
    ImageState image;
    Traits hashFile;   // its state, when they were true
    std::string point; // at which they were true, when the image's user named one

    // Whether a text is a record, perhaps a damaged one, or what a crash left of one.
    static bool isIn(const std::string& text);

    std::string encode() const;
    static std::optional<Record> decode(const std::string& text); // nothing when it is damaged, or of another version
};

// The record of the hash file at a path; nothing when there is none that can be read.
std::optional<Record> readRecord(const std::string& hashFile);

// Puts a record in its place, for its owner alone. When that cannot be done, none stands there any more, as far as
// possible; `errno` says why. What is no record stays.
enum class RecordWritten { Yes, Removed, No };
RecordWritten writeRecord(const std::string& hashFile, const Record& record);
void removeRecord(const std::string& hashFile);

// Whether a file is a record.
bool isRecord(const Descriptor& file);

// Whether an image is the one of a record, another one in its place, or another one elsewhere.
enum class Owner { Same, Successor, Other };
Owner ownerOf(const Record& record, const Identity& image);

// What the user says of the image that a run sees: no evidence shows it.
struct Moment {
    std::string point; // the name of this moment, for no other; empty when it has none
    std::string since; // a point: all that has changed since will be told; empty when it will not

    bool isNamed() const { return !point.empty() || !since.empty(); }
};

// Why known hashes are not believed.
struct Doubt {
    enum class Because {
        Nothing,
        AskedFor,
        JustMade,
        NoRecord,
        FlushFailed,
        CutShort,
        AnotherImage,
        Untold, // by the system
        OpenForWriting,
        HashFileChanged,
        StartedAgain,
        MountedAgain,
        Unproven,
        NotYetForgotten, // that is: what has changed since the point of which they are true
        AnotherPoint,
        Changed
    };

    Because because = Because::Nothing;
    std::string text;

    bool isAny() const { return because != Because::Nothing; }

    // Whether what is in memory of the image and of the hash file need not be what is on their disks.
    bool isAboutMemory() const { return because == Because::FlushFailed || because == Because::CutShort; }
};

// Whether a file system has failed, and no record of this mounting of it tells of that: what is in memory of the image
// need not be on the disk then, though the program that wrote it was told and the next flush succeeds.
bool hasFailedUntold(const std::optional<Record>& record, const ImageState& image);

// Of an image whose moment is named, what is seen of it says nothing.
Doubt doubtAbout(const std::optional<Record>& record, const Traits& hashFile, const ImageState& image,
                 const Writers& writers, const Moment& moment = {});

} // namespace kelvane::tool
