// The -p performance tests run by the real qlutil against a real qlhsmd: exit codes, footers in
// both formats, the messages and codes of failing runs, the -out row and the --retfiles files,
// --kn keys that survive, and an HSM that holds after every run exactly the objects it held
// before.
//
// Which services the HSM serves grows over time. Each case therefore asks the library first
// (a probe making the member's first HSM call); when the library answers "not supported", the
// case expects qlutil to report that code as it would any library failure, never a success.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "qlapi.h"

namespace {

const char *const kMasterPassword = "24681357";

struct RunResult {
  int exit_code = -1;
  std::string out;
};

const std::regex kOpsFooter(
    R"(Total time: \d+\.\d\d ms \(\d+\.\d\d seg\) \[\d+\.\d\d op/sec\]\n\r)");
const std::regex kBytesFooter(
    R"(Total time: \d+\.\d\d ms \(\d+\.\d\d seg\) Total message size: \d+\.\d\d (bytes|KB|MB|GB) )"
    R"(\[\d+\.\d\d (bytes|KB|MB|GB)/sec\]\n\r)");

// The process exit status of a handler result (POSIX keeps the low 8 bits).
int ExitStatusOf(int code) {
  return code & 0xFF;
}

std::string QlutilPath() {
  const char *env = std::getenv("QLUTIL");
  return env != nullptr && env[0] != '\0' ? env : QLUTIL_BIN;
}

// A master session of the test's own, for probes and object listings.
class Session {
 public:
  explicit Session(const qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm()) {
    AUTH_PWD_EX auth;
    std::memset(&auth, 0, sizeof(auth));
    std::snprintf(auth.szAddr, sizeof(auth.szAddr), "%s", hsm.address().c_str());
    auth.nPort = hsm.port();
    std::snprintf(auth.szUserId, sizeof(auth.szUserId), "master");
    std::snprintf(auth.szPassword, sizeof(auth.szPassword), "%s", kMasterPassword);
    rc_ = QOpenSession(&session_, QL_AUTH_USER_PWD, &auth, sizeof(auth), QL_SESSION_BYPASS_CACHE);
  }
  ~Session() {
    if (session_ != nullptr) QCloseSession(&session_, QL_CLOSE_PHYSICAL);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  HSESSIONCTX get() const { return session_; }
  int rc() const { return rc_; }

 private:
  HSESSIONCTX session_ = nullptr;
  int rc_ = 0;
};

int CollectName(void *param, const char *name, int last) {
  if (!last && name != nullptr) static_cast<std::vector<std::string> *>(param)->push_back(name);
  return 0;
}

std::vector<std::string> ListObjects(
    const qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm()) {
  Session s(hsm);
  std::vector<std::string> names;
  if (s.rc() != 0 || QListObjs(s.get(), CollectName, &names) != 0) return {"<listing failed>"};
  std::sort(names.begin(), names.end());
  return names;
}

// ---------------------------------------------------------------------------------------------
// Probes: the member's first HSM call through the library; 0 when the HSM serves it.

int ProbeKey(uint32_t alg, uint32_t flags = QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY) {
  Session s;
  HKEYCTX key = nullptr;
  const int rc = QGenerateKey(s.get(), nullptr, alg, flags, &key);
  if (key != nullptr) QDestroyKey(&key, 0);
  return rc;
}

// A size query answering 1005 means the service is there.
int SizeQueryServed(int rc) {
  return rc == QL_ERR_BUFFER_TOO_SMALL ? 0 : rc;
}

int ProbeHmac() {
  Session s;
  HKEYCTX key = nullptr;
  HHASHCTX hash = nullptr;
  int rc =
      QGenerateKey(s.get(), nullptr, QL_ALG_HMAC_KEY, QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, &key);
  if (rc == 0) rc = QCreateHash(s.get(), QL_ALG_HMAC_SHA2_256, key, 0, &hash);
  if (hash != nullptr) QDestroyHash(&hash);
  if (key != nullptr) QDestroyKey(&key, 0);
  return rc;
}

int ProbeSign(uint32_t alg, bool verify = false) {
  Session s;
  HKEYCTX key = nullptr;
  HHASHCTX hash = nullptr;
  int rc = QGenerateKey(s.get(), nullptr, alg, QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, &key);
  if (rc == 0) rc = QCreateHash(s.get(), QL_ALG_SHA256, nullptr, 0, &hash);
  const unsigned char data[64] = {};
  if (rc == 0) rc = QHashData(hash, data, sizeof(data), 0);
  uint32_t len = 0;
  if (rc == 0) rc = SizeQueryServed(QSignHash(hash, key, 0, nullptr, &len));
  std::vector<unsigned char> signature(len);
  if (rc == 0 && verify) rc = QSignHash(hash, key, 0, signature.data(), &len);
  if (rc == 0 && verify) rc = QVerifySignature(hash, signature.data(), len, key);
  if (hash != nullptr) QDestroyHash(&hash);
  if (key != nullptr) QDestroyKey(&key, 0);
  return rc;
}

// The cipher members' first calls: a session key, its mode and padding when the case sets them,
// one encryption.
int ProbeEncrypt(uint32_t mode = UINT32_MAX, uint32_t padding = UINT32_MAX) {
  Session s;
  HKEYCTX key = nullptr;
  int rc = QGenerateKey(s.get(), nullptr, QL_ALG_AES256, QL_KEY_TEMPORARY, &key);
  if (rc == 0 && mode != UINT32_MAX) rc = QSetKeyParam(key, QKP_MODE, &mode, sizeof(mode), 0);
  if (rc == 0 && padding != UINT32_MAX) {
    rc = QSetKeyParam(key, QKP_PADDING, &padding, sizeof(padding), 0);
  }
  unsigned char data[32] = {};
  uint32_t len = 16;
  if (rc == 0) rc = QEncrypt(key, nullptr, 1, 0, data, &len, sizeof(data));
  if (key != nullptr) QDestroyKey(&key, 0);
  return rc;
}

int ProbeBatchSign() {
  Session s;
  HKEYCTX key = nullptr;
  int rc =
      QGenerateKey(s.get(), nullptr, QL_ALG_RSA1024, QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, &key);
  std::vector<unsigned char> batch(QL_BATCH_HEADER_LEN + 128, 0);
  batch[QL_BATCH_HEADER_LEN + 1] = 1;  // a block below the modulus
  if (rc == 0) rc = QBatchSign(key, batch.data(), 1, 0);
  if (key != nullptr) QDestroyKey(&key, 0);
  return rc;
}

// A named call on an object that does not exist: "not supported" when the service is missing,
// another refusal otherwise.
int ServedUnlessNotSupported(int rc) {
  return rc == QL_ERR_NOT_SUPPORTED ? rc : 0;
}

int ProbeSignHashedData() {
  if (const int rc = ProbeKey(QL_ALG_RSA1024, 0 /* stored */); rc != 0) return rc;
  Session s;
  const unsigned char digest[32] = {};
  uint32_t len = 0;
  return ServedUnlessNotSupported(QSignHashedData(s.get(), "qlutil_perf_probe_missing", 0, digest,
                                                  sizeof(digest), QL_ALG_SHA256, nullptr, &len, 0));
}

int ProbeKeyMaterial() {
  Session s;
  uint32_t len = 0;
  return SizeQueryServed(QGenerateKeyMaterial(s.get(), QL_ALG_AES256, 0, nullptr, &len));
}

int ProbeEcdh() {
  if (const int rc = ProbeKey(QL_ALG_ECC_SECP256R1, 0); rc != 0) return rc;
  Session s;
  const unsigned char peer[1] = {0};
  unsigned char out[64];
  uint32_t len = sizeof(out);
  return ServedUnlessNotSupported(QGenEcdhKey(s.get(), QL_GEN_KEY_KDF_RAW_SECRET,
                                              "qlutil_perf_probe_missing", peer, sizeof(peer),
                                              nullptr, 0, nullptr, 0, 0, out, &len));
}

int ProbeSpb() {
  Session s;
  char name[QL_MAX_OBJ_NAME + 1];
  uint32_t len = sizeof(name);
  const int rc = QSPBGenerateKey(s.get(), "11111111", name, &len, 0);
  if (rc == 0) QRemoveObj(s.get(), name);
  return ServedUnlessNotSupported(rc);
}

int ProbeNamed(const std::function<int(HSESSIONCTX)> &call) {
  Session s;
  return ServedUnlessNotSupported(call(s.get()));
}

// ---------------------------------------------------------------------------------------------

class PerfE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("ql_perf_e2e_" + std::to_string(getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // qlutil in the test's folder, connected to the shared daemon as master.
  RunResult Run(const std::string &args, const std::string &password = kMasterPassword,
                const qltest::HsmProcess &hsm = qltest::HsmEnvironment::hsm()) {
    const std::string cmd = "cd '" + dir_.string() + "' && '" + QlutilPath() + "' -a " +
                            hsm.address() + " --port " + std::to_string(hsm.port()) +
                            " -u master -w '" + password + "' " + args;
    RunResult result;
    FILE *pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
  }

  // Run, and check that the HSM holds afterwards what it held before.
  RunResult RunClean(const std::string &args, const std::string &password = kMasterPassword) {
    const std::vector<std::string> before = ListObjects();
    RunResult result = Run(args, password);
    EXPECT_EQ(ListObjects(), before) << "objects left behind by: " << args << "\n" << result.out;
    return result;
  }

  std::string Read(const char *name) {
    std::ifstream in(dir_ / name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

  std::filesystem::path dir_;
};

enum class Footer { kOps, kBytes };

struct MemberCase {
  const char *args;
  Footer footer;
  std::function<int()> probe;
};

std::vector<MemberCase> MemberCases() {
  const auto always = [] { return 0; };
  return {
      {"-p sign-hash -t 2 -i 5 -h sha256 -k rsa1024", Footer::kOps,
       [] { return ProbeSign(QL_ALG_RSA1024); }},
      {"-p sign-hash -t 2 -i 5 -h sha256 -k ecc_secp256r1 --ds 100", Footer::kOps,
       [] { return ProbeSign(QL_ALG_ECC_SECP256R1); }},
      {"-p sign-hash -t 2 -i 5 -h sha256 -k rsa1024 --tg --disable_legacy_sign", Footer::kOps,
       [] { return ProbeSign(QL_ALG_RSA1024); }},
      {"-p batch-sign -t 2 -i 3 -h sha256 -k rsa1024 -bc 4", Footer::kOps, ProbeBatchSign},
      {"-p batch-sign -t 2 -i 3 -h sha1 -k rsa1024 -bc 4 -tg", Footer::kOps, ProbeBatchSign},
      {"-p sign-hashed-data -t 2 -i 5 -h sha256 -k rsa1024", Footer::kOps, ProbeSignHashedData},
      {"-p verify-hash -t 2 -i 5 -h sha256 -k ecc_secp256r1", Footer::kOps,
       [] { return ProbeSign(QL_ALG_ECC_SECP256R1, true); }},
      {"-p encrypt -t 2 -i 5 -k aes256 -m 20000", Footer::kBytes, [] { return ProbeEncrypt(); }},
      {"-p encrypt -t 2 -i 5 -k aes128 -m 1024 -mo cbc -pa pkcs5_padding -ops 1", Footer::kOps,
       [] { return ProbeEncrypt(QL_MODE_CBC, QL_PAD_PKCS5); }},
      {"-p decrypt -t 2 -i 5 -k aes256 -m 5000 -mo cbc -pa pkcs5_padding", Footer::kBytes,
       [] { return ProbeEncrypt(QL_MODE_CBC, QL_PAD_PKCS5); }},
      {"-p hash -t 2 -i 20 -h sha256 -m 1024", Footer::kOps, always},
      {"-p hash -t 2 -i 20 -h sha3_512", Footer::kOps, always},
      {"-p hash -t 2 -i 20 -h hmac_sha2_256", Footer::kOps, ProbeHmac},
      {"-p gen-key -t 2 -i 5 -k aes256", Footer::kOps, [] { return ProbeKey(QL_ALG_AES256); }},
      {"-p gen-key -t 2 -i 3 -k ecc_secp256r1 -ps -ged", Footer::kOps,
       [] { return ProbeKey(QL_ALG_ECC_SECP256R1, QL_KEY_EXPORTABLE); }},
      {"-p list-keys -t 2 -i 5 -k aes128 -kc 3", Footer::kOps,
       [] { return ProbeKey(QL_ALG_AES128, QL_KEY_EXPORTABLE); }},
      {"-p gen-key-material -t 2 -i 5 -k aes256", Footer::kOps, ProbeKeyMaterial},
      {"-p generate-ecdh -t 2 -i 5", Footer::kOps, ProbeEcdh},
      {"-p generate-ecdh -t 2 -i 5 -op ql_gen_key_kdf_raw_secret", Footer::kOps, ProbeEcdh},
      // Members written against services that come later.
      {"-p spb-encode -t 2 -i 3 -m 1000", Footer::kOps, ProbeSpb},
      {"-p spb-encode -t 1 -i 3 -m 1000 --si 11111111 --di 22222222 --c3 1f --c4 2", Footer::kOps,
       ProbeSpb},
      {"-p spb-decode -t 1 -i 3 -m 1000", Footer::kOps, ProbeSpb},
      {"-p generate-cvv -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX) {
           char cvv[4];
           return QGenerateCVV(nullptr, "4123456789012345", "8701", "101", cvv, 0);
         });
       }},
      {"-p verify-cvv -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX) {
           return QVerifyCVV(nullptr, "4123456789012345", "8701", "101", "123", 0);
         });
       }},
      {"-p generate-pin -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX) {
           char pin[16];
           uint32_t len = sizeof(pin);
           return QGeneratePIN(nullptr, "4123456789012345", 4, pin, &len, 0);
         });
       }},
      {"-p verify-pin-block -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX) {
           char pin[16];
           uint32_t len = sizeof(pin);
           return QGeneratePIN(nullptr, "4123456789012345", 4, pin, &len, 0);
         });
       }},
      {"-p pin-block-translate -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           unsigned char in[8] = {}, out[8];
           uint32_t len = sizeof(out);
           return QPINBlockTranslate(s, "a", "b", 0, "4123456789012345", in, 8, out, &len, 0);
         });
       }},
      {"-p generate-dukpt -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           const unsigned char ksi[5] = {};
           char name[QL_MAX_OBJ_NAME + 1];
           uint32_t len = sizeof(name);
           return QGenerateBDKName(s, ksi, sizeof(ksi), name, &len);
         });
       }},
      {"-p export-tr31 -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           uint32_t len = 0;
           return QEFTExportTR31(s, "a", "b", 0, 0, 0, nullptr, &len, 0);
         });
       }},
      {"-p import-tr31 -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           uint32_t len = 0;
           return QEFTExportTR31(s, "a", "b", 0, 0, 0, nullptr, &len, 0);
         });
       }},
      {"-p sign-xml -t 1 -i 3 -h sha256", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           unsigned char *out = nullptr;
           uint32_t len = 0;
           const int rc =
               QSignXml(s, QL_ALG_SHA256, "a", "b", nullptr,
                        reinterpret_cast<const unsigned char *>("<a/>"), 4, &out, &len, 0);
           QFree(out);
           return rc;
         });
       }},
      {"-p verify-xml -t 1 -i 3 -h sha256", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           return QVerifySignedXmlEx(s, nullptr, nullptr, nullptr,
                                     reinterpret_cast<const unsigned char *>("<a/>"), 4, 0);
         });
       }},
      {"-p pix-sign -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           unsigned char *out = nullptr;
           uint32_t len = 0;
           const int rc = QPIXSign(s, "a", "b", reinterpret_cast<const unsigned char *>("<a/>"), 4,
                                   &out, &len, 0);
           QFree(out);
           return rc;
         });
       }},
      {"-p pix-dict-verify -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           unsigned char *out = nullptr;
           uint32_t len = 0;
           const int rc = QPIXDictSign(s, "a", "b", reinterpret_cast<const unsigned char *>("<a/>"),
                                       4, &out, &len, 0);
           QFree(out);
           return rc;
         });
       }},
      {"-p pix-jws-check -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           char *jws = nullptr;
           uint32_t len = 0;
           const int rc = QPIXJWSSign(s, "a", "{}", reinterpret_cast<const unsigned char *>("{}"),
                                      2, &jws, &len, 0);
           QFree(jws);
           return rc;
         });
       }},
      {"-p svault-gen-token -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           const QL_SVAULT_TOKEN_INFO info = {1, 3, 0, 10};
           char token[64];
           unsigned char blob[256];
           uint32_t token_len = sizeof(token), blob_len = sizeof(blob);
           return QSVaultGenToken(s, "a", &info, "4111111111111111", token, &token_len, blob,
                                  &blob_len, 0);
         });
       }},
      {"-p bchain-sign-hash -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           const unsigned char seed[32] = {};
           return QBchainCreateXPrv(s, "qlutil_perf_probe", 1, seed, sizeof(seed),
                                    QL_KEY_TEMPORARY);
         });
       }},
      {"-p mofn-split -t 1 -i 3 -m 2 -n 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           const unsigned char secret[16] = {};
           unsigned char *parts = nullptr;
           uint32_t len = 0;
           const int rc = QMofNSplit(s, 2, 3, secret, sizeof(secret), &parts, &len);
           QFree(parts);
           return rc;
         });
       }},
      {"-p mofn-recover -t 1 -i 3 -m 2 -n 3 --secret 00112233445566778899AABBCCDDEEFF",
       Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           const unsigned char secret[16] = {};
           unsigned char *parts = nullptr;
           uint32_t len = 0;
           const int rc = QMofNSplit(s, 2, 3, secret, sizeof(secret), &parts, &len);
           QFree(parts);
           return rc;
         });
       }},
      {"-p oath-sa-auth -t 1 -i 3", Footer::kOps,
       [] {
         return ProbeNamed([](HSESSIONCTX s) {
           const unsigned char seed[20] = {};
           return QAssignToken(s, "qlutil_no_user", 2, seed, sizeof(seed), 30, 0, 0);
         });
       }},
  };
}

