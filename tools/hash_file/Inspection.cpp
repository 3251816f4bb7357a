#include "hash_file/Inspection.h"

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <utility>

namespace kelvane::tool {

namespace {

// What the library says about a file's header, where in the file, and what people can do.
struct HeaderFailure {
    const char* says;
    std::int64_t offset;
    const char* text;
};

constexpr const char* NO_HASH_FILE = "not a hash file";
constexpr const char* UNKNOWN_FORM = "a hash file of a form that is not known here; remove it to start anew";

constexpr HeaderFailure HEADER_FAILURES[] = {{"path does not represent a hash file", 0, "not a hash file"},
                                             {"file is too small to be valid: ", 0, NO_HASH_FILE},
                                             {"header magic number does not match", 0, NO_HASH_FILE},
                                             {"header version does not match", 8, UNKNOWN_FORM},
                                             {"hash data offset is invalid: ", 8, UNKNOWN_FORM},
                                             {"unknown hashing function: ", 8, UNKNOWN_FORM},
                                             {"block size is invalid: ", 8, UNKNOWN_FORM}};

// Failures of the system end in its error number; people want its name. Empty when there is none.
std::string systemError(const std::string& text)
{
    const std::size_t digits = text.find_last_not_of("0123456789") + 1;
    const bool isSystemError = text.starts_with("failed to ") || text.starts_with("error in ")
        || text.starts_with("error opening ") || text.starts_with("initFileRegion ");
    if (!isSystemError || digits == text.size() || digits < 2 || text[digits - 1] != ' ') {
        return {};
    }
    return errorText(std::atoi(text.c_str() + digits));
}

std::string sizeOf(const std::string& path)
{
    std::error_code error;
    return std::to_string(std::filesystem::file_size(path, error));
}

} // namespace

Failure explained(const std::string& path, const std::runtime_error& error)
{
    const std::string text = error.what();
    for (const HeaderFailure& failure : HEADER_FAILURES) {
        if (text.starts_with(failure.says)) {
            return {path, failure.offset, failure.text};
        }
    }
    if (text == "the hash file size is incorrect for given target size") {
        return {path,
                "its size of " + sizeOf(path)
                    + " does not fit its header: a change of it was cut short, unless one is under way; "
                      "remove it to start anew"};
    }
    const std::string cause = systemError(text);
    if (text.starts_with("failed to stat hash file") || text.starts_with("failed to open file: ")) {
        return {path, "cannot open the hash file: " + cause};
    }
    return {path, cause.empty() ? text : text.substr(0, text.find_last_of(' ') + 1) + cause};
}

Descriptor openHashFile(const std::string& path)
{
    const Descriptor found = openFile(path, O_PATH); // a pipe would be waited for
    struct stat status;
    if (found && ::fstat(found.get(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw Failure(path, 0, NO_HASH_FILE);
    }
    Descriptor file = found ? openAgain(found, O_RDONLY) : Descriptor();
    return file ? std::move(file) : throw Failure(path, "cannot open the hash file: " + errorText(errno));
}

bool isHashFile(const std::string& path)
{
    try {
        HashFileInspector inspector(path);
    } catch (const std::runtime_error& error) {
        const std::string text = error.what();
        const auto begins = [&](const char* says) { return text.starts_with(says); };
        return !begins("failed to ") && !begins("path does not") && !begins("file is too small")
            && !begins("header magic");
    }
    return true;
}

Geometry geometryOf(const HashFileInspector& inspector, const std::string& path)
{
    constexpr auto GREATEST = static_cast<kelvane_size_t>(std::numeric_limits<std::int64_t>::max());
    const kelvane_size_t start = inspector.partition_offset_in_bytes();
    const kelvane_size_t end = inspector.target_size_in_bytes();
    if (start > end || end > GREATEST) {
        throw Failure(path, "impossible sizes: a target from " + std::to_string(start) + " to " + std::to_string(end));
    }
    return {inspector.block_size_in_bytes(), static_cast<std::int64_t>(start), static_cast<std::int64_t>(end - start)};
}

} // namespace kelvane::tool
