// What can keep a file from being used as a hash file.
#pragma once

#include <cstdint>

#include "Export.h"

namespace kelvane {

// The first check of opening that a file does not pass.
enum class HashFileFault {
    None,             // a hash file that fits its header
    Status,           // the system does not tell anything about the file: it is not there, for instance
    FileType,         // not a regular file
    Length,           // too short for a header
    Opening,          // the system does not open it
    Reading,          // its header cannot be read
    MagicNumber,      // not a hash file
    Version,          // a hash file of another form, with one of the next three too
    DataRegionOffset, //
    HashFunction,     //
    BlockSize,        // 0
    TargetSize,       // its header is of a target of another size
    FileSize          // its size does not fit its header: its creation or a change of its size was cut short
};

// A fault and where it shows. What opening and inspecting throw for one is a std::runtime_error and a HashFileFinding:
//   catch (const std::runtime_error& failure) {
//       const auto* const finding = dynamic_cast<const HashFileFinding*>(&failure); // null for other failures
struct KELVANE_EXPORT HashFileFinding {
    HashFileFault fault = HashFileFault::None; // None: a hash file that fits its header
    std::uint64_t offset = 0; // of the header's field that the check looks at, in bytes; 0 for those before the header
    int error = 0;            // the system's error number, for Status, Opening and Reading; 0 where it did not fail
    std::uint64_t fileSize = 0; // in bytes; 0 for Status and FileType

    // Whether the file says that it is a hash file, perhaps a damaged one.
    bool isHashFile() const { return fault == HashFileFault::None || fault > HashFileFault::MagicNumber; }
};

} // namespace kelvane
