#include "hash_file/Record.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <kelvane/BlakeHash.h>
#include <nlohmann/json.hpp>
#include <string_view>

#include "base/SmallFile.h"
#include "base/Text.h"
#include "hash_file/SideFiles.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr int VERSION = 2;
constexpr std::string_view BEGINNING = "{\n  \"version\": ";
constexpr std::size_t LARGEST = 64 << 10;
constexpr std::array<const char*, 4> STANDINGS = {"true", "unproven", "open", "flush failed"};

std::string textOf(const Json& json)
{
    return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::string checksumOf(const std::string& text)
{
    return hexadecimal(BlakeHash().get_hash(std::string(text).data(), std::ssize(text)));
}

Record fromJson(const Json& json)
{
    Record record;
    const auto standing = std::find(STANDINGS.begin(), STANDINGS.end(), json.at("standing").get<std::string>());
    record.standing = standing == STANDINGS.end() ? Record::Standing::Open
                                                  : static_cast<Record::Standing>(standing - STANDINGS.begin());
    record.reason = json.at("reason").get<std::string>();
    record.image.identity.path = json.at("image").get<std::string>();
    record.image.identity.traits = json.at("identity").get<Traits>();
    record.image.identity.instance = json.at("instance").get<Traits>();
    record.image.marks.size = json.at("size").get<std::int64_t>();
    record.image.marks.traits = json.at("marks").get<Traits>();
    record.hashFile = json.at("hashFile").get<Traits>();
    record.point = json.value("point", "");
    return record;
}

// What a file at a record's path holds; nothing, with `errno` set, where none can be a record.
std::optional<std::string> textIn(const Descriptor& file)
{
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(LARGEST)) {
        errno = EEXIST;
        return std::nullopt;
    }
    return contentOf(file, LARGEST);
}

Descriptor openRecord(const std::string& path, int flags)
{
    return openFile(path, flags | O_NONBLOCK, AtLink::Refuse, 0600);
}

// The file to write a record to: one that stands there and is a record; a new one where nothing does. Nothing, with
// `errno` set, otherwise.
Descriptor fileFor(const std::string& path)
{
    Descriptor file = openRecord(path, O_RDWR);
    if (!file && errno == ENOENT) {
        return openRecord(path, O_RDWR | O_CREAT | O_EXCL);
    }
    const std::optional<std::string> text = textIn(file);
    if (text && !Record::isIn(*text)) {
        errno = EEXIST;
        file = {};
    }
    return text ? std::move(file) : Descriptor();
}

// One that a crash cuts short is none, by its checksum.
bool writeTo(const Descriptor& file, const std::string& text)
{
    const auto length = static_cast<off_t>(text.size());
    return file && ::fchmod(file.get(), 0600) == 0 && ::pwrite(file.get(), text.data(), text.size(), 0) == length
        && ::ftruncate(file.get(), length) == 0;
}

} // namespace

bool Record::isIn(const std::string& text)
{
    return text.starts_with(BEGINNING) || BEGINNING.starts_with(text)
        || text.find_first_not_of('\0') == std::string::npos;
}

std::string Record::encode() const
{
    Json json = {{"version", VERSION},
                 {"standing", STANDINGS.at(static_cast<std::size_t>(standing))},
                 {"reason", reason},
                 {"image", image.identity.path},
                 {"identity", image.identity.traits},
                 {"instance", image.identity.instance},
                 {"size", image.marks.size},
                 {"marks", image.marks.traits},
                 {"hashFile", hashFile}};
    if (!point.empty()) {
        json["point"] = point;
    }
    json["checksum"] = checksumOf(textOf(json));
    return textOf(json);
}

