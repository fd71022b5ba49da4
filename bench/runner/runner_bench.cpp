// The performance runner's own cost: whole ExecutePerfTestThreads runs whose thread body does
// nothing but the loop guard and the error-event poll every test body makes per pass. The time
// per pass is what the runner adds to every measured operation.
//
// Usage: bench_runner [passes per thread, default 20000000]
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Output.h"
#include "harness/harness.h"

namespace {

struct EmptyRecord {
  THREAD_INFO ti;
};

unsigned int EmptyBody(void *pv) {
  auto *record = static_cast<EmptyRecord *>(pv);
  unsigned long counter = 0;
  while (!ShouldStopPerfTestLoop(&counter, record->ti.Iterations)) {
    if (IsErrorEventSignaled(record->ti.phErrorEvent)) break;
  }
  return 1;
}

int NoSetup(void *) {
  return 0;
}

double RunOnce(int threads, int passes) {
  EmptyRecord record;
  memset(&record, 0, sizeof record);
  record.ti.Threads = threads;
  record.ti.Iterations = passes;
  record.ti.Metric = 1;
  const double start = ChronStart();
  const int rc =
      ExecutePerfTestThreads(EmptyBody, nullptr, nullptr, NoSetup, NoSetup, &record, sizeof record);
  const double seconds = ChronEndDelta(start);
  if (rc != kResultSuccess) {
    fprintf(stderr, "runner failed: %d\n", rc);
    exit(1);
  }
  return seconds;
}

// The opt-in per-operation latency (--latency) on or off for the following runs.
void SetLatency(bool on) {
  ResetResultsOptions();
  if (!on) return;
  TEST_PARAMETER latency{};
  snprintf(latency.szParameter, sizeof latency.szParameter, "--latency");
  LoadResultsOptions(&latency, 1);
}

}  // namespace

int main(int argc, char **argv) {
  const int passes = argc > 1 ? atoi(argv[1]) : 20000000;
  if (passes < 1) {
    fprintf(stderr, "usage: %s [passes per thread]\n", argv[0]);
    return 2;
  }
  SetFooterFormat(0);   // the runner's own footer would only repeat the timing
  RunOnce(1, 1000000);  // warm-up: thread start, page faults
  for (bool latency : {false, true}) {
    SetLatency(latency);
    for (int threads : {1, 2}) {
      double best = 0;
      for (int round = 0; round < 3; ++round) {
        const double seconds = RunOnce(threads, passes);
        if (round == 0 || seconds < best) best = seconds;
      }
      // Threads run side by side: a pass costs the run's wall time over one thread's passes.
      printf("runner%s threads=%d passes_per_thread=%d wall_ms=%.1f ns_per_pass=%.2f\n",
             latency ? " --latency" : "", threads, passes, best * 1000.0, best * 1e9 / passes);
    }
  }
  return 0;
}
