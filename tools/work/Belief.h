// Whether what a hash file knows is believed, from the beginning of a run to its end, and what is recorded of that.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "work/Common.h"
#include "work/Conclusion.h"

namespace kelvane::tool {

// How an image was found when this program changed it.
struct OwnChange {
    bool wasUnchanged = true; // by others, since it was looked at last
    bool wasAlone = true;     // others that had changed it at the same time would have been noticed
};

// The record says that the hash file is being changed from before its first change until `conclude`.
class Belief {
public:
    // Looks at the image before anything of it is read. Both must outlive it.
    Belief(const Image& image, HashFile& hashFile, const Common& common);

    // Judges again by what the user says of the image. To be called before anything else.
    void takeMoment(const Moment& moment);
    const Moment& moment() const { return m_moment; }

    // Whether the known hashes are to be taken for true.
    bool holds() const { return m_holds; }

    // Why not, at first; with who writes to the image left out of account, too.
    const Doubt& doubt() const { return m_doubt; }
    const Doubt& doubtOfRecord() const { return m_doubtOfRecord; }

    void confirm() { m_holds = true; }  // they were compared with the data, or somebody answers for them
    void dismiss() { m_holds = false; } // they were found to be wrong, or may be
    void believeTold();                 // all that has changed since they were true was told, and forgotten
    void startAnew();                   // nothing is known any more, whatever was to be assumed

    // To be called before the hash file is changed. Any thread.
    void mark();

    // Some of the known hashes were found to be wrong. Fails when a record says the opposite and cannot be changed.
    void contradict();

    // Whether the record is of another image; then it stays.
    bool isRecordOfOther() const;
    void leaveRecordOfOther();

    // Before the first reading, and before all is read once more: the image as it is now is what all that follows is
    // about.
    void look();

    // Makes what was stored in the hash file durable.
    void flushHashes();

    // To be called when the hashes are on the disk, after the last use of the image. `isAnsweredFor`: whatever has
    // changed up to now is known. The conclusion says nothing of what was checked.
    Conclusion conclude(bool isAnsweredFor = false);

    // To be called after a failure that may be that of a flush: true when it was, of the image or of the hash file, or
    // when a hash may be stored by half. That is recorded, and nothing more may be written then.
    bool hasLostWrites();

    // Whether something else has changed the hash file.
    bool isDisturbed() const { return m_isDisturbed; }

private:
    friend class ImageChange;

    Doubt doubtNow(const Writers& writers) const;
    Doubt judge();
    void readFromDiskWhereNeeded() const;
    ImageState currentState();
    void takeState();
    void lookForWriters();
    void recordLostWrites();
    std::string reasonAgainst(bool isUnchanged, bool isAnsweredFor) const;
    void record(Record::Standing standing, const std::string& reason = {});
    template <class Operation>
    auto flushing(Operation operation);

    const Image& m_image;
    HashFile& m_hashFile;
    const Common& m_common;
    Moment m_moment;
    ImageState m_state;
    Writers m_writers; // so far
    Doubt m_doubtOfRecord;
    Doubt m_doubt;
    bool m_holds = false;
    bool m_isAssumed = false; // only because that was to be assumed
    bool m_isMarked = false;  // the record says that the hash file is being changed
    bool m_isDisturbed = false;
    bool m_leavesRecord = false;
    bool m_isContradicted = false;
    bool m_hasLostWrites = false;
    std::mutex m_marking;
};

// This program changes the image, from the beginning of this to its end.
class ImageChange {
public:
    // Looks at how others have left the image.
    explicit ImageChange(Belief& belief);

    // Flushes the image, and takes its state.
    OwnChange end();

private:
    Belief& m_belief;
    std::unique_ptr<Image::Watch> m_watch; // before anything is looked at
    ImageState m_before;
};

} // namespace kelvane::tool
