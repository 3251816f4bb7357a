// What can be seen of an image without reading it, and whether it would show a change.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "image/Image.h"

namespace kelvane::tool {

// Two states of one image are equal only if the image was not changed in between. Kept as JSON, because it is written
// down and compared, and nothing else.
struct ImageState {
    nlohmann::ordered_json image;   // "path", which is absolute, "kind", and what tells it from others
    nlohmann::ordered_json content; // "size", and what changes with every change
    std::string doubt;              // why equal states would not mean an unchanged image; empty when they do

    bool isRecent = false; // another change could still have the same stamp
    bool isNamed = true;   // the image's path led to it

    bool isSame(const ImageState& other) const
    {
        return isNamed && other.isNamed && image == other.image && content == other.content;
    }
};

// Flushes the image first: what waits in memory would still be counted, or stamped, later. Waits until the clock has
// left the moment of the last change behind, for another change within that moment would have the same stamp.
ImageState stateOf(const Image& image);

// Takes no time, but tells only which image it is: whether that was changed is not to be seen before a flush.
ImageState stateAtOnce(const Image& image);

// The times of a file, as they are written down, and whether another change could still have the same.
nlohmann::ordered_json stampsOf(const struct stat& status);
bool isRecent(const struct stat& status);

// Tells this start of the machine from every other one; empty when that is not known.
std::string bootIdentity();

} // namespace kelvane::tool
