#include "image/Identity.h"

#include <linux/btrfs.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <filesystem>

#include "base/SmallFile.h"

#ifndef STATX_MNT_ID_UNIQUE
#define STATX_MNT_ID_UNIQUE 0x00004000U
#endif

namespace kelvane::tool {

namespace {

void setIfAny(Traits& traits, const std::string& name, const std::string& value)
{
    if (!value.empty()) {
        traits[name] = value;
    }
}

// The directory that a file system has in sysfs as long as it is mounted; empty when it has none.
std::string directoryOf(const Descriptor& file)
{
    struct stat status;
    std::error_code error;
    btrfs_ioctl_fs_info_args btrfs = {};
    if (::ioctl(file.get(), BTRFS_IOC_FS_INFO, &btrfs) == 0) {
        std::string uuid;
        for (int i = 0; i < BTRFS_FSID_SIZE; ++i) {
            constexpr const char* DIGITS = "0123456789abcdef";
            uuid += i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "";
            uuid += {DIGITS[btrfs.fsid[i] / 16], DIGITS[btrfs.fsid[i] % 16]};
        }
        return "/sys/fs/btrfs/" + uuid;
    }
    if (::fstat(file.get(), &status) != 0) {
        return "";
    }
    const std::string number = std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
    const auto device = std::filesystem::read_symlink("/sys/dev/block/" + number, error).filename().string();
    for (const char* const type : {"ext4", "xfs", "f2fs"}) {
        const std::string place = std::string("/sys/fs/") + type + "/" + device;
        if (!device.empty() && std::filesystem::is_directory(place, error)) {
            return place;
        }
    }
    return "";
}

// The number of that directory is never given again.
std::string mountedInstance(const std::string& directory)
{
    struct stat status;
    return !directory.empty() && ::stat(directory.c_str(), &status) == 0 ? std::to_string(status.st_ino) : "";
}

std::string uniqueMount(const Descriptor& file)
{
    struct statx status;
    const bool isTold = ::statx(file.get(), "", AT_EMPTY_PATH, STATX_MNT_ID_UNIQUE, &status) == 0
        && (status.stx_mask & STATX_MNT_ID_UNIQUE) != 0;
    return isTold ? std::to_string(status.stx_mnt_id) : "";
}

void identifyDevice(const BlockDevice& device, const std::string& prefix, Identity& identity)
{
    setIfAny(identity.traits, prefix + "partition", device.partition());
    setIfAny(identity.traits, prefix + "start", device.start());
    for (const char* const name : {"wwid", "device/wwid", "device/serial", "serial", "dm/uuid", "md/uuid"}) {
        setIfAny(identity.traits, prefix + name, device.value(name));
    }
    identity.instance[prefix + "number"] = device.number();
    setIfAny(identity.instance, prefix + "diskseq", device.value("diskseq"));
    if (!identity.instance.contains(prefix + "diskseq")) { // before Linux 5.15
        identity.doubt = "the system does not tell one device from the next with the same number";
    }
    if (device.isMapped()) {
        identity.instance[prefix + "mapping"] = device.mapping();
        if (device.mapping().empty()) {
            identity.doubt = "the system does not tell what it is mapped to";
        }
    }
    if (const std::optional<LoopFile> loop = device.loopFile()) {
        identity.traits[prefix + "offset"] = loop->offset;
        identity.traits[prefix + "limit"] = loop->sizeLimit;
    }
    int number = 0;
    for (const BlockDevice& each : device.beneath()) {
        identifyDevice(each, prefix + std::to_string(number++) + ".", identity);
    }
}

} // namespace

Traits fileTraits(const Descriptor& file)
{
    Traits traits;
    struct statx status = {};
    if (::statx(file.get(), "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) == 0) {
        traits["inode"] = std::to_string(status.stx_ino);
        if ((status.stx_mask & STATX_BTIME) != 0) {
            traits["born"] = std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
        }
    }
    long generation = 0;
    if (::ioctl(file.get(), FS_IOC_GETVERSION, &generation) == 0) {
        traits["generation"] = std::to_string(static_cast<std::uint32_t>(generation));
    }
    return traits;
}

Traits bootTraits()
{
    Traits traits;
    setIfAny(traits, "boot", lineIn("/proc/sys/kernel/random/boot_id"));
    return traits;
}

// A mount has a number of its own in every namespace, its file system one directory: that comes first.
Traits mountTraits(const Descriptor& file)
{
    Traits traits;
    const std::string instance = mountedInstance(directoryOf(file));
    setIfAny(traits, "mount", instance.empty() ? uniqueMount(file) : instance);
    struct stat status;
    if (::fstat(file.get(), &status) == 0) {
        traits["device"] = std::to_string(status.st_dev);
    }
    return traits;
}

std::string failuresOf(const Descriptor& file)
{
    const std::string directory = directoryOf(file);
    std::string failures;
    for (const char* const name : {"/errors_count", "/warning_count"}) {
        const std::string count = directory.empty() ? "" : lineIn(directory + name);
        failures += count.empty() || count == "0" ? "" : name + (" " + count);
    }
    return failures;
}

Identity identityOf(const std::string& path, const Descriptor& bytes, const BlockDevice* device)
{
    Identity identity;
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::canonical(path, error);
    identity.path = error ? path : absolute.string();
    if (device != nullptr) {
        identity.traits["kind"] = "device";
        identifyDevice(*device, "", identity);
    } else {
        identity.traits["kind"] = "file";
    }
    if (bytes) {
        identity.traits.merge(fileTraits(bytes));
        identity.instance.merge(mountTraits(bytes));
        if (!identity.traits.contains("born") && !identity.traits.contains("generation")) {
            identity.doubt = "its file system does not tell one file from the next with the same number";
        }
        if (!identity.instance.contains("mount")) {
            identity.doubt = "the system does not tell when its file system was mounted";
        }
    }
    identity.instance.merge(bootTraits());
    if (!identity.instance.contains("boot")) {
        identity.doubt = "the system does not tell when it was started";
    }
    return identity;
}

} // namespace kelvane::tool
