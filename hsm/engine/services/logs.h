// The audit log read from outside: its pages, its size, truncation, the log cache, and
// following it live. Reading needs ACL_USR_REMOTE_LOG or ACL_SYS_OPERATOR; truncation and the
// cache setting are administration (ACL_SYS_OPERATOR).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "engine/guard.h"

namespace qlhsm {

class LogService {
 public:
  LogService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // Starts a read: writes what waits in memory and answers the number of pages (from 1).
  Result<uint64_t> Open(sessions::Session &s);
  // Page `number`; kObjectNotFound past the last one.
  Result<audit::Page> ReadPage(sessions::Session &s, uint64_t number);
  // The page as it goes out: its text, or 'Z' and the zlib stream of a compressed page.
  static std::string WirePage(const audit::Page &page);

  // Empties the log (flags: none defined, 0). The truncation's own line starts the new log.
  Status Truncate(sessions::Session &s, uint32_t flags);

  // Sets the log cache from `input`, a little-endian uint32 (0 off, 1 on) kept in
  // the settings; empty input changes nothing. Answers the state the cache is left in.
  Result<bool> SetCache(sessions::Session &s, const std::string &input);
  // Reads the cache setting into the log at start.
  Status LoadCacheSetting();

  // Follows the log for the session: `sink` gets each new line (see AuditLog::Follow). Answers
  // the follower's id for Unfollow.
  Result<uint64_t> Follow(sessions::Session &s, audit::AuditLog::Sink sink);
  void Unfollow(uint64_t id);

 private:
  Core &core_;
  Guard &guard_;
};

}  // namespace qlhsm
