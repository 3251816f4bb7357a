// A side on this machine.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "work/Copier.h"
#include "work/HashedImage.h"
#include "work/Side.h"

namespace kelvane::tool {

// Refuses an image that is a hash file, or the record beside one.
Image openImage(const std::string& path, Image::Access access, AtLink atLink = AtLink::Follow);

class LocalSide : public Side {
public:
    // Opens the image alone.
    LocalSide(const std::string& path, Image::Access access, HashFileOptions options, const Common& common);

    // What is done with the hashes once they are open: those are forgotten of which the user knows that they are old.
    void whenOpened(std::function<void(HashedImage& hashed)> work) { m_whenOpened = std::move(work); }

    const Image& image() const { return m_image; }
    std::string hashFilePath() const { return m_options.pathFor(m_image); }

    const std::string& name() const override { return m_image.path(); }
    bool isFar() const override { return false; }
    const Opening& opening() override;
    void openHashes(const Start& start) override;
    void start(const Start& start) override;
    bool isChangedBy(const Start& start) const override
    {
        return m_image.isMissing() || m_image.size() != sizeAfter(start);
    }
    bool takesLong() const override { return !m_hashed->belief().holds(); }
    bool mayFailToStore() const override { return !m_hashed->hashFile().isWritable(); }
    const Started& started() override { return m_started; }
    void ask(const Nodes& nodes) override;
    void askBytes(Range range, std::int64_t unit) override;
    std::vector<Digest> digests() override;
    void dropCache() override { static_cast<void>(m_image.dropCache()); }
    void read(const std::vector<Range>& ranges, bool withDigests, const Sink& sink) override;
    void startWriting(bool isSparse) override;
    void write(const Piece& piece) override { m_copier->write(piece.range, piece.data); }
    OwnChange finishWriting() override;
    void abandon() override;
    void distrust() override;
    const Conclusion& conclude() override;

    // The image's size once the side is started.
    std::int64_t sizeAfter(const Start& start) const
    {
        return m_isDestination && !m_image.isBlockDevice() ? start.targetSize : m_image.size();
    }

    // The aggregate hash of whole blocks, from what is known of them.
    Digest digestOf(Range blocks);

private:
    struct Next {
        Range range;
        bool isHole;
    };

    void prepare(const Start& start);
    void disbelieveUnlessAlone(const OwnChange& change);
    Next nextOf(Range rest) const;
    void readData(Range range, bool withDigests, const Sink& sink);
    Range rangeOf(int level, std::int64_t index) const;
    Digest digestOfNode(int level, std::int64_t index);

    Image m_image;
    bool m_isDestination;
    HashFileOptions m_options;
    const Common& m_common;
    std::function<void(HashedImage& hashed)> m_whenOpened;
    std::optional<Opening> m_opening;
    std::optional<HashFile> m_hashFile; // as it was found
    std::optional<HashedImage> m_hashed;
    Conclusion m_conclusion;
    Started m_started;
    std::int64_t m_blockSize = 0;
    std::int64_t m_compared = 0;    // whole blocks
    std::vector<Digest> m_lowNodes; // their digests, of which those of high nodes are made
    std::deque<std::vector<Digest>> m_digests;
    std::unique_ptr<Copier> m_copier;
};

} // namespace kelvane::tool