std::optional<Record> Record::decode(const std::string& text)
{
    try {
        Json json = Json::parse(text);
        const auto checksum = json.at("checksum").get<std::string>();
        json.erase("checksum");
        const bool isWhole = json.at("version") == VERSION && checksum == checksumOf(textOf(json));
        return isWhole ? std::optional(fromJson(json)) : std::nullopt;
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

std::optional<Record> readRecord(const std::string& hashFile)
{
    const std::optional<std::string> text = textIn(openRecord(recordPath(hashFile), O_RDONLY));
    return text ? Record::decode(*text) : std::nullopt;
}

// Needs no flush: what it says counts until the machine is started again.
RecordWritten writeRecord(const std::string& hashFile, const Record& record)
{
    if (writeTo(fileFor(recordPath(hashFile)), record.encode())) {
        return RecordWritten::Yes;
    }
    const int error = errno;
    removeRecord(hashFile);
    const bool isThere = readRecord(hashFile).has_value();
    errno = error;
    return isThere ? RecordWritten::No : RecordWritten::Removed;
}

void removeRecord(const std::string& hashFile)
{
    const std::string path = recordPath(hashFile);
    const Descriptor file = openRecord(path, O_RDONLY);
    const std::optional<std::string> text = textIn(file);
    if (text && Record::isIn(*text) && leadsTo(path, file)) {
        ::unlink(path.c_str());
    }
}

bool isRecord(const Descriptor& file)
{
    return textIn(file).value_or("").starts_with(BEGINNING);
}

Owner ownerOf(const Record& record, const Identity& image)
{
    if (record.image.identity.traits == image.traits) {
        return Owner::Same;
    }
    return record.image.identity.path == image.path ? Owner::Successor : Owner::Other;
}

namespace {

std::string valueOf(const Traits& traits, const char* name)
{
    return traits.contains(name) ? traits.at(name) : "";
}

bool differ(const Traits& a, const Traits& b, const char* name)
{
    return valueOf(a, name) != valueOf(b, name);
}

} // namespace

bool hasFailedUntold(const std::optional<Record>& record, const ImageState& image)
{
    const bool isTold = record && record->image.identity.traits == image.identity.traits
        && record->image.identity.instance == image.identity.instance
        && !differ(record->image.marks.traits, image.marks.traits, FAILURES);
    return !isTold && !valueOf(image.marks.traits, FAILURES).empty();
}

namespace {

// What an image shows of itself, and of who could be changing it.
Doubt doubtOfEvidence(const ImageState& image, const Writers& writers)
{
    using Because = Doubt::Because;
    if (!image.doubt().empty() || !writers.doubt.empty()) {
        return {Because::Untold, image.doubt().empty() ? writers.doubt : image.doubt()};
    }
    if (writers.areSome) {
        const std::string names = namesOf(writers.programs);
        return {Because::OpenForWriting, "it is open for writing" + (names.empty() ? "" : ", by " + names)};
    }
    return {};
}

Doubt doubtOfPoint(const std::string& point, const Moment& moment)
{
    using Because = Doubt::Because;
    if (!point.empty() && point == moment.point) {
        return {};
    }
    if (!point.empty() && point == moment.since) {
        return {Because::NotYetForgotten, "what has changed since the point " + point + " may be among them"};
    }
    return {Because::AnotherPoint,
            point.empty() ? "of which point they are is not recorded" : "they are of the point " + point};
}

} // namespace

Doubt doubtAbout(const std::optional<Record>& record, const Traits& hashFile, const ImageState& image,
                 const Writers& writers, const Moment& moment)
{
    using Because = Doubt::Because;
    if (!record) {
        return {Because::NoRecord, "no record says that they are true of it"};
    }
    const ImageState& then = record->image;
    const Traits& instance = image.identity.instance;
    const auto isAnother = [&](const char* name) { return differ(then.identity.instance, instance, name); };
    if (record->standing == Record::Standing::FlushFailed) {
        return {Because::FlushFailed, "a flush failed, and what is in memory may never have reached the disk"};
    }
    if (record->standing == Record::Standing::Open) {
        return {Because::CutShort, "the last run was cut short"};
    }
    if (ownerOf(*record, image.identity) != Owner::Same) {
        return {Because::AnotherImage, "another image has taken its place"};
    }
    if (!moment.isNamed() && !record->point.empty()) {
        return {Because::AnotherPoint, "they are of the point " + record->point};
    }
    if (const Doubt doubt = doubtOfEvidence(image, writers); doubt.isAny() && !moment.isNamed()) {
        return doubt;
    }
    if (record->standing == Record::Standing::Unproven) {
        return {Because::Unproven, record->reason};
    }
    if (record->hashFile != hashFile) {
        return {Because::HashFileChanged, "the hash file was changed or replaced since they were recorded as true"};
    }
    if (isAnother("boot")) {
        return {Because::StartedAgain, "the machine was started again since"};
    }
    if (isAnother("mount")) {
        return {Because::MountedAgain, "its file system was mounted again since"};
    }
    if (then.identity.instance != instance) {
        return {Because::AnotherImage, "another image has taken its place"};
    }
    if (moment.isNamed()) {
        return doubtOfPoint(record->point, moment);
    }
    if (differ(then.marks.traits, image.marks.traits, FAILURES)) {
        return {Because::FlushFailed, "its file system has failed since"};
    }
    return then.isSame(image) ? Doubt() : Doubt {Because::Changed, "it was changed since"};
}

} // namespace kelvane::tool
