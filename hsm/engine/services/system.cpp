// The HSM itself. Its date and time are an offset to this machine's clock, kept in the settings.
#include "engine/services/system.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/opensslv.h>
#include <openssl/provider.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "crypto/ossl.h"
#include "crypto/pki.h"
#include "engine/backup/backup.h"
#include "engine/crypto_result.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;

namespace {

constexpr const char *kTimeOffsetSetting = "time_offset";
// 9999-12-31 23:59:59 UTC: four-digit years are what every time the HSM prints can show.
constexpr uint64_t kLatestTime = 253402300799;

}  // namespace

Status SystemService::CheckSession(Session &s) {
  return guard_.Caller(s).status();
}

Result<ParamValue> SystemService::GetSessionParam(Session &s, uint32_t param, bool tls) {
  return guard_.Run(
      s, Op{"session-param", "-", Request::kFree, AuditMode::kRefusal},
      [&] {
        switch (param) {
          case qlproto::kSpOperatingMode:
          case qlproto::kSpAcl:
          case qlproto::kSpSessionId:
          case qlproto::kSpUserName:
          case qlproto::kSpTls:
            return Status::Ok();
          default:
            return Status::Error(Code::kBadArgument, "unknown session parameter");
        }
      },
      [&](const users::UserInfo &me) -> Result<ParamValue> {
        ParamValue v;
        v.has_number = true;
        switch (param) {
          case qlproto::kSpOperatingMode:
            v.number = qlproto::kOpModeNormal;
            break;
          case qlproto::kSpAcl:
            v.number = me.mask;
            break;
          case qlproto::kSpSessionId:
            v.number = s.id();
            break;
          case qlproto::kSpUserName:
            v.has_number = false;
            v.text = s.user();
            break;
          default:
            v.number = tls ? 1 : 0;
        }
        return v;
      });
}

Result<secure::Bytes> SystemService::GetRandom(Session &s, uint32_t len, size_t limit) {
  return guard_.Run(
      s, Op{"random", "-", Request::kPublic, AuditMode::kRefusal},
      [&] {
        if (len > limit) return Status::Error(Code::kLimitReached, "more than an answer holds");
        if (len == 0 || len > max_random())
          return Status::Error(Code::kBadArgument, "random length");
        return Status::Ok();
      },
      [&](const users::UserInfo &) { return secure::RandomBytes(len); });
}

Result<StatInfo> SystemService::GetStatInfo(Session &s) {
  return guard_.Run(s, Op{"stat-info", "-", Request::kReadStats, AuditMode::kRefusal}, NoArgs,
                    [&](const users::UserInfo &) -> Result<StatInfo> {
                      StatInfo info;
                      info.session_count = static_cast<uint32_t>(core_.registry.OpenCount());
                      info.cpu_percent = core_.cpu.Sample();
                      if (std::optional<stats::MemoryFigures> mem = stats::ReadMemory()) {
                        info.mem_total = mem->total_mib;
                        info.mem_used = mem->used_mib;
                        info.swap_total = mem->swap_total_mib;
                        info.swap_used = mem->swap_used_mib;
                      }
                      return info;
                    });
}

Result<uint64_t> SystemService::GetLogSize(Session &s) {
  return guard_.Run(s, Op{"log-size", "-", Request::kReadStats, AuditMode::kRefusal}, NoArgs,
                    [&](const users::UserInfo &) { return core_.audit->Size(); });
}

Result<audit::Page> SystemService::ReadLogPage(Session &s, uint64_t number) {
  return guard_.Run(
      s, Op{"log-page", "-", Request::kReadStats, AuditMode::kRefusal},
      [&] {
        if (number == 0) return Status::Error(Code::kBadArgument, "log pages count from 1");
        return Status::Ok();
      },
      [&](const users::UserInfo &) { return core_.audit->ReadPage(number); });
}

