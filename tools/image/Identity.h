// Which image is it?
#pragma once

#include <string>

#include "base/Descriptor.h"
#include "image/BlockDevice.h"
#include "image/Traits.h"

namespace kelvane::tool {

// Of what another program serves.
constexpr const char* EXPORT_DOUBT = "an export shows no evidence";

// Never the same for two images. Names are no part of it: an image can be renamed, and another one take its name.
struct Identity {
    std::string path; // absolute, to be told to people

    // Of a file: its number, its generation and the time when it came into being, for a number is given to another file
    // once it is free. Of a device: what it is called by its maker, the file that it shows, what it is made of.
    Traits traits;

    // What is new with every start of the machine ("boot"), with every mounting of its file system ("mount"), or
    // whenever a device becomes another one. A file system that was mounted again may have lost a stamp, and kept the
    // data.
    Traits instance;

    std::string doubt; // why another image could have the same; empty when none can
};

// Of the file that holds the bytes, if there is one, and of the device by which they are reached, if they are.
Identity identityOf(const std::string& path, const Descriptor& bytes, const BlockDevice* device);

// What is new with every start of the machine.
Traits bootTraits();

// The same of a regular file, but for the start of the machine.
Traits fileTraits(const Descriptor& file);
Traits mountTraits(const Descriptor& file);

// How often the file system has failed so far, where it counts that; empty when it never has. A write of data that
// fails is a warning.
std::string failuresOf(const Descriptor& file);

} // namespace kelvane::tool
