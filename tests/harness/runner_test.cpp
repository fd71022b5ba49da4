// Both runners with real threads and fake test callbacks: copies, event, error precedence,
// callback order and every failure path of the performance runner.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "Output.h"
#include "fake_qlapi.h"
#include "harness/harness.h"
#include "harness_test_util.h"

namespace {

constexpr int kMaxThreads = 8;

// Shared by every copy through a pointer, as tests share what their Init made.
struct Shared {
  std::atomic<int> seen_ids[kMaxThreads];
  std::atomic<int> operations[kMaxThreads];
  QL_EVENT_HANDLE *events[kMaxThreads];
  int marks[kMaxThreads];
  // Callback order, written only by the main thread (the callbacks other than the body).
  std::vector<std::string> calls;
};

struct Record {
  THREAD_INFO ti;
  Shared *shared;
  int fail_code[kMaxThreads];       // the body fails with this code (0: never)
  int fail_after_ops;               // ... after this many operations
  int wait_for_event[kMaxThreads];  // the body fails only once another thread has signalled
  int mark;                         // a test field after THREAD_INFO, copied with it
  int thread_init_fail_at;          // copy index whose InitializeThread fails (-1: none)
  int thread_fin_fail_at;           // ... FinalizeThread fails
  bool thread_fin_throws;
  int test_init_result;
  int test_fin_result;
};

Record *AsRecord(void *p) {
  return static_cast<Record *>(p);
}

// The common loop of a test body: count operations until the guard or the event says stop.
unsigned Body(void *p) {
  Record *r = AsRecord(p);
  const int id = r->ti.ThreadId;
  r->shared->seen_ids[id] = 1;
  r->shared->events[id] = r->ti.phErrorEvent;
  r->shared->marks[id] = r->mark;
  unsigned long counter = 0;
  int done = 0;
  int rc = 0;
  ThreadErrorSignaling signal(rc, r->ti);
  while (!ShouldStopPerfTestLoop(&counter, r->ti.Iterations)) {
    r->shared->operations[id]++;
    if (r->fail_code[id] != 0 && ++done > r->fail_after_ops) {
      if (r->wait_for_event[id]) {
        while (!IsErrorEventSignaled(r->ti.phErrorEvent)) {
        }
      }
      rc = r->fail_code[id];
      break;
    }
    if (IsErrorEventSignaled(r->ti.phErrorEvent)) break;
  }
  return 1;
}

int TestInit(void *p) {
  AsRecord(p)->shared->calls.push_back("TestInit");
  return AsRecord(p)->test_init_result;
}
int TestFin(void *p) {
  AsRecord(p)->shared->calls.push_back("TestFin");
  return AsRecord(p)->test_fin_result;
}
int ThreadInit(void *p) {
  Record *r = AsRecord(p);
  r->shared->calls.push_back("ThreadInit" + std::to_string(r->ti.ThreadId));
  return r->ti.ThreadId == r->thread_init_fail_at ? 9 : 0;
}
int ThreadFin(void *p) {
  Record *r = AsRecord(p);
  r->shared->calls.push_back("ThreadFin" + std::to_string(r->ti.ThreadId));
  if (r->ti.ThreadId == r->thread_fin_fail_at) {
    if (r->thread_fin_throws) throw std::runtime_error("clean-up failed");
    return 5;
  }
  return 0;
}

class RunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeLibrary::Get().Reset();
    SetFooterFormat(kFooterFull);
    record_.ti.Threads = 3;
    record_.ti.Iterations = 10;
    record_.ti.Metric = 1;
    record_.shared = &shared_;
    record_.mark = 4242;
    record_.thread_init_fail_at = -1;
    record_.thread_fin_fail_at = -1;
  }
  void TearDown() override { CloseFileOutput(); }

  int RunFunctional() {
    ::testing::internal::CaptureStdout();
    const int rc = ExecuteTestThreads(Body, &record_, sizeof record_);
    out_ = ::testing::internal::GetCapturedStdout();
    return rc;
  }
  int RunPerf(bool with_test_callbacks = true) {
    ::testing::internal::CaptureStdout();
    const int rc = ExecutePerfTestThreads(Body, with_test_callbacks ? TestInit : nullptr,
                                          with_test_callbacks ? TestFin : nullptr, ThreadInit,
                                          ThreadFin, &record_, sizeof record_);
    out_ = ::testing::internal::GetCapturedStdout();
    return rc;
  }
  int TotalOperations() const {
    int total = 0;
    for (const auto &n : shared_.operations) total += n;
    return total;
  }

  Shared shared_{};
  Record record_{};
  std::string out_;
  TempCwd cwd_;
};

