#include "image/ImageState.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <thread>

#include "base/Failure.h"
#include "base/Interrupt.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds LONGEST_WAIT(2);

bool isBefore(const timespec& a, const timespec& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

std::string text(const timespec& time)
{
    std::ostringstream stream;
    stream << time.tv_sec << '.' << std::string(9 - std::to_string(time.tv_nsec).size(), '0') << time.tv_nsec;
    return stream.str();
}

// The content of a small file of the system without its line end; empty when there is none.
std::string contentOf(const std::string& path)
{
    const Descriptor file = openFile(path, O_RDONLY);
    std::array<char, 512> buffer;
    const ssize_t count = file ? ::read(file.get(), buffer.data(), buffer.size()) : -1;
    std::string content(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    return content.erase(content.find_last_not_of('\n') + 1);
}

// As JSON can hold it: what is no UTF-8 is replaced.
Json absolutePath(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::canonical(path, error);
    return Json::parse(Json(error ? path : absolute.string()).dump(-1, ' ', true, Json::error_handler_t::replace));
}

void describeFile(const struct stat& status, const Image& image, ImageState& state)
{
    state.image["kind"] = "file";
    state.image["device"] = status.st_dev;
    state.image["inode"] = status.st_ino;
    state.content["times"] = stampsOf(status);
    if (!image.isStamped()) {
        state.doubt = "its file system may not record every change";
    }
    state.isRecent = isRecent(status);
}

// The counters of sectors written and discarded, of the whole disk, because what goes to it past a partition
// counts there alone.
void describeDevice(const struct stat& status, ImageState& state)
{
    std::string place
        = "/sys/dev/block/" + std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev)) + "/";
    state.image["kind"] = "device";
    state.image["name"] = place.substr(15, place.size() - 16);
    const bool isPartition = !contentOf(place + "partition").empty();
    if (isPartition) {
        state.image["partition"] = contentOf(place + "partition");
        place += "../";
    }
    for (const char* const name : {"wwid", "device/wwid", "device/serial", "serial", "dm/uuid", "md/uuid", "diskseq"}) {
        if (const std::string value = contentOf(place + name); !value.empty()) {
            state.image[name] = value;
        }
    }
    constexpr int READ = 2;
    constexpr int WRITTEN = 6;
    constexpr int DISCARDED = 13;
    std::istringstream counters(contentOf(place + "stat"));
    std::vector<std::uint64_t> values;
    for (std::uint64_t value; counters >> value;) {
        values.push_back(value);
    }
    if (values.size() > DISCARDED) {
        state.content["written"] = values[WRITTEN];
        state.content["discarded"] = values[DISCARDED];
    }
    if (values.size() <= DISCARDED || values[READ] == 0 || contentOf(place + "queue/iostats") != "1") {
        state.doubt = "the system does not count what is written to it";
    }
    if (const std::string file = contentOf(place + "loop/backing_file"); !file.empty()) {
        struct stat backing;
        const Descriptor held = openFile(file, O_RDONLY | O_NONBLOCK);
        if (held && ::fstat(held.get(), &backing) == 0 && isStampingFileSystem(held.get())) {
            state.isRecent = isRecent(backing);
            state.content["file"] = {{"path", file}, {"inode", backing.st_ino}, {"times", stampsOf(backing)}};
        } else {
            state.doubt = "the file that holds it may have been changed";
        }
    }
}

} // namespace

Json stampsOf(const struct stat& status)
{
    return {{"changed", text(status.st_ctim)}, {"modified", text(status.st_mtim)}};
}

// A stamp without a fraction may come from a file system that keeps whole seconds.
bool isRecent(const struct stat& status)
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now); // which stamps are taken from
    timespec changed = status.st_ctim;
    if (changed.tv_nsec == 0) {
        changed.tv_nsec = 999'999'999;
    }
    return !isBefore(changed, now);
}

std::string bootIdentity()
{
    return contentOf("/proc/sys/kernel/random/boot_id");
}

ImageState stateAtOnce(const Image& image)
{
    struct stat status;
    if (::fstat(image.descriptor(), &status) != 0) {
        throw Failure(image.path(), errorText(errno));
    }
    ImageState state;
    state.image["path"] = absolutePath(image.path());
    state.content["size"] = image.currentSize();
    state.isNamed = image.isNamed();
    state.content["boot"] = bootIdentity(); // a crash can take back a time and keep the data
    if (image.isBlockDevice()) {
        describeDevice(status, state);
    } else {
        describeFile(status, image, state);
    }
    if (bootIdentity().empty()) {
        state.doubt = "the system does not tell when it was started";
    }
    return state;
}

ImageState stateOf(const Image& image)
{
    const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
    for (;;) {
        image.flush();
        ImageState state = stateAtOnce(image);
        if (!state.isRecent) {
            return state;
        }
        if (std::chrono::steady_clock::now() > end) {
            state.doubt = "it changes all the time, or its times of change lie in the future";
            return state;
        }
        throwWhenInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace kelvane::tool
