// The image that a command is about.
#pragma once

#include <string>

#include "hash_file/HashFile.h"

namespace kelvane::tool {

// Moments of an export that have names, and what has changed since one of them.
struct PointArguments {
    std::string point; // the export is of this moment; empty: of one without a name
    std::string since; // a point at which the bitmap begins; empty: there is none
    std::string bitmap;

    bool areSome() const { return !point.empty() || !since.empty(); }
};

struct ImageArguments { // the image may be on another machine where a command says so
    std::string image;
    HashFileOptions hashFile;
    PointArguments points = {};
};

} // namespace kelvane::tool
