// status.h: the crypto library's result type.
//
// Every operation answers a Status (a named Code, cheap on success) or a Result<T> (a Status plus a
// value). The library never throws on bad input and never prints; the engine maps the codes to the
// client library's numeric return codes at its boundary.
#ifndef QLHSM_CRYPTO_STATUS_H_
#define QLHSM_CRYPTO_STATUS_H_

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace qlhsm::crypto {

// The refusals of the crypto library, with the qlapi.h code the engine answers for each.
enum class Code {
  kOk = 0,            // 0
  kBadAlgorithm,      // QL_ERR_BAD_ALGORITHM 5006: unknown algorithm, hash, mode, padding, blob
  kNotSupported,      // QL_ERR_NOT_SUPPORTED 5007: a known identifier not offered (arc5, a mode
                      //   the algorithm lacks, pre-hashed EdDSA, the legacy form when refused)
  kBadArgument,       // QL_ERR_BAD_ARGUMENT 1001: an inconsistent argument (no IV for GCM, ...)
  kBadLength,         // QL_ERR_BAD_LENGTH 5015: a data, digest, IV, key or block length that
                      //   does not fit
  kBufferTooSmall,    // QL_ERR_BUFFER_TOO_SMALL 1005; Status::needed() holds the length
  kBadTag,            // QL_ERR_BAD_TAG 5010: GCM tag, or a key wrap's integrity check
  kKeyCannotDo,       // QL_ERR_BAD_KEY_USAGE 5014: sign with AES, decrypt with a public key, ...
  kDigestTooLarge,    // QL_ERR_DIGEST_TOO_LONG 5019: DigestInfo and digest exceed the modulus
  kBadPadding,        // QL_ERR_BAD_PADDING 5024: decrypted data whose padding is wrong
  kBadData,           // QL_ERR_BAD_ARGUMENT 1001: a malformed blob, DER or stored key
  kBadSignature,      // QL_ERR_BAD_SIGNATURE 5017
  kWholeMessageOnly,  // QL_ERR_PIECES_REFUSED 5018: KW and KWP take one whole message
  kInternal,          // QL_ERR_INTERNAL 5012: OpenSSL failed where it should not; see detail()
};

// A short English name of the code, for logs and test messages.
const char *CodeName(Code code);

class Status {
 public:
  Status() = default;
  Status(Code code, std::string detail = {}) : code_(code), detail_(std::move(detail)) {}
  static Status TooSmall(size_t needed) {
    Status s(Code::kBufferTooSmall);
    s.needed_ = needed;
    return s;
  }
  bool ok() const { return code_ == Code::kOk; }
  Code code() const { return code_; }
  // For kBufferTooSmall: the length the caller must provide.
  size_t needed() const { return needed_; }
  const std::string &detail() const { return detail_; }

 private:
  Code code_ = Code::kOk;
  size_t needed_ = 0;
  std::string detail_;
};

// A value or a refusal. value() may only be called when ok().
template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Status status) : status_(std::move(status)) {}
  Result(Code code, std::string detail = {}) : status_(code, std::move(detail)) {}
  bool ok() const { return status_.ok(); }
  Code code() const { return status_.code(); }
  const Status &status() const { return status_; }
  T &value() { return *value_; }
  const T &value() const { return *value_; }
  T &operator*() { return *value_; }
  const T &operator*() const { return *value_; }
  T *operator->() { return &*value_; }
  const T *operator->() const { return &*value_; }

 private:
  Status status_;
  std::optional<T> value_;
};

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_STATUS_H_
