// The HSM itself: the session's parameters, information, statistics and the audit log, random
// bytes, administration (keep-alive, probe, the HSM's date and time), backup, update packages.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/guard.h"
#include "engine/services/keys.h"

namespace qlhsm {

inline constexpr const char *kHsmVersion = "4.10.0.0";
// The statistics' unit field: the memory figures are in MiB.
inline constexpr uint32_t kStatUnitMiB = 2;

struct StatInfo {
  uint32_t session_count = 0;
  uint32_t cpu_percent = 0;
  uint32_t unit = kStatUnitMiB;
  uint32_t mem_total = 0;
  uint32_t mem_used = 0;
  uint32_t swap_total = 0;
  uint32_t swap_used = 0;
};

struct HsmInfo {
  // model, firmware version, serial number, hardware version, HSM name, engine build
  std::vector<std::string> versions;
  uint64_t pending_transaction = 0;  // 0: no cluster, nothing pending
};

// The setting holding the certificates (PEM) of the identity set by set-tls-bundle: public, so
// kept in clear for `qlhsmd fingerprint`, which has no master key.
inline constexpr const char *kTlsChainSetting = "tls_chain";
// The certificate (DER, hex) that signs update packages, and the version last applied.
inline constexpr const char *kPackageSignerSetting = "upack_trust";
inline constexpr const char *kPackageVersionSetting = "upack_version";

// The HSM's TLS identity as the daemon loads it: the certificate first, then any intermediates
// (PEM), and its private key (PEM).
struct TlsBundle {
  std::string chain_pem;
  secure::Bytes key_pem;
};
// Makes a checked bundle the daemon's: prepares its TLS context (refusing one it cannot load)
// and returns the step that puts it in service, which runs once the bundle is stored.
using TlsInstall = std::function<Result<std::function<void()>>(const TlsBundle &)>;

class SystemService {
 public:
  SystemService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // Whether the session's user may still use it.
  Status CheckSession(sessions::Session &s);
  // The session's operating mode, access mask, number, user name, or whether it runs over TLS
  // (`tls`, which the daemon knows).
  Result<ParamValue> GetSessionParam(sessions::Session &s, uint32_t param, bool tls);

  // `len` random bytes: 1 to max_random() (kBadArgument), and at most `limit` (kLimitReached),
  // what the answer can carry.
  Result<secure::Bytes> GetRandom(sessions::Session &s, uint32_t len, size_t limit = SIZE_MAX);
  Result<StatInfo> GetStatInfo(sessions::Session &s);
  Result<uint64_t> GetLogSize(sessions::Session &s);
  Result<audit::Page> ReadLogPage(sessions::Session &s, uint64_t number);
  Result<HsmInfo> GetHsmInfo(sessions::Session &s);
  // The host's network as "name=value" lines: "hostname=<name>", then one line per address,
  // "if.<interface>.ipv4=<address>/<prefix>" (or .ipv6): the statistics right, since it maps
  // the network the HSM sits in.
  Result<std::string> GetNetInfo(sessions::Session &s);
  // What the HSM runs: "service:<name>" for each service of the engine, then "openssl:<version>",
  // "sqlite:<version>" and "provider:<name> <version>" for each OpenSSL provider loaded into
  // the engine's library context, and "update-package:<version>" once a package was applied.
  // Any logged-in session.
  Result<std::vector<std::string>> ListModules(sessions::Session &s);
  Status KeepAlive(sessions::Session &s);
  Result<secure::Bytes> Backup(sessions::Session &s, std::string_view pin);
  // Applies an update package (the update-package right): a CMS SignedData (DER) signed by the
  // certificate `qlhsmd init --upack-trust` recorded, whose content is a JSON manifest (see
  // ParseManifest in system.cpp) with a version above the last applied. Its settings are written
  // in one transaction with the new version; anything else (no trusted signer, another signer, a
  // tampered package, a malformed manifest, a version not newer) is kUpdateRefused and changes
  // nothing.
  Status PushUpdatePackage(sessions::Session &s, const secure::Bytes &package);
  // The version of the last package applied; 0: none.
  Result<uint64_t> PackageVersion();
  // An administrative operation: keep-alive (nothing), probe (1: up), set the date and time
  // (nothing); the others are not built yet (the operator right, then kNotSupported).
  Result<std::optional<uint64_t>> Administer(sessions::Session &s, uint32_t operation,
                                             const secure::Bytes &input);
  // Administrative requests not built yet: right first, then kNotSupported.
  Status Administer(sessions::Session &s, std::string_view what);

  // Replaces the HSM's TLS identity (QL_ADM_SET_TLS_BUNDLE, the operator right): `input` is a
  // PEM private key, its certificate, then any intermediates. kBadArgument without a key,
  // kBadCert without a certificate, kKeyCertMismatch when the key is not the certificate's,
  // kCertExpired outside its validity at the HSM's time, kBadKeyUsage for a key TLS 1.3 does not
  // take from a server (RSA under 2048 bits, other curves). The bundle is stored sealed under
  // the master key in one transaction, then `install` puts it in service: new connections get
  // it, open ones keep theirs, and a restart loads it (StoredTlsBundle).
  Status SetTlsBundle(sessions::Session &s, const secure::Bytes &input, const TlsInstall &install);
  // The identity set by SetTlsBundle, or nullopt when none was set (the daemon then uses the
  // one of its data directory).
  Result<std::optional<TlsBundle>> StoredTlsBundle();

  // Sets the HSM's date and time: `input` is the new time in seconds since 1970 (UTC), as a
  // little-endian uint64 (8 bytes; kBadLength otherwise), at most 9999-12-31 23:59:59
  // (kBadArgument beyond). Needs the operator right. The HSM keeps the difference to this
  // machine's clock in its settings and never changes the machine's clock.
  Status SetDateTime(sessions::Session &s, const secure::Bytes &input);
  // Reads the time offset from the settings into the clock.
  Status LoadTimeOffset();

  // The network's allow-list: operation list (the rules), add or remove one rule (nothing
  // returned). Needs the operator right; see system/ip_filter.h for the codes.
  Result<std::vector<std::string>> IpFilterOperation(sessions::Session &s, uint32_t operation,
                                                     std::string_view rule);
  // The allow-list the daemon checks at accept.
  const system::IpFilter &ip_filter() const { return *core_.ip_filter; }
  // A stored setting, nothing when unset (the daemon reads its network limits here).
  std::optional<std::string> Setting(const char *name) const;

  static size_t max_random() { return 1 << 16; }

 private:
  Core &core_;
  Guard &guard_;
  std::mutex package_mu_;  // one package at a time, from the version check to the commit
};

}  // namespace qlhsm
