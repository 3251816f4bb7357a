#include "hash_file/Evidence.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <kelvane/BlakeHash.h>
#include <string_view>
#include <thread>

#include "base/Descriptor.h"
#include "base/Failure.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr int VERSION = 1;
constexpr std::string_view BEGINNING = "{\n  \"version\": ";
constexpr std::int64_t LARGEST = 64 << 10;

std::string checksumOf(const Json& record)
{
    std::string text = record.dump(-1, ' ', true, Json::error_handler_t::replace);
    std::string digits;
    for (const unsigned char byte : BlakeHash().get_hash(text.data(), static_cast<kelvane_buf_len_t>(text.size()))) {
        constexpr const char* DIGITS = "0123456789abcdef";
        digits += {DIGITS[byte / 16], DIGITS[byte % 16]};
    }
    return digits;
}

bool writeAll(const std::string& path, const std::string& text)
{
    const Descriptor file = openFile(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    return file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Of a file that can be a record; nothing, with `errno` set, where none stands or something else.
std::optional<std::string> contentOf(const std::string& path)
{
    const Descriptor file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > LARGEST) {
        errno = EEXIST;
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::read(file.get(), text.data(), text.size());
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return count < 0 ? std::nullopt : std::optional(text);
}

// Whether nothing is lost when a record takes the place of what stands there: another one, or what a crash left of one.
// Otherwise `errno` is set.
bool mayBeReplaced(const std::string& path)
{
    const std::optional<std::string> text = contentOf(path);
    if (!text) {
        return errno == ENOENT;
    }
    errno = EEXIST;
    return text->starts_with(BEGINNING) || BEGINNING.starts_with(*text)
        || text->find_first_not_of('\0') == std::string::npos;
}

} // namespace

std::optional<Evidence> Evidence::read(const std::string& hashFilePath)
{
    try {
        Json record = Json::parse(contentOf(pathFor(hashFilePath)).value_or(""));
        const Json checksum = record.at("checksum");
        record.erase("checksum");
        if (record.at("version") != VERSION || checksum != checksumOf(record)) {
            return std::nullopt;
        }
        Evidence evidence;
        evidence.isClean = record.at("clean").get<bool>();
        evidence.image.image = record.at("image");
        evidence.image.content = record.at("content");
        evidence.hashFile = record.at("hashFile");
        record.at("image").at("path").get<std::string>();
        record.at("content").at("size").get<std::int64_t>();
        return evidence;
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

bool Evidence::isRecord(const std::string& path)
{
    return contentOf(path).value_or("").starts_with(BEGINNING);
}

// Needs no flush: what it says counts until the machine is started again.
bool Evidence::write(const std::string& hashFilePath) const
{
    Json record = {{"version", VERSION},
                   {"clean", isClean},
                   {"image", image.image},
                   {"content", image.content},
                   {"hashFile", hashFile}};
    record["checksum"] = checksumOf(record);
    const std::string path = pathFor(hashFilePath);
    const std::string temporary = inTheMaking(path);
    const bool isWritten = mayBeReplaced(path) && mayBeReplaced(temporary)
        && writeAll(temporary, record.dump(2, ' ', true, Json::error_handler_t::replace) + "\n")
        && ::rename(temporary.c_str(), path.c_str()) == 0;
    if (!isWritten) { // none is better than one that holds no more
        const int error = errno;
        remove(hashFilePath);
        errno = error;
    }
    return isWritten;
}

void Evidence::remove(const std::string& hashFilePath)
{
    if (const std::string path = pathFor(hashFilePath); mayBeReplaced(path)) {
        ::unlink(path.c_str());
    }
}

Owner ownerOf(const Evidence& evidence, const ImageState& image)
{
    const Json& recorded = evidence.image.image;
    const auto same = [&](const char* name) { return recorded.value(name, Json()) == image.image.value(name, Json()); };
    const bool sameIdentity = image.image.contains("inode")
        ? same("inode") && (same("device") || same("path"))
        : same("wwid") && same("device/wwid") && same("device/serial") && same("serial") && same("dm/uuid")
            && same("md/uuid") && same("partition") && same("name");
    if (same("kind") && sameIdentity) {
        return Owner::Same;
    }
    return same("path") ? Owner::Successor : Owner::Other;
}

const char* const CHANGED = "it was changed since";

std::string doubtAbout(const std::optional<Evidence>& evidence, const Json& hashFile, const ImageState& image)
{
    if (!evidence) {
        return "no record says that they are true of it";
    }
    if (!evidence->isClean) {
        return "the last run was cut short, or it was changed while that ran";
    }
    if (!hashFile.is_object() || evidence->hashFile != hashFile) {
        return "the hash file was changed or replaced since they were recorded as true";
    }
    if (ownerOf(*evidence, image) != Owner::Same) {
        return "another image has taken its place";
    }
    if (!image.doubt.empty()) {
        return image.doubt;
    }
    if (evidence->image.content["boot"] != image.content["boot"]) {
        return "the machine was started again since";
    }
    return evidence->image.isSame(image) ? "" : CHANGED;
}

Json hashFileState(int fd, bool waits)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    struct stat status = {};
    while (::fstat(fd, &status) == 0 && waits && isRecent(status)) {
        if (std::chrono::steady_clock::now() > end) {
            return nullptr; // its times lie in the future, and tell nothing
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return {{"device", status.st_dev}, {"inode", status.st_ino}, {"size", status.st_size}, {"times", stampsOf(status)}};
}

} // namespace kelvane::tool
