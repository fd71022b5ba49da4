#include "session_cache.h"

#include <array>
#include <functional>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace qlapi {
namespace {

struct Shard {
  std::mutex mu;
  std::unordered_map<std::string, std::vector<std::unique_ptr<Link>>> idle;
};

constexpr std::size_t kShards = 16;

std::array<Shard, kShards> &Shards() {
  static auto *shards = new std::array<Shard, kShards>();  // lives until exit
  return *shards;
}

Shard &ShardOf(const std::string &key) {
  return Shards()[std::hash<std::string>()(key) % kShards];
}

}  // namespace

std::unique_ptr<Link> CacheTake(const std::string &key) {
  Shard &shard = ShardOf(key);
  std::lock_guard<std::mutex> lock(shard.mu);
  auto it = shard.idle.find(key);
  if (it == shard.idle.end() || it->second.empty()) return nullptr;
  std::unique_ptr<Link> link = std::move(it->second.back());
  it->second.pop_back();
  return link;
}

void CachePut(const std::string &key, std::unique_ptr<Link> link) {
  Shard &shard = ShardOf(key);
  std::unique_ptr<Link> surplus;
  {
    std::lock_guard<std::mutex> lock(shard.mu);
    auto &list = shard.idle[key];
    if (list.size() < kMaxIdlePerKey) {
      list.push_back(std::move(link));
    } else {
      surplus = std::move(link);
    }
  }
  // surplus is closed here, outside the lock.
}

void CacheClear() {
  std::vector<std::unique_ptr<Link>> closing;
  for (Shard &shard : Shards()) {
    std::lock_guard<std::mutex> lock(shard.mu);
    for (auto &entry : shard.idle) {
      for (auto &link : entry.second) closing.push_back(std::move(link));
    }
    shard.idle.clear();
  }
}

std::size_t CacheSize() {
  std::size_t n = 0;
  for (Shard &shard : Shards()) {
    std::lock_guard<std::mutex> lock(shard.mu);
    for (auto &entry : shard.idle) n += entry.second.size();
  }
  return n;
}

}  // namespace qlapi
