// Object jobs against a real HSM: remove, list-obj, obj-info, block-obj, unblock-obj,
// rename-obj and the metadata jobs.

#include <string>

#include "jobs_test_util.h"

namespace jobs_test {
namespace {

class ObjectJobs : public JobTest {
 protected:
  void WriteFile(const std::string &name, const std::string &hex = "0A0B0C") {
    MustRun("write-file", {"-kn", name, "-inform", "hex", "-in", hex});
  }
  std::string List() { return MustRun("list-obj"); }
};

TEST_F(ObjectJobs, RemoveDryRunByFilterRemovesNothing) {
  WriteFile("a_tmp1");
  WriteFile("a_tmp2");
  WriteFile("keep");
  const RunResult r = Job("remove", {"-ft", "tmp", "-dryrun"});
  EXPECT_EQ(r.exitCode, 0);
  // Listing order is the HSM's; both matches are announced, then the totals.
  EXPECT_NE(r.out.find("Would remove obj a_tmp1\r\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Would remove obj a_tmp2\r\n"), std::string::npos);
  EXPECT_EQ(r.out.find("Would remove obj keep"), std::string::npos);
  EXPECT_NE(r.out.find("\r\n\r\nTotal objects    : 3\r\nRemovable objects: 2\r\n"
                       "Failed           : 0\r\n"),
            std::string::npos)
      << r.out;
  const std::string list = List();
  EXPECT_NE(list.find("a_tmp1\n"), std::string::npos);
  EXPECT_NE(list.find("a_tmp2\n"), std::string::npos);
}

TEST_F(ObjectJobs, RemoveByFilterRemovesTheMatches) {
  WriteFile("a_tmp1");
  WriteFile("b_TMP2");  // the filter is case-sensitive
  WriteFile("c_tmp3");
  const RunResult r = Job("remove", {"-ft", "tmp"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Total objects    : 3\r\nDeleted objects  : 2\r\nFailed           : 0\r\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("Would remove"), std::string::npos);
  EXPECT_EQ(List().find("tmp"), std::string::npos);
  EXPECT_NE(List().find("b_TMP2\n"), std::string::npos);
}

TEST_F(ObjectJobs, RemoveByFilterMatchingNothing) {
  WriteFile("one");
  WriteFile("two");
  const RunResult r = Job("remove", {"-ft", "zzz"});
  EXPECT_EQ(r.exitCode, 0);
  // No blank line: nothing matched.
  EXPECT_NE(r.out.find("Total objects    : 2\r\nDeleted objects  : 0\r\nFailed           : 0\r\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("\r\n\r\nTotal"), std::string::npos);
}

TEST_F(ObjectJobs, RemoveByName) {
  WriteFile("victim");
  WriteFile("other");
  // A dry run by name names it and removes nothing.
  RunResult r = Job("remove", {"-name", "victim", "-dryrun"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("Would remove obj victim\r\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("Total objects"), std::string::npos) << "no totals by name";
  EXPECT_NE(List().find("victim\n"), std::string::npos);
  // A real removal.
  r = Job("remove", {"-name", "victim"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(List().find("victim"), std::string::npos);
  EXPECT_NE(List().find("other\n"), std::string::npos);
}

TEST_F(ObjectJobs, RemoveMissingNameDryRunSucceedsSilently) {
  const RunResult r = Job("remove", {"-name", "nosuch", "-dryrun"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out.find("Would remove"), std::string::npos);
  EXPECT_EQ(r.out.find("Error in"), std::string::npos);
}

TEST_F(ObjectJobs, RemoveMissingNameFailsWithTheLibraryCode) {
  const RunResult r = Job("remove", {"-name", "nosuch"});
  EXPECT_EQ(r.exitCode, ExitOf(5004));
  EXPECT_NE(r.out.find(ErrorLine("QRemoveObj", 5004)), std::string::npos) << r.out;
}

TEST_F(ObjectJobs, RemoveUsers) {
  MustRun("create-user", {"-un", "tmp_u1", "-pwd", "12345678"});
  MustRun("create-user", {"-un", "tmp_u2", "-pwd", "12345678"});
  RunResult r = Job("remove", {"-ru", "1", "-ft", "tmp_", "-dryrun"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("Would remove user tmp_u1\r\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Total users    : 3\r\nRemovable users: 2\r\n"), std::string::npos) << r.out;
  // By name: a missing user is success in a dry run, a failure otherwise.
  r = Job("remove", {"-ru", "1", "-name", "nobody", "-dryrun"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out.find("Would remove"), std::string::npos);
  r = Job("remove", {"-ru", "1", "-name", "nobody"});
  EXPECT_EQ(r.exitCode, ExitOf(5020));
  EXPECT_NE(r.out.find(ErrorLine("QRemoveUser", 5020)), std::string::npos) << r.out;
  r = Job("remove", {"-ru", "1", "-name", "tmp_u1", "-dryrun"});
  EXPECT_NE(r.out.find("Would remove user tmp_u1\r\n"), std::string::npos) << r.out;
  r = Job("remove", {"-ru", "1", "-ft", "tmp_"});
  EXPECT_NE(r.out.find("Total users    : 3\r\nDeleted users  : 2\r\nFailed           : 0\r\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(MustRun("list-users").find("tmp_"), std::string::npos);
}

TEST_F(ObjectJobs, RemoveCountsRefusedRemovals) {
  // A user that may read but not remove: each filtered removal fails and is counted.
  MustRun("create-user", {"-un", "reader", "-pwd", "12345678", "-acl", "0x6"});
  ASSERT_EQ(JobAs("reader", "12345678", "write-file", {"-kn", "r_1", "-inform", "hex", "-in", "01"})
                .exitCode,
            0);
  RunResult r = JobAs("reader", "12345678", "remove", {"-ft", "r_"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("Total objects    : 1\r\nDeleted objects  : 0\r\nFailed           : 1\r\n"),
            std::string::npos)
      << r.out;
  r = JobAs("reader", "12345678", "remove", {"-name", "r_1"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("QRemoveObj", 5002)), std::string::npos) << r.out;
}

TEST_F(ObjectJobs, ListObjLayouts) {
  WriteFile("f1");
  MustRun("gen-key", {"-k", "aes256", "-kn", "k1", "-exp", "1"});
  // Names only, to the console.
  std::string out = List();
  EXPECT_EQ(out.rfind("Name\n", 0), 0u) << out;
  EXPECT_NE(out.find("\nf1\n"), std::string::npos);
  EXPECT_NE(out.find("\nk1\n"), std::string::npos);
  // With attributes, CSV to a file.
  const std::string csv = Path("objs.csv");
  MustRun("list-obj", {"--attr", "--out", csv, "--outform", "csv"});
  const std::string text = ReadText(csv);
  EXPECT_EQ(text.rfind("name,type,algorithm,flags,owner\n", 0), 0u) << text;
  EXPECT_NE(text.find("\nf1,file,-,0x00000000,master\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nk1,key,aes256,0x00000001,master\n"), std::string::npos) << text;
  // Original layout with attributes.
  out = MustRun("list-obj", {"--attr"});
  EXPECT_NE(out.find("Name                                     Type     Algorithm        Flags"
                     "      Owner\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("k1                                       key      aes256           "
                     "0x00000001 master\n"),
            std::string::npos)
      << out;
}

TEST_F(ObjectJobs, ListObjUnwritableFileWritesNothing) {
  WriteFile("f1");
  const RunResult r = Job("list-obj", {"--out", Path("no/such/dir/objs.txt")});
  EXPECT_NE(r.out.find("Error opening file " + Path("no/such/dir/objs.txt") + "\r\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("f1"), std::string::npos);
}

TEST_F(ObjectJobs, ObjInfo) {
  WriteFile("f1", "00112233");
  RunResult r = Job("obj-info", {"-kn", "f1"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("Name : f1\r\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Owner : master\r\n"), std::string::npos);
  EXPECT_NE(r.out.find("Type : file\r\n"), std::string::npos);
  EXPECT_NE(r.out.find("Blocked : no\r\n"), std::string::npos);
  r = Job("obj-info", {"-kn", "nosuch"});
  EXPECT_EQ(r.exitCode, ExitOf(5004));
  EXPECT_NE(r.out.find(ErrorLine("QGetObjInfo", 5004)), std::string::npos) << r.out;
}

TEST_F(ObjectJobs, BlockAndUnblock) {
  MustRun("gen-key", {"-k", "rsa1024", "-kn", "signer"});
  EXPECT_NE(MustRun("block-obj", {"-kn", "signer"}).find("Object signer blocked.\r\n"),
            std::string::npos);
  EXPECT_NE(MustRun("obj-info", {"-kn", "signer"}).find("Blocked : yes\r\n"), std::string::npos);
  RunResult r = Job("sign-hash", {"-kn", "signer", "-h", "sha256", "-inform", "hex", "-in", "00"});
  EXPECT_EQ(r.exitCode, ExitOf(5005)) << r.out;
  EXPECT_NE(r.out.find("Err = 5005\r\n"), std::string::npos) << r.out;
  EXPECT_NE(MustRun("unblock-obj", {"-kn", "signer"}).find("Object signer unblocked.\r\n"),
            std::string::npos);
  MustRun("sign-hash", {"-kn", "signer", "-h", "sha256", "-inform", "hex", "-in", "00"});
  // Blocking needs the update right.
  MustRun("create-user", {"-un", "nobody", "-pwd", "12345678", "-acl", "0x7"});
  r = JobAs("nobody", "12345678", "block-obj", {"-kn", "master/signer"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("SetKeyBlockStatus", 5002)), std::string::npos) << r.out;
  r = Job("block-obj", {"-kn", "nosuch"});
  EXPECT_NE(r.out.find(ErrorLine("SetKeyBlockStatus", 5004)), std::string::npos) << r.out;
}

TEST_F(ObjectJobs, RenameObj) {
  WriteFile("old", "CAFE");
  EXPECT_NE(
      MustRun("rename-obj", {"-kn", "old", "-newkn", "new"}).find("Object old renamed to new.\r\n"),
      std::string::npos);
  EXPECT_NE(MustRun("read-file", {"-kn", "new"}).find("CAFE\r\n"), std::string::npos);
  RunResult r = Job("rename-obj", {"-kn", "old", "-newkn", "x"});
  EXPECT_EQ(r.exitCode, ExitOf(5004));
  EXPECT_NE(r.out.find(ErrorLine("QRenameObj", 5004)), std::string::npos) << r.out;
  WriteFile("taken");
  r = Job("rename-obj", {"-kn", "new", "-newkn", "taken"});
  EXPECT_EQ(r.exitCode, ExitOf(5022));
  EXPECT_NE(r.out.find(ErrorLine("QRenameObj", 5022)), std::string::npos) << r.out;
}

TEST_F(ObjectJobs, MetadataJson) {
  WriteFile("m1");
  const std::string json = "{\"label\":\"first\"}";
  // Never written: the empty object.
  EXPECT_EQ(MustRun("get-obj-meta", {"-kn", "m1"}).rfind("{}\r\n", 0), 0u);
  EXPECT_NE(MustRun("set-metadata-json", {"-kn", "m1", "-inform", "text", "-json", json})
                .find("Metadata of m1 written.\r\n"),
            std::string::npos);
  EXPECT_EQ(MustRun("get-obj-meta", {"-kn", "m1"}).rfind(json + "\r\n", 0), 0u);
  MustRun("get-metadata-json", {"-kn", "m1", "--out", Path("m1.json")});
  EXPECT_EQ(ReadText(Path("m1.json")), json);
  // From a file, kept byte for byte (its layout too).
  const std::string pretty = "{\n  \"label\": \"second\",\n  \"tags\": [\"a\", \"b\"]\n}\n";
  WriteText(Path("in.json"), pretty);
  MustRun("set-metadata-json", {"-kn", "m1", "-json", Path("in.json")});
  MustRun("get-metadata-json", {"-kn", "m1", "--out", Path("m1b.json")});
  EXPECT_EQ(ReadText(Path("m1b.json")), pretty);

  RunResult r = Job("set-metadata-json", {"-kn", "m1", "-inform", "text", "-json", "[1,2]"});
  EXPECT_EQ(r.exitCode, ExitOf(5027));
  EXPECT_NE(r.out.find(ErrorLine("SetObjMetadataJson", 5027)), std::string::npos) << r.out;
  r = Job("get-metadata-json", {"-kn", "nosuch"});
  EXPECT_EQ(r.exitCode, ExitOf(5004));
  EXPECT_NE(r.out.find(ErrorLine("GetObjMetadataJson", 5004)), std::string::npos) << r.out;
  // Reading is a use of the object, writing an update.
  MustRun("create-user", {"-un", "reader", "-pwd", "12345678", "-acl", "0x2"});
  EXPECT_EQ(JobAs("reader", "12345678", "get-metadata-json", {"-kn", "master/m1"}).exitCode, 0);
  r = JobAs("reader", "12345678", "set-metadata-json",
            {"-kn", "master/m1", "-inform", "text", "-json", "{}"});
  EXPECT_EQ(r.exitCode, ExitOf(5002));
  EXPECT_NE(r.out.find(ErrorLine("SetObjMetadataJson", 5002)), std::string::npos) << r.out;
}

}  // namespace
}  // namespace jobs_test
