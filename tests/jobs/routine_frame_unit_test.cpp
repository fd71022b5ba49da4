// The job frame's routine and help helpers without an HSM: the error line of a failing call,
// a routine whose session cannot be opened (its code in the record, the event set, the work
// never run), and a help page made of plain option lines.

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "arch.h"
#include "harness/harness.h"

namespace {

TEST(JobRoutineFrame, CallCheck) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(CheckJobCall("QRemoveUser", 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  testing::internal::CaptureStdout();
  EXPECT_EQ(CheckJobCall("QRemoveUser", 5020), 5020);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error in QRemoveUser. Err = 5020\r\n");
}

// A record whose connection reaches a loopback port nobody listens on.
class ClosedHsmRecord {
 public:
  ClosedHsmRecord() {
    EXPECT_EQ(InitEvent(&event_), 0);
    const char *argv[] = {"qlutil", "-a",     "127.0.0.1", "--port",  "1",
                          "-u",     "master", "-w",        "24681357"};
    TEST_PARAMETER *params = nullptr;
    int count = 0;
    ParseParameters(static_cast<int>(std::size(argv)), argv, &params, &count);
    LoadJobParameters(&ti_, params, count, false);
    FreeParameters(params);
    ti_.phErrorEvent = &event_;
  }
  ~ClosedHsmRecord() { CloseEventHandle(&event_); }
  ClosedHsmRecord(const ClosedHsmRecord &) = delete;
  ClosedHsmRecord &operator=(const ClosedHsmRecord &) = delete;

  THREAD_INFO *ti() { return &ti_; }
  bool Signalled() { return IsErrorEventSignaled(&event_); }

 private:
  QL_EVENT_HANDLE event_ = nullptr;
  THREAD_INFO ti_{};
};

TEST(JobRoutineFrame, UnreachableHsm) {
  struct Case {
    const char *name;
    bool facade;
    const char *line;  // the start of the error line
  };
  const Case cases[] = {
      {"session routine", false, "Error in ConnectEx. Err = "},
      {"facade routine", true, "Error in Connect. Err = "},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    ClosedHsmRecord record;
    EXPECT_EQ(record.ti()->Metric, 1);  // jobs report operations per second
    bool worked = false;
    testing::internal::CaptureStdout();
    const unsigned int answer = c.facade ? RunClientJob(record.ti(),
                                                        [&](QueltaClient &) {
                                                          worked = true;
                                                          return 0;
                                                        })
                                         : RunSessionJob(record.ti(), [&](HSESSIONCTX) {
                                             worked = true;
                                             return 0;
                                           });
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(answer, 1u);
    EXPECT_FALSE(worked);
    EXPECT_NE(record.ti()->Error, 0);
    EXPECT_TRUE(record.Signalled());
    EXPECT_EQ(out, c.line + std::to_string(record.ti()->Error) + "\r\n");
  }
}

}  // namespace
