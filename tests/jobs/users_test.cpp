// User and rights jobs against a real HSM: a user made, blocked, refused, unblocked, given
// rights, its password changed, and removed.

#include <string>
#include <vector>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

class UserJobs : public JobTest {};

TEST_F(UserJobs, Lifecycle) {
  EXPECT_NE(MustRun("create-user", {"-un", "alice", "-pwd", "12345678", "-acl", "0x6"})
                .find("User alice created (access mask 0x00000006).\r\n"),
            std::string::npos);
  EXPECT_EQ(JobAs("alice", "12345678", "gen-rand", {"-len", "4"}).exitCode, 0);

  // Blocked: her logins are refused.
  EXPECT_NE(MustRun("block-user", {"-un", "alice"}).find("User alice blocked.\r\n"),
            std::string::npos);
  RunResult r = JobAs("alice", "12345678", "gen-rand", {"-len", "4"});
  EXPECT_EQ(r.exitCode, ExitOf(5003));
  EXPECT_NE(r.out.find(ErrorLine("ConnectEx", 5003)), std::string::npos) << r.out;
  EXPECT_NE(MustRun("unblock-user", {"-un", "alice"}).find("User alice unblocked.\r\n"),
            std::string::npos);
  EXPECT_EQ(JobAs("alice", "12345678", "gen-rand", {"-len", "4"}).exitCode, 0);

  // Listing users needs a right she gets now.
  r = JobAs("alice", "12345678", "list-users");
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("ListUsers", 5002)), std::string::npos) << r.out;
  EXPECT_NE(MustRun("set-user-sys-perm", {"-un", "alice", "-usr_list", "1"})
                .find("Access mask of alice: 0x00000006 -> 0x00000046\r\n"),
            std::string::npos);
  r = JobAs("alice", "12345678", "list-users");
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("alice\r\n"), std::string::npos);
  EXPECT_NE(r.out.find("master\r\n"), std::string::npos);

  // Object rights: create taken away, then given back.
  EXPECT_NE(MustRun("set-user-part-perm", {"-un", "alice", "-obj_create", "0", "-obj_del", "1"})
                .find("Access mask of alice: 0x00000046 -> 0x00000043\r\n"),
            std::string::npos);
  r = JobAs("alice", "12345678", "write-file", {"-kn", "f", "-inform", "hex", "-in", "01"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QWriteFileBuffer", 5002)), std::string::npos) << r.out;
  MustRun("set-user-part-perm", {"-un", "alice", "-obj_create", "1"});
  EXPECT_EQ(JobAs("alice", "12345678", "write-file", {"-kn", "f", "-inform", "hex", "-in", "01"})
                .exitCode,
            0);

  // She changes her own password; the old one is refused.
  r = JobAs("alice", "12345678", "set-pwd", {"-newpwd", "87654321"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Password changed.\r\n"), std::string::npos);
  EXPECT_NE(JobAs("alice", "12345678", "gen-rand", {"-len", "4"}).exitCode, 0);
  EXPECT_EQ(JobAs("alice", "87654321", "gen-rand", {"-len", "4"}).exitCode, 0);
  // An operator sets it for her.
  EXPECT_NE(MustRun("set-pwd", {"-un", "alice", "-newpwd", "11112222"})
                .find("Password of alice changed.\r\n"),
            std::string::npos);
  EXPECT_EQ(JobAs("alice", "11112222", "gen-rand", {"-len", "4"}).exitCode, 0);

  // Removed, with her objects; she cannot log in, and a second removal finds nobody.
  EXPECT_NE(MustRun("remove-user", {"-un", "alice"}).find("User alice removed.\r\n"),
            std::string::npos);
  EXPECT_NE(JobAs("alice", "11112222", "gen-rand", {"-len", "4"}).exitCode, 0);
  r = Job("remove-user", {"-un", "alice"});
  EXPECT_EQ(r.exitCode, ExitOf(5020));
  EXPECT_NE(r.out.find(ErrorLine("QRemoveUser", 5020)), std::string::npos) << r.out;
}

TEST_F(UserJobs, Refusals) {
  MustRun("create-user", {"-un", "bob", "-pwd", "12345678"});
  RunResult r = Job("create-user", {"-un", "bob", "-pwd", "12345678"});
  EXPECT_EQ(r.exitCode, ExitOf(5013));
  EXPECT_NE(r.out.find(ErrorLine("QCreateUser", 5013)), std::string::npos) << r.out;
  r = Job("create-user", {"-un", "a_name_of_twenty_chr", "-pwd", "12345678"});
  EXPECT_EQ(r.exitCode, ExitOf(5011));
  EXPECT_NE(r.out.find(ErrorLine("QCreateUser", 5011)), std::string::npos) << r.out;
  // bob has no rights: he may not create, block or change others.
  r = JobAs("bob", "12345678", "create-user", {"-un", "carol", "-pwd", "12345678"});
  EXPECT_NE(r.out.find(ErrorLine("QCreateUser", 5002)), std::string::npos) << r.out;
  r = JobAs("bob", "12345678", "block-user", {"-un", "master"});
  EXPECT_NE(r.out.find(ErrorLine("BlockUser", 5002)), std::string::npos) << r.out;
  r = JobAs("bob", "12345678", "set-user-sys-perm", {"-un", "bob", "-operator", "1"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.out.find("Err = 5002\r\n"), std::string::npos) << r.out;
  r = Job("set-user-sys-perm", {"-un", "nobody", "-usr_list", "1"});
  EXPECT_NE(r.out.find(ErrorLine("GetUserAcl", 5020)), std::string::npos) << r.out;
  r = Job("block-user", {"-un", "nobody"});
  EXPECT_NE(r.out.find(ErrorLine("BlockUser", 5020)), std::string::npos) << r.out;
}

TEST_F(UserJobs, MisspeltSwitchRemovesNobody) {
  MustRun("create-user", {"-un", "dave", "-pwd", "12345678"});
  // remove-user has no -dryrun: it refuses with its help page instead of removing.
  RunResult r = Job("remove-user", {"-un", "dave", "-dryrun"});
  EXPECT_EQ(r.exitCode, ExitOf(-1));
  EXPECT_NE(r.out.find("DESCRIPTION"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("removed"), std::string::npos) << r.out;
  EXPECT_NE(MustRun("list-users").find("dave\r\n"), std::string::npos);
  // A refused --port sends nothing anywhere: the user is still there.
  r = RunCommand(std::string(QLUTIL_BIN) + " -j remove-user -a 127.0.0.1 --port -5 -u master -w " +
                 kMasterPassword + " -un dave");
  EXPECT_EQ(r.exitCode, ExitOf(-1)) << r.out;
  EXPECT_NE(MustRun("list-users").find("dave\r\n"), std::string::npos);
  MustRun("remove-user", {"-un", "dave"});
}

TEST_F(UserJobs, OperatorSwitchGivesOperatorOnly) {
  EXPECT_NE(MustRun("create-user", {"-un", "op", "-pwd", "12345678", "-operator", "-usr_list"})
                .find("(access mask 0x00000080)"),
            std::string::npos);
}

TEST_F(UserJobs, ALoginCertificateLocksOutPasswordOnlyLoginsUntilRemoved) {
  MustRun("create-user", {"-un", "carol", "-pwd", "12345678", "-acl", "0x6"});
  qltest::IssueTestCertificate({"carol"}, Path("carol.pem"), Path("carol.key"));
  WriteText(Path("junk.pem"), "not a certificate");
  RunResult r = JobAs("carol", "12345678", "assign-x509", {"-in", Path("junk.pem")});
  EXPECT_EQ(r.exitCode, ExitOf(5080));
  EXPECT_NE(r.out.find(ErrorLine("QSetUserParam", 5080)), std::string::npos) << r.out;
  r = JobAs("carol", "12345678", "assign-x509", {"-in", Path("carol.pem")});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Certificate assigned.\r\n"), std::string::npos) << r.out;
  // qlutil logs in with the password alone, which she can no longer do.
  r = JobAs("carol", "12345678", "gen-rand", {"-len", "4"});
  EXPECT_EQ(r.exitCode, ExitOf(5001));
  EXPECT_NE(r.out.find(ErrorLine("ConnectEx", 5001)), std::string::npos) << r.out;
  // Another user's certificate is an operator's to remove; removing twice is no error.
  r = JobAs("carol", "12345678", "unassign-x509");
  EXPECT_EQ(r.exitCode, ExitOf(5001));
  MustRun("create-user", {"-un", "dan", "-pwd", "12345678", "-acl", "0x6"});
  r = JobAs("dan", "12345678", "unassign-x509", {"-un", "carol"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(MustRun("unassign-x509", {"-un", "carol"}).find("Certificate removed.\r\n"),
            std::string::npos);
  EXPECT_EQ(JobAs("carol", "12345678", "unassign-x509").exitCode, 0);
  EXPECT_EQ(JobAs("carol", "12345678", "gen-rand", {"-len", "4"}).exitCode, 0);
  // Missing or empty options print the help and reach no HSM.
  for (std::vector<std::string> args : {std::vector<std::string>{"assign-x509"},
                                        {"assign-x509", "-in", Path("none.pem")},
                                        {"unassign-x509", "-un", ""}}) {
    const std::string job = args[0];
    args.erase(args.begin());
    r = Job(job, args);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("DESCRIPTION"), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace jobs_test
