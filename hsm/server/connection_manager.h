// Owns every open connection so that the server can stop them all. Thread safe.
#pragma once

#include <mutex>
#include <set>

#include "server/connection.h"

namespace qlhsm::server {

class ConnectionManager {
 public:
  void Add(const ConnectionPtr &c);
  void Remove(const ConnectionPtr &c);
  void StopAll();
  size_t Count() const;

 private:
  mutable std::mutex mu_;
  std::set<ConnectionPtr> connections_;
};

}  // namespace qlhsm::server
