// OATH tokens of users: the second factor of a password login. Each user holds at most one token
// (HOTP, RFC 4226, or TOTP, RFC 6238); its seed is sealed under the master key like other key
// material, and its counter, drift and failure count change in one transaction with the check
// that moved them, before the login answers. Mirrored in memory; one check at a time per user,
// so that an OTP is accepted once even when two logins bring it at the same moment.
//
// Thread safe: every method may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "engine/secure/secure.h"
#include "engine/store/store.h"

namespace qlhsm::users {

inline constexpr uint32_t kOtpEvent = 2;
inline constexpr uint32_t kOtpTime = 3;
// RFC 4226 section 7.3: OTP failures in a row (with the right password) that block the user.
inline constexpr uint32_t kOtpMaxFailures = 10;

// What a check of a one-time password needs to know of a token.
struct OtpParams {
  uint32_t type = kOtpEvent;
  uint32_t hash = 0;  // 0 SHA-1, 1 SHA-256, 2 SHA-512
  uint32_t digits = 6;
  uint32_t step = 30;     // time tokens: seconds per step
  uint64_t counter = 0;   // event: the next counter; time: the first step not used yet
  uint64_t t0 = 0;        // time tokens: seconds since 1970
  int32_t drift = 0;      // time tokens: steps the token runs ahead (negative: behind)
  uint32_t failures = 0;  // failed checks in a row
};

// The counter (event) or step (time) that `otp` matches: event tokens the next 10 counters (RFC
// 4226 section 7.4), time tokens the current step and one back, shifted by the drift (RFC 6238
// section 5.2), never a step before p.counter. `now` is the HSM's time.
std::optional<uint64_t> MatchOtp(const OtpParams &p, const secure::Bytes &seed, int64_t now,
                                 std::string_view otp);

// Two consecutive OTPs within 1,000 counters (event) or 60 steps either side of now (time): the
// parameters after the match (counter past both, drift for time, no failures); nullopt when no
// pair matches.
std::optional<OtpParams> ResyncOtp(const OtpParams &p, const secure::Bytes &seed, int64_t now,
                                   std::string_view otp1, std::string_view otp2);

class OtpTokens {
 public:
  // `master_key` seals the seeds; both must outlive the tokens.
  OtpTokens(store::Store &store, const secure::Bytes &master_key)
      : store_(store), master_key_(master_key) {}

  // Loads every token from the store. Call once before use.
  Status Load();

  bool Has(std::string_view user) const;
  // kTokenExists when the user holds one already.
  Status Assign(std::string_view user, const OtpParams &params, const secure::Bytes &seed);
  // kNoToken when the user holds none.
  Status Unassign(std::string_view user);
  // The user was removed (the store dropped its row with it).
  void Forget(std::string_view user);

  struct Outcome {
    bool matched = false;
    uint32_t failures = 0;  // after this check
  };
  // Checks `otp` and stores the new counter or failure count before answering. kNoToken when the
  // user holds none.
  Result<Outcome> Check(std::string_view user, std::string_view otp, int64_t now);
  // kCheckFailed when the two OTPs are no consecutive pair in reach. *was_failures (when given)
  // receives the failures before the resync.
  Status Resync(std::string_view user, std::string_view otp1, std::string_view otp2, int64_t now,
                uint32_t *was_failures = nullptr);
  // Clears the failure count (an operator unblocked the user); nothing when it holds no token.
  Status ClearFailures(std::string_view user);

 private:
  struct Entry {
    std::mutex mu;  // one check at a time
    bool gone = false;
    OtpParams params;
    secure::Bytes seed;
  };
  std::shared_ptr<Entry> Find(std::string_view user) const;
  // Writes counter, drift and failures of `p` for `user`.
  Status Save(std::string_view user, const OtpParams &p);

  store::Store &store_;
  const secure::Bytes &master_key_;
  mutable std::shared_mutex mu_;
  std::unordered_map<std::string, std::shared_ptr<Entry>> tokens_;
};

}  // namespace qlhsm::users
