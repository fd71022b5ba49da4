// M-of-N sharing of a caller's secret: no object and no right, the HSM only lends its generator
// and keeps nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "crypto/bytes.h"
#include "engine/guard.h"
#include "engine/secure/secure.h"

namespace qlhsm {

class SharingService {
 public:
  explicit SharingService(Guard &guard) : guard_(guard) {}

  // n parts of which any m recover the secret. 5015 unless 2 <= m <= n <= 255 and the secret is
  // 1 to 4096 bytes.
  Result<std::vector<secure::Bytes>> Split(sessions::Session &s, uint32_t m, uint32_t n,
                                           const secure::Bytes &secret);
  // The secret from m or more parts of one set; a damaged part 5112, parts that do not belong
  // together 5113, fewer than m 5114. Never a wrong secret.
  Result<crypto::SecretBytes> Recover(sessions::Session &s,
                                      const std::vector<secure::Bytes> &parts);

 private:
  Guard &guard_;
};

}  // namespace qlhsm
