// The tokenisation vault: tokens that stand for secrets, and sealed blobs that give the secrets
// back. The HSM keeps no table; the key named by the caller (AES, used with the use right) seals
// every blob, and with the keyed kind also chooses the token.
#pragma once

#include <cstdint>
#include <string>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

struct VaultTokenArgs {
  uint32_t type = 1;       // 1 a token of the secret's form, 2 a token of any text
  uint32_t mask_type = 0;  // the check kind (crypto/vault.h CheckKind)
  uint32_t checksum = 0;   // 0 random, 1 keyed
  uint32_t representation = 10;
  std::string secret;
};

struct VaultToken {
  std::string token;
  secure::Bytes blob;
};

class VaultService {
 public:
  VaultService(Guard &guard, KeysService &keys) : guard_(guard), keys_(keys) {}

  // Refusals after the right: a missing key, a key that is not AES (kBadKeyUsage), a secret its
  // check kind does not fit or an unknown base (kBadArgument).
  Result<VaultToken> GenToken(sessions::Session &s, const KeyArg &key, const VaultTokenArgs &args);
  // what 1 the secret (flags kVaultMasked: masked), 2 the token; kBadTag for another key or a
  // changed blob.
  Result<std::string> GetData(sessions::Session &s, const KeyArg &key, uint32_t what,
                              const secure::Bytes &blob, uint32_t flags);

 private:
  // The raw bytes of an AES key ready for use.
  Result<crypto::KeyPtr> VaultKey(const KeysService::KeyTarget &target);

  Guard &guard_;
  KeysService &keys_;
};

}  // namespace qlhsm
