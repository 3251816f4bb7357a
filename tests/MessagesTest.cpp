// The stored inputs of the search in messages and lists of ranges, without clang.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "../fuzz/Messages.h"

namespace kelvane::testing {

TEST(MessagesTest, WhatTheFuzzerFound)
{
    std::array<int, KINDS> understood = {};
    int refused = 0;
    for (const auto& entry : std::filesystem::directory_iterator(KELVANE_MESSAGES)) {
        SCOPED_TRACE(entry.path());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        const Verdict verdict = checkMessage(input);
        ASSERT_NE(verdict, Verdict::NoKind);
        understood[static_cast<unsigned char>(input[0])] += verdict == Verdict::Understood ? 1 : 0;
        refused += verdict == Verdict::Refused ? 1 : 0;
    }
    for (std::size_t kind = 0; kind < KINDS; ++kind) {
        EXPECT_GT(understood[kind], 0) << "no stored input of kind " << kind << " is understood";
    }
    EXPECT_GT(refused, 10);
}

} // namespace kelvane::testing
