#include "engine/users/otp_tokens.h"

#include <algorithm>

#include "crypto/oath.h"

namespace qlhsm::users {
namespace oath = crypto::oath;

namespace {

// RFC 4226 section 7.4: the counters an event token may have moved on to unseen.
constexpr uint32_t kEventWindow = 10;
// How far a resync looks: counters ahead, steps either side of now.
constexpr uint32_t kResyncEvents = 1000;
constexpr int64_t kResyncSteps = 60;

// The seed's associated data binds it to its user: a sealed seed copied to another row fails.
std::string SeedAad(std::string_view user) {
  return "user-otp-seed:" + std::string(user);
}

crypto::ByteView View(const secure::Bytes &b) {
  return crypto::ByteView(b.data(), b.size());
}

// The first c in [from, from + window) where otp1 matches c and otp2 matches c + 1.
std::optional<uint64_t> FindPair(const OtpParams &p, const secure::Bytes &seed, uint64_t from,
                                 uint64_t window, std::string_view otp1, std::string_view otp2) {
  const auto hash = static_cast<oath::OathHash>(p.hash);
  const uint64_t end = from + window;
  while (from < end) {
    std::optional<uint64_t> m = oath::FindCounter(
        View(seed), from, static_cast<uint32_t>(end - from), p.digits, hash, otp1);
    if (!m) return std::nullopt;
    if (oath::FindCounter(View(seed), *m + 1, 1, p.digits, hash, otp2)) return m;
    from = *m + 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<uint64_t> MatchOtp(const OtpParams &p, const secure::Bytes &seed, int64_t now,
                                 std::string_view otp) {
  const auto hash = static_cast<oath::OathHash>(p.hash);
  if (p.type == kOtpEvent)
    return oath::FindCounter(View(seed), p.counter, kEventWindow, p.digits, hash, otp);
  std::optional<uint64_t> step = oath::TimeStep(now, static_cast<int64_t>(p.t0), p.step);
  if (!step) return std::nullopt;
  const int64_t last = static_cast<int64_t>(*step) + p.drift;
  const int64_t first = std::max<int64_t>({last - 1, 0, static_cast<int64_t>(p.counter)});
  if (last < first) return std::nullopt;
  return oath::FindCounter(View(seed), static_cast<uint64_t>(first),
                           static_cast<uint32_t>(last - first + 1), p.digits, hash, otp);
}

std::optional<OtpParams> ResyncOtp(const OtpParams &p, const secure::Bytes &seed, int64_t now,
                                   std::string_view otp1, std::string_view otp2) {
  OtpParams out = p;
  out.failures = 0;
  if (p.type == kOtpEvent) {
    std::optional<uint64_t> c = FindPair(p, seed, p.counter, kResyncEvents, otp1, otp2);
    if (!c) return std::nullopt;
    out.counter = *c + 2;
    return out;
  }
  std::optional<uint64_t> step = oath::TimeStep(now, static_cast<int64_t>(p.t0), p.step);
  if (!step) return std::nullopt;
  const int64_t current = static_cast<int64_t>(*step);
  const int64_t first = std::max<int64_t>(current - kResyncSteps, 0);
  std::optional<uint64_t> s =
      FindPair(p, seed, static_cast<uint64_t>(first),
               static_cast<uint64_t>(current + kResyncSteps - first + 1), otp1, otp2);
  if (!s) return std::nullopt;
  // The second OTP's step is the token's now; neither may be accepted again.
  out.drift = static_cast<int32_t>(static_cast<int64_t>(*s) + 1 - current);
  out.counter = std::max<uint64_t>(p.counter, *s + 2);
  return out;
}

Status OtpTokens::Load() {
  return store_.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> st = conn.Prepare(
        "SELECT name, type, hash, digits, step, t0, counter, drift, failures, seed FROM user_otp");
    if (!st.ok()) return st.status();
    std::unique_lock lock(mu_);
    tokens_.clear();
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      auto e = std::make_shared<Entry>();
      const std::string name = st->Text(0);
      e->params.type = static_cast<uint32_t>(st->Int(1));
      e->params.hash = static_cast<uint32_t>(st->Int(2));
      e->params.digits = static_cast<uint32_t>(st->Int(3));
      e->params.step = static_cast<uint32_t>(st->Int(4));
      e->params.t0 = static_cast<uint64_t>(st->Int(5));
      e->params.counter = static_cast<uint64_t>(st->Int(6));
      e->params.drift = static_cast<int32_t>(st->Int(7));
      e->params.failures = static_cast<uint32_t>(st->Int(8));
      Result<secure::Bytes> seed = secure::Open(master_key_, st->Blob(9), SeedAad(name));
      if (!seed.ok()) return seed.status();
      e->seed = std::move(seed.value());
      tokens_.emplace(name, std::move(e));
    }
    return Status::Ok();
  });
}

std::shared_ptr<OtpTokens::Entry> OtpTokens::Find(std::string_view user) const {
  std::shared_lock lock(mu_);
  auto it = tokens_.find(std::string(user));
  return it == tokens_.end() ? nullptr : it->second;
}

bool OtpTokens::Has(std::string_view user) const {
  return Find(user) != nullptr;
}

Status OtpTokens::Assign(std::string_view user, const OtpParams &params,
                         const secure::Bytes &seed) {
  Result<secure::Bytes> sealed = secure::Seal(master_key_, seed, SeedAad(user));
  if (!sealed.ok()) return sealed.status();
  return store_.Locked([&](store::Connection &conn) -> Status {
    std::unique_lock lock(mu_);
    if (tokens_.count(std::string(user)))
      return Status::Error(Code::kTokenExists, "the user has a token");
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st = conn.Prepare(
        "INSERT INTO user_otp(name, type, hash, digits, step, t0, counter, drift, failures, seed) "
        "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
    if (!st.ok()) return st.status();
    st->Bind(1, user)
        .Bind(2, int64_t{params.type})
        .Bind(3, int64_t{params.hash})
        .Bind(4, int64_t{params.digits})
        .Bind(5, int64_t{params.step})
        .Bind(6, static_cast<int64_t>(params.t0))
        .Bind(7, static_cast<int64_t>(params.counter))
        .Bind(8, int64_t{params.drift})
        .Bind(9, int64_t{params.failures})
        .BindBlob(10, sealed.value());
    Status s = st->Run();
    if (s.code() == Code::kObjectExists)
      return Status::Error(Code::kTokenExists, "the user has a token");
    QL_RETURN_IF_ERROR(s);
    QL_RETURN_IF_ERROR(tx.Commit());
    auto e = std::make_shared<Entry>();
    e->params = params;
    e->seed = seed;
    tokens_[std::string(user)] = std::move(e);
    return Status::Ok();
  });
}

// Locks are taken in one order everywhere: a token's own lock, then the store, then the map.
Status OtpTokens::Unassign(std::string_view user) {
  std::shared_ptr<Entry> e = Find(user);
  if (!e) return Status::Error(Code::kNoToken, "the user has no token");
  std::lock_guard<std::mutex> entry(e->mu);
  if (e->gone) return Status::Error(Code::kNoToken, "the user has no token");
  Status st = store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> del = conn.Prepare("DELETE FROM user_otp WHERE name = ?1");
    if (!del.ok()) return del.status();
    del->Bind(1, user);
    QL_RETURN_IF_ERROR(del->Run());
    return tx.Commit();
  });
  if (!st.ok()) return st;
  e->gone = true;
  {
    std::unique_lock lock(mu_);
    auto it = tokens_.find(std::string(user));
    // A token assigned anew meanwhile stays.
    if (it != tokens_.end() && it->second == e) tokens_.erase(it);
  }
  return Status::Ok();
}

