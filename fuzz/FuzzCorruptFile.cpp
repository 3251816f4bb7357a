// The coverage-guided search for a hash file that opening gets wrong.
#include "CorruptFile.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* input, std::size_t size)
{
    GTEST_FLAG_SET(break_on_failure, true);
    kelvane::Logger::setLowestLevel(kelvane::KELVANE_WARNING); // a line for every size would be too many
    kelvane::testing::checkCorruptFileFrom(input, size);
    return 0;
}
