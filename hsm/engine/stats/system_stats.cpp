#include "engine/stats/system_stats.h"

#include <fstream>
#include <sstream>

namespace qlhsm::stats {
namespace {

std::string ReadFile(const char *path) {
  std::ifstream in(path);
  std::ostringstream os;
  os << in.rdbuf();
  return os.str();
}

uint32_t KibToMib(uint64_t kib) {
  return static_cast<uint32_t>(kib / 1024);
}

}  // namespace

std::optional<MemoryFigures> ParseMeminfo(const std::string &text) {
  std::istringstream in(text);
  std::string key;
  uint64_t value = 0;
  std::string unit;
  std::optional<uint64_t> total, available, swap_total, swap_free;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    if (!(ls >> key >> value)) continue;
    if (key == "MemTotal:")
      total = value;
    else if (key == "MemAvailable:")
      available = value;
    else if (key == "SwapTotal:")
      swap_total = value;
    else if (key == "SwapFree:")
      swap_free = value;
  }
  if (!total || !available || *available > *total) return std::nullopt;
  MemoryFigures m;
  m.total_mib = KibToMib(*total);
  m.used_mib = KibToMib(*total - *available);
  if (swap_total && swap_free && *swap_free <= *swap_total) {
    m.swap_total_mib = KibToMib(*swap_total);
    m.swap_used_mib = KibToMib(*swap_total - *swap_free);
  }
  return m;
}

std::optional<CpuTimes> ParseProcStat(const std::string &text) {
  std::istringstream in(text);
  std::string label;
  if (!(in >> label) || label != "cpu") return std::nullopt;
  CpuTimes t;
  uint64_t v = 0;
  int field = 0;
  // user nice system idle iowait irq softirq steal (guest time is already in user).
  while (field < 8 && in >> v) {
    t.total += v;
    if (field == 3 || field == 4) t.idle += v;
    ++field;
  }
  if (field < 4) return std::nullopt;
  return t;
}

uint32_t CpuPercent(const CpuTimes &before, const CpuTimes &after) {
  if (after.total <= before.total || after.idle < before.idle) return 0;
  uint64_t total = after.total - before.total;
  uint64_t idle = after.idle - before.idle;
  if (idle > total) return 0;
  return static_cast<uint32_t>((total - idle) * 100 / total);
}

std::optional<MemoryFigures> ReadMemory() {
  return ParseMeminfo(ReadFile("/proc/meminfo"));
}

CpuSampler::CpuSampler() {
  if (auto t = ParseProcStat(ReadFile("/proc/stat"))) last_ = *t;
}

uint32_t CpuSampler::Sample() {
  std::optional<CpuTimes> now = ParseProcStat(ReadFile("/proc/stat"));
  std::lock_guard<std::mutex> lock(mu_);
  if (!now) return last_percent_;
  // Readings too close together (less than a clock tick apart) repeat the previous figure.
  if (now->total > last_.total) {
    last_percent_ = CpuPercent(last_, *now);
    last_ = *now;
  }
  return last_percent_;
}

}  // namespace qlhsm::stats
