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
#include "work/Belief.h"
#include "work/Blocks.h"

namespace kelvane::tool {

// Known hashes are used only when they are believed. All others are checked against the data, and repaired.
class HashedImage {
public:
    // Takes the state of the image before anything of it is read, and notes why its hashes are not believed. Both must
    // outlive it.
    HashedImage(const Image& image, HashFile hashFile, const Common& common);
    HashedImage(const HashedImage&) = delete;
    HashedImage& operator=(const HashedImage&) = delete;

    const Image& image() const { return m_image; }
    const ImageReader& reader() const { return m_reader; }
    HashFile& hashFile() { return m_hashFile; }
    const HashFile& hashFile() const { return m_hashFile; }
    Store& store() { return m_hashFile.store(); }

    Belief& belief() { return m_belief; }
    const Belief& belief() const { return m_belief; }

    // Makes every whole block of a range known, by true hashes. One reading of what is unknown or not believed. Once
    // that was the whole image, its hashes are believed.
    void complete(Range range, const char* phase);

    // Forgets what is known from an offset on, once all before it was completed: all that it knows is true then.
    void forgetFrom(std::int64_t offset);

    // Of blocks that were read for another purpose: what is unknown becomes known. Known hashes that turn out to be
    // wrong are repaired; they contradict those that were believed.
    void learn(Range blocks, const DigestBytes& digests); // of zeros: none

    // The first block whose hash was believed and turned out to be wrong.
    std::optional<std::int64_t> contradictedAt() const { return m_contradictedAt; }

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
        m_belief.mark();
        m_formerSize = m_hashFile.geometry().targetSize;
        m_hashFile.resize(size, changeImage);
    }

    void adaptToImage()
    {
        if (m_hashFile.geometry().targetSize != m_image.size()) {
            resize(m_image.size(), [] {});
        }
    }

    const Traffic& traffic() const { return m_traffic; }

    // As Belief::conclude, with what was checked.
    Conclusion conclude(bool isAnsweredFor = false);

private:
    void keep();
    std::string remarks() const;
    void store(Store& store, Range range, const char* data);
    void check(Store& store, Range range, const char* data);
    void checkKnown(Range blocks, const DigestBytes& digests);

    const Image& m_image;
    HashFile m_hashFile;
    const Common& m_common;
    Belief m_belief;
    ImageReader m_reader;
    std::mutex m_mutex; // of the next one
    std::vector<std::int64_t> m_newBlocks;
    std::optional<std::int64_t> m_formerSize;
    bool m_isDoubtTold = false;
    std::optional<std::int64_t> m_contradictedAt;
    Traffic m_traffic;
    std::atomic<std::int64_t> m_checked = 0; // blocks
    std::atomic<std::int64_t> m_repaired = 0;
};

} // namespace kelvane::tool
