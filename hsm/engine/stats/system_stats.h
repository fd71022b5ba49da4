// This machine's load as the HSM reports it: processor use in percent (from /proc/stat deltas
// between two readings) and memory in MiB (from /proc/meminfo; "used" is MemTotal less
// MemAvailable).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace qlhsm::stats {

struct MemoryFigures {
  uint32_t total_mib = 0;
  uint32_t used_mib = 0;
  uint32_t swap_total_mib = 0;
  uint32_t swap_used_mib = 0;
};

struct CpuTimes {
  uint64_t idle = 0;   // idle + iowait
  uint64_t total = 0;  // every field of the "cpu" line
};

// Parsers, separate from the file reads so they can be tested on fixed text.
std::optional<MemoryFigures> ParseMeminfo(const std::string &text);
std::optional<CpuTimes> ParseProcStat(const std::string &text);
// Busy share of the interval between two readings, 0 to 100, rounded down.
uint32_t CpuPercent(const CpuTimes &before, const CpuTimes &after);

std::optional<MemoryFigures> ReadMemory();

// Remembers the previous /proc/stat reading so each call reports use since the last call (or
// since construction). Thread safe.
class CpuSampler {
 public:
  CpuSampler();
  uint32_t Sample();

 private:
  std::mutex mu_;
  CpuTimes last_;
  uint32_t last_percent_ = 0;
};

}  // namespace qlhsm::stats
