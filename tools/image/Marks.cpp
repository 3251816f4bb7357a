#include "image/Marks.h"

#include "image/Identity.h"

namespace kelvane::tool {

namespace {

constexpr const char* WRITTEN = "written";

std::string textOf(const timespec& time)
{
    return std::to_string(time.tv_sec) + "." + std::to_string(1'000'000'000 + time.tv_nsec).substr(1);
}

void markDevice(const BlockDevice& device, const std::string& prefix, Marks& marks)
{
    const Counters found = device.counters();
    const Counters again = device.counters();
    marks.isMoving = marks.isMoving || found != again || found.inFlight > 0;
    marks.traits[prefix + WRITTEN] = std::to_string(found.written);
    marks.traits[prefix + "discarded"] = std::to_string(found.discarded);
    marks.traits[prefix + "written past it"] = std::to_string(found.writtenPast);
    marks.traits[prefix + "discarded past it"] = std::to_string(found.discardedPast);
    if (!device.isCounted()) {
        marks.doubt = "the system does not count what is written to it";
    }
    int number = 0;
    for (const BlockDevice& each : device.beneath()) {
        markDevice(each, prefix + std::to_string(number++) + ".", marks);
    }
}

bool isBefore(const timespec& a, const timespec& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

} // namespace

Traits stampsOf(const Descriptor& file, timespec& latest)
{
    struct stat status = {};
    ::fstat(file.get(), &status);
    latest = status.st_ctim;
    return {{"changed", textOf(status.st_ctim)}, {"modified", textOf(status.st_mtim)}, {FAILURES, failuresOf(file)}};
}

Marks marksOf(const Descriptor& bytes, const BlockDevice* device, bool isStamped)
{
    Marks marks;
    if (device != nullptr) {
        markDevice(*device, "", marks);
    } else if (!isStamped) {
        marks.doubt = "its file system may not record every change";
    }
    if (bytes) {
        marks.traits.merge(stampsOf(bytes, marks.latest));
    }
    return marks;
}

std::int64_t sectorsWritten(const Marks& before, const Marks& after)
{
    return std::stoll(after.traits.at(WRITTEN)) - std::stoll(before.traits.at(WRITTEN));
}

// A stamp without a fraction may come from a file system that keeps whole seconds.
bool isRecent(const timespec& latest, const timespec& clock)
{
    const timespec last = {latest.tv_sec, latest.tv_nsec == 0 ? 999'999'999 : latest.tv_nsec};
    return !isBefore(last, clock);
}

timespec stampingClock()
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return now;
}

} // namespace kelvane::tool
