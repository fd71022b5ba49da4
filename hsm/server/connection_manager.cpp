#include "server/connection_manager.h"

#include <vector>

namespace qlhsm::server {

void ConnectionManager::Add(const ConnectionPtr &c) {
  std::lock_guard<std::mutex> lock(mu_);
  connections_.insert(c);
}

void ConnectionManager::Remove(const ConnectionPtr &c) {
  std::lock_guard<std::mutex> lock(mu_);
  connections_.erase(c);
}

void ConnectionManager::StopAll() {
  std::vector<ConnectionPtr> all;
  {
    std::lock_guard<std::mutex> lock(mu_);
    all.assign(connections_.begin(), connections_.end());
    connections_.clear();
  }
  for (const ConnectionPtr &c : all) c->Stop();
}

size_t ConnectionManager::Count() const {
  std::lock_guard<std::mutex> lock(mu_);
  return connections_.size();
}

}  // namespace qlhsm::server
