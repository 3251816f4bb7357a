// From the number of a hash function to an object that computes it.
#pragma once

#include <memory>

#include "BlakeHash.h"
#include "HashFunctionType.h"
#include "IHashFunction.h"

namespace kelvane {

// Makes hash functions by their number.
class HashFunctionFactory {
public:
    // A new object owned by the caller, or an empty pointer for Invalid and every unknown number.
    [[nodiscard]] static std::unique_ptr<IHashFunction> createHashFunction(HashFunctionType hash_id)
    {
        if (hash_id == Blake2dHashFunctionType) {
            return std::make_unique<BlakeHash>();
        }
        return nullptr;
    }
};

} // namespace kelvane