// ---------------------------------------------------------------------------------------------
// The functional runner

TEST_F(RunnerTest, EachThreadGetsItsOwnIndexedCopySharingOneEvent) {
  EXPECT_EQ(RunFunctional(), kResultSuccess);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(shared_.seen_ids[i], 1) << i;
    EXPECT_EQ(shared_.marks[i], 4242) << "the test's own fields travel with the copy";
    EXPECT_EQ(shared_.operations[i], 10) << "exactly Iterations operations";
    EXPECT_NE(shared_.events[i], nullptr);
    EXPECT_EQ(shared_.events[i], shared_.events[0]);
  }
  EXPECT_EQ(shared_.seen_ids[3], 0);
  EXPECT_TRUE(Contains(out_, " op/sec]\n\r")) << out_;
  EXPECT_EQ(out_.rfind("Total time: ", 0), 0u) << out_;
}

TEST_F(RunnerTest, LowestIndexedErrorWinsWhateverTheOrderOfFailure) {
  record_.ti.Iterations = -1;  // run until an error
  record_.fail_code[2] = 22;
  record_.fail_code[0] = 10;
  record_.wait_for_event[0] = 1;  // thread 0 fails only after thread 2 has
  EXPECT_EQ(RunFunctional(), 10);
  EXPECT_EQ(out_, "\r\nError during the test!\r\n");
}

TEST_F(RunnerTest, EventWithoutRecordedErrorIsStillSuccessAndErrorWithoutEventIsIgnored) {
  // The event set by a thread whose Error stays 0: the error path, yet 100000.
  struct Local {
    static unsigned SignalOnly(void *p) {
      SignalErrorEvent(AsRecord(p)->ti.phErrorEvent);
      return 1;
    }
    static unsigned RecordOnly(void *p) {
      AsRecord(p)->ti.Error = 77;
      return 1;
    }
  };
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(ExecuteTestThreads(Local::SignalOnly, &record_, sizeof record_), kResultSuccess);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\r\nError during the test!\r\n");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(ExecuteTestThreads(Local::RecordOnly, &record_, sizeof record_), kResultSuccess);
  EXPECT_TRUE(Contains(::testing::internal::GetCapturedStdout(), "op/sec]"));
}

TEST_F(RunnerTest, FailedRunWithResultFilesLeavesAnEmptyTimeFile) {
  record_.ti.writeReturnFiles = true;
  record_.fail_code[1] = 3;
  EXPECT_EQ(RunFunctional(), 3);
  ASSERT_TRUE(std::filesystem::exists(kTimeFileName));
  EXPECT_EQ(ReadFile(kTimeFileName), "");
}

TEST_F(RunnerTest, ZeroIterationsRunNoOperationAndRateZero) {
  record_.ti.Iterations = 0;
  SetFooterFormat(kFooterTimeOnly);
  EXPECT_EQ(RunFunctional(), kResultSuccess);
  EXPECT_EQ(TotalOperations(), 0);
  EXPECT_EQ(out_, "0\n\r");
}

// ---------------------------------------------------------------------------------------------
// The performance runner

TEST_F(RunnerTest, PerfCallbacksRunInTheirOrder) {
  EXPECT_EQ(RunPerf(), kResultSuccess);
  EXPECT_EQ(shared_.calls,
            (std::vector<std::string>{"TestInit", "ThreadInit0", "ThreadInit1", "ThreadInit2",
                                      "ThreadFin0", "ThreadFin1", "ThreadFin2", "TestFin"}));
  EXPECT_EQ(TotalOperations(), 30);
  EXPECT_EQ(shared_.marks[2], 4242);
}

TEST_F(RunnerTest, PerfTestInitFailureStopsEverything) {
  record_.test_init_result = 7;
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  EXPECT_EQ(RunPerf(), 7);
  EXPECT_EQ(out_, "Failed to initialize test: 7\n");
  EXPECT_EQ(shared_.calls, std::vector<std::string>{"TestInit"});
  EXPECT_EQ(TotalOperations(), 0);
  CloseFileOutput();
  EXPECT_EQ(ReadFile("out.csv"), "") << "nothing goes to the result file";
}

