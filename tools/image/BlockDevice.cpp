#include "image/BlockDevice.h"

#include <linux/dm-ioctl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <kelvane/BlakeHash.h>
#include <new>
#include <sstream>

#include "base/SmallFile.h"
#include "base/Text.h"

namespace kelvane::tool {

namespace {

// Where the figures stand in a device's line of statistics.
constexpr std::size_t SECTORS_READ = 2;
constexpr std::size_t SECTORS_WRITTEN = 6;
constexpr std::size_t SECTORS_DISCARDED = 13;

std::vector<std::uint64_t> numbersIn(const std::string& path)
{
    std::istringstream line(lineIn(path));
    std::vector<std::uint64_t> numbers;
    for (std::uint64_t number; line >> number;) {
        numbers.push_back(number);
    }
    return numbers;
}

std::vector<std::string> entriesOf(const std::string& directory)
{
    std::error_code error;
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct Statistics {
    Counters counters;
    bool counts = false; // as far as can be seen: something was read, and that was counted
};

Statistics statisticsOf(const std::string& place)
{
    const std::vector<std::uint64_t> sectors = numbersIn(place + "stat");
    const std::vector<std::uint64_t> onTheWay = numbersIn(place + "inflight"); // readings, writings
    if (sectors.size() <= SECTORS_DISCARDED || onTheWay.size() != 2) {
        return {};
    }
    return {{sectors[SECTORS_WRITTEN], sectors[SECTORS_DISCARDED], 0, 0, onTheWay[1]}, sectors[SECTORS_READ] > 0};
}

FileNumber numberOf(const loop_info64& info)
{
    return {static_cast<dev_t>(info.lo_device), static_cast<ino_t>(info.lo_inode)};
}

std::optional<loop_info64> loopInfo(const Descriptor& device)
{
    loop_info64 info = {};
    return device && ::ioctl(device.get(), LOOP_GET_STATUS64, &info) == 0 ? std::optional(info) : std::nullopt;
}

} // namespace

BlockDevice::BlockDevice(dev_t number)
    : m_number(std::to_string(major(number)) + ":" + std::to_string(minor(number)))
    , m_device(number)
    , m_place("/sys/dev/block/" + m_number + "/")
    , m_disk(partition().empty() ? m_place : m_place + "../")
{
}

std::string BlockDevice::value(const std::string& name) const
{
    return lineIn(m_disk + name);
}

std::string BlockDevice::partition() const
{
    return lineIn(m_place + "partition");
}

std::string BlockDevice::start() const
{
    return lineIn(m_place + "start");
}

// What goes to a partition counts for the whole disk, too.
Counters BlockDevice::counters() const
{
    Counters counters = statisticsOf(m_place).counters;
    if (m_disk != m_place) {
        Counters past = statisticsOf(m_disk).counters;
        for (const std::string& name : entriesOf(m_disk)) {
            const std::string place = m_disk + name + "/";
            if (!lineIn(place + "partition").empty()) {
                const Counters part = statisticsOf(place).counters;
                past.written -= part.written;
                past.discarded -= part.discarded;
                past.inFlight -= part.inFlight;
            }
        }
        counters.writtenPast = past.written;
        counters.discardedPast = past.discarded;
        counters.inFlight += past.inFlight;
    }
    return counters;
}

bool BlockDevice::isCounted() const
{
    return statisticsOf(m_place).counts && value("queue/iostats") == "1";
}

std::vector<BlockDevice> BlockDevice::beneath() const
{
    std::vector<BlockDevice> devices;
    for (const std::string& name : entriesOf(m_disk + "slaves")) {
        unsigned major = 0;
        unsigned minor = 0;
        if (std::sscanf(lineIn(m_disk + "slaves/" + name + "/dev").c_str(), "%u:%u", &major, &minor) == 2) {
            devices.emplace_back(makedev(major, minor));
        }
    }
    return devices;
}

std::string BlockDevice::mapping() const
{
    const Descriptor control = openFile("/dev/mapper/control", O_RDWR);
    std::vector<char> memory(1 << 20);
    auto* const request = new (memory.data()) dm_ioctl {};
    request->version[0] = DM_VERSION_MAJOR;
    request->data_size = static_cast<std::uint32_t>(memory.size());
    request->data_start = sizeof(dm_ioctl);
    request->flags = DM_STATUS_TABLE_FLAG | DM_SECURE_DATA_FLAG;
    request->dev = m_device;
    if (!control || ::ioctl(control.get(), DM_TABLE_STATUS, request) != 0 || (request->flags & DM_BUFFER_FULL_FLAG) != 0
        || request->data_size > memory.size()) {
        return "";
    }
    const auto digest = BlakeHash().get_hash(memory.data() + request->data_start,
                                             std::int64_t {request->data_size} - request->data_start);
    return hexadecimal(digest);
}

std::optional<LoopFile> BlockDevice::loopFile() const
{
    const std::string path = value("loop/backing_file");
    if (path.empty()) {
        return std::nullopt;
    }
    // A file may stand under its path that was put there later.
    std::error_code error;
    const std::filesystem::path disk = std::filesystem::canonical(m_disk, error);
    const auto info = loopInfo(openFile("/dev/" + disk.filename().string(), O_RDONLY));
    return LoopFile {path, value("loop/offset"), value("loop/sizelimit"), value("ro") == "1",
                     info ? numberOf(*info) : FileNumber()};
}

// Another file may have the name by now.
Descriptor openShownFile(const BlockDevice& device)
{
    const std::optional<LoopFile> loop = device.loopFile();
    const Descriptor found = loop && loop->isReadOnly ? openFile(loop->path, O_PATH) : Descriptor();
    struct stat status;
    const bool isTheSame
        = found && ::fstat(found.get(), &status) == 0 && S_ISREG(status.st_mode) && numberOf(status) == loop->number;
    return isTheSame ? openAgain(found, O_RDONLY) : Descriptor();
}

std::vector<std::string> loopDevicesOf(const Descriptor& file)
{
    std::vector<std::string> found;
    struct stat own;
    const std::vector<std::string> names = ::fstat(file.get(), &own) == 0 ? entriesOf("/sys/block") : found;
    for (const std::string& name : names) {
        if (name.starts_with("loop") && !lineIn("/sys/block/" + name + "/loop/backing_file").empty()) {
            const auto info = loopInfo(openFile("/dev/" + name, O_RDONLY));
            if (info && numberOf(*info) == numberOf(own)) {
                found.push_back("/dev/" + name);
            }
        }
    }
    return found;
}

std::vector<std::string> usedLoopDevicesOf(const Descriptor& file)
{
    std::vector<std::string> found = loopDevicesOf(file);
    std::erase_if(found, [](const std::string& path) { return openFile(path, O_RDONLY | O_EXCL) || errno != EBUSY; });
    return found;
}

} // namespace kelvane::tool
