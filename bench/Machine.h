// The machine that the benchmarks run on.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "Comparison.h"

namespace kelvane::bench {

inline std::string processorName()
{
    std::ifstream description("/proc/cpuinfo");
    for (std::string line; std::getline(description, line);) {
        if (line.starts_with("model name")) {
            return line.substr(line.find(": ") + 2);
        }
    }
    return "unknown";
}

// The clock's rate, by additions that wait for each other: each takes a cycle. Rounds that nothing disturbs
// come closest.
inline void clockRate(benchmark::State& state)
{
    constexpr uint64_t ADDITIONS = 1'600'000;
    const auto additions = [] {
        uint64_t sum = 0;
        for (uint64_t i = 0; i < ADDITIONS; i += 8) {
            for (int j = 0; j < 8; ++j) {
                sum += i;
                asm volatile("" : "+r"(sum));
            }
        }
    };
    const auto seconds = timeInTurn(state, {{additions}});
    state.counters["hertz"] = ADDITIONS / fastest(seconds[0]);
}

} // namespace kelvane::bench