Result<HsmInfo> SystemService::GetHsmInfo(Session &s) {
  return guard_.Run(s, Op{"hsm-info", "-", Request::kPublic, AuditMode::kRefusal}, NoArgs,
                    [&](const users::UserInfo &) -> Result<HsmInfo> {
                      HsmInfo info;
                      Result<std::string> serial = core_.store->GetSetting("serial_number");
                      char host[256] = {};
                      if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
                      info.versions = {
                          "qlhsmd software HSM",
                          kHsmVersion,
                          serial.ok() ? serial.value() : std::string("unknown"),
                          std::string("software, ") + OpenSSL_version(OPENSSL_VERSION),
                          host,
                          std::string("engine schema ") + std::to_string(store::kSchemaVersion)};
                      for (std::string &v : info.versions)
                        std::replace(v.begin(), v.end(), '%', ' ');  // never a '%' in versions
                      return info;
                    });
}

namespace {

// The prefix length of a netmask (its leading one bits).
int PrefixOf(const sockaddr *mask) {
  if (mask == nullptr) return 0;
  const auto *bytes = mask->sa_family == AF_INET
                          ? reinterpret_cast<const uint8_t *>(
                                &reinterpret_cast<const sockaddr_in *>(mask)->sin_addr)
                          : reinterpret_cast<const uint8_t *>(
                                &reinterpret_cast<const sockaddr_in6 *>(mask)->sin6_addr);
  const size_t n = mask->sa_family == AF_INET ? 4 : 16;
  int prefix = 0;
  for (size_t i = 0; i < n; ++i)
    for (int bit = 7; bit >= 0 && (bytes[i] >> bit & 1); --bit) ++prefix;
  return prefix;
}

}  // namespace

Result<std::string> SystemService::GetNetInfo(Session &s) {
  return guard_.Run(
      s, Op{"net-info", "-", Request::kReadStats, AuditMode::kRefusal}, NoArgs,
      [&](const users::UserInfo &) -> Result<std::string> {
        char host[256] = {};
        if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
        std::string out = std::string("hostname=") + host + "\n";
        ifaddrs *list = nullptr;
        if (getifaddrs(&list) != 0) return Status::Error(Code::kInternal, "getifaddrs failed");
        for (const ifaddrs *a = list; a != nullptr; a = a->ifa_next) {
          if (a->ifa_addr == nullptr ||
              (a->ifa_addr->sa_family != AF_INET && a->ifa_addr->sa_family != AF_INET6))
            continue;
          const bool v4 = a->ifa_addr->sa_family == AF_INET;
          char text[INET6_ADDRSTRLEN] = {};
          const void *where =
              v4 ? static_cast<const void *>(
                       &reinterpret_cast<const sockaddr_in *>(a->ifa_addr)->sin_addr)
                 : static_cast<const void *>(
                       &reinterpret_cast<const sockaddr_in6 *>(a->ifa_addr)->sin6_addr);
          if (inet_ntop(a->ifa_addr->sa_family, where, text, sizeof text) == nullptr) continue;
          out += std::string("if.") + a->ifa_name + (v4 ? ".ipv4=" : ".ipv6=") + text + "/" +
                 std::to_string(PrefixOf(a->ifa_netmask)) + "\n";
        }
        freeifaddrs(list);
        return out;
      });
}