TEST_F(PerfE2E, EveryMemberRunsOrReportsTheNotSupportedCode) {
  int served = 0, unserved = 0;
  for (const MemberCase &c : MemberCases()) {
    SCOPED_TRACE(c.args);
    const int probe = c.probe();
    const RunResult r = RunClean(std::string(c.args) + " --retfiles");
    if (probe == 0) {
      ++served;
      EXPECT_EQ(r.exit_code, 0) << r.out;
      EXPECT_TRUE(std::regex_match(r.out, c.footer == Footer::kOps ? kOpsFooter : kBytesFooter))
          << r.out;
      EXPECT_EQ(Read("qlutil_result"), "0");
    } else {
      // qlutil reports what the library answers, with the library's code.
      ++unserved;
      EXPECT_EQ(r.exit_code, ExitStatusOf(probe)) << r.out;
      EXPECT_EQ(Read("qlutil_result"), std::to_string(probe));
      EXPECT_NE(r.out.find("rc = " + std::to_string(probe)), std::string::npos) << r.out;
      EXPECT_EQ(r.out.find("\r\nError during the test!\r\n") != std::string::npos ||
                    r.out.find("Failed to initialize test") != std::string::npos,
                true)
          << r.out;
    }
  }
  std::printf("[ perf     ] %d members ran for real, %d answered a library refusal\n", served,
              unserved);
}

