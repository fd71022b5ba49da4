// The answer codes the engine hands to the daemon, made from the table both sides share
// (proto/return_codes.h), so the engine and the library can never drift apart. Inside the engine
// every failure is a Status with one of these codes; only the daemon turns them into numbers on
// the wire.
#pragma once

#include "return_codes.h"

namespace qlhsm {

#define QL_ENGINE_CODE(engine_name, library_name, value, text) engine_name = value,
enum class Code : int { QL_RETURN_CODES(QL_ENGINE_CODE) };
#undef QL_ENGINE_CODE

inline int ToWire(Code c) {
  return static_cast<int>(c);
}

}  // namespace qlhsm
