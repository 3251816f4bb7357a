// What the system shows of a block device, and of those that it is made of.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Descriptor.h"

namespace kelvane::tool {

// How many sectors went to it so far, past it, for a partition, to the whole disk; and how many requests are on their
// way. They count when they are done.
struct Counters {
    std::uint64_t written = 0;
    std::uint64_t discarded = 0;
    std::uint64_t writtenPast = 0;
    std::uint64_t discardedPast = 0;
    std::uint64_t inFlight = 0;

    bool operator==(const Counters&) const = default;
};

// The file whose bytes a loop device shows, from an offset on, up to a size or to its end.
struct LoopFile {
    std::string path; // as it was when the device was set up
    std::string offset;
    std::string sizeLimit;
    bool isReadOnly;
    FileNumber number;
};

class BlockDevice {
public:
    explicit BlockDevice(dev_t number);

    const std::string& number() const { return m_number; } // "8:1"

    // Of the whole disk, where this is a partition; empty when there is none.
    std::string value(const std::string& name) const;

    std::string partition() const; // its number, or nothing
    std::string start() const;     // where it starts on the whole disk, likewise

    Counters counters() const;

    // Whether they count, as far as can be seen: something was read, and that was counted.
    bool isCounted() const;

    // Those under a device mapper or an array.
    std::vector<BlockDevice> beneath() const;

    bool isMapped() const { return !value("dm/name").empty(); }

    // What maps a device of the device mapper to others, as a digest, for it may hold keys; empty when that is not
    // told.
    std::string mapping() const;

    std::optional<LoopFile> loopFile() const;

private:
    std::string m_number;
    dev_t m_device;
    std::string m_place; // in sysfs
    std::string m_disk;  // the whole one's
};

// The file that a loop device shows, to be read, when nothing can write to it through the device; else none.
Descriptor openShownFile(const BlockDevice& device);

// The loop devices that show a file, by their paths; those alone that are in use themselves.
std::vector<std::string> loopDevicesOf(const Descriptor& file);
std::vector<std::string> usedLoopDevicesOf(const Descriptor& file);

} // namespace kelvane::tool
