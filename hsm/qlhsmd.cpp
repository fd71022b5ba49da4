// qlhsmd: the software HSM daemon.
//
//   qlhsmd init    --data-dir DIR --password PWD        a new HSM: store, master key, TLS identity,
//                                                       and the user "master" with every right
//   qlhsmd serve   --data-dir DIR [--listen HOST:PORT]  serves in the foreground (default
//                                                       127.0.0.1:4433; port 0 picks a free port);
//                                                       prints "listening on HOST:PORT" on stdout,
//                                                       then "discovery on HOST:PORT" (UDP; see
//                                                       --discovery), logs to stderr, stops on
//                                                       SIGINT/SIGTERM;
//                                                       limits and timeouts: hsm/README.md
//   qlhsmd restore --data-dir DIR --backup FILE --pin PIN
//                                                       a backup into a fresh data directory
//   qlhsmd fingerprint --data-dir DIR                   the SHA-256 of the TLS certificate, as
//                                                       clients pin it
//
// init, serve and restore take the unlock secret that seals the master key: --unlock-file FILE,
// else $QLHSMD_UNLOCK, else a prompt on the terminal. init and restore print the fingerprint.
#include <google/protobuf/stubs/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "crypto/pki.h"
#include "engine/backup/backup.h"
#include "engine/data_dir.h"
#include "engine/engine.h"
#include "engine/services/system.h"
#include "engine/store/store.h"
#include "server/server.h"
#include "server/tls_identity.h"
#include "server/unlock_secret.h"
#ifdef QLHSMD_TEST_BUILD
#include "test_faults.h"
#endif

namespace {

using qlhsm::Result;
using qlhsm::Status;

int Fail(const std::string &what, const Status &st) {
  std::cerr << "qlhsmd: " << what << ": " << st.ToString() << "\n";
  return 1;
}

bool ParseListen(const std::string &text, std::string *host, uint16_t *port) {
  size_t colon = text.rfind(':');
  if (colon == std::string::npos) return false;
  *host = text.substr(0, colon);
  if (host->size() >= 2 && host->front() == '[' && host->back() == ']')
    *host = host->substr(1, host->size() - 2);
  try {
    size_t used = 0;
    unsigned long p = std::stoul(text.substr(colon + 1), &used);
    if (used != text.size() - colon - 1 || p > 65535) return false;
    *port = static_cast<uint16_t>(p);
  } catch (const std::exception &) {
    return false;
  }
  return !host->empty();
}

std::string HostName() {
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') return "qlhsmd";
  return host;
}

// init, serve and restore: the unlock secret's options, and the identity options of init.
struct UnlockOptions {
  std::string file;
  uint64_t cost = 0;
};

void AddUnlockOptions(CLI::App *cmd, UnlockOptions *o, bool with_cost) {
  cmd->add_option("--unlock-file", o->file,
                  "file holding the secret that seals the master key (else $QLHSMD_UNLOCK, else "
                  "a prompt)");
  if (with_cost) {
    cmd->add_option("--unlock-cost", o->cost,
                    "scrypt cost N of the key sealing the master key (a power of two; tests "
                    "lower it)");
  }
}

bool UnlockKdf(const UnlockOptions &o, qlhsm::secure::KdfParams *kdf) {
  *kdf = qlhsm::secure::KdfParams{qlhsm::kUnlockKdfCost, 8, 1};
  if (o.cost == 0) return true;
  if (o.cost < 2 || (o.cost & (o.cost - 1)) != 0) return false;
  kdf->n = o.cost;
  return true;
}

// The new HSM's TLS identity, a self-signed pair unless the operator's certificate and key were
// imported already. Prints the fingerprint that clients pin.
int MakeTlsIdentity(const std::string &data_dir, bool imported) {
  if (!imported) {
    Status st = qlhsm::server::CreateTlsIdentity(data_dir, HostName());
    if (!st.ok()) return Fail("TLS identity", st);
  }
  auto fp = qlhsm::server::TlsFingerprint(data_dir);
  if (!fp.ok()) return Fail("TLS identity", fp.status());
  std::cout << "TLS certificate SHA-256: " << *fp << std::endl;
  return 0;
}

// The one certificate of `path` (DER or PEM) as hex DER, as the store keeps the package signer.
Result<std::string> PackageSignerHex(const std::string &path) {
  Result<qlhsm::secure::Bytes> file = qlhsm::ReadFileBytes(path);
  if (!file.ok()) return file.status();
  auto certs =
      qlhsm::crypto::pki::ReadCertificates(qlhsm::crypto::ByteView(file->data(), file->size()));
  if (!certs.ok() || certs->size() != 1)
    return Status::Error(qlhsm::Code::kBadCert, path + " holds not one certificate");
  return qlhsm::secure::Hex(qlhsm::secure::Bytes(certs->front().begin(), certs->front().end()));
}

// A start refused for want of the right unlock secret says so in one line.
int FailOpen(const std::string &what, const Status &st) {
  if (st.code() == qlhsm::Code::kBadPin) {
    std::cerr << "qlhsmd: wrong unlock secret: the master key does not open\n";
    return 1;
  }
  return Fail(what, st);
}

}  // namespace