TEST_F(RunnerTest, PerfThreadInitFailureStartsNoThreadYetReleasesTheCopiesSetUp) {
  record_.thread_init_fail_at = 1;
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  EXPECT_EQ(RunPerf(), 9);
  EXPECT_EQ(shared_.calls, (std::vector<std::string>{"TestInit", "ThreadInit0", "ThreadInit1",
                                                     "ThreadFin0", "TestFin"}));
  EXPECT_EQ(TotalOperations(), 0);
  EXPECT_EQ(out_, "Failed to initialize test thread: 9\n\r\nError during the test!\r\n");
  CloseFileOutput();
  EXPECT_TRUE(Contains(ReadFile("out.csv"), "\"9\"")) << "the row carries the failure";
}

TEST_F(RunnerTest, PerfThreadFinFailureStillReleasesTheOtherCopies) {
  record_.thread_fin_fail_at = 1;
  EXPECT_EQ(RunPerf(false), 5);
  EXPECT_EQ(shared_.calls, (std::vector<std::string>{"ThreadInit0", "ThreadInit1", "ThreadInit2",
                                                     "ThreadFin0", "ThreadFin1", "ThreadFin2"}));
  EXPECT_EQ(out_, "Failed to finalize test thread: 5\n\r\nError during the test!\r\n");
}

TEST_F(RunnerTest, PerfThreadFinExceptionMarksTheFirstCopyAndTheRestAreReleased) {
  record_.thread_fin_fail_at = 0;
  record_.thread_fin_throws = true;
  EXPECT_EQ(RunPerf(), 555555);
  EXPECT_EQ(shared_.calls,
            (std::vector<std::string>{"TestInit", "ThreadInit0", "ThreadInit1", "ThreadInit2",
                                      "ThreadFin0", "ThreadFin1", "ThreadFin2", "TestFin"}));
  EXPECT_EQ(out_, "*** Exception ***\r\n\r\nError during the test!\r\n");
}

TEST_F(RunnerTest, PerfFinalizeTestFailureFailsTheRun) {
  record_.test_fin_result = 7;
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  EXPECT_EQ(RunPerf(), 7);
  EXPECT_EQ(out_, "Failed to finalize test: 7\n\r\nError during the test!\r\n");
  CloseFileOutput();
  EXPECT_TRUE(Contains(ReadFile("out.csv"), "\"7\"")) << "the row carries the failure";
}

TEST_F(RunnerTest, PerfFirstFailureWinsOverALaterFinalizeTestFailure) {
  record_.thread_fin_fail_at = 0;
  record_.test_fin_result = 7;
  EXPECT_EQ(RunPerf(), 5);
  EXPECT_EQ(out_,
            "Failed to finalize test thread: 5\nFailed to finalize test: 7\n\r\nError during the "
            "test!\r\n");
}

TEST_F(RunnerTest, PerfLowestIndexedErrorWins) {
  record_.ti.Iterations = -1;
  record_.fail_code[2] = 22;
  record_.fail_code[1] = 11;
  record_.wait_for_event[1] = 1;
  EXPECT_EQ(RunPerf(), 11);
  EXPECT_TRUE(Contains(out_, "\r\nError during the test!\r\n"));
  // Clean-up runs on every copy after a failure in the loop.
  EXPECT_EQ(shared_.calls.back(), "TestFin");
  EXPECT_EQ(shared_.calls.size(), 8u);
}

TEST_F(RunnerTest, PerfBlockCountScalesTheRecordedIterations) {
  record_.ti.Threads = 2;
  record_.ti.Iterations = 5;
  record_.ti.BlockCount = 10;
  ASSERT_TRUE(OpenFileOutput("out.csv"));
  EXPECT_EQ(RunPerf(), kResultSuccess);
  EXPECT_EQ(TotalOperations(), 10) << "the body still makes Iterations passes";
  EXPECT_EQ(record_.ti.Iterations, 50);
  CloseFileOutput();
  EXPECT_EQ(ReadFile("out.csv").rfind("\"\";\"2\";\"50\";\"0\";", 0), 0u) << ReadFile("out.csv");
}

