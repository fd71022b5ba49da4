// Key export for a cloud's key import ("bring your own key"): a key of the HSM wrapped under an
// RSA public key that the cloud handed out (the KEK, imported into the HSM beforehand).
//
// Type 1 (CKM_RSA_AES_KEY_WRAP of PKCS#11 v2.40): a fresh AES-256 key encrypted with RSAES-OAEP
// (SHA-256, MGF1-SHA-256, the caller's label), followed by that AES key's RFC 5649 wrap of the
// target's raw secret (symmetric keys) or PKCS#8 PrivateKeyInfo (private keys). Type 2: the
// RSAES-OAEP encryption of a symmetric key alone.
#pragma once

#include <cstdint>
#include <string_view>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

inline constexpr uint32_t kByokRsaAesKeyWrap = 1;
inline constexpr uint32_t kByokRsaOaep = 2;

class ByokService {
 public:
  ByokService(Guard &guard, KeysService &keys) : guard_(guard), keys_(keys) {}

  // Refusals after the rights (use of both keys): a KEK that is not an RSA key of 2048 bits or
  // more, or a target that cannot go in the chosen form (a public key; type 2 and an asymmetric
  // key): kBadKeyUsage; a target made without the exportable flag: kNotExportable; an unknown
  // type: kBadArgument.
  Result<secure::Bytes> Export(sessions::Session &s, std::string_view key, std::string_view kek,
                               uint32_t type, const secure::Bytes &label);

 private:
  Guard &guard_;
  KeysService &keys_;
};

}  // namespace qlhsm
