// Sizes, ranges, hashes and times as people write and read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::tool {

std::string humanSize(double bytes);                               // 1.50 GiB
std::string humanTime(double seconds);                             // 1:02:03, 4:05 or 0.21 s
std::string grouped(std::int64_t number);                          // 1,234,567
std::string counted(std::int64_t number, const std::string& noun); // 1 block, 2 blocks
std::string printable(const std::string& text, std::size_t most);  // of a stranger: in one line, and not longer
std::string hexadecimal(const std::vector<unsigned char>& bytes);

} // namespace kelvane::tool