TEST_F(RunnerTest, PerfStatisticsSampledAlongsideAndSessionClosed) {
  // The body waits until the sampler has taken four readings: three are kept.
  struct Local {
    static unsigned WaitForSamples(void *) {
      while (FakeLibrary::Get().stat_calls.load() < 4) {
      }
      return 1;
    }
  };
  record_.ti.Threads = 1;
  record_.ti.statSleepIntervalMs = 1;
  record_.ti.printStatsOnScreen = true;
  char csv[] = "stats.csv";
  record_.ti.pszStatsFile = csv;
  SetupUserPwdConnection(&record_.ti, "127.0.0.1", "u", "p", 4433);
  ::testing::internal::CaptureStdout();
  const int rc = ExecutePerfTestThreads(Local::WaitForSamples, nullptr, nullptr, ThreadInit,
                                        ThreadFin, &record_, sizeof record_);
  out_ = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(rc, kResultSuccess);
  const std::string text = ReadFile(csv);
  // The first reading (0, 10, 100) is dropped; the next are 1, 11, 101 and so on.
  EXPECT_EQ(text.rfind("session_count,cpu_usage,memory_usage\n1,11,101\n2,12,102\n3,13,103\n", 0),
            0u)
      << text;
  EXPECT_TRUE(Contains(out_, "Statistics sampling interval: 1ms\n")) << out_;
  EXPECT_EQ(FakeLibrary::Get().Opens().size(), 1u);
  EXPECT_EQ(FakeLibrary::Get().Closes().size(), 1u) << "the sampler closes its session";
}

TEST_F(RunnerTest, PerfStatisticsSamplerStoppedOnAFailedPreparation) {
  record_.thread_init_fail_at = 0;
  record_.ti.statSleepIntervalMs = 1;
  record_.ti.printStatsOnScreen = true;
  SetupUserPwdConnection(&record_.ti, "127.0.0.1", "u", "p", 4433);
  EXPECT_EQ(RunPerf(false), 9);  // returns: the sampler was told to stop
  EXPECT_EQ(FakeLibrary::Get().Opens().size(), FakeLibrary::Get().Closes().size());
  EXPECT_FALSE(Contains(out_, "Samples:"));
}

TEST_F(RunnerTest, PerfSamplerFailuresEndOnlyTheSampler) {
  SetupUserPwdConnection(&record_.ti, "127.0.0.1", "u", "p", 4433);
  record_.ti.statSleepIntervalMs = 1;
  record_.ti.printStatsOnScreen = true;
  FakeLibrary::Get().stat_result = 5002;
  EXPECT_EQ(RunPerf(), kResultSuccess);
  EXPECT_EQ(out_.rfind("[GetHSMStatistics] Fail in QGetStatInfo. rc = 5002\r\n"
                       "\r\nThe user must have permission to get statistics info from HSM.\r\n\r\n",
                       0),
            0u)
      << out_;
  EXPECT_EQ(FakeLibrary::Get().Closes().size(), 1u);

  FakeLibrary::Get().Reset();
  FakeLibrary::Get().open_result = 5001;
  shared_.calls.clear();
  EXPECT_EQ(RunPerf(), kResultSuccess);
  EXPECT_EQ(out_.rfind("[GetHSMStatistics] Fail in ConnectEx. rc = 5001\r\n", 0), 0u) << out_;
}

TEST_F(RunnerTest, StatisticsIntervalZeroTurnsSamplingOff) {
  record_.ti.printStatsOnScreen = true;
  record_.ti.statSleepIntervalMs = 0;
  EXPECT_FALSE(IsStatsEnabled(&record_.ti));
  record_.ti.statSleepIntervalMs = 500;
  EXPECT_TRUE(IsStatsEnabled(&record_.ti));
  record_.ti.printStatsOnScreen = false;
  EXPECT_FALSE(IsStatsEnabled(&record_.ti));
  char csv[] = "x.csv";
  record_.ti.pszStatsFile = csv;
  EXPECT_TRUE(IsStatsEnabled(&record_.ti));
}

