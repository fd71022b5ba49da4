#include "crypto/status.h"

namespace qlhsm::crypto {

const char *CodeName(Code code) {
  switch (code) {
    case Code::kOk:
      return "ok";
    case Code::kBadAlgorithm:
      return "bad algorithm";
    case Code::kNotSupported:
      return "not supported";
    case Code::kBadArgument:
      return "bad argument";
    case Code::kBadLength:
      return "bad length";
    case Code::kBadPadding:
      return "bad padding";
    case Code::kBufferTooSmall:
      return "buffer too small";
    case Code::kBadTag:
      return "bad tag";
    case Code::kKeyCannotDo:
      return "key cannot do this";
    case Code::kDigestTooLarge:
      return "digest too large for key";
    case Code::kBadData:
      return "bad data";
    case Code::kBadSignature:
      return "bad signature";
    case Code::kWholeMessageOnly:
      return "whole message only";
    case Code::kInternal:
      return "internal error";
  }
  return "?";
}

}  // namespace qlhsm::crypto
