#include "engine/test_fault.h"

#include <atomic>

namespace qlhsm {
namespace {

// Read on every access check: a relaxed atomic load, set once before serving starts.
std::atomic<TestFault> g_fault{TestFault::kNone};

}  // namespace

bool ParseTestFault(std::string_view name, TestFault *fault) {
  if (name == "sign-bitflip") {
    *fault = TestFault::kSignBitflip;
  } else if (name == "decrypt-corrupt") {
    *fault = TestFault::kDecryptCorrupt;
  } else if (name == "grant-rights") {
    *fault = TestFault::kGrantRights;
  } else {
    return false;
  }
  return true;
}

void SetTestFault(TestFault fault) {
  g_fault.store(fault, std::memory_order_relaxed);
}

TestFault CurrentTestFault() {
  return g_fault.load(std::memory_order_relaxed);
}

}  // namespace qlhsm