Result<std::vector<std::string>> SystemService::ListModules(Session &s) {
  return guard_.Run(
      s, Op{"list-modules", "-", Request::kFree, AuditMode::kRefusal}, NoArgs,
      [&](const users::UserInfo &) -> Result<std::vector<std::string>> {
        std::vector<std::string> names;
        for (const char *service :
             {"users", "objects", "keys", "hashes", "system", "logs", "pki", "payment", "vault",
              "oath", "sharing", "bchain", "spb", "skeep", "byok", "p11"})
          names.push_back(std::string("service:") + service);
        names.push_back(std::string("openssl:") + OpenSSL_version(OPENSSL_VERSION_STRING));
        names.push_back(std::string("sqlite:") + sqlite3_libversion());
        OSSL_PROVIDER_do_all(
            crypto::ossl::LibCtx(),
            [](OSSL_PROVIDER *provider, void *out) {
              const char *version = nullptr;
              OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_ptr(
                                         OSSL_PROV_PARAM_VERSION, const_cast<char **>(&version), 0),
                                     OSSL_PARAM_construct_end()};
              std::string line = std::string("provider:") + OSSL_PROVIDER_get0_name(provider);
              if (OSSL_PROVIDER_get_params(provider, params) == 1 && version != nullptr)
                line += std::string(" ") + version;
              static_cast<std::vector<std::string> *>(out)->push_back(std::move(line));
              return 1;
            },
            &names);
        // The update package applied last, once there is one.
        Result<uint64_t> package = PackageVersion();
        if (!package.ok()) return package.status();
        if (package.value() != 0)
          names.push_back("update-package:" + std::to_string(package.value()));
        return names;
      });
}

Status SystemService::KeepAlive(Session &s) {
  return guard_.Run(s, Op{"keep-alive", "-", Request::kPublic, AuditMode::kRefusal}, NoArgs,
                    [](const users::UserInfo &) { return Status::Ok(); });
}

Result<secure::Bytes> SystemService::Backup(Session &s, std::string_view pin) {
  return guard_.Run(
      s, Op{"backup", "-", Request::kBackup},
      [&] {
        // At least 8 characters, as the library documents.
        if (pin.size() < 8 || pin.size() > 64)
          return Status::Error(Code::kBadArgument, "a backup PIN has 8 to 64 characters");
        return Status::Ok();
      },
      [&](const users::UserInfo &) {
        // Flush first so the backup carries the log up to this request.
        (void)core_.audit->Flush();
        return backup::MakeBackup(*core_.store, core_.master_key, pin, core_.data_dir);
      });
}

namespace {

using Settings = std::vector<std::pair<std::string, std::string>>;

// Writes every setting (inserted or replaced) in one transaction.
Status WriteSettings(store::Store &store, const Settings &settings) {
  return store.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    for (const auto &[key, value] : settings) {
      Result<store::Statement> st = conn.Prepare(
          "INSERT INTO settings(key, value) VALUES(?1, ?2) "
          "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
      if (!st.ok()) return st.status();
      st->Bind(1, key).Bind(2, value);
      QL_RETURN_IF_ERROR(st->Run());
    }
    return tx.Commit();
  });
}

// The numbers an update package may set, as the settings table names them (read at start).
constexpr std::array<const char *, 7> kPackageLimits = {"max_sessions",
                                                        "max_objects",
                                                        "max_connections",
                                                        "max_pending",
                                                        "max_pending_per_address",
                                                        "max_anonymous",
                                                        "max_anonymous_per_address"};
constexpr uint64_t kMaxPackageLimit = 10'000'000;

// What an update package's manifest changes. We decided its form: one JSON object,
//   {"version": 4,
//    "limits": {"max_sessions": 512, ...},            (the names of kPackageLimits, 1 to 10^7)
//    "log_cache": {"enabled": true, "page_size": 8192},  (page_size 512 to 1 MiB)
//    "ip_allow": ["10.0.0.0/8", "192.0.2.7"]}          (the allow-list, replaced whole)
// with a version above the last one applied and every part but the version optional; any other
// member, type or value refuses the whole package.
struct Manifest {
  uint64_t version = 0;
  Settings settings;
  bool ip_allow = false;          // the allow-list is replaced (ip_filter reloads it)
  std::optional<bool> log_cache;  // on or off at once
};

