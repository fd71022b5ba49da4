// The crypto library's refusals as the engine's codes, for the engine's service files that call
// hsm/engine/crypto. Every crypto outcome passes secure::CryptoOutcome(), the one place where the
// test-only fault switch may turn it into a failure.
#pragma once

#include "crypto/status.h"
#include "engine/secure/secure.h"
#include "engine/status.h"

namespace qlhsm::cryptomap {

inline Code CodeOf(crypto::Code c) {
  using C = crypto::Code;
  switch (c) {
    case C::kOk:
      return Code::kOk;
    case C::kBadAlgorithm:
      return Code::kBadAlgorithm;
    case C::kNotSupported:
      return Code::kNotSupported;
    case C::kBadArgument:
    case C::kBadData:
      return Code::kBadArgument;
    case C::kBadLength:
      return Code::kBadLength;
    case C::kBufferTooSmall:
      return Code::kBufferTooSmall;
    case C::kBadTag:
      return Code::kBadTag;
    case C::kKeyCannotDo:
      return Code::kBadKeyUsage;
    case C::kDigestTooLarge:
      return Code::kDigestTooLong;
    case C::kBadPadding:
      return Code::kBadPadding;
    case C::kBadSignature:
      return Code::kBadSignature;
    case C::kWholeMessageOnly:
      return Code::kPiecesRefused;
    case C::kInternal:
      return Code::kInternal;
  }
  return Code::kInternal;
}

// A crypto refusal as an engine Status.
inline Status FromCrypto(const crypto::Status &st) {
  if (st.ok()) return Status::Ok();
  Status gated = secure::CryptoOutcome(true, crypto::CodeName(st.code()));
  if (!gated.ok()) return gated;
  return Status::Error(CodeOf(st.code()),
                       st.detail().empty() ? crypto::CodeName(st.code()) : st.detail());
}

// A crypto success, through the fault switch under the operation's name.
inline Status CryptoOk(const char *op) {
  return secure::CryptoOutcome(true, op);
}

}  // namespace qlhsm::cryptomap
