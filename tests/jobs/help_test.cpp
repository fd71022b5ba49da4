// Missing or wrong options: every job prints its help page in the fixed layout and answers -1,
// and nothing reaches an HSM (the "HSM" here is a listener that only counts connections).

#include <ostream>
#include <string>
#include <vector>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

struct BadOptions {
  const char *job;
  std::vector<std::string> options;
};

// Each row passes the connection check; only the job's own options are wrong or missing.
const std::vector<BadOptions> kBadOptions = {
    {"remove", {}},                              // neither -ft nor -name
    {"remove", {"-ft", "tmp", "-name", "k1"}},   // both
    {"remove", {"-ft"}},                         // an empty filter
    {"gen-key", {"-k", "rsa9999", "-kn", "k"}},  // unknown algorithm
    {"gen-key", {"-kn", "k"}},                   // no algorithm
    {"gen-key", {"-k", "rsa2048"}},              // no name, not temporary
    {"list-obj", {"--outform", "xml"}},          // unknown format
    {"obj-info", {}},                            // no object
    {"block-obj", {}},                           //
    {"unblock-obj", {}},                         //
    {"rename-obj", {"-kn", "a"}},                // no new name
    // One word table serves every algorithm switch ("-bt sha256" is blob type 4, "-h rsa2048"
    // is sha512): these words have no number in the right group.
    {"export-key", {"-kn", "a", "-bt", "gcm"}},                                // not a blob type
    {"export-key", {"-bt", "publickey_blob"}},                                 // no key
    {"import-key", {"-kn", "a", "-bt", "plaintextkey_blob", "-k", "aes128"}},  // no data
    {"import-key",
     {"-kn", "a", "-bt", "plaintextkey_blob", "-k", "aes128", "-inform", "hex", "-in",
      "0G"}},                                                                        // bad hex
    {"import-pkcs8", {"-kn", "a", "-in", "/nonexistent/file"}},                      // unreadable
    {"export-pkcs8", {}},                                                            //
    {"gen-ecdh", {"-kn", "a", "-inform", "hex", "-pub", "3059", "-kdf", "sha256"}},  // bad kdf
    {"gen-ecdh",
     {"-kn", "a", "-inform", "hex", "-pub", "3059", "-kdf",
      "ql_gen_key_x9_63_sha256"}},    // no length
    {"read-file", {}},                //
    {"write-file", {"-kn", "f"}},     // no data
    {"create-user", {"-un", "bob"}},  // no password
    {"create-user", {"-un", "bob", "-pwd", "12345678", "-acl", "0xZZ"}},
    {"remove-user", {}},
    {"block-user", {}},
    {"unblock-user", {}},
    {"set-pwd", {}},
    {"set-user-sys-perm", {"-un", "bob"}},                             // no switch
    {"set-user-sys-perm", {"-un", "bob", "-usr_list", "2"}},           // neither 1 nor 0
    {"set-user-part-perm", {"-obj_read", "1"}},                        // no user
    {"issue-atoken", {"-ttl", "abc"}},                                 //
    {"revoke-atoken", {}},                                             //
    {"revoke-atoken", {"-tk", "not base64!"}},                         //
    {"gen-rand", {}},                                                  //
    {"gen-rand", {"-len", "0"}},                                       //
    {"hash", {"-h", "gcm", "-inform", "hex", "-in", "00"}},            // not a hash
    {"hash", {"-h", "hmac_sha2_256", "-inform", "hex", "-in", "00"}},  // HMAC without a key
    {"sign-hash", {"-h", "sha256", "-inform", "hex", "-in", "00"}},    // no key
    {"sign-hash", {"-kn", "k", "-h", "sha256", "-inform", "hash_text", "-in", "00"}},
    {"verify-hash", {"-kn", "k", "-h", "sha256", "-inform", "hex", "-in", "00"}},  // no -sig
    {"encrypt",
     {"-kn", "k", "-m", "cfb", "-inform", "hex", "-in", "00"}},  // offered, not in the table
    {"decrypt", {"-kn", "k", "-pad", "rsa2048", "-inform", "hex", "-in", "00"}},  // bad pad
    {"get-obj-meta", {}},
    {"get-metadata-json", {"-kn", "a", "-type", "x"}},
    {"set-metadata-json", {"-kn", "a"}},
    {"backup", {"-file", "x.bkp"}},           // no PIN
    {"probe", {"-op", "sha256"}},             // not a request option
    {"set-date-time", {"-dt", "yesterday"}},  //
    {"set-date-time", {"-dt", "2026-13-01 00:00:00"}},
};

void PrintTo(const BadOptions &row, std::ostream *os) {
  *os << row.job;
  for (const auto &o : row.options) *os << " " << o;
}

class JobHelpTest : public ::testing::TestWithParam<BadOptions> {};

TEST_P(JobHelpTest, PrintsHelpAndAnswersMinusOneWithoutConnecting) {
  CountingListener hsm;
  ASSERT_GT(hsm.port(), 0);
  const BadOptions &row = GetParam();
  std::string cmd = Quote(QLUTIL_BIN) + " -a 127.0.0.1 --port " + std::to_string(hsm.port()) +
                    " -u master -w 24681357 -j " + row.job;
  for (const auto &o : row.options) cmd += " " + Quote(o);
  const RunResult r = RunCommand(cmd);
  EXPECT_EQ(r.exitCode, 255) << r.out;
  const size_t description = r.out.find("\r\nDESCRIPTION\r\n     ");
  const size_t options = r.out.find("\r\nOPTIONS\r\n");
  const size_t example = r.out.find("\r\nEXAMPLE\r\n     qlutil -a ");
  EXPECT_NE(description, std::string::npos) << r.out;
  EXPECT_LT(description, options);
  EXPECT_LT(options, example);
  EXPECT_NE(r.out.find(std::string(" -u master -w 24681357 -j ") + row.job), std::string::npos);
  // The connection options come first in OPTIONS.
  EXPECT_EQ(r.out.find("\r\nOPTIONS\r\n     -a "), options) << r.out;
  EXPECT_EQ(r.out.find("Total time"), std::string::npos) << "the runner ran";
  EXPECT_EQ(hsm.count(), 0) << "a connection reached the HSM";
}

std::string RowName(const ::testing::TestParamInfo<BadOptions> &info) {
  std::string name = std::to_string(info.index) + "_";
  for (const char *c = info.param.job; *c; ++c) name += (*c == '-') ? '_' : *c;
  return name;
}

INSTANTIATE_TEST_SUITE_P(Jobs, JobHelpTest, ::testing::ValuesIn(kBadOptions), RowName);

// Without connection options the job cannot run either.
TEST(JobHelp, NoConnectionPrintsHelp) {
  for (const char *job : {"list-obj", "info", "list-users", "gen-rand", "probe"}) {
    const RunResult r = RunCommand(Quote(QLUTIL_BIN) + " -j " + job);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("\r\nDESCRIPTION\r\n"), std::string::npos) << job;
  }
}

}  // namespace
}  // namespace jobs_test
