// The frame the performance members share, without an HSM: the thread body's loop (how many
// passes, when it stops, what it publishes, the failure line) and the set-up steps of Init and
// ThreadInit (a failing step stops the rest and prints "[tag] Fail in call. rc = code").

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "arch.h"
#include "harness/harness.h"

namespace {

// A copy's descriptor with an error event of its own.
class LoopRecord {
 public:
  explicit LoopRecord(int iterations) {
    EXPECT_EQ(InitEvent(&event_), 0);
    ti_.phErrorEvent = &event_;
    ti_.Iterations = iterations;
  }
  ~LoopRecord() { CloseEventHandle(&event_); }
  LoopRecord(const LoopRecord &) = delete;
  LoopRecord &operator=(const LoopRecord &) = delete;

  THREAD_INFO *ti() { return &ti_; }
  bool Signalled() { return IsErrorEventSignaled(&event_); }

 private:
  QL_EVENT_HANDLE event_ = nullptr;
  THREAD_INFO ti_{};
};

TEST(PerfLoop, PassesCodesAndPublication) {
  struct Case {
    const char *name;
    int iterations;
    unsigned long fail_at;    // the pass that answers 7; 0 for none
    unsigned long signal_at;  // the pass after which another thread's failure is announced
    unsigned long passes;     // passes made
    int error;                // the copy's Error afterwards
    bool signalled;
  };
  const Case cases[] = {
      {"all passes", 5, 0, 0, 5, 0, false},
      {"-i 0 makes none", 0, 0, 0, 0, 0, false},
      {"a failure stops and is published", 5, 3, 0, 3, 7, true},
      {"a failure on the last pass", 4, 4, 0, 4, 7, true},
      {"another thread's failure stops", 5, 0, 2, 2, 0, true},
      {"without -i: until another thread fails", -1, 0, 9, 9, 0, true},
      {"without -i: until a pass fails", -1, 6, 0, 6, 7, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    LoopRecord record(c.iterations);
    std::vector<unsigned long> counters;
    const unsigned int answer = RunPerfLoop(record.ti(), [&](unsigned long counter) {
      counters.push_back(counter);
      const unsigned long pass = counters.size();
      if (pass == c.signal_at) SignalErrorEvent(record.ti()->phErrorEvent);
      return pass == c.fail_at ? 7 : 0;
    });
    EXPECT_EQ(answer, 1u);
    ASSERT_EQ(counters.size(), c.passes);
    // The counter a pass sees (and prints on failure) counts from 1; without -i it stays 0.
    for (size_t i = 0; i < counters.size(); ++i) {
      EXPECT_EQ(counters[i], c.iterations == -1 ? 0 : i + 1);
    }
    EXPECT_EQ(record.ti()->Error, c.error);
    EXPECT_EQ(record.Signalled(), c.signalled);
  }
}

TEST(PerfLoop, UnsignedModuleCodes) {
  // A PKCS#11 pass answers a CK_RV: a large code is stored whole, not taken for success.
  LoopRecord record(3);
  const unsigned long kVendorCode = 0x80000001ul;
  RunPerfLoop(record.ti(), [&](unsigned long counter) { return counter == 2 ? kVendorCode : 0ul; });
  EXPECT_EQ(record.ti()->Error, static_cast<int>(kVendorCode));
  EXPECT_TRUE(record.Signalled());
}

TEST(PerfLoop, FailureLine) {
  testing::internal::CaptureStdout();
  const int rc = PerfPassFailed("PerfXThread", "QSignHash", 5004, 12);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[PerfXThread] Fail in QSignHash rc = 5004. Iteration = 12\r\n");
  EXPECT_EQ(rc, 5004);
}

TEST(PerfSetup, FirstFailureStopsTheRest) {
  PerfSetup setup("PerfXThreadInit");
  std::vector<std::string> ran;
  auto step = [&](const char *name, int rc) {
    setup.Do(name, [&] {
      ran.push_back(name);
      return rc;
    });
  };
  testing::internal::CaptureStdout();
  step("QGetRandom", 0);
  step("QCreateHash", 5014);
  step("QHashData", 0);
  step("QSignHash", 5002);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[PerfXThreadInit] Fail in QCreateHash. rc = 5014\r\n");
  EXPECT_EQ(ran, (std::vector<std::string>{"QGetRandom", "QCreateHash"}));
  EXPECT_FALSE(setup.Ok());
  EXPECT_EQ(setup.Rc(), 5014);
}

TEST(PerfSetup, SizeQueriesAndLenientAnswers) {
  struct Case {
    const char *name;
    int query_answer;
    int rc;
    const char *out;
  };
  const Case cases[] = {
      {"1005 is the size query's success", 1005, 0, ""},
      {"0 names no size", 0, QL_ERR_PROTOCOL, "[T] Fail in QSignHashedData. rc = 1009\r\n"},
      {"a refusal is kept", 5002, 5002, "[T] Fail in QSignHashedData. rc = 5002\r\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    PerfSetup setup("T");
    testing::internal::CaptureStdout();
    setup.SizeQuery("QSignHashedData", [&] { return c.query_answer; });
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
    EXPECT_EQ(setup.Rc(), c.rc);
  }

  // A failure reported with the code 0 (the padding call's answer) is printed and the set-up
  // goes on.
  PerfSetup setup("T");
  testing::internal::CaptureStdout();
  setup.Fail("QDoRSAPadding", 0);
  HeapBuffer buffer;
  setup.Alloc(&buffer, 16);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[T] Fail in QDoRSAPadding. rc = 0\r\n");
  EXPECT_TRUE(setup.Ok());
  EXPECT_TRUE(buffer);
}

}  // namespace
