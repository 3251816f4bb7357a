// A seam at the C library: the test program defines the file calls that the library makes, forwards them
// to the kernel, and lets a test watch each one or have it fail.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <map>
#include <utility>

namespace kelvane::testing {

enum class Call { Open, Close, Stat, Seek, ReadAt, Write, WriteAt, Fsync, SyncFileRange, Truncate, Unlink };

struct CallRecord {
    Call call;
    int fd = -1;                  // for calls that take one
    const void* buffer = nullptr; // of a transfer
    std::size_t length = 0;       // of a transfer, a synced range or a truncated file
    off_t offset = 0;             // of a positioned transfer, a seek or a synced range
    int flags = 0;                // of an open or a synced range
};

// What becomes of a call: by default it is forwarded. With an error it fails without reaching the
// kernel; with a limit, a transfer is forwarded for that many bytes only.
struct Outcome {
    int error = 0;
    ssize_t limit = -1;
};

// While it lives, every intercepted call asks the hook. One at a time; calls that the hook itself makes,
// or other threads, are forwarded.
struct CallHook {
    explicit CallHook(std::function<Outcome(const CallRecord&)> hook)
        : ask(std::move(hook))
    {
        EXPECT_EQ(std::exchange(active, this), nullptr) << "there is a hook already";
    }
    ~CallHook() { active = nullptr; }
    CallHook(CallHook&&) = delete;

    // A plain pointer, because calls may come before any constructor has run.
    static inline constinit thread_local CallHook* active = nullptr;
    std::function<Outcome(const CallRecord&)> ask;
};

using CallCounts = std::map<Call, std::size_t>; // of the calls that were made

// Counts calls while it lives.
class CallCounter {
public:
    const CallCounts& counts() const { return m_counts; }
    std::size_t operator[](Call call) const { return m_counts.contains(call) ? m_counts.at(call) : 0; }

private:
    CallCounts m_counts;
    CallHook m_hook {[this](const CallRecord& record) {
        ++m_counts[record.call];
        return Outcome();
    }};
};

int openDescriptors(); // how many the process holds

} // namespace kelvane::testing