Result<Manifest> ParseManifest(const secure::Bytes &content) {
  const Status refused = Status::Error(Code::kUpdateRefused, "the package's manifest is malformed");
  const nlohmann::json doc = nlohmann::json::parse(content.begin(), content.end(), nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) return refused;
  auto count = [](const nlohmann::json &v, uint64_t lo, uint64_t hi) -> std::optional<uint64_t> {
    if (!v.is_number_unsigned()) return std::nullopt;
    const uint64_t n = v.get<uint64_t>();
    if (n < lo || n > hi) return std::nullopt;
    return n;
  };
  Manifest m;
  for (const auto &[key, value] : doc.items()) {
    if (key == "version") {
      std::optional<uint64_t> v = count(value, 1, UINT64_MAX >> 1);
      if (!v) return refused;
      m.version = *v;
    } else if (key == "limits" && value.is_object()) {
      for (const auto &[name, n] : value.items()) {
        const std::string &limit = name;
        if (std::find_if(kPackageLimits.begin(), kPackageLimits.end(), [&limit](const char *known) {
              return limit == known;
            }) == kPackageLimits.end())
          return refused;
        std::optional<uint64_t> v = count(n, 1, kMaxPackageLimit);
        if (!v) return refused;
        m.settings.emplace_back(name, std::to_string(*v));
      }
    } else if (key == "log_cache" && value.is_object()) {
      for (const auto &[name, v] : value.items()) {
        if (name == "enabled" && v.is_boolean()) {
          m.log_cache = v.get<bool>();
          m.settings.emplace_back("log_cache", *m.log_cache ? "on" : "off");
        } else if (std::optional<uint64_t> size = count(v, 512, 1 << 20);
                   name == "page_size" && size) {
          m.settings.emplace_back("audit_page_size", std::to_string(*size));
        } else {
          return refused;
        }
      }
    } else if (key == "ip_allow" && value.is_array() && value.size() <= system::kMaxIpRules) {
      std::string text;
      for (const nlohmann::json &rule : value) {
        if (!rule.is_string()) return refused;
        Result<system::IpRule> r = system::ParseIpRule(rule.get<std::string>());
        if (!r.ok()) return refused;
        if (!text.empty()) text += ' ';
        text += r->Text();
      }
      m.settings.emplace_back(system::kIpAllowSetting, text);
      m.ip_allow = true;
    } else {
      return refused;
    }
  }
  if (m.version == 0) return refused;
  return m;
}

}  // namespace

Status SystemService::PushUpdatePackage(Session &s, const secure::Bytes &package) {
  return guard_.Run(
      s, Op{"update-package", "-", Request::kUpdatePackage, AuditMode::kChange}, NoArgs,
      [&](const users::UserInfo &) -> Status {
        Result<std::string> trusted = core_.store->GetSetting(kPackageSignerSetting);
        secure::Bytes signer;
        if (!trusted.ok() || !secure::FromHex(trusted.value(), &signer))
          return Status::Error(Code::kUpdateRefused, "no package signer is trusted");
        crypto::Result<crypto::Bytes> content = crypto::pki::VerifySignedContent(
            crypto::ByteView(package.data(), package.size()), signer);
        if (!content.ok())
          return Status::Error(Code::kUpdateRefused, "the package's signature does not verify");
        Result<Manifest> m = ParseManifest(secure::Bytes(content->begin(), content->end()));
        if (!m.ok()) return m.status();
        std::lock_guard<std::mutex> lock(package_mu_);
        Result<std::string> applied = core_.store->GetSetting(kPackageVersionSetting);
        const uint64_t last = applied.ok() ? std::strtoull(applied->c_str(), nullptr, 10) : 0;
        if (m->version <= last)
          return Status::Error(Code::kUpdateRefused, "the package's version is not newer");
        m->settings.emplace_back(kPackageVersionSetting, std::to_string(m->version));
        QL_RETURN_IF_ERROR(WriteSettings(*core_.store, m->settings));
        // The allow-list and the log cache change now; the limits and the page size at the
        // next start, as the daemon reads them there.
        if (m->ip_allow) QL_RETURN_IF_ERROR(core_.ip_filter->Load());
        if (m->log_cache) core_.audit->set_cache(*m->log_cache);
        return Status::Ok();
      });
}

