#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace ox::bench {

/// The sample below which `share` (0..1) of the samples lie, in microseconds. Not for no samples.
inline double percentile_us(std::vector<uint64_t> samples_ns, double share) {
    const auto at = static_cast<size_t>(share * static_cast<double>(samples_ns.size() - 1));
    const auto position = samples_ns.begin() + static_cast<ptrdiff_t>(at);
    std::nth_element(samples_ns.begin(), position, samples_ns.end());
    return static_cast<double>(*position) / 1000;
}

/// Reports the median and the 99th percentile of two ways that were measured in turns, and their
/// ratios.
inline void report_side_by_side(benchmark::State& state, const std::vector<uint64_t>& agent_ns,
                                const std::vector<uint64_t>& bare_ns) {
    const auto report = [&](const std::string& name, double share) {
        const double agent = percentile_us(agent_ns, share);
        const double bare = percentile_us(bare_ns, share);
        state.counters["agent_us_" + name] = agent;
        state.counters["bare_us_" + name] = bare;
        state.counters["ratio_" + name] = agent / bare;
    };
    report("p50", 0.5);
    report("p99", 0.99);
}

}  // namespace ox::bench
