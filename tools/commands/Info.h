// What a hash file holds.
#pragma once

#include <cstdint>
#include <kelvane/HashFunctionType.h>
#include <optional>
#include <string>

#include "commands/Verdict.h"
#include "hash_file/Inspection.h"
#include "hash_file/Record.h"

namespace kelvane::tool {

struct InfoResult {
    struct Recorded {
        Record record;
        Doubt doubt; // whether it still holds
    };

    Verdict verdict = Verdict::Done;
    std::string hashFile;
    std::uint64_t magicNumber;
    std::uint64_t version;
    std::int64_t entriesStart; // in the file
    Geometry geometry;
    HashFunctionType hashFunction;
    std::int64_t hashSize;
    std::int64_t unknownBlocks;
    std::string map; // a character for each equal part of the blocks: # all known, + some, . none
    std::int64_t fileSize;
    std::int64_t sizeOnDisk;
    std::optional<Recorded> recorded; // nothing without a record

    std::int64_t wholeBlocks() const { return geometry.targetSize / geometry.blockSize; }
    std::int64_t knownBlocks() const { return wholeBlocks() - unknownBlocks; }
    std::int64_t partialBlock() const { return geometry.targetSize % geometry.blockSize; } // bytes
};

InfoResult info(const std::string& path);

} // namespace kelvane::tool
