// Secret keeping: a secret drawn by the HSM and kept as an object named by its id, which never
// leaves in the clear. Custodians hold M-of-N shares of it (the part format of crypto/mofn.h,
// version 2, followed by SHA-256(id)[0..8)); the shares put it back, or prove it is the same.
//
// Levels 1 to 3 draw 16, 24 or 32 bytes. The auth type is fixed at creation: 1 plain shares,
// 2 shares bound to this HSM (each wrapped with RFC 5649 under a key derived with HKDF-SHA256
// from the master key). Rights: create 0x4, remove 0x1, everything else a use.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "engine/guard.h"

namespace qlhsm {

// Probe bits.
inline constexpr uint32_t kSkeepExists = 1;
inline constexpr uint32_t kSkeepSplit = 2;
inline constexpr uint32_t kSkeepRestored = 4;
// Recover's answers.
inline constexpr uint32_t kSkeepStored = 1;
inline constexpr uint32_t kSkeepPresentEqual = 2;

class SkeepService {
 public:
  SkeepService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // kBadArgument for a level or auth type out of range; kObjectExists when the id is taken.
  Status New(sessions::Session &s, std::string_view id, uint32_t level, uint32_t auth);
  // kSkeepMismatch when the level or auth type differ from the secret's.
  Status Remove(sessions::Session &s, std::string_view id, uint32_t level, uint32_t auth);
  Result<std::vector<secure::Bytes>> Split(sessions::Session &s, std::string_view id,
                                           uint32_t level, uint32_t auth, uint32_t m, uint32_t n);
  // 0 when absent, else kSkeepExists with kSkeepSplit and kSkeepRestored as they happened.
  Result<uint32_t> Probe(sessions::Session &s, std::string_view id);
  // Ok, or kSkeepMismatch when the shares give another secret or another auth type; damaged
  // shares 5112, shares of different sets 5113, too few 5114.
  Status Match(sessions::Session &s, std::string_view id, const std::vector<secure::Bytes> &shares);
  // kSkeepStored when the secret was absent and is now kept again, kSkeepPresentEqual when it is
  // there and equal; kSkeepMismatch (nothing changed) when it is there and different.
  Result<uint32_t> Recover(sessions::Session &s, std::string_view id,
                           const std::vector<secure::Bytes> &shares);

 private:
  Core &core_;
  Guard &guard_;
};

}  // namespace qlhsm
