// The record beside a hash file of the image that its hashes are true of.
#pragma once

#include <optional>
#include <string>

#include "hash_file/SideFiles.h"
#include "image/ImageState.h"

namespace kelvane::tool {

struct Evidence {
    // Whether every known hash was true of the image in this state; a run that is killed leaves it saying no.
    bool isClean = false;
    ImageState image;
    nlohmann::ordered_json hashFile; // as it was then

    // What is recorded for the hash file at a path; nothing when there is no record, or none that can be read.
    static std::optional<Evidence> read(const std::string& hashFilePath);

    // Whether a file is a record, perhaps a damaged one.
    static bool isRecord(const std::string& path);

    // Replaces the record, all at once. False, with `errno` set, when it cannot be written, or when what stands there
    // is none; then there is no record any more.
    bool write(const std::string& hashFilePath) const;

    static void remove(const std::string& hashFilePath);
    static std::string pathFor(const std::string& hashFilePath) { return recordPath(hashFilePath); }
};

// Whether a record is of this image: the same one, another one in its place, or another one elsewhere.
enum class Owner { Same, Successor, Other };
Owner ownerOf(const Evidence& evidence, const ImageState& image);

// Why what is recorded may not be true of an image and of a hash file in these states; empty when it is.
std::string doubtAbout(const std::optional<Evidence>& evidence, const nlohmann::ordered_json& hashFile,
                       const ImageState& image);
extern const char* const CHANGED; // the reason, when nothing but the image has changed

// The state of a hash file, for its record. `waits`: until no later change can have the same times; null when there
// is no such moment.
nlohmann::ordered_json hashFileState(int fd, bool waits);

} // namespace kelvane::tool
