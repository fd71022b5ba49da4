// The tools service: ping and traceroute (net_probe.h), and the self-check the cross-check runs
// on a single HSM: the store's integrity, known answers of the algorithms, the key cache against
// the store.
#include "engine/services/tools.h"

#include <algorithm>
#include <functional>
#include <vector>

#include "crypto/cipher.h"
#include "crypto/hash.h"
#include "crypto/key.h"
#include "crypto/sign.h"
#include "engine/services/net_probe.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

namespace c = crypto;

c::Bytes Hex(std::string_view hex) {
  c::Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return out;
}

c::Bytes Text(std::string_view text) {
  return c::Bytes(text.begin(), text.end());
}

std::string Fault(const c::Status &st) {
  return std::string("fault: ") + c::CodeName(st.code()) +
         (st.detail().empty() ? "" : " (" + st.detail() + ")");
}

// "" when `got` is the expected value, else the fault.
template <typename B>
std::string Expect(const c::Result<B> &got, const c::Bytes &want) {
  if (!got.ok()) return Fault(got.status());
  if (!std::equal(got->begin(), got->end(), want.begin(), want.end())) return "fault: wrong answer";
  return "";
}

std::string DigestKat(c::AlgId alg, std::string_view msg, std::string_view want) {
  return Expect(c::Digest(alg, Text(msg)), Hex(want));
}

std::string MacKat(c::AlgId key_alg, std::string_view key_hex, c::AlgId mac, c::Bytes msg,
                   std::string_view want) {
  c::Result<c::KeyPtr> key = c::Key::FromSecret(key_alg, Hex(key_hex));
  if (!key.ok()) return Fault(key.status());
  return Expect(c::Mac(mac, *key, msg), Hex(want));
}

// One block each way in ECB without padding.
std::string BlockKat(c::AlgId alg, std::string_view key_hex, std::string_view plain_hex,
                     std::string_view cipher_hex) {
  c::Result<c::KeyPtr> key = c::Key::FromSecret(alg, Hex(key_hex));
  if (!key.ok()) return Fault(key.status());
  c::CipherState state(*key);
  if (c::Status st = state.SetMode(c::mode::kEcb); !st.ok()) return Fault(st);
  if (c::Status st = state.SetPadding(c::padding::kNone); !st.ok()) return Fault(st);
  if (std::string f = Expect(state.Encrypt(Hex(plain_hex), true), Hex(cipher_hex)); !f.empty())
    return f;
  return Expect(state.Decrypt(Hex(cipher_hex), true), Hex(plain_hex));
}

// A fresh key signs a digest; the signature verifies, and fails for another digest.
std::string SignKat(c::AlgId alg) {
  c::Result<c::KeyPtr> key = c::Key::Generate(alg);
  if (!key.ok()) return Fault(key.status());
  c::Result<c::Bytes> digest = c::Digest(c::hash::kSha256, Text("abc"));
  if (!digest.ok()) return Fault(digest.status());
  c::Result<c::Bytes> sig = c::Sign(**key, c::hash::kSha256, *digest);
  if (!sig.ok()) return Fault(sig.status());
  if (c::Status st = c::Verify(**key, c::hash::kSha256, *digest, *sig); !st.ok()) return Fault(st);
  c::Bytes other = *digest;
  other[0] ^= 1;
  if (c::Verify(**key, c::hash::kSha256, other, *sig).code() != c::Code::kBadSignature)
    return "fault: a signature verifies for another digest";
  return "";
}

std::string RandomKat() {
  c::Result<c::SecretBytes> a = c::RandomBytes(32), b = c::RandomBytes(32);
  if (!a.ok()) return Fault(a.status());
  if (!b.ok()) return Fault(b.status());
  if (*a == *b) return "fault: two draws are equal";
  return "";
}

struct Kat {
  const char *name;
  std::function<std::string()> run;
};

