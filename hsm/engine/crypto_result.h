// The crypto library's refusals as the engine's codes, for the engine's service files that call
// hsm/engine/crypto.
#pragma once

#include "crypto/status.h"
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
  return Status::Error(CodeOf(st.code()),
                       st.detail().empty() ? crypto::CodeName(st.code()) : st.detail());
}

}  // namespace qlhsm::cryptomap
