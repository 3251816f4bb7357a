// How a command works, whatever it does.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

#include "base/Reporter.h"
#include "image/ImageReader.h"

namespace kelvane::tool {

// What is believed of the hashes that are known already.
enum class Trust {
    Record, // that they are true, when the record beside the hash file says so
    Nothing,
    Everything
};

struct Common {
    Reporter& reporter;
    unsigned jobs = 0; // threads that read and hash; 0: as many as the machine has cores
    Trust trust = Trust::Record;
    Cache cache = Cache::LeaveAsFound;
    std::chrono::seconds timeout {60}; // that a server may keep silent

    unsigned threads() const { return jobs > 0 ? jobs : std::max(1U, std::thread::hardware_concurrency()); }
};

} // namespace kelvane::tool
