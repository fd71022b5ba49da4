#pragma once
// Loaders of the descriptor: each reads its options from the parameter array; absent integers
// read as -1. The record loaders of each command kind (LoadPerfRecord, LoadFuncRecord, the job
// loaders) start from these.

#include <cstdint>
#include <cstring>

#include "harness/thread_info.h"
#include "qlutil.h"

void LoadTestVolumeParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
void LoadTestStatsParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
void LoadReturnFileParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
void LoadReuseParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// Connection, volume, statistics, result files and session reuse, in that order.
void LoadGenericParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// The connection (anonymous or not), the result-file options, then UseLoadBalance 0,
// Iterations 1 and Threads 1.
void LoadGenericJobParameters(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count,
                              bool is_anonymous);

// -lb, -sc, -tls: 0 or 1 each; anything else gives the defaults 0, 1, 1.
void LoadLibConnectionFlagsParam(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// The connection of tests and most jobs: -a/-u/-w, else a credential target (--cm, or its
// other name -b), else an access token (-at, -atf); --port (4433 when absent).
void LoadLibConnectionParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// -a and --port only, kind 1. The connection flags are left as they are.
void LoadAnonymousConnectionParams(THREAD_INFO *ti, TEST_PARAMETER *param, int param_count);
// The password (-pwd, may be null) and the access mask of the user-creation switches.
void LoadUserCreationParams(char **password, uint32_t *acl, TEST_PARAMETER *param, int param_count);

// The start of a -p entry: the record zeroed, the common options loaded (LoadGenericParameters)
// and the kind of figure set (Metric: 1 operations, 2 bytes per second).
template <typename Record>
void LoadPerfRecord(Record *info, TEST_PARAMETER *pTestParam, int nParameters, int metric) {
  std::memset(info, 0, sizeof(*info));
  LoadGenericParameters(&info->ti, pTestParam, nParameters);
  info->ti.Metric = metric;
}

// The start of a -f, -s or access-control entry: the record zeroed, the common options loaded
// (LoadGenericParameters), operations per second.
template <typename Record>
void LoadFuncRecord(Record *info, TEST_PARAMETER *pTestParam, int nParameters) {
  std::memset(info, 0, sizeof(*info));
  LoadGenericParameters(&info->ti, pTestParam, nParameters);
  info->ti.Metric = 1;
}