// Published vectors: FIPS 180-2 and FIPS 202 ("abc"), RFC 4231 case 1, RFC 2202 case 1,
// FIPS-197 C.1, RFC 4493 example 2, the classic single-DES worked example run as 3DES with three
// equal keys.
const std::vector<Kat> &Kats() {
  static const std::vector<Kat> kats = {
      {"SHA-1",
       [] { return DigestKat(c::hash::kSha1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"); }},
      {"SHA-256",
       [] {
         return DigestKat(c::hash::kSha256, "abc",
                          "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
       }},
      {"SHA-512",
       [] {
         return DigestKat(c::hash::kSha512, "abc",
                          "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                          "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
       }},
      {"SHA3-256",
       [] {
         return DigestKat(c::hash::kSha3_256, "abc",
                          "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532");
       }},
      {"HMAC-SHA-256",
       [] {
         return MacKat(c::alg::kHmacKey, "0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b",
                       c::hash::kHmacSha256, Text("Hi There"),
                       "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
       }},
      {"HMAC-SHA-1",
       [] {
         return MacKat(c::alg::kHmacKey, "0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b",
                       c::hash::kHmacSha1, Text("Hi There"),
                       "b617318655057264e28bc0b6fb378c8ef146be00");
       }},
      {"AES-128",
       [] {
         return BlockKat(c::alg::kAes128, "000102030405060708090a0b0c0d0e0f",
                         "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a");
       }},
      {"CMAC-AES-128",
       [] {
         return MacKat(c::alg::kAes128, "2b7e151628aed2a6abf7158809cf4f3c", c::hash::kCmacAes,
                       Hex("6bc1bee22e409f96e93d7e117393172a"), "070a16b46b4d4144f79bdd9dd04a287c");
       }},
      {"3DES",
       [] {
         return BlockKat(c::alg::k3Des168, "133457799bbcdff1133457799bbcdff1133457799bbcdff1",
                         "0123456789abcdef", "85e813540f0ab405");
       }},
      {"RSA-2048 sign and verify", [] { return SignKat(c::alg::kRsa2048); }},
      {"ECDSA P-256 sign and verify", [] { return SignKat(c::alg::kSecp256r1); }},
      {"random generator", [] { return RandomKat(); }},
  };
  return kats;
}

void Line(std::string *report, const std::string &check, const std::string &fault) {
  *report += check + ": " + (fault.empty() ? std::string("ok") : fault) + "\n";
}

bool SameRecord(const objects::ObjectInfo &a, const objects::ObjectInfo &b) {
  return a.type == b.type && a.algorithm == b.algorithm && a.flags == b.flags &&
         a.blocked == b.blocked && a.created == b.created;
}

}  // namespace

bool RunKnownAnswerTests(std::string *report) {
  bool all_ok = true;
  for (const Kat &kat : Kats()) {
    std::string fault = kat.run();
    all_ok = all_ok && fault.empty();
    Line(report, std::string("known answer ") + kat.name, fault);
  }
  return all_ok;
}

bool ToolsService::SelfCheck(std::string *report) {
  bool all_ok = true;
  *report += "self-check of this HSM (a single HSM: no cluster to compare with)\n";

  // The store: SQLite's own check of every page and index.
  Result<std::vector<std::string>> integrity =
      core_.store->Locked([](store::Connection &conn) -> Result<std::vector<std::string>> {
        Result<store::Statement> st = conn.Prepare("PRAGMA integrity_check");
        if (!st.ok()) return st.status();
        std::vector<std::string> rows;
        for (;;) {
          Result<bool> row = st->Step();
          if (!row.ok()) return row.status();
          if (!*row) return rows;
          rows.push_back(st->Text(0));
        }
      });
  std::string store_fault;
  if (!integrity.ok())
    store_fault = "fault: " + integrity.status().message();
  else if (integrity->size() != 1 || integrity->front() != "ok")
    store_fault = "fault: " + (integrity->empty() ? std::string("no answer") : integrity->front());
  all_ok = all_ok && store_fault.empty();
  Line(report, "store integrity", store_fault);

  all_ok = RunKnownAnswerTests(report) && all_ok;

  // The key cache: every key in memory still has its record in the store, unchanged. A key
  // changed or removed while this runs leaves the cache at once, so only faults still cached
  // after a second look count.
  std::vector<objects::ObjectInfo> cached = core_.keys.Snapshot();
  std::vector<std::string> faults;
  for (const objects::ObjectInfo &info : cached) {
    Result<objects::ObjectInfo> stored = core_.objects->Get(info.ref);
    if (stored.ok() && SameRecord(info, *stored)) continue;
    bool still_cached = false;
    for (const objects::ObjectInfo &again : core_.keys.Snapshot())
      still_cached =
          still_cached || (again.ref.Full() == info.ref.Full() && SameRecord(again, info));
    if (!still_cached) continue;
    faults.push_back(info.ref.Full() + (stored.ok() ? " differs from its stored record"
                                                    : " is no longer in the store"));
  }
  if (faults.empty()) {
    *report +=
        "key cache against the store: ok (" + std::to_string(cached.size()) + " keys in memory)\n";
  } else {
    all_ok = false;
    *report += "key cache against the store: fault: " + std::to_string(faults.size()) + " of " +
               std::to_string(cached.size()) + " keys in memory do not match the store\n";
    for (const std::string &f : faults) {
      if (report->size() > kMaxReport - 256) break;
      *report += "  " + f + "\n";
    }
  }
  *report += all_ok ? "all checks ok\n" : "a check failed\n";
  return all_ok;
}

Status ToolsService::Run(Session &s, uint32_t tool, std::string_view target, uint32_t flags,
                         std::string *report) {
  const bool ping = tool == qlproto::kToolPing;
  const bool trace = tool == qlproto::kToolTraceroute;
  const bool check = tool == qlproto::kToolCrossCheck;
  const char *name = ping ? "net-ping" : trace ? "net-traceroute" : "self-check";
  Result<net_probe::Target> parsed = net_probe::Target{};
  if (ping || trace) parsed = net_probe::ParseTarget(target);
  // Only a target that parsed goes to the audit log (it holds no space then).
  const std::string audit_target = (ping || trace) && parsed.ok() ? std::string(target) : "-";
  return guard_.Run(
      s, Op{name, audit_target, Request::kAdminister, AuditMode::kChange},
      [&] {
        if (!ping && !trace && !check) return Status::Error(Code::kBadArgument, "unknown tool");
        const uint32_t allowed = ping ? qlproto::kToolTcpProbe : 0;
        if (flags & ~allowed) return Status::Error(Code::kBadFlags, "unknown tool flags");
        return parsed.status();
      },
      [&](const users::UserInfo &) -> Status {
        report->clear();
        if (check)
          return SelfCheck(report) ? Status::Ok()
                                   : Status::Error(Code::kSelfCheckFailed, "a self-check failed");
        net_probe::PingOptions options;
        options.tcp_only = (flags & qlproto::kToolTcpProbe) != 0;
        Result<std::string> text =
            ping ? net_probe::Ping(*parsed, options) : net_probe::Traceroute(*parsed);
        if (!text.ok()) return text.status();
        *report = std::move(*text);
        if (report->size() > kMaxReport) report->resize(kMaxReport);
        return Status::Ok();
      });
}

}  // namespace qlhsm