Result<uint64_t> SystemService::PackageVersion() {
  Result<std::string> applied = core_.store->GetSetting(kPackageVersionSetting);
  if (!applied.ok())
    return applied.status().code() == Code::kObjectNotFound ? Result<uint64_t>(0)
                                                            : applied.status();
  return std::strtoull(applied->c_str(), nullptr, 10);
}

Status SystemService::Administer(Session &s, std::string_view what) {
  return guard_.Run(s, Op{what, "-", Request::kAdminister}, NoArgs, [&](const users::UserInfo &) {
    return Status::Error(Code::kNotSupported, std::string(what) + " is not built yet");
  });
}

Result<std::optional<uint64_t>> SystemService::Administer(Session &s, uint32_t operation,
                                                          const secure::Bytes &input) {
  using Answer = std::optional<uint64_t>;
  switch (operation) {
    case qlproto::kAdmKeepAlive: {
      QL_RETURN_IF_ERROR(KeepAlive(s));
      return Answer{};
    }
    case qlproto::kAdmProbe: {
      QL_RETURN_IF_ERROR(KeepAlive(s));
      return Answer{1};  // up
    }
    case qlproto::kAdmSetDateTime: {
      QL_RETURN_IF_ERROR(SetDateTime(s, input));
      return Answer{};
    }
    case qlproto::kAdmReplUpdate:
    case qlproto::kAdmReplNodeMessage: {
      // Replication is a cluster's; a single HSM says it is not part of one.
      const char *what = operation == qlproto::kAdmReplUpdate ? "repl-update" : "repl-node-message";
      return guard_.Run(s, Op{what, "-", Request::kAdminister}, NoArgs,
                        [&](const users::UserInfo &) -> Result<Answer> {
                          return Status::Error(Code::kNotInCluster, "no cluster");
                        });
    }
    default: {
      std::string what = "adm-" + std::to_string(operation);
      return Administer(s, std::string_view(what));
    }
  }
}

Status SystemService::LoadTimeOffset() {
  Result<std::string> text = core_.store->GetSetting(kTimeOffsetSetting);
  if (!text.ok()) {
    // A data directory from before the HSM kept its own time runs on the machine's clock.
    if (text.status().code() == Code::kObjectNotFound) return Status::Ok();
    return text.status();
  }
  int64_t offset = 0;
  const std::string &v = text.value();
  auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), offset);
  if (ec != std::errc() || end != v.data() + v.size())
    return Status::Error(Code::kInternal, "unreadable time offset in the settings: " + v);
  core_.clock.set_offset(offset);
  return Status::Ok();
}

namespace {

// The key of the identity set by set-tls-bundle, sealed under the master key (hex), written in
// one transaction with its certificates (kTlsChainSetting).
constexpr const char *kTlsKeySetting = "tls_key";
constexpr std::string_view kTlsKeyAad = "qlhsm tls key";

}  // namespace

