// OATH token blobs: one-time passwords (HOTP, TOTP) checked against a token record that the
// caller keeps, wrapped (RFC 5649) under an AES master key of the HSM. The HSM keeps no state:
// every check answers the record re-wrapped with its new counter.
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

  // The blob re-wrapped after a good OTP; kCheckFailed for a wrong one, kBadTag for another key
  // or a changed blob. Time tokens are checked against the HSM's time.
  Result<secure::Bytes> CheckBlob(sessions::Session &s, const KeyArg &master,
                                  const secure::Bytes &blob, std::string_view otp, uint32_t flags);
  // info kOathInfoRecord: the record with its seed zeroed; kOathInfoSeed: the seed, only under
  // an exportable master key.
  Result<secure::Bytes> BlobInfo(sessions::Session &s, const KeyArg &master,
                                 const secure::Bytes &blob, uint32_t info);

 private:
  Core &core_;
  Guard &guard_;
  KeysService &keys_;
};

}  // namespace qlhsm
