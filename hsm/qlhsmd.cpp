// qlhsmd: the software HSM daemon.
//
//   qlhsmd init    --data-dir DIR --password PWD        a new HSM: store, master key, TLS identity,
//                                                       and the user "master" with every right
//   qlhsmd serve   --data-dir DIR [--listen HOST:PORT]  serves in the foreground (default
//                                                       127.0.0.1:4433; port 0 picks a free port);
//                                                       prints "listening on HOST:PORT" on stdout,
//                                                       logs to stderr, stops on SIGINT/SIGTERM
//   qlhsmd restore --data-dir DIR --backup FILE --pin PIN
//                                                       a backup into a fresh data directory
#include <google/protobuf/stubs/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "engine/backup/backup.h"
#include "engine/data_dir.h"
#include "engine/engine.h"
#include "server/server.h"
#include "server/tls_identity.h"
#ifdef QLHSMD_TEST_BUILD
#include "test_faults.h"
#endif

namespace {

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

  CLI::App *serve = app.add_subcommand("serve", "serve in the foreground");
  serve->add_option("--data-dir", data_dir, "the HSM's data directory")->required();
  serve->add_option("--listen", listen, "HOST:PORT to listen on; port 0 picks a free one");
  serve->add_option("--max-frame", serve_opts.max_frame, "largest frame in bytes");
  serve->add_option("--max-sessions", serve_opts.max_sessions, "most open sessions");
  serve->add_option("--max-connections", serve_opts.max_connections, "most connections");
  serve->add_option("--threads", serve_opts.threads,
                    "event loops, one thread each (default 4 per core, at least 8)");
#ifdef QLHSMD_TEST_BUILD
  std::string test_fault;
  serve->add_option("--test-fault", test_fault,
                    "answer wrongly on purpose (sign-bitflip, decrypt-corrupt, grant-rights)");
#endif

  CLI::App *restore = app.add_subcommand("restore", "restore a backup into a new data directory");
  restore->add_option("--data-dir", data_dir, "a new, empty data directory")->required();
  restore->add_option("--backup", backup_file, "the backup file")->required();
  restore->add_option("--pin", pin, "the backup's PIN")->required();

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
    Status st = qlhsm::Engine::Init(data_dir, password, io);
    if (!st.ok()) return Fail("init", st);
    st = qlhsm::server::CreateTlsIdentity(data_dir, HostName());
    if (!st.ok()) return Fail("TLS identity", st);
    std::cerr << "qlhsmd: new HSM in " << data_dir << "\n";
    return 0;
  }

  if (restore->parsed()) {
    auto blob = qlhsm::ReadFileBytes(backup_file);
    if (!blob.ok()) return Fail("reading the backup", blob.status());
    Status st = qlhsm::backup::RestoreBackup(*blob, pin, data_dir);
    if (!st.ok()) return Fail("restore", st);
    // The TLS identity is the machine's, not the HSM's: a restored HSM gets a new one.
    st = qlhsm::server::CreateTlsIdentity(data_dir, HostName());
    if (!st.ok()) return Fail("TLS identity", st);
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

  serve_opts.data_dir = data_dir;
  if (!ParseListen(listen, &serve_opts.host, &serve_opts.port)) {
    std::cerr << "qlhsmd: --listen takes HOST:PORT\n";
    return 2;
  }
  auto server = qlhsm::server::Server::Create(serve_opts);
  if (!server.ok()) return Fail("serve", server.status());
  auto ep = (*server)->local_endpoint();
  std::string host = ep.address().to_string();
  if (ep.address().is_v6()) host = "[" + host + "]";
  // Tests read this line to learn the port.
  std::cout << "listening on " << host << ":" << ep.port() << std::endl;
  std::cerr << "qlhsmd: serving " << data_dir << " on " << host << ":" << ep.port() << "\n";
  (*server)->Run();
  server->reset();
  std::cerr << "qlhsmd: stopped\n";
  return 0;
}
