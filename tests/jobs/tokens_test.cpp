// Access-token jobs against a real HSM: a token issued by the job, used to log in through the
// library (the command line never logs in with a token), listed, counted, revoked, refused.

#include <string>

#include "jobs_test_util.h"
#include "qlapi.h"

namespace jobs_test {
namespace {

class TokenJobs : public JobTest {
 protected:
  // Logs in with the base64 token through the library; the library's code.
  int LoginWithToken(const std::string &b64) {
    AUTH_ATOKEN auth{};
    snprintf(auth.szAddr, sizeof auth.szAddr, "127.0.0.1");
    auth.nPort = port();
    uint32_t len = sizeof auth.stAToken;
    int rc =
        QBase642ByteArray(b64.c_str(), static_cast<uint32_t>(b64.size()), &auth.stAToken, &len);
    if (rc != 0) return rc;
    HSESSIONCTX session = nullptr;
    rc = QOpenSession(&session, QL_AUTH_ATOKEN, &auth, sizeof auth,
                      QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE);
    if (rc == 0) QCloseSession(&session, QL_CLOSE_PHYSICAL);
    return rc;
  }
  void TearDown() override { QFinalize(); }
};

TEST_F(TokenJobs, IssueUseRevokeRefuse) {
  MustRun("create-user", {"-un", "tok", "-pwd", "12345678", "-acl", "0x6"});
  RunResult r = JobAs("tok", "12345678", "issue-atoken", {"--out", Path("t.b64")});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  const std::string b64 = ReadText(Path("t.b64"));
  ASSERT_EQ(b64.size(), 44u) << "32 bytes in base64";
  EXPECT_EQ(r.out.rfind(b64 + "\r\n", 0), 0u) << "printed as written";

  EXPECT_EQ(LoginWithToken(b64), 0);
  r = Job("list-atoken");
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("User             Key id           Issued              Expires\r\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\r\ntok              "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(" never\r\n"), std::string::npos);
  EXPECT_NE(MustRun("get-atoken-count").find("Access tokens: 1\r\n"), std::string::npos);

  r = JobAs("tok", "12345678", "revoke-atoken", {"-tkf", Path("t.b64")});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Access token revoked.\r\n"), std::string::npos);
  EXPECT_NE(LoginWithToken(b64), 0) << "a revoked token still logs in";
  EXPECT_NE(MustRun("get-atoken-count").find("Access tokens: 0\r\n"), std::string::npos);
  // Revoking it again is refused by the HSM.
  r = JobAs("tok", "12345678", "revoke-atoken", {"-tk", b64});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.out.find("Error in QManageAToken. Err = "), std::string::npos) << r.out;
}

TEST_F(TokenJobs, ExpiringTokenAndGarbageCollection) {
  RunResult r = Job("issue-atoken", {"-ttl", "3600"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  r = Job("list-atoken");
  EXPECT_EQ(r.out.find(" never\r\n"), std::string::npos) << "an expiry was given: " << r.out;
  // Nothing has expired yet.
  EXPECT_NE(MustRun("run-atoken-gc").find("Expired access tokens removed: 0\r\n"),
            std::string::npos);
  EXPECT_NE(MustRun("get-atoken-count").find("Access tokens: 1\r\n"), std::string::npos);
}

TEST_F(TokenJobs, CacheJobsNeedTheOperator) {
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  RunResult r = JobAs("plain", "12345678", "get-atoken-count");
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QManageATokenCache", 5002)), std::string::npos) << r.out;
  r = JobAs("plain", "12345678", "run-atoken-gc");
  EXPECT_NE(r.out.find(ErrorLine("QManageATokenCache", 5002)), std::string::npos) << r.out;
}

}  // namespace
}  // namespace jobs_test
