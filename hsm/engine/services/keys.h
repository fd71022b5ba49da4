// Keys: generate, open, import, export, parameters, destroy; signatures and ciphers; PKCS#8;
// key material handed out and key agreement (ECDH, X25519, X448). Stored keys are sealed like
// every object; a key in use is parsed once and kept in the key cache.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "engine/guard.h"

namespace qlhsm {

class ObjectsService;

// A key as a session sees it.
struct KeyDesc {
  uint64_t handle = 0;  // 0 when no handle was asked for
  uint32_t algorithm = 0;
  uint32_t flags = 0;
  uint32_t key_length = 0;  // bytes (RSA: modulus bytes)
};

// Names the key of an operation: a handle of this session (temporary or opened), else a stored
// object's name ("object" or "owner/object").
struct KeyArg {
  uint64_t handle = 0;
  std::string name;
  bool empty() const { return handle == 0 && name.empty(); }
};

// A parameter's value: a number, bytes or a text.
struct ParamValue {
  bool has_number = false;
  uint64_t number = 0;
  secure::Bytes data;
  std::string text;
};

// What a key handle or name refers to.
struct KeyFacts {
  KeyDesc desc;
  std::string full_name;  // "" for a temporary key
  int type = 0;
  bool blocked = false;
  uint32_t bits = 0;
};

struct EcdhArgs {
  uint32_t kdf = 0;               // raw secret or X9.63-SHA-256
  std::string private_key;        // a stored EC, X25519 or X448 private key
  secure::Bytes peer_public_key;  // SubjectPublicKeyInfo (DER) of the same algorithm
  secure::Bytes shared_info;      // X9.63 only
  std::string target_name;        // X9.63 only: keep the derived bytes as this key
  uint32_t target_algorithm = 0;  // the kept key's algorithm (a symmetric or HMAC key)
  uint32_t flags = 0;             // the kept key's flags
  uint32_t out_length = 0;        // X9.63: bytes to derive (1..1024); raw: the caller's
                                  // capacity, 0 for none
};

class KeysService {
 public:
  KeysService(Core &core, Guard &guard, ObjectsService &objects)
      : core_(core), guard_(guard), objects_(objects) {}

  // A temporary key (empty name or the temporary flag: no right needed, lives in the session)
  // or a stored one (the create right; a taken name answers kObjectExists).
  Result<KeyDesc> GenerateKey(sessions::Session &s, std::string_view name, uint32_t algorithm,
                              uint32_t flags, bool want_handle);
  // A handle to a stored key: right, then existence.
  Result<KeyDesc> OpenKey(sessions::Session &s, std::string_view name);
  Result<KeyDesc> ImportKey(sessions::Session &s, std::string_view name, const KeyArg &kek,
                            const secure::Bytes &blob, uint32_t blob_type, uint32_t algorithm,
                            uint32_t flags, bool want_handle);
  // Public-key blobs need no exportable flag; every other blob does (else kNotExportable).
  Result<secure::Bytes> ExportKey(sessions::Session &s, const KeyArg &key, const KeyArg &kek,
                                  uint32_t blob_type);
  // What a key handle or name refers to: temporary keys need no right, stored ones the right to
  // open them.
  Result<KeyFacts> DescribeKey(sessions::Session &s, const KeyArg &key);
  // Releases a handle; with `remove` also removes the stored object (the remove right), by the
  // handle's name or by `remove_name` when handle is 0.
  Status DestroyKey(sessions::Session &s, uint64_t handle, bool remove,
                    std::string_view remove_name);
  // Key parameters: the block state of a stored key (the update right), and the cipher
  // parameters of a handle (IV, mode, padding, AAD, tag length).
  Status SetKeyParam(sessions::Session &s, const KeyArg &key, uint32_t param,
                     const ParamValue &value);
  Result<ParamValue> GetKeyParam(sessions::Session &s, const KeyArg &key, uint32_t param);
  Status SetCipherParam(sessions::Session &s, uint64_t handle, uint32_t param, uint64_t number,
                        const secure::Bytes &data);
  Result<uint64_t> GetCipherParam(sessions::Session &s, uint64_t handle, uint32_t param,
                                  secure::Bytes *data);

