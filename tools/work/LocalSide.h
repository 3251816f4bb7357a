// A side on this machine.
#pragma once

#include <deque>
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

// Refuses an image that is a hash file.
Image openImage(const std::string& path, Image::Access access);

class LocalSide : public Side {
public:
    LocalSide(const std::string& path, Image::Access access, HashFileOptions options, const Common& common);

    const Image& image() const { return m_image; }

    const std::string& name() const override { return m_image.path(); }
    bool isFar() const override { return false; }
    const Opening& opening() override { return m_opening; }
    void openHashes(const Start& start) override;
    void start(const Start& start) override;
    bool isChangedBy(const Start& start) const override
    {
        return m_image.isMissing() || m_image.size() != sizeAfter(start);
    }
    bool takesLong() const override { return !m_hashed->believes(); }
    bool mayFailToStore() const override { return !m_hashed->hashFile().isWritable(); }
    const Started& started() override { return m_started; }
    void ask(const Nodes& nodes) override;
    void askBytes(Range range, std::int64_t unit) override;
    std::vector<Digest> digests() override;
    void dropCache() override { m_image.dropCache(); }
    void read(const std::vector<Range>& ranges, bool withDigests, const Sink& sink) override;
    void startWriting(bool isSparse) override;
    void write(const Stretch& stretch) override { m_copier->write(stretch.range, stretch.data); }
    OwnChange finishWriting() override;
    void abandon() override;
    void distrust() override;
    bool conclude() override { return m_hashed->conclude(); }
    std::string remarks() const override { return m_hashed->text(); }
    nlohmann::ordered_json freshness() const override { return m_hashed->json(); }

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

    void prepare(std::int64_t size);
    void disbelieveUnlessAlone(const OwnChange& change);
    Next nextOf(Range rest) const;
    void readPiece(Range piece, bool withDigests, const Sink& sink);
    Range rangeOf(int level, std::int64_t index) const;
    Digest digestOfNode(int level, std::int64_t index);

    Image m_image;
    bool m_isDestination;
    HashFileOptions m_options;
    const Common& m_common;
    Opening m_opening;
    std::optional<HashedImage> m_hashed;
    Started m_started;
    std::int64_t m_blockSize = 0;
    std::int64_t m_compared = 0;  // whole blocks
    std::vector<Digest> m_slices; // digests of nodes that are put together from
    std::deque<std::vector<Digest>> m_digests;
    std::unique_ptr<Copier> m_copier;
};

} // namespace kelvane::tool
