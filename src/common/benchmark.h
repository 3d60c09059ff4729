// A stopwatch: `begin` marks the start of a measured span, `stamp` the last
// intermediate mark. Used by scans and readers for their timing lines.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace quorvi {

struct Benchmark {
  using Clock = std::chrono::steady_clock;
  Clock::time_point begin = Clock::now();
  Clock::time_point stamp = begin;

  // Seconds since begin.
  double elapsed() const { return std::chrono::duration<double>(Clock::now() - begin).count(); }
  // Seconds since the last mark (or begin), and moves the mark to now.
  double lap() {
    auto now = Clock::now();
    double seconds = std::chrono::duration<double>(now - stamp).count();
    stamp = now;
    return seconds;
  }
  // "<label>: 12.345 ms (total 20.000 ms)"
  std::string lapLine(const std::string& label) {
    double lapSeconds = lap();
    char text[64];
    std::snprintf(text, sizeof text, ": %.3f ms (total %.3f ms)", lapSeconds * 1e3, elapsed() * 1e3);
    return label + text;
  }
};

}  // namespace quorvi
