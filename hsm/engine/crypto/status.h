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

// The refusals of the crypto library. The right column is the client-library code the engine is
// expected to answer (names as qlapi.h spells them once they exist; 1005 is fixed).
enum class Code {
  kOk = 0,             // 0
  kBadAlgorithm,       // unknown algorithm, hash, mode or blob identifier   -> "invalid algorithm"
  kNotSupported,       // a known identifier this HSM does not offer (arc5, a mode an algorithm
                       // lacks, pre-hashed EdDSA, ...)                       -> "not supported"
  kBadArgument,        // wrong length, empty input, bad flags or IV          -> "invalid parameter"
  kBufferTooSmall,     // the output does not fit; Status::needed holds the length -> 1005
  kBadTag,             // GCM authentication tag (or key-wrap integrity check) does not match
  kKeyCannotDo,        // the key's kind cannot do this (sign with AES, decrypt with a public key)
  kDigestTooLarge,     // the digest (with its DigestInfo) does not fit the RSA modulus
  kBadData,            // malformed input: bad padding on decryption, bad blob, bad DER
  kBadSignature,       // a signature that does not verify
  kWholeMessageOnly,   // key wrap (KW, KWP) takes one whole message with final set
  kInternal,           // OpenSSL failed where it should not; detail says where
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
