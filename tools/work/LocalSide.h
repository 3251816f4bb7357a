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
#include "work/HashedImage.h"
#include "work/Side.h"
#include "work/Writer.h"

namespace kelvane::tool {

class LocalSide : public Side, private HashedSide, private StartedSide, private WritingSide {
public:
    // Opens the image alone.
    LocalSide(const std::string& path, Image::Access access, HashFileOptions options, const Common& common,
              const std::string& bitmap = {});

    // What is done with the hashes once they are open: those are forgotten of which the user knows that they are old.
    void whenOpened(std::function<void(HashedImage& hashed)> work) { m_whenOpened = std::move(work); }

    const Image& image() const { return m_image; }
    std::string hashFilePath() const { return m_options.pathFor(m_image); }

    const std::string& name() const override { return m_image.path(); }
    bool isFar() const override { return false; }
    const Opening& opening() override;
    HashedSide& openHashes(const Start& start) override;
    void abandon() override;

    // The image's size once the side is started.
    std::int64_t sizeAfter(const Start& start) const
    {
        return m_isDestination && !m_image.hasFixedSize() ? start.targetSize : m_image.size();
    }

private:
    struct Next {
        Range range;
        bool isHole;
    };

    Effects effects() const override;
    StartedSide& start(bool isFirst) override;
    const Started& started() override { return m_started; }
    void ask(const Nodes& nodes) override;
    void askBytes(Range range, std::int64_t unit) override;
    std::vector<Digest> digests() override;
    void dropCache() override { static_cast<void>(m_image.dropCache()); }
    void read(const std::vector<Range>& ranges, const Sink& sink) override;
    WritingSide& startWriting(bool isSparse) override;
    void announce(const std::vector<Range>& ranges) override { m_writer->announce(ranges); }
    void write(const Piece& piece) override { m_writer->write(piece); }
    OwnChange finish() override;
    void distrust() override { m_hashed->belief().contradict(); }
    const Conclusion& conclude() override;

    bool isBlank() const;
    void prepare();
    void forgetAll();
    void resizeImage(std::int64_t size);
    void disbelieveUnlessAlone(const OwnChange& change);
    Next nextOf(Range rest) const;
    void readData(const std::vector<Range>& ranges, const Sink& sink) const;
    void cut(Range range, const std::shared_ptr<ImageReader::Copy>& copy, const Sink& sink) const;
    Range rangeOf(int level, std::int64_t index) const;
    Digest digestOfBlocks(Range blocks);
    Digest digestOfNode(int level, std::int64_t index);

    std::unique_ptr<Image> m_opened;
    Image& m_image;
    bool m_isDestination;
    HashFileOptions m_options;
    const Common& m_common;
    std::function<void(HashedImage& hashed)> m_whenOpened;
    std::optional<Opening> m_opening;
    std::optional<HashFile> m_hashFile; // as it was found
    std::optional<HashedImage> m_hashed;
    Start m_start;
    Started m_started;
    std::int64_t m_blockSize = 0;
    std::int64_t m_compared = 0;    // whole blocks
    std::vector<Digest> m_lowNodes; // their digests, of which those of high nodes are made
    std::deque<std::vector<Digest>> m_digests;
    bool m_hasLearnt = false; // hashes that are not yet on the disk
    std::unique_ptr<Writer> m_writer;
    Conclusion m_conclusion;
};

} // namespace kelvane::tool