int main(int argc, char **argv) {
  // Everything the daemon writes (store, WAL, keys, backups) is for its own user only.
  ::umask(077);
  // A client's malformed message is answered with a protocol error; protobuf's own line about it
  // would let any peer fill the log.
  google::protobuf::SetLogHandler(nullptr);
  CLI::App app{"qlhsmd: a software HSM"};
  app.require_subcommand(1);

  std::string data_dir, password, listen = "127.0.0.1:4433", backup_file, pin;
  uint64_t kdf_n = 0;
  qlhsm::server::ServerOptions serve_opts;

  CLI::App *init = app.add_subcommand("init", "make a new HSM in a data directory");
  init->add_option("--data-dir", data_dir, "the HSM's data directory")->required();
  init->add_option("--password", password, "the password of the user master")->required();
  init->add_option("--kdf-cost", kdf_n,
                   "scrypt cost N of password hashes (a power of two; tests lower it)");
  UnlockOptions unlock;
  AddUnlockOptions(init, &unlock, true);
  std::string tls_cert, tls_key;
  auto *cert_opt = init->add_option("--tls-cert", tls_cert,
                                    "the HSM's certificate (PEM, a CA's; with intermediates) "
                                    "instead of a self-signed one");
  auto *key_opt = init->add_option("--tls-key", tls_key, "the certificate's private key (PEM)");
  cert_opt->needs(key_opt);
  key_opt->needs(cert_opt);
  std::string upack_trust;
  init->add_option("--upack-trust", upack_trust,
                   "the certificate (DER or PEM) whose key signs update packages");

  CLI::App *serve = app.add_subcommand("serve", "serve in the foreground");
  serve->add_option("--data-dir", data_dir, "the HSM's data directory")->required();
  serve->add_option("--listen", listen, "HOST:PORT to listen on; port 0 picks a free one")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // a later one wins
  serve->add_option("--max-frame", serve_opts.max_frame, "largest frame in bytes");
  serve->add_option("--max-sessions", serve_opts.max_sessions, "most open sessions");
  serve->add_option("--audit-page-size", serve_opts.audit_page_size,
                    "bytes of audit log text per page");
  // The network's limits (server/limits.h); each also a stored setting of the same name.
  serve->add_option("--max-connections", serve_opts.net.max_connections, "most connections");
  serve->add_option("--max-pending", serve_opts.net.max_pending,
                    "most connections not logged in yet (default 256)");
  serve->add_option("--max-pending-per-address", serve_opts.net.max_pending_per_address,
                    "most connections not logged in yet from one address (default 32)");
  serve->add_option("--max-anonymous", serve_opts.net.max_anonymous,
                    "most anonymous sessions (default 64)");
  serve->add_option("--max-anonymous-per-address", serve_opts.net.max_anonymous_per_address,
                    "most anonymous sessions from one address (default 8)");
  uint64_t handshake_ms = 0, login_ms = 0, idle_ms = 0;
  serve->add_option("--handshake-timeout-ms", handshake_ms,
                    "first byte and TLS handshake within this, from accept (default 10000)");
  serve->add_option("--login-timeout-ms", login_ms,
                    "first login within this, from accept (default 30000)");
  serve->add_option("--idle-timeout-ms", idle_ms,
                    "a session without requests ends after this (default 1800000)");
  std::string plain;
  serve->add_option("--plain", plain,
                    "plain (not TLS) connections from: loopback (default), any, off");
  serve->add_option("--threads", serve_opts.threads,
                    "event loops, one thread each (default 4 per core, at least 8)");
  serve->add_option("--pix-endpoint", serve_opts.pix_endpoints,
                    "HOST:PORT a PIX request may reach (repeatable; none by default)");
  std::string discovery;
  serve->add_option("--discovery", discovery,
                    "UDP port answering discovery queries (default 4434; 0 any free one; off)");
  AddUnlockOptions(serve, &unlock, false);
#ifdef QLHSMD_TEST_BUILD
  std::string test_fault;
  serve->add_option("--test-fault", test_fault,
                    "answer wrongly on purpose (sign-bitflip, decrypt-corrupt, grant-rights)");
#endif

  CLI::App *restore = app.add_subcommand("restore", "restore a backup into a new data directory");
  restore->add_option("--data-dir", data_dir, "a new, empty data directory")->required();
  restore->add_option("--backup", backup_file, "the backup file")->required();
  restore->add_option("--pin", pin, "the backup's PIN")->required();
  AddUnlockOptions(restore, &unlock, true);

  CLI::App *fingerprint =
      app.add_subcommand("fingerprint", "print the SHA-256 of the HSM's TLS certificate");
  fingerprint->add_option("--data-dir", data_dir, "the HSM's data directory")->required();

  CLI11_PARSE(app, argc, argv);

  if (init->parsed()) {
    qlhsm::InitOptions io;
    if (kdf_n) {
      if (kdf_n < 2 || (kdf_n & (kdf_n - 1)) != 0) {
        std::cerr << "qlhsmd: --kdf-cost must be a power of two, at least 2\n";
        return 2;
      }
      io.kdf.n = kdf_n;
    }
    if (!UnlockKdf(unlock, &io.unlock_kdf)) {
      std::cerr << "qlhsmd: --unlock-cost must be a power of two, at least 2\n";
      return 2;
    }
    auto secret = qlhsm::server::ReadUnlockSecret(unlock.file, true);
    if (!secret.ok()) return Fail("unlock secret", secret.status());
    io.unlock_secret = *secret;
    if (!tls_cert.empty()) {
      // The operator's certificate first, so that a wrong one leaves no half-made HSM behind.
      Status st = qlhsm::EnsureDataDir(data_dir);
      if (st.ok()) st = qlhsm::server::ImportTlsIdentity(data_dir, tls_cert, tls_key);
      if (!st.ok()) return Fail("TLS identity", st);
    }
    // Read before anything is made, so that a bad file leaves no half-made HSM behind.
    std::string signer_hex;
    if (!upack_trust.empty()) {
      Result<std::string> hex = PackageSignerHex(upack_trust);
      if (!hex.ok()) return Fail("--upack-trust", hex.status());
      signer_hex = std::move(hex.value());
    }
    Status st = qlhsm::Engine::Init(data_dir, password, io);
    if (!st.ok()) return Fail("init", st);
    if (!signer_hex.empty()) {
      auto store = qlhsm::store::Store::Open(data_dir, false);
      st = store.ok() ? store.value()->SetSetting(qlhsm::kPackageSignerSetting, signer_hex)
                      : store.status();
      if (!st.ok()) return Fail("--upack-trust", st);
    }
    if (int rc = MakeTlsIdentity(data_dir, !tls_cert.empty()); rc != 0) return rc;
    std::cerr << "qlhsmd: new HSM in " << data_dir << "\n";
    return 0;
  }

  if (fingerprint->parsed()) {
    auto fp = qlhsm::server::TlsFingerprint(data_dir);
    if (!fp.ok()) return Fail("fingerprint", fp.status());
    std::cout << *fp << std::endl;
    return 0;
  }

  if (restore->parsed()) {
    auto blob = qlhsm::ReadFileBytes(backup_file);
    if (!blob.ok()) return Fail("reading the backup", blob.status());
    qlhsm::secure::KdfParams unlock_kdf;
    if (!UnlockKdf(unlock, &unlock_kdf)) {
      std::cerr << "qlhsmd: --unlock-cost must be a power of two, at least 2\n";
      return 2;
    }
    auto secret = qlhsm::server::ReadUnlockSecret(unlock.file, true);
    if (!secret.ok()) return Fail("unlock secret", secret.status());
    Status st = qlhsm::backup::RestoreBackup(*blob, pin, data_dir, *secret, unlock_kdf);
    if (!st.ok()) return Fail("restore", st);
    // The TLS identity is the machine's, not the HSM's: a restored HSM gets a new one.
    if (int rc = MakeTlsIdentity(data_dir, false); rc != 0) return rc;
    std::cerr << "qlhsmd: restored into " << data_dir << "\n";
    return 0;
  }

#ifdef QLHSMD_TEST_BUILD
  // Before any thread starts: the faults are read without a lock.
  if (!test_fault.empty()) {
    if (!qlhsm::InstallTestFault(test_fault)) {
      std::cerr << "qlhsmd: --test-fault takes sign-bitflip, decrypt-corrupt or grant-rights\n";
      return 2;
    }
    std::cerr << "qlhsmd: TEST FAULT " << test_fault << ": this HSM answers wrongly on purpose\n";
  }
#endif

  auto secret = qlhsm::server::ReadUnlockSecret(unlock.file, false);
  if (!secret.ok()) return Fail("unlock secret", secret.status());
  serve_opts.unlock_secret = *secret;
  serve_opts.data_dir = data_dir;
  serve_opts.net.handshake_timeout = std::chrono::milliseconds(handshake_ms);
  serve_opts.net.login_timeout = std::chrono::milliseconds(login_ms);
  serve_opts.net.idle_timeout = std::chrono::milliseconds(idle_ms);
  if (!plain.empty()) {
    std::optional<qlhsm::server::PlainPolicy> policy = qlhsm::server::ParsePlainPolicy(plain);
    if (!policy) {
      std::cerr << "qlhsmd: --plain takes loopback, any or off\n";
      return 2;
    }
    serve_opts.net.plain = *policy;
    serve_opts.plain_given = true;
  }
  if (!discovery.empty()) {
    serve_opts.discovery_given = true;
    if (discovery == "off") {
      serve_opts.discovery_port = -1;
    } else {
      char *end = nullptr;
      unsigned long port = std::strtoul(discovery.c_str(), &end, 10);
      if (*end != '\0' || port > 65535 || !std::isdigit(static_cast<unsigned char>(discovery[0]))) {
        std::cerr << "qlhsmd: --discovery takes a port or off\n";
        return 2;
      }
      serve_opts.discovery_port = static_cast<int>(port);
    }
  }
  if (!ParseListen(listen, &serve_opts.host, &serve_opts.port)) {
    std::cerr << "qlhsmd: --listen takes HOST:PORT\n";
    return 2;
  }
  auto server = qlhsm::server::Server::Create(serve_opts);
  if (!server.ok()) return FailOpen("serve", server.status());
  auto ep = (*server)->local_endpoint();
  std::string host = ep.address().to_string();
  if (ep.address().is_v6()) host = "[" + host + "]";
  // Tests read these lines to learn the ports; one write, so that they arrive together.
  std::string ports = "listening on " + host + ":" + std::to_string(ep.port()) + "\n";
  if (const auto *d = (*server)->discovery())
    ports += "discovery on " + host + ":" + std::to_string(d->local_endpoint().port()) + "\n";
  std::cout << ports << std::flush;
  std::cerr << "qlhsmd: serving " << data_dir << " on " << host << ":" << ep.port() << "\n";
  // The directory entry says where this HSM listens now; a kept binding renews it, best effort
  // and beside the serving, so a slow or absent directory never delays the start.
  qlhsm::Advertisement ad;
  // Listening on every address says nothing to a reader of the directory: the host name does.
  ad.address = ep.address().is_unspecified() ? HostName() : ep.address().to_string();
  ad.port = ep.port();
  if (auto fp = qlhsm::server::TlsFingerprint(data_dir); fp.ok()) ad.fingerprint = *fp;
  (*server)->engine().directory().SetAdvertisement(std::move(ad));
  std::thread renew([&engine = (*server)->engine()] {
    Status st = engine.directory().Renew();
    if (!st.ok())
      std::cerr << "qlhsmd: the directory entry was not renewed: " << st.ToString() << "\n";
  });
  (*server)->Run();
  renew.join();
  server->reset();
  std::cerr << "qlhsmd: stopped\n";
  return 0;
}
