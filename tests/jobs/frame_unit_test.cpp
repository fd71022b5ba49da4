// The job frame's pieces without an HSM: key flags, numbers, data input, the object listing's
// layout, and the start decision (help and -1, nothing run).

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "jobs/obj_info.h"

namespace {

// A parameter array built from switch/value pairs ("" for a switch without value).
class Params {
 public:
  Params(std::initializer_list<std::pair<const char *, const char *>> entries) {
    for (const auto &e : entries) {
      TEST_PARAMETER p{};
      snprintf(p.szParameter, sizeof p.szParameter, "%s", e.first);
      snprintf(p.szValue, sizeof p.szValue, "%s", e.second);
      params_.push_back(p);
    }
  }
  TEST_PARAMETER *data() { return params_.data(); }
  int size() const { return static_cast<int>(params_.size()); }

 private:
  std::vector<TEST_PARAMETER> params_;
};

TEST(JobFrame, KeyFlags) {
  struct Row {
    Params params;
    uint32_t flags;
  };
  std::vector<Row> rows;
  rows.push_back({Params{}, 0});
  rows.push_back({Params{{"-exp", "1"}}, 1});
  rows.push_back({Params{{"-exp", "0"}, {"-tmp", "1"}}, 4});
  rows.push_back({Params{{"-exp", "2"}}, 0});  // only the value 1 sets a flag
  rows.push_back({Params{{"-rsaexp3", "1"}, {"-nocrypt", "1"}}, 2048 | 2});
  rows.push_back({Params{{"-bchain", ""}}, 16384});  // present is enough
  rows.push_back({Params{{"-exp", "1"}, {"-tmp", "1"}, {"-bchain", "0"}}, 1 | 4 | 16384});
  for (auto &row : rows) {
    EXPECT_EQ(LoadGenericKeyFlagsParameters(row.params.data(), row.params.size()), row.flags);
  }
}

TEST(JobFrame, Numbers) {
  struct Row {
    const char *text;
    bool ok;
    uint32_t value;
  };
  const Row rows[] = {{"0", true, 0},
                      {"42", true, 42},
                      {"0x1F", true, 31},
                      {"0XfF", true, 255},
                      {"4294967295", true, 0xFFFFFFFF},
                      {"4294967296", false, 0},
                      {"010", true, 10},  // decimal, not octal
                      {"", false, 0},
                      {"0x", false, 0},
                      {"-1", false, 0},
                      {"12abc", false, 0},
                      {"+5", false, 0}};
  for (const Row &row : rows) {
    Params p{{"-n", row.text}};
    uint32_t value = 7;
    EXPECT_EQ(GetJobNumber(p.data(), p.size(), "-n", &value), row.ok) << row.text;
    if (row.ok) {
      EXPECT_EQ(value, row.value) << row.text;
    }
  }
  Params none{};
  uint32_t value = 0;
  EXPECT_FALSE(GetJobNumber(none.data(), none.size(), "-n", &value));
}

TEST(JobFrame, DataInput) {
  const std::string file = (std::filesystem::temp_directory_path() / "qljobs_frame_data").string();
  std::ofstream(file, std::ios::binary) << std::string("\x01\x02\x03", 3);
  const std::string empty = file + "_empty";
  std::ofstream(empty, std::ios::binary).flush();
  Bytes data;
  Params hex{{"-in", "0a0B"}};
  EXPECT_TRUE(ReadJobData(hex.data(), hex.size(), "-in", kHexData, &data));
  EXPECT_EQ(data, (Bytes{0x0A, 0x0B}));
  Params bad_hex{{"-in", "0a0"}};
  EXPECT_FALSE(ReadJobData(bad_hex.data(), bad_hex.size(), "-in", kHexData, &data));
  EXPECT_TRUE(data.empty());
  Params from_file{{"-in", file.c_str()}};
  EXPECT_TRUE(ReadJobData(from_file.data(), from_file.size(), "-in", kFile, &data));
  EXPECT_EQ(data, (Bytes{1, 2, 3}));
  Params empty_file{{"-in", empty.c_str()}};
  EXPECT_FALSE(ReadJobData(empty_file.data(), empty_file.size(), "-in", kFile, &data));
  Params missing{{"-in", "/nonexistent/qljobs"}};
  EXPECT_FALSE(ReadJobData(missing.data(), missing.size(), "-in", kFile, &data));
  Params absent{};
  EXPECT_FALSE(ReadJobData(absent.data(), absent.size(), "-in", kFile, &data));
  // -inform words.
  DataInform inform = kHexData;
  EXPECT_TRUE(LoadDataInform(absent.data(), absent.size(), "-inform", &inform));
  EXPECT_EQ(inform, kFile);
  Params hex_word{{"-inform", "hex"}};
  EXPECT_TRUE(LoadDataInform(hex_word.data(), hex_word.size(), "-inform", &inform));
  EXPECT_EQ(inform, kHexData);
  Params other{{"-inform", "HEX"}};
  EXPECT_FALSE(LoadDataInform(other.data(), other.size(), "-inform", &inform));
  std::filesystem::remove(file);
  std::filesystem::remove(empty);
}

TEST(JobFrame, HexText) {
  const unsigned char bytes[] = {0x00, 0x9F, 0xA0, 0xFF};
  EXPECT_EQ(ToHex(bytes, sizeof bytes), "009FA0FF");
  EXPECT_EQ(ToHex(bytes, 0), "");
}

TEST(ObjInfoLayout, HeadersAndWords) {
  EXPECT_EQ(ObjInfo::GetStringHeader(false, false), "Name");
  EXPECT_EQ(ObjInfo::GetStringHeader(true, false), "name");
  EXPECT_EQ(ObjInfo::GetStringHeader(true, true), "name,type,algorithm,flags,owner");
  EXPECT_EQ(ObjInfo::GetStringHeader(false, true),
            "Name                                     Type     Algorithm        Flags      Owner");
  // Without attributes (or before they are read) only the name; CSV quotes what needs it.
  EXPECT_EQ(ObjInfo("plain").GetString(false, false), "plain");
  EXPECT_EQ(ObjInfo("a,b").GetString(true, false), "\"a,b\"");
  EXPECT_EQ(ObjInfo("say \"hi\"").GetString(true, false), "\"say \"\"hi\"\"\"");
  EXPECT_EQ(ObjInfo("k").GetString(true, true), "k,?,?,?,?");
  // Types and algorithm words.
  EXPECT_EQ(ObjInfo::TypeWord(QL_OBJ_FILE), "file");
  EXPECT_EQ(ObjInfo::TypeWord(QL_OBJ_MAP), "map");
  EXPECT_EQ(ObjInfo::TypeWord(QL_ALG_RSA2048), "key");
  EXPECT_EQ(ObjInfo::AlgorithmWord(QL_ALG_RSA2048), "rsa2048");
  EXPECT_EQ(ObjInfo::AlgorithmWord(QL_ALG_DES), "des");  // not the hash md5 that shares 1
  EXPECT_EQ(ObjInfo::AlgorithmWord(QL_ALG_ECC_SECP256R1), "ecc_secp256r1");
  EXPECT_EQ(ObjInfo::AlgorithmWord(QL_ALG_ED25519), "ed25519");
  EXPECT_EQ(ObjInfo::AlgorithmWord(QL_ALG_HMAC_KEY), "170");  // no word in the table
  EXPECT_EQ(ObjInfo::AlgorithmWord(QL_OBJ_X509), "-");
}

int g_routine_runs = 0;
void CountingHelp() {
  ScreenOutput("help\r\n");
}
unsigned int CountingRoutine(void *) {
  ++g_routine_runs;
  return 1;
}

TEST(JobFrame, StartRefusesWithoutRunning) {
  struct Record {
    THREAD_INFO ti;
  };
  Record job{};
  // No connection loaded: help and -1.
  testing::internal::CaptureStdout();
  EXPECT_EQ(StartJob(&CountingRoutine, &job.ti, sizeof job, false, true, &CountingHelp), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "help\r\n");
  // A connection but bad options: the same.
  Params conn{{"-a", "127.0.0.1"}, {"-u", "master"}, {"-w", "24681357"}};
  LoadGenericJobParameters(&job.ti, conn.data(), conn.size(), false);
  testing::internal::CaptureStdout();
  EXPECT_EQ(StartJob(&CountingRoutine, &job.ti, sizeof job, false, false, &CountingHelp), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "help\r\n");
  EXPECT_EQ(g_routine_runs, 0);
  // Both good: the routine runs once and the runner's answer comes back.
  job.ti.Metric = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(StartJob(&CountingRoutine, &job.ti, sizeof job, false, true, &CountingHelp), 100000);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(g_routine_runs, 1);
}

TEST(JobFrame, PublishJobError) {
  QL_EVENT_HANDLE event{};
  ASSERT_EQ(InitEvent(&event), 0);
  THREAD_INFO ti{};
  ti.phErrorEvent = &event;
  PublishJobError(&ti, 0);
  EXPECT_EQ(ti.Error, 0);
  EXPECT_FALSE(IsErrorEventSignaled(&event));
  PublishJobError(&ti, 5004);
  EXPECT_EQ(ti.Error, 5004);
  EXPECT_TRUE(IsErrorEventSignaled(&event));
  CloseEventHandle(&event);
}

}  // namespace
