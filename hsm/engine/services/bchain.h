// Blockchain keys: secp256k1 keys stored with the blockchain flag and their BIP32 data, made,
// derived, imported, exported and used to sign and to make addresses; and the signatures that need
// no key of the HSM (checking a signature against a public key, recovering the signer's key from
// a compact signature), which need no right.
//
// A blockchain key is an object of algorithm secp256k1 whose flags hold QL_KEY_BLOCKCHAIN; its
// material (sealed like every object's) is the BIP32 record below, never a generic key, so the
// generic sign and cipher calls refuse it (the key cache answers kBadKeyUsage).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/guard.h"
#include "engine/secure/secure.h"
#include "engine/services/keys.h"
#include "wire_values.h"

namespace qlhsm {

struct BchainSignatureArgs {
  uint32_t type = 0;       // compact, DER or Schnorr
  uint32_t hash_mode = 0;  // the hash that made the digest
  secure::Bytes hash;      // 32 bytes
  secure::Bytes signature;
};

// A key's BIP32 data as QBchainGetKeyInfo reports it.
struct BchainKeyFacts {
  uint32_t type = 0;  // extended, extended public-only, plain
  uint32_t version = 0;
  uint32_t depth = 0;
  uint32_t index = 0;
  uint32_t parent_fingerprint = 0;
  secure::Bytes chain_code;
  secure::Bytes public_key;  // compressed
};

class BchainService {
 public:
  BchainService(Core &core, Guard &guard, ObjectsService &objects)
      : core_(core), guard_(guard), objects_(objects) {}

  // Keys are made with the create right (none for a temporary key); the others need the use of
  // the key. A bad seed or digest length: kBadLength; a key out of range: kBchainInvalidKey; a
  // malformed text: kBchainBadEncoding; a key that cannot do what is asked (a hardened child or
  // a private form of a public-only key, a child of a key without chain code): kBadKeyUsage.
  Status CreateXprv(sessions::Session &s, std::string_view name, uint32_t type,
                    const secure::Bytes &data, uint32_t flags);
  Result<BchainKeyFacts> DeriveChild(sessions::Session &s, std::string_view parent,
                                     std::string_view name, uint32_t version, uint32_t index,
                                     uint32_t flags);
  Result<BchainKeyFacts> KeyInfo(sessions::Session &s, std::string_view name);
  Result<secure::Bytes> PublicKey(sessions::Session &s, std::string_view name, uint32_t form);
  Result<std::string> Address(sessions::Session &s, std::string_view name, uint32_t type,
                              uint32_t version, std::string_view hrp);
  Result<secure::Bytes> SignHash(sessions::Session &s, std::string_view name,
                                 const BchainSignatureArgs &sig);
  // Private forms need the exportable flag (kNotExportable); xpub does not.
  Result<secure::Bytes> ExportKey(sessions::Session &s, std::string_view name, uint32_t format,
                                  uint32_t version, bool compressed);
  Status ImportKey(sessions::Session &s, std::string_view name, uint32_t format, uint32_t flags,
                   const secure::Bytes &data);
  // A key generated with the blockchain flag: a BIP32 master key (mainnet) of a fresh random
  // seed; secp256k1 only (kBadAlgorithm). Rights as for any generated key.
  Result<KeyDesc> GenerateKey(sessions::Session &s, std::string_view name, uint32_t algorithm,
                              uint32_t flags, bool want_handle);

  // 0, or 5017 when the signature does not verify (a high S included). A public key that is not
  // a point of the curve, or whose length does not fit its form: 5111.
  Status Verify(sessions::Session &s, const BchainSignatureArgs &sig, uint32_t pubkey_type,
                const secure::Bytes &pubkey);
  // The signer's key (compressed or not, as the signature's header says); compact signatures
  // only.
  Result<secure::Bytes> RecoverPublicKey(sessions::Session &s, const BchainSignatureArgs &sig);

 private:
  Core &core_;
  Guard &guard_;
  ObjectsService &objects_;
};

}  // namespace qlhsm
