// An image with its hash file, and whether what that knows is true of it.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "image/ImageState.h"
#include "work/Blocks.h"
#include "work/Check.h"

namespace kelvane::tool {

// How an image was found when this program changed it.
struct OwnChange {
    bool wasUnchanged = true; // by others, since it was looked at last
    bool wasAlone = true;     // others that had changed it at the same time would have been noticed
};

// Known hashes are used only when nothing can have changed since they were found true: the record beside the hash file
// tells the image's state at that time. All others are checked against the data, and repaired.
//
// The record says "not clean" from before the first change of the hash file until `conclude`.
class HashedImage {
public:
    // Takes the state of the image before anything of it is read, and notes on standard error why its hashes
    // are not believed. Both must outlive it.
    HashedImage(const Image& image, HashFile hashFile, const Common& common);

    const Image& image() const { return m_image; }
    HashFile& hashFile() { return m_hashFile; }
    const HashFile& hashFile() const { return m_hashFile; }
    Store& store() { return m_hashFile.store(); }

    bool believes() const { return m_believes; }

    // Why the known hashes are not believed; whether it is only that the image was changed.
    const std::string& doubt() const { return m_doubt; }
    bool wasOnlyChanged() const;

    // Makes every whole block of a range known, by true hashes. One reading of what is unknown or not believed. Once
    // that was the whole image, its hashes are believed.
    void complete(Range range, const char* phase);

    // Which blocks `complete` made known or repaired, ascending; none when they are more than this. Where an image
    // differs from its copy, it is likely there.
    static constexpr std::size_t MOST_NEW_BLOCKS = 256;
    std::vector<std::int64_t> newBlocks() const;

    // The size of the image that the hash file recorded before it was adapted to another one.
    std::optional<std::int64_t> formerSize() const { return m_formerSize; }

    // Adapts the hash file to another size; see HashFile::resize.
    template <class ChangeImage>
    void resize(std::int64_t size, ChangeImage changeImage)
    {
        markChanging();
        m_formerSize = m_hashFile.geometry().targetSize;
        m_hashFile.resize(size, changeImage);
    }

    void adaptToImage()
    {
        if (m_hashFile.geometry().targetSize != m_image.size()) {
            resize(m_image.size(), [] {});
        }
    }

    // To be called before the hash file is changed from outside.
    void markChanging();

    // The image as it is now is what all that follows is about.
    void takeState();

    // Changes the image, flushes it and takes its state.
    OwnChange changeImage(const std::function<void()>& change);

    // To be called when the hashes are on the disk, after the last use of the image. False when it, or its hash file,
    // was changed by others meanwhile. Otherwise, if the hashes are believed, and not only because that was to be
    // assumed, that is recorded.
    bool conclude();

    // The hashes are to be checked, or were compared with the data.
    void believe(bool believes) { m_believes = believes; }

    // Whether the record is of this image; if not, it can be left alone.
    bool isOwner() const { return m_hashFile.isOf(m_state); }
    void leaveRecord() { m_recording = Recording::Nothing; }

    const Traffic& traffic() const { return m_traffic; }
    std::string text() const; // what was checked, if anything
    nlohmann::ordered_json json() const;

    void flushHashes();

private:
    // What this run may write down about the hashes.
    enum class Recording {
        Nothing, // the record is of another image
        Doubt,   // that they are being changed; they are believed only because that is to be assumed
        All      // that they are true, too
    };

    std::string judge() const;
    ImageState currentState() const;
    void noteDoubt() const;
    void store(Store& store, Range range, char* data);
    void check(Store& store, Check& check, Range range, char* data);

    const Image& m_image;
    HashFile m_hashFile;
    const Common& m_common;
    ImageState m_state;
    std::string m_doubt; // why the known hashes were not believed
    bool m_believes = false;
    bool m_isMarked = false;    // the record says that the hash file is being changed
    bool m_isDisturbed = false; // something else changed the hash file
    Recording m_recording = Recording::All;
    std::mutex m_mutex; // of the next one, and of marking
    std::vector<std::int64_t> m_newBlocks;
    std::optional<std::int64_t> m_formerSize;
    Traffic m_traffic;
    std::atomic<std::int64_t> m_checked = 0; // blocks
    std::atomic<std::int64_t> m_repaired = 0;
};

} // namespace kelvane::tool
