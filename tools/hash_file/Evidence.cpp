#include "hash_file/Evidence.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <kelvane/BlakeHash.h>
#include <thread>

#include "base/Descriptor.h"
#include "base/Failure.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr int VERSION = 1;

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

} // namespace

std::optional<Evidence> Evidence::read(const std::string& hashFilePath)
{
    std::ifstream file(pathFor(hashFilePath), std::ios::binary);
    const std::string text {std::istreambuf_iterator<char>(file), {}};
    try {
        Json record = Json::parse(text);
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
    const std::string temporary = path + ".new";
    return writeAll(temporary, record.dump(2, ' ', true, Json::error_handler_t::replace) + "\n")
        && ::rename(temporary.c_str(), path.c_str()) == 0;
}

void Evidence::remove(const std::string& hashFilePath)
{
    ::unlink(pathFor(hashFilePath).c_str());
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
