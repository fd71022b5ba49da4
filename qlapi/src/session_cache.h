#pragma once
// Idle, logged-out connections kept for the next QOpenSession with the same HSM and
// credentials. Sharded by key, so threads opening sessions to different users, or many threads
// at once, rarely meet on one lock.

#include <memory>
#include <string>

#include "session.h"

namespace qlapi {

// Idle connections kept per key; more are closed.
constexpr std::size_t kMaxIdlePerKey = 256;

// A cached connection for key, or null.
std::unique_ptr<Link> CacheTake(const std::string &key);
// Keeps an idle connection (closes it when the key already holds kMaxIdlePerKey).
void CachePut(const std::string &key, std::unique_ptr<Link> link);
// Closes every cached connection.
void CacheClear();
// The number of idle connections held (tests).
std::size_t CacheSize();

}  // namespace qlapi