TEST_F(PerfE2E, WrongPasswordPrintsTheConnectMessageAndExitsWithTheLibraryCode) {
  struct Case {
    const char *args;
    const char *first_line;
  };
  const Case cases[] = {
      {"-p sign-hash -t 2 -i 5 -h sha256 -k rsa1024",
       "[PerfSignHashThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p sign-hash -t 2 -i 5 -h sha256 -k rsa1024 --tg",
       "[PerfSignHashInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p batch-sign -t 2 -i 5 -h sha256 -k rsa1024 -bc 2",
       "[PerfBatchSignThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p encrypt -t 2 -i 5 -k aes256 -m 100",
       "[PerfEncryptThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p decrypt -t 2 -i 5 -k aes256 -m 100",
       "[PerfDecryptThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p hash -t 2 -i 5 -h sha256", "[PerfHashThreadInit] Fail in ConnectEx. rc = 5001\r\n"},
      {"-p spb-encode -t 1 -i 5 -m 100", "[InstallSPBCerts] Fail in ConnectEx. rc = 5001\r\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = RunClean(std::string(c.args) + " --retfiles", "wrongpass");
    EXPECT_EQ(r.exit_code, ExitStatusOf(QL_ERR_AUTH_FAILED)) << r.out;
    EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1), c.first_line) << r.out;
    EXPECT_EQ(Read("qlutil_result"), "5001");
  }
}

