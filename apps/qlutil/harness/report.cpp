#include "harness/report.h"

#include <cstring>
#include <string>

#include "Output.h"

namespace runner_detail {

namespace {

void WriteRow(const THREAD_INFO *ti, int result_code, const RunTimes &times, double duration,
              double performance, uint32_t dwFlags) {
  const std::string address = ti->GetAddress();
  const std::string user = ti->GetUserId();
  const std::string password = ti->GetPassword();
  FileOutput(ti->pszTestCase, ti->Metric, times.start_date, times.end_date, result_code, duration,
             performance, ti->Threads, ti->Iterations, address.c_str(), user.c_str(),
             password.c_str(), dwFlags, ti->GetPort(), "");
}

}  // namespace

void ReportSuccess(const THREAD_INFO *ti, const RunTimes &times, uint32_t dwFlags) {
  const double result = times.result_ms;
  // 64-bit products, so that long runs print true figures.
  const int64_t nTotalTests =
      times.passes >= 0 ? times.passes : static_cast<int64_t>(ti->Threads) * ti->Iterations;
  const int64_t nTotalBytes = static_cast<int64_t>(ti->MessageSize) * nTotalTests;

  if (ti->Metric == 1) {
    const float fOpTime = static_cast<float>(nTotalTests) / (static_cast<float>(result) / 1000.0f);
    const double ops_per_second = static_cast<double>(nTotalTests) / (result / 1000.0);
    switch (GetFooterFormat()) {
      case kFooterTimeOnly:
        ScreenOutput("%.0f\n\r", fOpTime);
        break;
      case kFooterFull:
        ScreenOutput("Total time: %.2f ms (%.2f seg) [%.2f op/sec]\n\r", result, result / 1000.0,
                     ops_per_second);
        break;
      default:
        break;
    }
    WriteRow(ti, 0, times, result, ops_per_second, dwFlags);
    if (ti->writeReturnFiles) WriteFloatToFile(kTimeFileName, fOpTime);
    return;
  }

  const double bytes_per_second = static_cast<double>(nTotalBytes) / (result / 1000.0);
  const float fOpTime = static_cast<float>(bytes_per_second);
  char buffer[kByteLenBufferSize];
  switch (GetFooterFormat()) {
    case kFooterTimeOnly:
      ScreenOutput("%s\n\r", FormatByteLenOutputPrintTimeFormat(fOpTime, buffer));
      break;
    case kFooterFull: {
      char szMessageSize[kByteLenBufferSize];
      char szPerformanceData[kByteLenBufferSize];
      ScreenOutput("Total time: %.2f ms (%.2f seg) Total message size: %s [%s/sec]\n\r", result,
                   result / 1000.0,
                   FormatByteLenOutput(static_cast<float>(nTotalBytes), szMessageSize),
                   FormatByteLenOutput(fOpTime, szPerformanceData));
      break;
    }
    default:
      break;
  }
  WriteRow(ti, 0, times, result, bytes_per_second, dwFlags);
  if (ti->writeReturnFiles) {
    WriteTextToFile(kTimeFileName, FormatByteLenOutputPrintTimeFormat(fOpTime, buffer));
  }
}

void ReportFailure(const THREAD_INFO *ti, int error_code, const RunTimes &times, uint32_t dwFlags) {
  ScreenOutput("\r\nError during the test!\r\n");
  if (ti->writeReturnFiles) WriteTextToFile(kTimeFileName, "");
  WriteRow(ti, error_code, times, 0.0, 0.0, dwFlags);
}

int FirstThreadError(const unsigned char *copies, size_t cbTestInfo, int count, int current) {
  for (int i = 0; i < count; ++i) {
    int error = 0;
    std::memcpy(&error, copies + static_cast<size_t>(i) * cbTestInfo + offsetof(THREAD_INFO, Error),
                sizeof error);
    if (error != 0) return error;
  }
  return current;
}

}  // namespace runner_detail
