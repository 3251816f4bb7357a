// Prints the hash of a block of zeros, and what crosses the border of the library: types and exceptions.
#include <kelvane/BlockHashStore.h>
#include <kelvane/HashFunctionFactory.h>

#include <cstdio>
#include <stdexcept>

#include "Logger.h"
#include "Types.h"

using namespace kelvane;

struct NoHash : IHashFunction { };

int main(int, char** argv)
{
    char block[4096] = {};
    BlockHashStore::create(argv[1], Blake2dHashFunctionType, sizeof(block), 0, sizeof(block), true);
    const auto store = BlockHashStore::open(argv[1], sizeof(block));
    store->update_hashes(0, block, sizeof(block));
    for (const unsigned char byte : store->get_hash(0, sizeof(block), nullptr)) {
        std::printf("%02x", OwnLength {byte});
    }
    logOwn(" ");
    const std::unique_ptr<IHashFunction> function = HashFunctionFactory::createHashFunction(Blake2dHashFunctionType);
    const bool derived = dynamic_cast<BlakeHash*>(function.get()) && NoHash().get_hash(block, 1).empty();
    try {
        BlockHashStore::open("", 0);
    } catch (const std::runtime_error& failure) {
        std::printf("%s %s\n", derived ? "derived" : "", failure.what());
    }
}
