// OATH: tokens of users (the second factor of their logins, kept by the HSM), and token blobs:
// one-time passwords (HOTP, TOTP) checked against a token record that the caller keeps, wrapped
// (RFC 5649) under an AES master key of the HSM. For blobs the HSM keeps no state: every check
// answers the record re-wrapped with its new counter.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

class OathService {
 public:
  OathService(Core &core, Guard &guard, KeysService &keys)
      : core_(core), guard_(guard), keys_(keys) {}

  // --- tokens of users (the operator right, like setting a password) ---
  // type: 2 event or 3 time, bits 8 to 11 the hash (0 SHA-1, 1 SHA-256, 2 SHA-512); seed 16 to
  // 64 bytes; step 1 to 3,600 s (0: 30); flags bits 0 to 3 the digits (0: 6; 6 to 8).
  // kTokenExists when the user holds one, kUserNotFound when there is no such user.
  Status AssignToken(sessions::Session &s, std::string_view user, uint32_t type,
                     const secure::Bytes &seed, uint32_t step, uint64_t t0, uint32_t flags);
  Status UnassignToken(sessions::Session &s, std::string_view user);
  // Two consecutive OTPs set the counter (event) or drift (time), clear the failures and lift a
  // block that the failures set; kCheckFailed when they are no such pair.
  Status Resync(sessions::Session &s, std::string_view user, std::string_view otp1,
                std::string_view otp2);

  // --- token blobs ---
  // The blob re-wrapped after a good OTP; kCheckFailed for a wrong one, kBadTag for another key
  // or a changed blob. Time tokens are checked against the HSM's time.
  Result<secure::Bytes> CheckBlob(sessions::Session &s, const KeyArg &master,
                                  const secure::Bytes &blob, std::string_view otp, uint32_t flags);
  // info kOathInfoRecord: the record with its seed zeroed; kOathInfoSeed: the seed, only under
  // an exportable master key.
  Result<secure::Bytes> BlobInfo(sessions::Session &s, const KeyArg &master,
                                 const secure::Bytes &blob, uint32_t info);

  // --- token objects (QL_OBJ_HOTP): a token record stored as an object ---
  // An event token with a fresh 20-byte seed (SHA-1, 6 digits, counter 0): the create right.
  // Only the exportable flag applies; a token object is never temporary.
  Result<KeyDesc> GenerateTokenObject(sessions::Session &s, std::string_view name, uint32_t flags,
                                      bool want_handle);
  // A blob opened under `master` and stored: the create right and the use of the master key.
  Result<KeyDesc> ImportTokenObject(sessions::Session &s, std::string_view name,
                                    const KeyArg &master, const secure::Bytes &blob, uint32_t flags,
                                    bool want_handle);
  // The object's record as a blob under `master` (what CheckBlob takes): the use of both.
  Result<secure::Bytes> ExportTokenObject(sessions::Session &s, const KeyArg &token,
                                          const KeyArg &master);

 private:
  // Stores a token record under `ref` (the object limit counts it) and answers its description.
  Result<KeyDesc> StoreToken(sessions::Session &s, const objects::ObjectRef &ref,
                             const secure::Bytes &record, uint32_t flags, bool want_handle);

  Core &core_;
  Guard &guard_;
  KeysService &keys_;
};

}  // namespace qlhsm
