// Hashes kept running in a session: digests, and HMAC or CMAC under a key.
#pragma once

#include <cstdint>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

class HashesService {
 public:
  HashesService(Guard &guard, KeysService &keys) : guard_(guard), keys_(keys) {}

  // A digest, or an HMAC/CMAC under a key (the right to use it, when stored).
  Result<uint64_t> CreateHash(sessions::Session &s, uint32_t algorithm, const KeyArg &key);
  Status HashData(sessions::Session &s, uint64_t hash, const secure::Bytes &data);
  Result<secure::Bytes> GetHashValue(sessions::Session &s, uint64_t hash);
  Status DestroyHash(sessions::Session &s, uint64_t hash);

 private:
  // The argument step of every use of a running hash.
  static Status Known(sessions::Session &s, uint64_t hash);

  Guard &guard_;
  KeysService &keys_;
};

}  // namespace qlhsm