void OtpTokens::Forget(std::string_view user) {
  std::shared_ptr<Entry> e = Find(user);
  if (!e) return;
  {
    std::lock_guard<std::mutex> entry(e->mu);
    e->gone = true;
  }
  {
    std::unique_lock lock(mu_);
    auto it = tokens_.find(std::string(user));
    // A token assigned anew meanwhile stays.
    if (it != tokens_.end() && it->second == e) tokens_.erase(it);
  }
}

Status OtpTokens::Save(std::string_view user, const OtpParams &p) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st =
        conn.Prepare("UPDATE user_otp SET counter = ?2, drift = ?3, failures = ?4 WHERE name = ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, user)
        .Bind(2, static_cast<int64_t>(p.counter))
        .Bind(3, int64_t{p.drift})
        .Bind(4, int64_t{p.failures});
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kNoToken, "the user has no token");
    return tx.Commit();
  });
}

Result<OtpTokens::Outcome> OtpTokens::Check(std::string_view user, std::string_view otp,
                                            int64_t now) {
  std::shared_ptr<Entry> e = Find(user);
  if (!e) return Status::Error(Code::kNoToken, "the user has no token");
  std::lock_guard<std::mutex> lock(e->mu);
  if (e->gone) return Status::Error(Code::kNoToken, "the user has no token");
  OtpParams next = e->params;
  std::optional<uint64_t> match = MatchOtp(e->params, e->seed, now, otp);
  if (match) {
    next.counter = *match + 1;
    next.failures = 0;
  } else {
    next.failures = e->params.failures + 1;
  }
  // Stored before the answer: a crash after it never lets the same OTP in twice.
  QL_RETURN_IF_ERROR(Save(user, next));
  e->params = next;
  return Outcome{match.has_value(), next.failures};
}

Status OtpTokens::Resync(std::string_view user, std::string_view otp1, std::string_view otp2,
                         int64_t now, uint32_t *was_failures) {
  std::shared_ptr<Entry> e = Find(user);
  if (!e) return Status::Error(Code::kNoToken, "the user has no token");
  std::lock_guard<std::mutex> lock(e->mu);
  if (e->gone) return Status::Error(Code::kNoToken, "the user has no token");
  std::optional<OtpParams> next = ResyncOtp(e->params, e->seed, now, otp1, otp2);
  if (!next) return Status::Error(Code::kCheckFailed, "no consecutive pair of OTPs in reach");
  QL_RETURN_IF_ERROR(Save(user, *next));
  if (was_failures) *was_failures = e->params.failures;
  e->params = *next;
  return Status::Ok();
}

Status OtpTokens::ClearFailures(std::string_view user) {
  std::shared_ptr<Entry> e = Find(user);
  if (!e) return Status::Ok();
  std::lock_guard<std::mutex> lock(e->mu);
  if (e->gone || e->params.failures == 0) return Status::Ok();
  OtpParams next = e->params;
  next.failures = 0;
  QL_RETURN_IF_ERROR(Save(user, next));
  e->params = next;
  return Status::Ok();
}

}  // namespace qlhsm::users
