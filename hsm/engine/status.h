// Status and Result: the engine's way of reporting failure without exceptions on the request
// path. Cheap on success (no allocation), named on failure (a Code plus a short message for the
// daemon's log; the message never holds secrets).
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "engine/codes.h"

namespace qlhsm {

class [[nodiscard]] Status {
 public:
  Status() = default;
  static Status Ok() { return Status(); }
  static Status Error(Code code, std::string message = {}) {
    return Status(code, std::move(message));
  }

  bool ok() const { return code_ == Code::kOk; }
  Code code() const { return code_; }
  const std::string &message() const { return message_; }
  std::string ToString() const {
    return std::to_string(static_cast<int>(code_)) + (message_.empty() ? "" : ": " + message_);
  }

 private:
  Status(Code code, std::string message) : code_(code), message_(std::move(message)) {}
  Code code_ = Code::kOk;
  std::string message_;
};

// A value or the Status that says why there is none.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}          // NOLINT: implicit by design
  Result(Status status) : status_(std::move(status)) {}  // NOLINT: implicit by design

  bool ok() const { return status_.ok(); }
  const Status &status() const { return status_; }
  T &value() & { return *value_; }
  const T &value() const & { return *value_; }
  T &&value() && { return std::move(*value_); }
  T *operator->() { return &*value_; }
  const T *operator->() const { return &*value_; }
  T &operator*() { return *value_; }

 private:
  std::optional<T> value_;
  Status status_;
};

#define QL_RETURN_IF_ERROR(expr)     \
  do {                               \
    ::qlhsm::Status ql_st_ = (expr); \
    if (!ql_st_.ok()) return ql_st_; \
  } while (0)

}  // namespace qlhsm