TEST_F(PerfE2E, ThreadsSetUpBeforeAFailingOneLeaveNoKeyBehind) {
  // One session at a time: the second thread cannot connect once the first holds its session
  // and its temporary key.
  qltest::HsmOptions options;
  options.master_password = kMasterPassword;
  options.serve_args = {"--max-sessions", "1"};
  qltest::HsmProcess hsm(options);
  const RunResult r =
      Run("-p sign-hashed-data -t 2 -i 5 -h sha256 -k rsa1024", kMasterPassword, hsm);
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("[PerfSignHashedDataThreadInit] Fail in ConnectEx. rc = ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\r\nError during the test!\r\n"), std::string::npos) << r.out;
  EXPECT_EQ(ListObjects(hsm), std::vector<std::string>{}) << r.out;
}

TEST_F(PerfE2E, KeyNamedWithKnIsUsedAndSurvives) {
  if (ProbeSign(QL_ALG_RSA1024) != 0) GTEST_SKIP() << "the HSM does not sign yet";
  const char *name = "qlutil_perf_kn_rsa";
  {
    Session s;
    ASSERT_EQ(QGenerateKey(s.get(), name, QL_ALG_RSA1024, QL_KEY_EXPORTABLE, nullptr), 0);
  }
  const RunResult r = RunClean(std::string("-p sign-hash -t 2 -i 5 -h sha256 --kn ") + name);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
  Session s;
  HKEYCTX key = nullptr;
  EXPECT_EQ(QGetUserKey(s.get(), name, 0, &key), 0) << "the --kn key was removed";
  if (key != nullptr) QDestroyKey(&key, QL_DESTROY_REMOVE);
}

