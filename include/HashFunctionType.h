// The numbers of the hash functions, as hash files record them.
#pragma once

#include <cstdint>

namespace kelvane {

// The hash function of a hash file.
enum HashFunctionType : std::uint32_t {
    Invalid = 0,                // no hash function
    Blake2dHashFunctionType = 1 // the hash that BlakeHash computes
};

} // namespace kelvane
