// The opt-in results of -p against a real qlhsmd: the percentiles line, the JSON document checked
// against its schema by an independent validator, progress on standard error, runs of fixed
// duration, and the regression gate of --compare.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct RunResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};

class ResultsE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("ql_results_e2e_" + std::to_string(getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // qlutil in the test's folder as master; standard error kept apart.
  RunResult Run(const std::string &args) {
    const qltest::CommandResult c = qltest::RunCommand(qltest::QlutilAsMaster(
        QLUTIL_BIN, dir_.string(), qltest::HsmEnvironment::hsm(), args + " 2>stderr.txt"));
    RunResult r;
    r.out = c.out;
    r.exit_code = c.exit_code;
    r.err = Read("stderr.txt");
    return r;
  }
  std::string Read(const std::string &name) {
    std::ifstream in(dir_ / name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  json ReadJson(const std::string &name) { return json::parse(Read(name), nullptr, false); }
  void WriteJson(const std::string &name, const json &document) {
    std::ofstream(dir_ / name) << document.dump();
  }
  // Python's jsonschema (an implementation of its own) on the document; its exit code.
  int Validate(const std::string &name) {
    const std::string cmd =
        "python3 -c 'import json,sys,jsonschema; "
        "jsonschema.validate(json.load(open(sys.argv[2])), "
        "json.load(open(sys.argv[1])))' '" SCHEMA_FILE "' '" +
        (dir_ / name).string() + "' 2>&1";
    const int status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  fs::path dir_;
};

const std::regex kFooterThenLatency(
    R"(Total time: \d+\.\d\d ms \(\d+\.\d\d seg\) \[\d+\.\d\d op/sec\]\n\r)"
    R"(Latency \(us\): p50 (\d+\.\d), p90 (\d+\.\d), p99 (\d+\.\d), p99\.9 (\d+\.\d), )"
    R"(max (\d+\.\d)\r\n)");

TEST_F(ResultsE2E, LatencyJsonAndProgressTogether) {
  const RunResult r =
      Run("-p sign-hash -t 2 -i 400 -h sha256 -k ecc_secp256r1 --latency "
          "--json r.json --progress --warmup 0.2");
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_match(r.out, m, kFooterThenLatency)) << r.out;
  // Percentiles never decrease, and max bounds them.
  for (int i = 1; i < 5; ++i) EXPECT_LE(std::stod(m[i]), std::stod(m[i + 1])) << r.out;

  ASSERT_EQ(Validate("r.json"), 0) << Read("r.json");
  const json d = ReadJson("r.json");
  EXPECT_EQ(d["test"], "sign-hash");
  EXPECT_EQ(d["operations"], 800) << "two threads, 400 passes each, warm-up not counted";
  EXPECT_EQ(d["latency_us"]["count"], 800);
  EXPECT_EQ(d["result"], 0);
  EXPECT_NE(d["command"].get<std::string>().find("-w ****"), std::string::npos);
  EXPECT_EQ(d["command"].get<std::string>().find(qltest::HsmEnvironment::hsm().master_password()),
            std::string::npos);
  EXPECT_FALSE(d["versions"]["hsm"].empty());
  // The footer's rate and the document's agree.
  const std::regex rate_in_footer(R"(\[(\d+\.\d\d) op/sec\])");
  ASSERT_TRUE(std::regex_search(r.out, m, rate_in_footer));
  EXPECT_NEAR(d["rate"].get<double>(), std::stod(m[1]), 0.01);
  // A sample and a progress line for each whole second (the last one may end with the run).
  const auto whole_seconds = static_cast<size_t>(d["elapsed_ms"].get<double>() / 1000.0);
  EXPECT_LE(d["per_second"].size(), whole_seconds);
  EXPECT_GE(d["per_second"].size() + 1, whole_seconds);
  size_t lines = 0;
  for (size_t at = 0; (at = r.err.find("qlutil: ", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, d["per_second"].size()) << r.err;
}

TEST_F(ResultsE2E, FixedDurationStopsOnItsOwnAndCountsWhatWasDone) {
  const RunResult r = Run("-p nop -t 2 --duration 1.5 --json d.json --progress");
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  const json d = ReadJson("d.json");
  ASSERT_EQ(Validate("d.json"), 0) << Read("d.json");
  EXPECT_EQ(d["iterations"], -1);
  EXPECT_GT(d["operations"].get<uint64_t>(), 0u);
  EXPECT_GE(d["elapsed_ms"].get<double>(), 1500.0);
  EXPECT_GE(d["per_second"].size(), 1u);
  EXPECT_NE(r.err.find("qlutil: "), std::string::npos) << "one progress line after a second";
  // The footer's rate is over what was done.
  const double expected = d["operations"].get<double>() / (d["elapsed_ms"].get<double>() / 1000);
  EXPECT_NEAR(d["rate"].get<double>(), expected, expected * 1e-6);
  // The plot script draws it.
  const std::string plot = "'" PLOT_SCRIPT "' '" + (dir_ / "d.json").string() + "' -o '" +
                           (dir_ / "d.png").string() + "' >/dev/null";
  ASSERT_EQ(std::system(plot.c_str()), 0);
  EXPECT_EQ(Read("d.png").substr(0, 4), "\x89PNG");
}

TEST_F(ResultsE2E, CompareGatesOnTheRate) {
  // Baselines far from any rate this machine can reach, so the outcome never rests on its noise.
  ASSERT_EQ(Run("-p nop -t 1 -i 300 --json base.json").exit_code, 0);
  json stored = ReadJson("base.json");
  const double rate = stored["rate"].get<double>();
  stored["rate"] = rate / 1000;
  WriteJson("slower.json", stored);
  RunResult r = Run("-p nop -t 1 -i 300 --compare slower.json --threshold 20");
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  // Against a run a thousand times as fast: a regression, named on standard error, exit 75.
  stored["rate"] = rate * 1000;
  WriteJson("faster.json", stored);
  r = Run("-p nop -t 1 -i 300 --compare faster.json --threshold 20");
  EXPECT_EQ(r.exit_code, 75) << r.out << r.err;
  EXPECT_NE(r.err.find("qlutil: the rate fell "), std::string::npos) << r.err;
  // Another command's result is no baseline, however slow it was.
  stored["rate"] = rate / 1000;
  stored["test"] = "sign-hash";
  WriteJson("other.json", stored);
  EXPECT_EQ(Run("-p nop -t 1 -i 10 --compare other.json").exit_code, 75);
}

TEST_F(ResultsE2E, WrongValuesAreNamedAndNothingRuns) {
  for (const char *args : {"-p nop -t 1 -i 1 --duration 0", "-p nop -t 1 -i 1 --warmup x",
                           "-p nop -t 1 -i 1 --compare missing.json", "-p nop -t 1 -i 1 --json"}) {
    SCOPED_TRACE(args);
    const RunResult r = Run(args);
    EXPECT_EQ(r.exit_code, 255) << r.out;
    EXPECT_EQ(r.err.rfind("qlutil: --", 0), 0u) << r.err;
  }
  // --threshold alone is not read: the usual warning for an unread switch.
  const RunResult r = Run("-p nop -t 1 -i 1 --threshold 5");
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.err.find("--threshold is not an option of -p nop; ignored"), std::string::npos)
      << r.err;
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new qltest::HsmEnvironment());
  return RUN_ALL_TESTS();
}
