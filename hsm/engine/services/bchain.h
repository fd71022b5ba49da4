// Blockchain signatures that need no key of the HSM: checking a signature against a public key
// and recovering the signer's key from a compact signature. Neither needs a right.
#pragma once

#include <cstdint>

#include "engine/guard.h"
#include "engine/secure/secure.h"
#include "wire_values.h"

namespace qlhsm {

struct BchainSignatureArgs {
  uint32_t type = 0;       // compact, DER or Schnorr
  uint32_t hash_mode = 0;  // the hash that made the digest
  secure::Bytes hash;      // 32 bytes
  secure::Bytes signature;
};

class BchainService {
 public:
  explicit BchainService(Guard &guard) : guard_(guard) {}

  // 0, or 5017 when the signature does not verify (a high S included). A public key that is not
  // a point of the curve, or whose length does not fit its form: 5111.
  Status Verify(sessions::Session &s, const BchainSignatureArgs &sig, uint32_t pubkey_type,
                const secure::Bytes &pubkey);
  // The signer's key (compressed or not, as the signature's header says); compact signatures
  // only.
  Result<secure::Bytes> RecoverPublicKey(sessions::Session &s, const BchainSignatureArgs &sig);

 private:
  Guard &guard_;
};

}  // namespace qlhsm
