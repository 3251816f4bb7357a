// The coverage-guided search for a message, or a list of ranges, that is not noticed to be wrong.
#include "Messages.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* input, std::size_t size)
{
    kelvane::testing::checkMessage(std::string(input, input + size));
    return 0;
}
