// The HSM statistics sampler of the performance runner.
#include "harness/sampling.h"

#include "Output.h"
#include "harness/connection.h"
#include "harness/handles.h"

namespace {
constexpr int kAccessDenied = 5002;
}

bool IsStatsEnabled(const THREAD_INFO *thread_info) {
  // An interval of 0 turns sampling off, as the help page says.
  return (thread_info->printStatsOnScreen || thread_info->pszStatsFile != nullptr) &&
         thread_info->statSleepIntervalMs != 0;
}

void GetHSMStatistics(const THREAD_INFO *thread_info, std::atomic<bool> &stop,
                      HSMStatistics &statistics_results) {
  QLUniquePtr<HSESSIONCTX, &CloseSession> session;
  int rc = ConnectEx(session.Put(), thread_info);
  if (rc != 0) {
    ScreenOutput("[GetHSMStatistics] Fail in ConnectEx. rc = %d\r\n", rc);
    return;
  }
  bool is_first_call = true;
  for (;;) {
    uint32_t session_count = 0, cpu = 0, unit = 0, mem_total = 0, mem_used = 0, swap_total = 0,
             swap_used = 0;
    rc = QGetStatInfo(session.Get(), &session_count, &cpu, &unit, &mem_total, &mem_used,
                      &swap_total, &swap_used);
    if (rc != 0) {
      ScreenOutput("[GetHSMStatistics] Fail in QGetStatInfo. rc = %d\r\n", rc);
      if (rc == kAccessDenied) {
        ScreenOutput(
            "\r\nThe user must have permission to get statistics info "
            "from HSM.\r\n\r\n");
      }
      return;
    }
    // The first reading describes the HSM before the test: it is not kept.
    if (is_first_call) {
      is_first_call = false;
    } else {
      statistics_results.session_count.push_back(static_cast<double>(session_count));
      statistics_results.cpu.push_back(static_cast<double>(cpu));
      statistics_results.mem.push_back(static_cast<double>(mem_used));
    }
    QL_Sleep(thread_info->statSleepIntervalMs);
    if (stop.load()) return;
  }
}
