// HSM jobs against a real HSM: info, probe, backup (read back by a restore), set-date-time,
// read-file and write-file.

#include <ctime>
#include <string>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

class AdminJobs : public JobTest {};

std::string FirstLineOf(const std::string &out) {
  return out.substr(0, out.find("\r\n"));
}

TEST_F(AdminJobs, InfoShowsTheSectionTables) {
  const std::string out = MustRun("info");
  EXPECT_NE(out.find("HSM\r\n\r\n"), std::string::npos) << out;
  EXPECT_NE(out.find(" Model : "), std::string::npos);
  EXPECT_NE(out.find(" Library : "), std::string::npos);
  EXPECT_NE(out.find(" User : master\r\n"), std::string::npos) << out;
  EXPECT_NE(out.find(" Access mask : 0x00000FFF\r\n"), std::string::npos) << out;
  EXPECT_NE(out.find(" Users : 1\r\n"), std::string::npos) << out;
  // A user without the log right still gets the information; the figures say why they are
  // missing.
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  const RunResult r = JobAs("plain", "12345678", "info");
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find(" Log size : "), std::string::npos);
  EXPECT_NE(r.out.find("(5002)\r\n"), std::string::npos) << r.out;
}

TEST_F(AdminJobs, ProbeNeedsNoLogin) {
  const RunResult r = Qlutil({"-a", "127.0.0.1", "--port", std::to_string(port()), "-j", "probe"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out.find("HSM state: 1 (up)\r\n"), 0u) << r.out;
  const RunResult op = Qlutil(
      {"-a", "127.0.0.1", "--port", std::to_string(port()), "-j", "probe", "-op", "rnm_probe"});
  EXPECT_EQ(op.exitCode, 0) << op.out;
  EXPECT_EQ(op.out.find("HSM state: 1 (up)\r\n"), 0u) << op.out;
  const RunResult refused = Qlutil({"-a", "127.0.0.1", "--port", "1", "-j", "probe"});
  EXPECT_NE(refused.exitCode, 0);
  EXPECT_NE(refused.out.find("Error in ConnectEx. Err = "), std::string::npos) << refused.out;
}

TEST_F(AdminJobs, BackupIsReadBackByARestore) {
  MustRun("write-file", {"-kn", "kept", "-inform", "hex", "-in", "0102"});
  const std::string file = Path("hsm.bkp");
  EXPECT_NE(MustRun("backup", {"-file", file, "-pin", "1234567890"})
                .find("Backup written to " + file + ".\r\n"),
            std::string::npos);
  const std::string restored = Path("restored");
  EXPECT_EQ(qltest::RunQlhsmd(
                {"restore", "--data-dir", restored, "--backup", file, "--pin", "1234567890"},
                Path("restore.log")),
            0)
      << ReadText(Path("restore.log"));
  EXPECT_NE(qltest::RunQlhsmd(
                {"restore", "--data-dir", Path("again"), "--backup", file, "--pin", "wrong-pin-0"},
                Path("restore2.log")),
            0);
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  const RunResult r =
      JobAs("plain", "12345678", "backup", {"-file", Path("x.bkp"), "-pin", "1234567890"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QBackupData", 5002)), std::string::npos) << r.out;
}

TEST_F(AdminJobs, SetDateTime) {
  MustRun("create-user", {"-un", "plain", "-pwd", "12345678"});
  RunResult r = JobAs("plain", "12345678", "set-date-time", {"-dt", "2030-01-02 03:04:05"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QAdmOperation", 5002)), std::string::npos) << r.out;
  // The HSM's time moves, and what it stamps from then on says so.
  EXPECT_NE(
      MustRun("set-date-time", {"-dt", "2030-01-02 03:04:05"}).find("HSM date and time set.\r\n"),
      std::string::npos);
  MustRun("write-file", {"-kn", "stamped", "-inform", "hex", "-in", "0102"});
  std::string info = MustRun("obj-info", {"-kn", "stamped"});
  EXPECT_NE(info.find("Created : 2030-01-02 03:0"), std::string::npos) << info;
  // Seconds since 1970 are read too.
  MustRun("set-date-time", {"-dt", "2524608000"});  // 2050-01-01 00:00:00
  MustRun("write-file", {"-kn", "later", "-inform", "hex", "-in", "03"});
  info = MustRun("obj-info", {"-kn", "later"});
  EXPECT_NE(info.find("Created : 2050-01-01 00:0"), std::string::npos) << info;
  // Back to this machine's clock.
  MustRun("set-date-time", {"-dt", "now"});
  MustRun("write-file", {"-kn", "now", "-inform", "hex", "-in", "04"});
  info = MustRun("obj-info", {"-kn", "now"});
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char today[32];
  std::strftime(today, sizeof today, "Created : %Y-%m-%d", &utc);
  EXPECT_NE(info.find(today), std::string::npos) << info;
}

// This HSM trusts no package signer: any package is refused with nothing applied.
TEST_F(AdminJobs, PushUpackRefusesWhatNoTrustedKeySigned) {
  WriteText(Path("p.der"), "not a package");
  const RunResult r = Job("push-upack", {"-in", Path("p.der")});
  EXPECT_EQ(r.exitCode, ExitOf(5034));
  EXPECT_NE(r.out.find(ErrorLine("QUPackPush", 5034)), std::string::npos) << r.out;
  const RunResult help = Job("push-upack", {"-in", Path("missing.der")});
  EXPECT_EQ(help.exitCode, 255);
  EXPECT_NE(help.out.find("DESCRIPTION"), std::string::npos) << help.out;
}

TEST_F(AdminJobs, WriteAndReadFiles) {
  const std::string data(70000, 'q');  // more than one chunk
  WriteText(Path("in.bin"), data);
  EXPECT_NE(MustRun("write-file", {"-kn", "big", "-in", Path("in.bin")})
                .find("File big written (70000 bytes).\r\n"),
            std::string::npos);
  MustRun("read-file", {"-kn", "big", "--out", Path("out.bin")});
  EXPECT_EQ(ReadText(Path("out.bin")), data);
  RunResult r = Job("write-file", {"-kn", "big", "-inform", "hex", "-in", "01"});
  EXPECT_EQ(r.exitCode, ExitOf(5022));
  EXPECT_NE(r.out.find(ErrorLine("QWriteFileBuffer", 5022)), std::string::npos) << r.out;
  MustRun("write-file", {"-kn", "big", "-inform", "hex", "-in", "01FF", "-replace"});
  EXPECT_EQ(FirstLineOf(MustRun("read-file", {"-kn", "big"})), "01FF");
  r = Job("read-file", {"-kn", "nosuch"});
  EXPECT_EQ(r.exitCode, ExitOf(5004));
  EXPECT_NE(r.out.find(ErrorLine("QReadFile", 5004)), std::string::npos) << r.out;
}

}  // namespace
}  // namespace jobs_test
