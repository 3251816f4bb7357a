#include "image/Writers.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "base/SmallFile.h"

namespace kelvane::tool {

namespace {

std::atomic<int> leased = -1; // the descriptor
std::atomic<bool> isShared = false;
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free, "used by a signal");

// The one that opens the image waits until the lease is given back.
extern "C" void giveBack(int /*signal*/)
{
    const int error = errno;
    isShared = true;
    ::fcntl(leased, F_SETLEASE, F_UNLCK);
    errno = error;
}

// Before the first lease: the signal would end the program.
bool installHandler()
{
    struct sigaction action = {};
    action.sa_handler = giveBack;
    action.sa_flags = SA_RESTART;
    return sigaction(SIGIO, &action, nullptr) == 0;
}

bool isOpenForWriting(const std::string& process, const std::string& fd)
{
    const std::string text = lineIn(process + "/fdinfo/" + fd);
    unsigned flags = 0;
    return std::sscanf(text.c_str(), "pos: %*u flags: %o", &flags) == 1 && (flags & O_ACCMODE) != O_RDONLY
        && (flags & O_PATH) == 0;
}

bool hasOpen(const std::string& process, const FileNumber& file)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fd", error)) {
        struct stat status;
        if (::stat(entry.path().c_str(), &status) == 0 && numberOf(status) == file
            && isOpenForWriting(process, entry.path().filename().string())) {
            return true;
        }
    }
    return false;
}

bool hasMapped(const std::string& process, const FileNumber& file)
{
    std::ifstream lines(process + "/maps");
    for (std::string line; std::getline(lines, line);) {
        char access[5] = {};
        unsigned high = 0;
        unsigned low = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), "%*x-%*x %4s %*x %x:%x %lu", access, &high, &low, &inode) == 4
            && FileNumber {makedev(high, low), inode} == file && access[1] == 'w' && access[3] == 's') {
            return true;
        }
    }
    return false;
}

std::vector<Program> programsWriting(const Descriptor& image)
{
    std::vector<Program> found;
    struct stat file;
    std::error_code error;
    if (::fstat(image.get(), &file) != 0) {
        return found;
    }
    for (const std::string& device : loopDevicesOf(image)) {
        found.push_back({0, device});
    }
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string process = entry.path().string();
        const std::int64_t number = std::atoll(entry.path().filename().c_str());
        if (number > 0 && number != ::getpid()
            && (hasOpen(process, numberOf(file)) || hasMapped(process, numberOf(file)))) {
            found.push_back({number, lineIn(process + "/comm")});
        }
    }
    return found;
}

} // namespace

std::string namesOf(const std::vector<Program>& programs)
{
    std::string names;
    for (const Program& program : programs) {
        names += (names.empty() ? "" : ", ") + program.command;
        names += program.process == 0 ? "" : " (" + std::to_string(program.process) + ")";
    }
    return names;
}

namespace {

bool hasLoop(const BlockDevice& device)
{
    const std::vector<BlockDevice> beneath = device.beneath();
    return device.loopFile().has_value() || std::any_of(beneath.begin(), beneath.end(), hasLoop);
}

std::string doubtAboutDevice(const Descriptor& bytes, const BlockDevice& device, bool isClaimed)
{
    if (!isClaimed) {
        return "the system, or another program, uses this device; is it mounted?";
    }
    return hasLoop(device) && !bytes
        ? "the file that this loop device shows can be written at any time, through the device at least"
        : "";
}

// A lease to read is granted when nobody has the file open for writing, or mapped so. It is given back at once.
int askForLease(const Descriptor& file)
{
    [[maybe_unused]] static const bool isInstalled = installHandler();
    const int error = ::fcntl(file.get(), F_SETLEASE, F_RDLCK) == 0 ? 0 : errno;
    if (error == 0) {
        ::fcntl(file.get(), F_SETLEASE, F_UNLCK);
    }
    return error;
}

} // namespace

Writers writersOf(const Descriptor& bytes, const BlockDevice* device, bool isClaimed)
{
    Writers writers;
    writers.doubt = device != nullptr ? doubtAboutDevice(bytes, *device, isClaimed) : "";
    if (bytes) {
        const int error = askForLease(bytes);
        writers.areSome = error == EAGAIN;
        if (writers.areSome) {
            writers.programs = programsWriting(bytes);
        } else if (error == EACCES) {
            writers.doubt = "it belongs to another user, and only its owner is told who writes to it";
        } else if (error != 0) {
            writers.doubt = "its file system does not tell who writes to it";
        }
    }
    return writers;
}

ExclusiveUse::ExclusiveUse(const Descriptor& file)
{
    [[maybe_unused]] static const bool isInstalled = installHandler();
    isShared = false;
    leased = file.get();
    m_isGranted = ::fcntl(leased, F_SETLEASE, F_WRLCK) == 0;
}

ExclusiveUse::~ExclusiveUse()
{
    ::fcntl(leased, F_SETLEASE, F_UNLCK);
    leased = -1;
}

bool ExclusiveUse::isGranted() const
{
    return m_isGranted && !isShared;
}

} // namespace kelvane::tool