TEST_F(PerfE2E, KeyThatCannotSignFailsInTheSizeQuery) {
  if (ProbeSign(QL_ALG_RSA1024) != 0) GTEST_SKIP() << "the HSM does not sign yet";
  const char *name = "qlutil_perf_kn_aes";
  int expected = 0;
  {
    Session s;
    ASSERT_EQ(QGenerateKey(s.get(), name, QL_ALG_AES256, QL_KEY_EXPORTABLE, nullptr), 0);
    HKEYCTX key = nullptr;
    HHASHCTX hash = nullptr;
    ASSERT_EQ(QGetUserKey(s.get(), name, 0, &key), 0);
    ASSERT_EQ(QCreateHash(s.get(), QL_ALG_SHA256, nullptr, 0, &hash), 0);
    const unsigned char data[64] = {};
    ASSERT_EQ(QHashData(hash, data, sizeof(data), 0), 0);
    uint32_t len = 0;
    expected = QSignHash(hash, key, 0, nullptr, &len);
    QDestroyHash(&hash);
    QDestroyKey(&key, 0);
  }
  ASSERT_NE(expected, 0);
  ASSERT_NE(expected, QL_ERR_BUFFER_TOO_SMALL);
  const RunResult r =
      RunClean(std::string("-p sign-hash -t 1 -i 5 -h sha256 --kn ") + name + " --retfiles");
  EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1),
            "[PerfSignHashThreadInit] Fail in QSignHash. rc = " + std::to_string(expected) + "\r\n")
      << r.out;
  EXPECT_EQ(r.exit_code, ExitStatusOf(expected)) << r.out;
  EXPECT_EQ(Read("qlutil_result"), std::to_string(expected));
  Session s;
  EXPECT_EQ(QRemoveObj(s.get(), name), 0) << "the --kn key was removed by the test";
}

