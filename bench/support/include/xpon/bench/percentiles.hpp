#pragma once

// Latency percentiles of a benchmark run as user counters.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace xpon::bench {

/// Sets the counters p50_us and p99_us from the run's latencies in microseconds (sorted in place);
/// nothing for a run without any.
inline void set_percentiles(benchmark::State& state, std::vector<double>& micros) {
  if (micros.empty()) {
    return;
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

}  // namespace xpon::bench
