#include "hsm_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace qltest {
namespace {

std::string Tail(const std::string &path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  std::string s = ss.str();
  return s.size() > 2000 ? s.substr(s.size() - 2000) : s;
}

// ---- the test CA --------------------------------------------------------------------------

struct PkeyFree {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Cert = std::unique_ptr<X509, X509Free>;

void Check(bool ok, const char *what) {
  if (!ok) throw std::runtime_error(std::string("test CA: ") + what);
}

void AddExt(X509 *cert, X509 *issuer, int nid, const std::string &value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  Check(ext != nullptr && X509_add_ext(cert, ext, -1) == 1, "extension");
  X509_EXTENSION_free(ext);
}

// A certificate for `subject_key` named `cn`, signed by issuer_key (self-signed when issuer is
// null).
Cert MakeCert(EVP_PKEY *subject_key, const std::string &cn, X509 *issuer, EVP_PKEY *issuer_key,
              bool is_ca, const std::vector<std::string> &names) {
  static std::atomic<long> serial{1};
  Cert cert(X509_new());
  Check(cert != nullptr, "X509_new");
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++ + (long)getpid() * 1000);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24L * 3600);
  X509_set_pubkey(cert.get(), subject_key);
  X509_NAME *name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char *>(cn.c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name);
  X509 *iss = issuer ? issuer : cert.get();
  if (is_ca) {
    AddExt(cert.get(), iss, NID_basic_constraints, "critical,CA:TRUE");
    AddExt(cert.get(), iss, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    std::string san;
    for (const std::string &n : names) {
      unsigned char buf[16];
      const bool ip =
          inet_pton(AF_INET, n.c_str(), buf) == 1 || inet_pton(AF_INET6, n.c_str(), buf) == 1;
      san += (san.empty() ? "" : ",") + std::string(ip ? "IP:" : "DNS:") + n;
    }
    AddExt(cert.get(), iss, NID_basic_constraints, "critical,CA:FALSE");
    AddExt(cert.get(), iss, NID_ext_key_usage, "serverAuth");
    if (!san.empty()) AddExt(cert.get(), iss, NID_subject_alt_name, san);
  }
  Check(X509_sign(cert.get(), issuer_key, EVP_sha256()) > 0, "sign");
  return cert;
}

void WritePem(const std::string &path, EVP_PKEY *key, X509 *cert) {
  FILE *f = fopen(path.c_str(), "wx");
  Check(f != nullptr, "cannot create a PEM file");
  fchmod(fileno(f), 0600);
  bool ok = key ? PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1
                : PEM_write_X509(f, cert) == 1;
  ok = fclose(f) == 0 && ok;
  Check(ok, "cannot write a PEM file");
}

struct TestCa {
  TestCa() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "qlhsmd-ca-XXXXXX").string();
    Check(mkdtemp(tmpl.data()) != nullptr, "mkdtemp");
    dir = tmpl;
    key.reset(EVP_EC_gen("P-256"));
    Check(key != nullptr, "key");
    cert = MakeCert(key.get(), "qlhsmd test CA", nullptr, key.get(), true, {});
    file = dir + "/ca.crt";
    WritePem(file, nullptr, cert.get());
  }
  ~TestCa() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::string dir, file;
  Pkey key;
  Cert cert;
};

TestCa &Ca() {
  static TestCa ca;
  return ca;
}

// Every qlhsmd started here gets the test unlock secret in its environment.
std::vector<char *> &ChildEnvironment() {
  static std::vector<std::string> owned;
  static std::vector<char *> env;
  static std::once_flag once;
  std::call_once(once, [] {
    const std::string var = "QLHSMD_UNLOCK=";
    for (char **e = environ; *e != nullptr; ++e) {
      if (std::string(*e).rfind(var, 0) != 0) owned.emplace_back(*e);
    }
    owned.push_back(var + kTestUnlockSecret);
    for (auto &v : owned) env.push_back(v.data());
    env.push_back(nullptr);
  });
  return env;
}

// Starts `args` with stdout to `stdout_fd` (-1: the log) and stderr appended to `log_path`.
pid_t Spawn(const std::vector<std::string> &args, int stdout_fd, const std::string &log_path) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 2, log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (stdout_fd >= 0)
    posix_spawn_file_actions_adddup2(&fa, stdout_fd, 1);
  else
    posix_spawn_file_actions_adddup2(&fa, 2, 1);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  std::vector<char *> argv;
  for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), ChildEnvironment().data());
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

}  // namespace

const std::string &TestCaFile() {
  return Ca().file;
}

void IssueTestCertificate(const std::vector<std::string> &names, const std::string &cert_path,
                          const std::string &key_path, bool ca) {
  Pkey key(EVP_EC_gen("P-256"));
  Check(key != nullptr, "key");
  Cert cert;
  if (ca) {
    cert = MakeCert(key.get(), "qlhsmd test", Ca().cert.get(), Ca().key.get(), false, names);
  } else {
    Pkey other_key(EVP_EC_gen("P-256"));
    Check(other_key != nullptr, "key");
    Cert other = MakeCert(other_key.get(), "another CA", nullptr, other_key.get(), true, {});
    cert = MakeCert(key.get(), "qlhsmd test", other.get(), other_key.get(), false, names);
  }
  WritePem(cert_path, nullptr, cert.get());
  WritePem(key_path, key.get(), nullptr);
}

std::string QlhsmdPath(bool test_build) {
  if (test_build) {
    if (const char *env = std::getenv("QLHSMD_TEST"); env && *env) return env;
#ifdef QLHSMD_TEST_BIN
    return QLHSMD_TEST_BIN;
#else
    return "qlhsmd_test";
#endif
  }
  if (const char *env = std::getenv("QLHSMD"); env && *env) return env;
#ifdef QLHSMD_BIN
  return QLHSMD_BIN;
#else
  return "qlhsmd";
#endif
}

