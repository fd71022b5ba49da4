#include "engine/services/sharing.h"

#include "crypto/mofn.h"
#include "engine/crypto_result.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;

namespace {

// The limits of the part format (its length field and the field's 255 points).
constexpr uint32_t kMaxParts = 255;
constexpr size_t kMaxSecret = 4096;

}  // namespace

Result<std::vector<secure::Bytes>> SharingService::Split(Session &s, uint32_t m, uint32_t n,
                                                         const secure::Bytes &secret) {
  auto args = [&] {
    if (m < 2 || m > n || n > kMaxParts || secret.empty() || secret.size() > kMaxSecret) {
      return Status::Error(Code::kBadLength, "2 <= M <= N <= 255, and 1 to 4096 bytes of secret");
    }
    return Status::Ok();
  };
  return guard_.Run(s, Op{"mofn-split", "-", Request::kFree, AuditMode::kRead}, args,
                    [&](const users::UserInfo &) -> Result<std::vector<secure::Bytes>> {
                      crypto::Result<std::vector<crypto::Bytes>> parts =
                          crypto::mofn::Split(crypto::ByteView(secret.data(), secret.size()), m, n);
                      if (!parts.ok()) return FromCrypto(parts.status());
                      return std::move(parts.value());
                    });
}

Result<crypto::SecretBytes> SharingService::Recover(Session &s,
                                                    const std::vector<secure::Bytes> &parts) {
  auto args = [&] {
    if (parts.size() > kMaxParts) {
      return Status::Error(Code::kSharesMismatch, "more parts than a set can hold");
    }
    return Status::Ok();
  };
  return guard_.Run(
      s, Op{"mofn-recover", "-", Request::kFree, AuditMode::kRead}, args,
      [&](const users::UserInfo &) -> Result<crypto::SecretBytes> {
        crypto::Result<crypto::mofn::Recovered> got = crypto::mofn::Recover(parts);
        if (!got.ok()) return FromCrypto(got.status());
        switch (got->problem) {
          case crypto::mofn::ShareProblem::kNone:
            return std::move(got->secret);
          case crypto::mofn::ShareProblem::kCorrupt:
            return Status::Error(Code::kShareCorrupt, "a part is damaged");
          case crypto::mofn::ShareProblem::kMismatch:
            return Status::Error(Code::kSharesMismatch, "the parts do not belong together");
          case crypto::mofn::ShareProblem::kTooFew:
            return Status::Error(Code::kSharesTooFew, "fewer parts than the threshold");
        }
        return Status::Error(Code::kInternal, "unknown share problem");
      });
}

}  // namespace qlhsm