TEST(LoopGuard, CountsUpToMaxOrRunsForever) {
  unsigned long counter = 0;
  int passes = 0;
  while (!ShouldStopPerfTestLoop(&counter, 3)) ++passes;
  EXPECT_EQ(passes, 3);
  EXPECT_EQ(counter, 3u);
  counter = 0;
  EXPECT_TRUE(ShouldStopPerfTestLoop(&counter, 0));
  counter = 1000000;
  EXPECT_FALSE(ShouldStopPerfTestLoop(&counter, -1));
  EXPECT_EQ(counter, 1000000u) << "-1 does not count";
}

TEST(ErrorSignaling, PublishesOnlyANonzeroCode) {
  QL_EVENT_HANDLE event = nullptr;
  ASSERT_EQ(InitEvent(&event), 0);
  THREAD_INFO ti{};
  ti.phErrorEvent = &event;
  {
    int rc = 0;
    ThreadErrorSignaling signal(rc, ti);
  }
  EXPECT_EQ(ti.Error, 0);
  EXPECT_FALSE(IsErrorEventSignaled(&event));
  {
    int rc = 0;
    ThreadErrorSignaling signal(rc, ti);
    rc = 5004;  // the value at scope exit counts
  }
  EXPECT_EQ(ti.Error, 5004);
  EXPECT_TRUE(IsErrorEventSignaled(&event));
  CloseEventHandle(&event);
  EXPECT_EQ(event, nullptr);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The thread frame of -f, -s and the access-control tests

namespace {

struct FuncFrameRecord {
  THREAD_INFO ti;
};

// Runs body on a one-thread record with a user/password login, its error event set up as the
// runner would; answers the record's Error and whether the event was set.
template <typename Body>
std::pair<int, bool> RunFrame(int iterations, Body &&body) {
  FuncFrameRecord record{};
  SetupUserPwdConnection(&record.ti, "127.0.0.1", "u", "p", 4433);
  record.ti.Iterations = iterations;
  QL_EVENT_HANDLE event = nullptr;
  InitEvent(&event);
  record.ti.phErrorEvent = &event;
  EXPECT_EQ(body(&record.ti), 1u);
  const std::pair<int, bool> result{record.ti.Error, IsErrorEventSignaled(&event)};
  CloseEventHandle(&event);
  return result;
}

TEST(FuncFrame, LoopRunsEveryPassAndPublishesTheFirstFailure) {
  std::vector<unsigned long> seen;
  auto ok = RunFrame(3, [&](THREAD_INFO *ti) {
    return RunFuncLoop(ti, [&](unsigned long counter) {
      seen.push_back(counter);
      return 0;
    });
  });
  EXPECT_EQ(seen, (std::vector<unsigned long>{1, 2, 3}));
  EXPECT_EQ(ok, std::make_pair(0, false));

  seen.clear();
  auto failed = RunFrame(5, [&](THREAD_INFO *ti) {
    return RunFuncLoop(ti, [&](unsigned long counter) {
      seen.push_back(counter);
      return counter == 2 ? 77 : 0;
    });
  });
  EXPECT_EQ(seen, (std::vector<unsigned long>{1, 2}));
  EXPECT_EQ(failed, std::make_pair(77, true));
}

TEST(FuncFrame, SessionLoopClosesItsSessionAndReportsAFailedConnect) {
  FakeLibrary::Get().Reset();
  int passes = 0;
  auto ok = RunFrame(2, [&](THREAD_INFO *ti) {
    return RunFuncSessionLoop(
        ti, [](int) { ADD_FAILURE() << "connected"; },
        [&](HSESSIONCTX session, unsigned long) {
          EXPECT_NE(session, nullptr);
          ++passes;
          return 0;
        });
  });
  EXPECT_EQ(passes, 2);
  EXPECT_EQ(ok, std::make_pair(0, false));
  EXPECT_EQ(FakeLibrary::Get().Opens().size(), 1u) << "one session for every pass";
  EXPECT_EQ(FakeLibrary::Get().Closes().size(), 1u);

  FakeLibrary::Get().Reset();
  FakeLibrary::Get().open_result = 5001;
  int reported = 0;
  auto refused = RunFrame(2, [&](THREAD_INFO *ti) {
    return RunFuncSessionLoop(
        ti, [&](int rc) { reported = rc; },
        [&](HSESSIONCTX, unsigned long) {
          ADD_FAILURE() << "a pass without a session";
          return 0;
        });
  });
  EXPECT_EQ(reported, 5001);
  EXPECT_EQ(refused, std::make_pair(5001, true));
}

}  // namespace