Status SystemService::SetTlsBundle(Session &s, const secure::Bytes &input,
                                   const TlsInstall &install) {
  Op op{"set-tls-bundle", "-", Request::kAdminister, AuditMode::kChange};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Status {
    crypto::Result<crypto::pki::TlsIdentity> id =
        crypto::pki::ReadTlsIdentity(crypto::ByteView(input.data(), input.size()));
    if (!id.ok()) return FromCrypto(id.status());
    switch (id->problem) {
      case crypto::pki::TlsProblem::kNone:
        break;
      case crypto::pki::TlsProblem::kNoKey:
        return Status::Error(Code::kBadArgument, "no PEM private key in the bundle");
      case crypto::pki::TlsProblem::kNoCertificate:
        return Status::Error(Code::kBadCert, "no PEM certificate in the bundle");
      case crypto::pki::TlsProblem::kMismatch:
        return Status::Error(Code::kKeyCertMismatch, "the key is not the certificate's");
      case crypto::pki::TlsProblem::kWeakKey:
        return Status::Error(Code::kBadKeyUsage,
                             "a TLS 1.3 server key is RSA-2048 or more, P-256, P-384 or Ed25519");
    }
    crypto::Result<crypto::pki::PathCheck> valid = crypto::pki::ValidatePath(
        id->leaf, {id->leaf}, std::nullopt, static_cast<time_t>(core_.clock.Now()));
    if (!valid.ok()) return FromCrypto(valid.status());
    if (valid->problem == crypto::pki::PathProblem::kExpired)
      return Status::Error(Code::kCertExpired, "the certificate is expired or not yet valid");
    TlsBundle bundle{id->chain_pem, secure::Bytes(id->key_pem.begin(), id->key_pem.end())};
    Result<std::function<void()>> put_in_service = install(bundle);
    if (!put_in_service.ok()) return put_in_service.status();
    Result<secure::Bytes> sealed = secure::Seal(core_.master_key, bundle.key_pem, kTlsKeyAad);
    crypto::WipeMemory(bundle.key_pem.data(), bundle.key_pem.size());
    if (!sealed.ok()) return sealed.status();
    QL_RETURN_IF_ERROR(WriteSettings(
        *core_.store,
        {{kTlsChainSetting, bundle.chain_pem}, {kTlsKeySetting, secure::Hex(sealed.value())}}));
    put_in_service.value()();
    return Status::Ok();
  });
}

Result<std::optional<TlsBundle>> SystemService::StoredTlsBundle() {
  Result<std::string> chain = core_.store->GetSetting(kTlsChainSetting);
  if (!chain.ok()) {
    if (chain.status().code() == Code::kObjectNotFound) return std::optional<TlsBundle>();
    return chain.status();
  }
  Result<std::string> key_hex = core_.store->GetSetting(kTlsKeySetting);
  if (!key_hex.ok()) return key_hex.status();
  secure::Bytes sealed;
  if (!secure::FromHex(key_hex.value(), &sealed))
    return Status::Error(Code::kInternal, "an unreadable TLS key in the settings");
  Result<secure::Bytes> key = secure::Open(core_.master_key, sealed, kTlsKeyAad);
  if (!key.ok()) return key.status();
  return std::optional<TlsBundle>(TlsBundle{chain.value(), std::move(key.value())});
}

Status SystemService::SetDateTime(Session &s, const secure::Bytes &input) {
  uint64_t seconds = 0;
  std::string target;
  Op op{"set-date-time", "-", Request::kAdminister, AuditMode::kRefusal};
  Status st = guard_.Run(
      s, op,
      [&] {
        if (input.size() != sizeof(uint64_t))
          return Status::Error(Code::kBadLength, "the time is an 8-byte number of seconds");
        for (size_t i = 0; i < sizeof seconds; ++i) seconds |= uint64_t{input[i]} << (8 * i);
        if (seconds > kLatestTime)
          return Status::Error(Code::kBadArgument, "a time after year 9999");
        return Status::Ok();
      },
      [&](const users::UserInfo &) {
        std::lock_guard<std::mutex> lock(core_.clock_mu);
        const int64_t offset = static_cast<int64_t>(seconds) - Clock::MachineNow();
        Status saved = core_.store->SetSetting(kTimeOffsetSetting, std::to_string(offset));
        // Memory follows the store only once the store has it, so a restart finds the same time.
        if (saved.ok()) core_.clock.set_offset(offset);
        return saved;
      });
  if (!st.ok()) return st;
  // Logged after the change, so the log line carries the new time.
  target = std::to_string(seconds);
  return guard_.Audit(s, Op{"set-date-time", target, Request::kAdminister, AuditMode::kChange}, st);
}

}  // namespace qlhsm