// The -out row: "tc";"threads";"iterations";"result";...
std::vector<std::string> RowFields(const std::string &row) {
  std::vector<std::string> fields;
  const std::regex field(R"re("([^"]*)";)re");
  for (auto it = std::sregex_iterator(row.begin(), row.end(), field); it != std::sregex_iterator();
       ++it) {
    fields.push_back((*it)[1]);
  }
  return fields;
}

TEST_F(PerfE2E, OutRowsAndResultFiles) {
  RunResult ok = RunClean("-p hash -t 2 -i 7 -h sha256 -tc 12 -out rows.csv --retfiles");
  ASSERT_EQ(ok.exit_code, 0) << ok.out;
  RunResult failed =
      RunClean("-p hash -t 3 -i 4 -h sha256 -tc 13 -out rows.csv --retfiles", "wrongpass");
  ASSERT_EQ(failed.exit_code, ExitStatusOf(QL_ERR_AUTH_FAILED)) << failed.out;
  EXPECT_EQ(Read("qlutil_result"), "5001");
  EXPECT_EQ(Read("qlutil_time"), "") << "a failed run leaves an empty time file";

  std::istringstream rows(Read("rows.csv"));
  std::string first, second;
  std::getline(rows, first);
  std::getline(rows, second);
  const std::vector<std::string> a = RowFields(first), b = RowFields(second);
  ASSERT_GE(a.size(), 4u) << first;
  ASSERT_GE(b.size(), 4u) << second;
  EXPECT_EQ(std::vector<std::string>(a.begin(), a.begin() + 4),
            (std::vector<std::string>{"12", "2", "7", "0"}));
  EXPECT_EQ(std::vector<std::string>(b.begin(), b.begin() + 4),
            (std::vector<std::string>{"13", "3", "4", "5001"}));
}

TEST_F(PerfE2E, BatchSignRowCountsEverySignature) {
  if (ProbeBatchSign() != 0) GTEST_SKIP() << "the HSM does not batch-sign yet";
  const RunResult r =
      RunClean("-p batch-sign -t 2 -i 3 -h sha256 -k rsa1024 -bc 5 -tc 1 -out rows.csv");
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const std::vector<std::string> fields = RowFields(Read("rows.csv"));
  ASSERT_GE(fields.size(), 4u);
  EXPECT_EQ(fields[2], "15") << "iterations times the batch count";
}

// Key material and ECDH are served: their members run for real, with no probe to excuse them,
// and leave the HSM as they found it.
TEST_F(PerfE2E, KeyMaterialAndEcdhRunForReal) {
  const char *const runs[] = {
      "-p gen-key-material -t 2 -i 5 -k aes256",
      "-p gen-key-material -t 2 -i 3 -k 3des168",
      "-p gen-key-material -t 2 -i 2 -k rsa1024",
      "-p gen-key-material -t 1 -i 3 -k ecc_secp256r1",
      "-p generate-ecdh -t 2 -i 5",
      "-p generate-ecdh -t 2 -i 5 -op ql_gen_key_kdf_raw_secret",
      "-p generate-ecdh -t 2 -i 5 -alg x25519 -ng",
      "-p generate-ecdh -t 2 -i 3 -alg ecc_secp384r1 -algt aes128 -kdflen 16 -del 0",
      "-p generate-ecdh -t 1 -i 3 -alg ecc_brainpool_p256r1 -algt 3des168 -kdflen 24",
  };
  for (const char *args : runs) {
    SCOPED_TRACE(args);
    const RunResult r = RunClean(std::string(args) + " --retfiles");
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_TRUE(std::regex_match(r.out, kOpsFooter)) << r.out;
    EXPECT_EQ(Read("qlutil_result"), "0");
  }
}

// The HSM's refusals reach the loop's message: a peer key of another curve, a derived length
// that is not the kept key's.
TEST_F(PerfE2E, EcdhRefusalsAreReportedFromTheLoop) {
  struct Case {
    const char *args;
    int code;
  };
  const Case cases[] = {
      {"-p generate-ecdh -t 1 -i 3 -alg ecc_secp256r1 -alg2 ecc_secp384r1", QL_ERR_BAD_KEY_USAGE},
      {"-p generate-ecdh -t 1 -i 3 -algt aes128", QL_ERR_BAD_LENGTH},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult r = RunClean(std::string(c.args) + " --retfiles");
    EXPECT_EQ(r.exit_code, ExitStatusOf(c.code)) << r.out;
    EXPECT_EQ(r.out.rfind("[PerfGenerateECDHThread] Fail in QGenEcdhKey rc = " +
                              std::to_string(c.code) + ". Iteration = ",
                          0),
              0u)
        << r.out;
    EXPECT_EQ(Read("qlutil_result"), std::to_string(c.code));
  }
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  qltest::HsmOptions options;
  options.master_password = kMasterPassword;
  ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment(options));
  return RUN_ALL_TESTS();
}
