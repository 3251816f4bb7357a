// The coverage-guided search for a hash file that opening gets wrong.
#include <cstdio>
#include <cstdlib>

#include "CorruptFile.h"
#include "Logger.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* input, std::size_t size)
{
    kelvane::Logger::setLowestLevel(kelvane::KELVANE_WARNING); // a line for every size would be too many
    const auto result = kelvane::testing::checkCorruptFileFrom(input, size);
    if (!result.problem.empty()) {
        std::fprintf(stderr, "%s\n", result.problem.c_str());
        std::abort();
    }
    return 0;
}