  // Signs `digest` with the key. `capacity` (0: no limit) is the longest signature the caller
  // takes (kBufferTooSmall past it). `longest`, when given, receives the longest signature the
  // key can make, found with the same key lookup: the answer to a size query, since ECDSA
  // signatures vary in length from one signature to the next.
  Result<secure::Bytes> SignHash(sessions::Session &s, const KeyArg &key, uint32_t hash_algorithm,
                                 const secure::Bytes &digest, uint32_t flags, size_t capacity = 0,
                                 size_t *longest = nullptr);
  Status VerifySignature(sessions::Session &s, const KeyArg &key, uint32_t hash_algorithm,
                         const secure::Bytes &digest, const secure::Bytes &signature);
  // Encrypts or decrypts one piece of a message. With a handle the cipher state (mode, padding,
  // IV, the message in progress) stays with the handle between pieces; with a name the piece must
  // be the whole message. capacity 0: no limit; past it kBufferTooSmall with *needed set and
  // nothing consumed. *iv receives the IV the message used (GCM).
  Result<secure::Bytes> Cipher(sessions::Session &s, const KeyArg &key, bool encrypt, bool final,
                               const secure::Bytes &data, size_t capacity, uint64_t *needed,
                               secure::Bytes *iv);
  // An RSA private-key encryption of `value` (a DigestInfo, or any value that fits): the
  // PKCS#1 v1.5 type-1 block over it, then the raw private operation (a signature whose
  // DigestInfo the caller built). kBadKeyUsage for a key that is not a private RSA key,
  // kBadLength when the value does not fit (more than the key's length less 11 bytes); past a
  // non-zero capacity kBufferTooSmall with *needed set.
  Result<secure::Bytes> RsaPrivateEncrypt(sessions::Session &s, const KeyArg &key,
                                          const secure::Bytes &value, size_t capacity,
                                          uint64_t *needed);
  // `count` blocks of the key's length, each already padded, signed with the raw RSA private
  // operation; the signatures in the same order.
  Result<secure::Bytes> BatchSign(sessions::Session &s, const KeyArg &key, uint32_t count,
                                  const secure::Bytes &blocks);

  // A private key as PKCS#8 EncryptedPrivateKeyInfo under a password, or without a password as
  // a PrivateKeyInfo in the clear (both need the exportable flag); and the import of either as a
  // stored key (the create right; never temporary).
  Result<secure::Bytes> Pkcs8Export(sessions::Session &s, std::string_view name,
                                    std::string_view password);
  Result<KeyDesc> Pkcs8Import(sessions::Session &s, std::string_view name,
                              std::string_view password, const secure::Bytes &der, uint32_t flags);

  // Key material of `algorithm` made and handed out, never kept: a symmetric or HMAC key's secret
  // (DES keys with odd parity), an asymmetric key's PKCS#8 PrivateKeyInfo (DER). Like a temporary
  // key it needs no right. Of the flags, RSA exponent 3 is acted on; blockchain answers
  // kNotSupported; the others describe a stored key and mean nothing here.
  Result<secure::Bytes> GenerateKeyMaterial(sessions::Session &s, uint32_t algorithm,
                                            uint32_t flags);
  // ECDH (or X25519/X448) between a stored private key and a peer public key: the secret handed
  // out, or nothing when it was kept as args.target_name. Rights: the create right for a kept key
  // that is not temporary, then the use of the private key. A raw secret longer than a given
  // capacity answers kBufferTooSmall with *needed set.
  Result<secure::Bytes> GenEcdhKey(sessions::Session &s, const EcdhArgs &args, uint64_t *needed);

  // A key ready for use by a hash (HMAC, CMAC): the right to use it when stored.
  struct UsableKey {
    crypto::KeyPtr key;
    uint32_t flags = 0;
  };
  // What a KeyArg names, found in the session (an argument step): a temporary key, or a stored
  // object's reference.
  struct KeyTarget {
    sessions::TempObject *temp = nullptr;
    objects::ObjectRef ref;
  };
  Status Target(sessions::Session &s, const KeyArg &arg, KeyTarget *out) const;
  // Keeps a key just made (here or by another service, from inside its guarded body): held in
  // the session when temporary, else stored as `name` (the caller checked the create right).
  // `records` go with it: into the session key, or beside the stored key in its transaction.
  Result<KeyDesc> KeepNewKey(sessions::Session &s, std::string_view name, crypto::KeyPtr key,
                             uint32_t flags, bool want_handle,
                             std::vector<objects::ObjectStore::Record> records = {});
  // The right a use of the key needs: none for a temporary key.
  static access::Request UseRight(sessions::Session &s, const KeyArg &arg);
  // Existence and state of the key: the cached key, else loaded; kObjectBlocked when blocked.
  Result<UsableKey> Usable(const KeyTarget &target);

 private:
  Core &core_;
  Guard &guard_;
  ObjectsService &objects_;
};

}  // namespace qlhsm
