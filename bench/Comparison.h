// Benchmarks that run several contestants in turn, so that whatever disturbs the machine disturbs all.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::bench {

using Action = std::function<void()>;
using Seconds = std::vector<double>; // one value per round

struct Side {
    Action run;
    Action prepare = [] {}; // before every run, not timed
    double part = 1;        // how much of the work a run does; times are those of the whole
};

// What a row compares: two ways to handle `work`, which is in bytes or in calls.
struct Duel {
    std::string against;
    double work;
    bool workIsBytes;
    Side ours;
    Side theirs;
};

// What a row must show; 0 when it has nothing to show.
struct Requirement {
    double must = 0;          // the least that their time over ours may be
    double mustNotExceed = 0; // the most that our time over theirs may be; the row then gives this ratio
};

inline double quantile(Seconds values, double part)
{
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

// What the work costs: whatever else the machine does can only add to a round's time.
inline double fastest(const Seconds& values)
{
    return *std::min_element(values.begin(), values.end());
}

// Runs the sides once per round, each round beginning with another one, and gives every side's times.
inline std::vector<Seconds> timeInTurn(benchmark::State& state, const std::vector<Side>& sides)
{
    using Clock = std::chrono::steady_clock;
    const auto time = [](const Side& side) {
        side.prepare();
        const auto start = Clock::now();
        side.run();
        return std::chrono::duration<double>(Clock::now() - start).count() / side.part;
    };
    std::for_each(sides.begin(), sides.end(), time); // warms up
    std::vector<Seconds> seconds(sides.size());
    std::size_t first = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < sides.size(); ++i) {
            const std::size_t side = (first + i) % sides.size();
            seconds[side].push_back(time(sides[side]));
        }
        ++first;
        state.SetIterationTime(seconds[0].back());
    }
    return seconds;
}

inline void report(benchmark::State& state, const Requirement& requirement, const Duel& duel)
{
    auto times = timeInTurn(state, {duel.ours, duel.theirs});
    Seconds& ours = times[0];
    Seconds& theirs = times[1];
    state.SetLabel(duel.against);
    state.counters["bytes"] = duel.workIsBytes;
    state.counters["ours"] = duel.work / fastest(ours);
    state.counters["theirs"] = duel.work / fastest(theirs);
    state.counters["must"] = requirement.must;
    state.counters["must_not_exceed"] = requirement.mustNotExceed;
    if (requirement.mustNotExceed != 0) {
        std::swap(ours, theirs);
    }
    Seconds ratios(ours.size());
    std::transform(theirs.begin(), theirs.end(), ours.begin(), ratios.begin(), std::divides<>());
    state.counters["ratio"] = fastest(theirs) / fastest(ours);
    state.counters["rounds_low"] = quantile(ratios, 0.25);
    state.counters["rounds_middle"] = quantile(ratios, 0.5);
    state.counters["rounds_high"] = quantile(ratios, 0.75);
}

// Registers a benchmark whose body may throw.
inline auto* add(const std::string& name, int rounds, std::function<void(benchmark::State&)> body)
{
    const auto guarded = [body = std::move(body)](benchmark::State& state) {
        try {
            body(state);
        } catch (const std::exception& failure) {
            state.SkipWithError(failure.what());
        }
    };
    return benchmark::RegisterBenchmark(name.c_str(), guarded)->UseManualTime()->Iterations(rounds);
}

// Registers a row of the table; `setUp` makes what it compares when its turn has come.
template <class SetUp>
void addRow(const std::string& name, int rounds, const Requirement& requirement, SetUp setUp)
{
    add(name, rounds, [=](benchmark::State& state) { report(state, requirement, setUp()); });
}

} // namespace kelvane::bench
