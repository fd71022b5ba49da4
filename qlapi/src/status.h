#pragma once
// Inside the library a failure is a Status: a qlapi.h code, cheap to return on success. Codes
// become plain ints only at the C boundary (api_guard.h).

#include <cstdint>
#include <string>
#include <utility>

#include "qlapi.h"

namespace qlapi {

class Status {
 public:
  Status() = default;
  explicit Status(int code) : code_(code) {}
  static Status Ok() { return Status(); }

  bool ok() const { return code_ == QL_OK; }
  int code() const { return code_; }

 private:
  int code_ = QL_OK;
};

// A value or a failure.
template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT: implicit on purpose
  Result(Status status) : status_(status) {}     // NOLINT
  bool ok() const { return status_.ok(); }
  const Status &status() const { return status_; }
  T &value() { return value_; }
  const T &value() const { return value_; }

 private:
  Status status_;
  T value_{};
};

#define QL_RETURN_IF_ERROR(expr)  \
  do {                            \
    ::qlapi::Status _st = (expr); \
    if (!_st.ok()) return _st;    \
  } while (0)

// The same at the C boundary, where functions answer plain codes.
#define QL_RETURN_CODE_IF_ERROR(expr) \
  do {                                \
    ::qlapi::Status _st = (expr);     \
    if (!_st.ok()) return _st.code(); \
  } while (0)

}  // namespace qlapi
