// The files that a hash file takes up: itself, and the record beside it.
#pragma once

#include <string>
#include <vector>

namespace kelvane::tool {

std::string recordPath(const std::string& hashFile);
std::vector<std::string> filesOf(const std::string& hashFile);

// Fail, by the path that is given for two things, where making or writing the one would destroy the other. Paths may
// lead to one file in any way, whether it is there or not.
void keepApart(const std::string& image, const std::string& hashFile);
void keepHashFilesApart(const std::string& hashFile, const std::string& other);

} // namespace kelvane::tool
