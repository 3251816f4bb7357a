// The image that a command is about.
#pragma once

#include <string>

#include "hash_file/HashFile.h"

namespace kelvane::tool {

struct ImageArguments { // the image may be on another machine where a command says so
    std::string image;
    HashFileOptions hashFile;
};

} // namespace kelvane::tool
