// The performance tests' option readers and help pages, without an HSM: a member whose options
// are wrong prints its usage page and returns -1; a member whose options are right goes on to
// the runner, which here meets a closed port and answers the library's connection code. Also
// the shared helpers: temporary names and the digest identifiers of QDoRSAPadding.

#include <gtest/gtest.h>

#include <cctype>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "PerformanceTests.h"
#include "harness/harness.h"
#include "qlutil.h"

namespace {

// The connection of every case: a loopback port nobody listens on.
const std::vector<std::string> kClosedHsm = {"-a", "127.0.0.1", "--port", "1",
                                             "-u", "master",    "-w",     "24681357"};

struct Outcome {
  int result;
  std::string out;
};

Outcome Call(pfn_TestFunction handler, const std::string &args) {
  std::vector<std::string> words = kClosedHsm;
  std::istringstream in(args);
  for (std::string word; in >> word;) words.push_back(word);
  std::vector<const char *> argv = {"qlutil"};
  for (const std::string &w : words) argv.push_back(w.c_str());
  TEST_PARAMETER *params = nullptr;
  int count = 0;
  ParseParameters(static_cast<int>(argv.size()), argv.data(), &params, &count);
  testing::internal::CaptureStdout();
  const int result = handler(params, count);
  Outcome outcome{result, testing::internal::GetCapturedStdout()};
  FreeParameters(params);
  return outcome;
}

struct OptionCase {
  const char *member;
  pfn_TestFunction handler;
  const char *args;
  bool accepted;
};

TEST(PerfOptions, UsagePageOnlyForMissingOrBadOptions) {
  const OptionCase cases[] = {
      {"sign-hash", PerfSignHash, "-t 1 -i 1 -h sha256 -k rsa2048", true},
      {"sign-hash", PerfSignHash, "-t 1 -i 1 -h sha256 --kn mykey", true},  // --kn stands for -k
      {"sign-hash", PerfSignHash, "-t 1 -i 1 -h sha256", false},
      {"sign-hash", PerfSignHash, "-t 1 -i 1 -k rsa2048", false},
      {"sign-hash", PerfSignHash, "-i 1 -h sha256 -k rsa2048", false},  // no thread count
      {"sign-hash", PerfSignHash, "-t 1 -i 1 -h sha256 -k rsa2048 --ds 0", false},
      {"sign-hash", PerfSignHash, "-t 1 -i 1 -h nohash -k rsa2048", false},
      {"batch-sign", PerfBatchSign, "-t 1 -i 1 -h sha256 -k rsa2048 -bc 10", true},
      {"batch-sign", PerfBatchSign, "-t 1 -i 1 -h sha256 -k rsa2048", false},
      {"batch-sign", PerfBatchSign, "-t 1 -i 1 -h sha256 -k rsa2048 -bc 0", false},
      {"sign-hashed-data", PerfSignHashedData, "-t 1 -h sha256 -k rsa2048", true},
      {"verify-hash", PerfVerifyHash, "-t 1 -h sha256", false},
      {"encrypt", PerfEncrypt, "-t 1 -i 1 -k aes256 -m 1024", true},
      {"encrypt", PerfEncrypt, "-t 1 -i 1 -k aes256 -m 1024 -mo cbc -pa pkcs5_padding -ops 1",
       true},
      {"encrypt", PerfEncrypt, "-t 1 -i 1 -k aes256", false},
      {"encrypt", PerfEncrypt, "-t 1 -i 1 -m 1024", false},
      {"encrypt", PerfEncrypt, "-t 1 -i 1 -k aes256 -m 1024 -mo nomode", false},
      {"decrypt", PerfDecrypt, "-t 1 -i 1 -k aes256 -m 1024 -pa pkcs5_padding", true},
      {"decrypt", PerfDecrypt, "-t 1 -i 1 -k aes256 -m 1024 -pa nopad", false},
      {"spb-encode", PerfSPBEncode, "-t 1 -i 1 -m 100", true},
      {"spb-encode", PerfSPBEncode, "-t 1 -i 1 --si 11111111 --di 22222222 -m 100 --v3", true},
      {"spb-encode", PerfSPBEncode, "-t 1 -i 1", false},
      {"spb-decode", PerfSPBDecode, "-t 1 -i 1", false},
      {"hash", PerfHash, "-t 1 -i 1 -h sha256", true},
      {"hash", PerfHash, "-t 1 -i 1 -h sha256 -m 0", false},
      {"hash", PerfHash, "-t 1 -i 1", false},
      {"gen-key", PerfGenKey, "-t 1 -i 1 -k aes256 -ps -ged", true},
      {"gen-key", PerfGenKey, "-t 1 -i 1", false},
      {"list-keys", PerfListKeys, "-t 1 -i 1 -k aes256 -kc 0", false},
      {"generate-ecdh", PerfGenerateECDH, "-t 1 -i 1", true},
      {"generate-ecdh", PerfGenerateECDH, "-t 1 -i 1 -op nokdf", false},
      {"generate-ecdh", PerfGenerateECDH, "-t 1 -i 1 -kdflen 0", false},
      {"mofn-split", PerfMofNSplit, "-t 1 -i 1 -m 2 -n 3", true},
      {"mofn-split", PerfMofNSplit, "-t 1 -i 1 -m 3 -n 2", false},
      {"mofn-split", PerfMofNSplit, "-t 1 -i 1 -m 2 -n 3 --secret nothex", false},
      {"mofn-recover", PerfMofNRecover, "-t 1 -i 1 -m 2 -n 3 --parts 0011", false},
      {"pkcs7-sign", PerfPkcs7Sign, "-t 1 -i 1 -kn k -keycert c", false},  // no -filein
      {"pix-request", PerfRequestPIX, "-t 1 -i 1", false},                 // no --url
      {"pix-request", PerfRequestPIX, "-t 1 -i 1 --url https://x -r patch", false},
      {"pix-sign", PerfSignPIX, "-t 1 -i 1 -x /nonexistent/file.xml", false},
      {"pix-jws-check", PerfCheckPIXJWS, "-t 1 -i 1 -kn k", false},  // a named key needs --chain
      {"pix-jws-check", PerfCheckPIXJWS, "-t 1 -i 1 -kn k --chain c --flags 3", true},
      {"pix-jws-sign", PerfSignPIXJWS, "-t 1 -i 1 --flags x", false},
      {"export-tr31", PerfExportTR31, "-t 1 -i 1 --kbpk-alg noalg", false},
      {"oath-sa-auth", PerfOathSAAuth, "-t 1 -i 1 -oathtype never", false},
      {"oath-sa-auth", PerfOathSAAuth, "-t 1 -i 1 -oathtype time -timestep 30", true},
  };
  for (const OptionCase &c : cases) {
    SCOPED_TRACE(std::string(c.member) + " " + c.args);
    const Outcome outcome = Call(c.handler, c.args);
    if (c.accepted) {
      // The runner was reached: a set-up callback met the closed port.
      EXPECT_EQ(outcome.result, QL_ERR_CONNECTION_FAILED) << outcome.out;
      EXPECT_EQ(outcome.out.find("\r\nDESCRIPTION\r\n"), std::string::npos) << outcome.out;
    } else {
      EXPECT_EQ(outcome.result, kResultUsage) << outcome.out;
      EXPECT_EQ(outcome.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << outcome.out;
      EXPECT_NE(outcome.out.find("\r\nOPTIONS\r\n"), std::string::npos);
      EXPECT_NE(outcome.out.find("\r\nEXAMPLE\r\n"), std::string::npos);
      EXPECT_EQ(outcome.out.find("Fail in"), std::string::npos) << "the HSM was reached";
    }
  }
}

TEST(PerfCommon, DigestIdentifiersOfTheRsaPadding) {
  const int expected[][2] = {{QL_ALG_MD5, QL_DIGEST_ID_MD5},
                             {QL_ALG_SHA1, QL_DIGEST_ID_SHA1},
                             {3, QL_DIGEST_ID_NONE},
                             {QL_ALG_SHA256, 4},
                             {QL_ALG_SHA384, 5},
                             {QL_ALG_SHA512, 6},
                             {QL_ALG_SHA224, 7},
                             {QL_ALG_SHA3_256, 0},
                             {QL_ALG_HMAC_SHA2_256, 0},
                             {-1, 0}};
  for (const auto &row : expected) {
    EXPECT_EQ(GetHashOIDFromAlgId(row[0]), row[1]) << "hash " << row[0];
  }
}

TEST(PerfCommon, OfflineTemporaryNamesAre32UpperCaseHexDigits) {
  char first[kTempKeyNameSize], second[kTempKeyNameSize];
  GetTempKeyNameOffline(first);
  GetTempKeyNameOffline(second);
  const std::regex name("[0-9A-F]{32}");
  EXPECT_TRUE(std::regex_match(first, name)) << first;
  EXPECT_TRUE(std::regex_match(second, name)) << second;
  EXPECT_STRNE(first, second);
}

}  // namespace