int RunQlhsmd(const std::vector<std::string> &args, const std::string &log_path, bool test_build) {
  std::vector<std::string> full = {QlhsmdPath(test_build)};
  full.insert(full.end(), args.begin(), args.end());
  pid_t pid = Spawn(full, -1, log_path);
  if (pid < 0) return -1;
  int status = Wait(pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

HsmProcess::HsmProcess(HsmOptions options) : options_(std::move(options)) {
  std::string tmpl = (std::filesystem::temp_directory_path() / "qlhsmd-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  root_ = tmpl;
  data_dir_ = options_.existing_data_dir.empty() ? root_ + "/data" : options_.existing_data_dir;
  log_path_ = root_ + "/qlhsmd.log";
  if (options_.ca_issued_tls) {
    // Once, before the test's threads read the environment.
    static std::once_flag once;
    std::call_once(once, [] { setenv("QLAPI_TLS_CA_FILE", TestCaFile().c_str(), 1); });
  }
  const std::string cert = root_ + "/issued.crt", key = root_ + "/issued.key";
  if (options_.ca_issued_tls) {
    std::vector<std::string> names = options_.tls_names;
    if (names.empty()) names = {address_, "localhost"};
    IssueTestCertificate(names, cert, key);
  }
  if (!options_.existing_data_dir.empty()) {
    if (options_.ca_issued_tls) {
      // A restored HSM has a self-signed certificate of its own: the test CA's replaces it.
      std::filesystem::copy_file(cert, data_dir_ + "/tls.crt",
                                 std::filesystem::copy_options::overwrite_existing);
      std::filesystem::copy_file(key, data_dir_ + "/tls.key",
                                 std::filesystem::copy_options::overwrite_existing);
    }
    Serve();
    return;
  }
  std::vector<std::string> init = {"init",
                                   "--data-dir",
                                   data_dir_,
                                   "--password",
                                   options_.master_password,
                                   "--kdf-cost",
                                   std::to_string(options_.kdf_cost),
                                   "--unlock-cost",
                                   std::to_string(options_.kdf_cost)};
  if (options_.ca_issued_tls) {
    init.insert(init.end(), {"--tls-cert", cert, "--tls-key", key});
  }
  init.insert(init.end(), options_.init_args.begin(), options_.init_args.end());
  int rc = RunQlhsmd(init, log_path_, options_.test_build);
  if (rc != 0) {
    std::string log = Tail(log_path_);
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    throw std::runtime_error("qlhsmd init failed (" + std::to_string(rc) + "): " + log);
  }
  Serve();
}

HsmProcess::~HsmProcess() {
  Stop();
  std::error_code ec;
  if (!root_.empty()) std::filesystem::remove_all(root_, ec);
}

void HsmProcess::Serve() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<std::string> args = {QlhsmdPath(options_.test_build),
                                   "serve",
                                   "--data-dir",
                                   data_dir_,
                                   "--listen",
                                   address_ + ":0"};
  args.insert(args.end(), options_.serve_args.begin(), options_.serve_args.end());
  // A free discovery port, so that daemons started side by side do not share the default one.
  const auto given = std::find(args.begin(), args.end(), "--discovery");
  const bool discovery_off = given != args.end() && given + 1 != args.end() && given[1] == "off";
  if (given == args.end()) args.insert(args.end(), {"--discovery", "0"});
  pid_ = Spawn(args, fds[1], log_path_);
  close(fds[1]);
  if (pid_ < 0) {
    close(fds[0]);
    throw std::runtime_error("cannot start " + QlhsmdPath(options_.test_build));
  }
  // Read the "listening on HOST:PORT" line, and "discovery on HOST:PORT" when discovery is on,
  // waiting at most 30 s.
  std::string line;
  const size_t lines = discovery_off ? 1 : 2;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (static_cast<size_t>(std::count(line.begin(), line.end(), '\n')) < lines &&
         std::chrono::steady_clock::now() < deadline) {
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    char buf[256];
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n <= 0) break;
    line.append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  const size_t second = line.find('\n') + 1;  // 0 when there is no line end
  const std::string first = line.substr(0, second);
  size_t colon = first.rfind(':');
  port_ = 0;
  if (first.rfind("listening on ", 0) == 0 && colon != std::string::npos)
    port_ = std::atoi(first.c_str() + colon + 1);
  discovery_port_ = 0;
  if (second > 0 && line.compare(second, 13, "discovery on ") == 0) {
    colon = line.rfind(':');
    discovery_port_ = std::atoi(line.c_str() + colon + 1);
  }
  if (port_ <= 0) {
    Kill();
    throw std::runtime_error("qlhsmd serve did not start: " + Tail(log_path_));
  }
}

int HsmProcess::Stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = Wait(pid_);
  pid_ = -1;
  return status;
}

void HsmProcess::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  Wait(pid_);
  pid_ = -1;
}

void HsmProcess::Restart() {
  Stop();
  Serve();
}

namespace {
std::unique_ptr<HsmProcess> g_env_hsm;
}

void HsmEnvironment::SetUp() {
  g_env_hsm = std::make_unique<HsmProcess>(options_);
}
void HsmEnvironment::TearDown() {
  g_env_hsm.reset();
}
HsmProcess &HsmEnvironment::hsm() {
  if (!g_env_hsm) throw std::runtime_error("HsmEnvironment is not set up");
  return *g_env_hsm;
}

}  // namespace qltest
