#pragma once
// The harness: the one frame every command kind of qlutil is built on. A family file includes
// this header; the harness's own files include only the parts they use.
//
//   thread_info.h  THREAD_INFO, the descriptor at the head of every record, and its constants
//   loaders.h      the common options, and the record loaders LoadPerfRecord, LoadFuncRecord
//                  (the job loaders are in job_frame.h)
//   connection.h   login records, session flags, sessions and client facades
//   threads.h      the error signaller, the loop guard, -opsleep
//   runners.h      ExecuteTestThreads (-f, -s, access control, -j), ExecutePerfTestThreads (-p)
//   sampling.h     the HSM statistics sampler of -p
//   handles.h      owners of sessions, keys, hashes and buffers (declared only here)
//   temp_names.h   temporary object names and whole-test keys
//   perf_frame.h   PerfSetup (the set-up chain) and RunPerfLoop
//   func_frame.h   FuncLoop, RunFuncLoop / RunFuncSessionLoop, for -f, -s and the access-control
//                  tests
//   job_frame.h    StartJob, RunSessionJob / RunClientJob, and the jobs' data in and out
//   help_frame.h   the help page frame of each kind
//   user_names.h   names of bulk-created users
//
// How to add a command of each kind (then add its row to command_table.cpp, as its top says):
//
//   -p  A record whose first member is THREAD_INFO ti, and five callbacks. The entry:
//         PERF_X_INFO info;
//         LoadPerfRecord(&info, pTestParam, nParameters, 1);   // 2: bytes per second
//         ... own options ...
//         if (IsValidTestCountersConfig(&info.ti) && ... && CheckConnectionFlags(&info.ti, false))
//           return ExecutePerfTestThreads(PerfXThread, PerfXInit, PerfXFin, PerfXThreadInit,
//                                         PerfXThreadFin, &info, sizeof(info));
//         PerfHelpDescription({...}); ... own options ...; return PerfHelpCommandExamples(...);
//       ThreadInit chains its steps on a PerfSetup into owners and hands them to the record once
//       setup.Ok(); ThreadFin releases what the record holds; the body is
//         return RunPerfLoop(&info->ti, [info](unsigned long counter) { ... return rc; });
//
//   -f, -s, access control  A record with THREAD_INFO ti first. The entry:
//         LoadFuncRecord(&info, pTestParam, nParameters);
//         if (options wrong) { FuncHelpDescription({...}); ...; return FuncHelpExample(...); }
//         return ExecuteTestThreads(FuncXThread, &info, sizeof info);
//       The body is RunFuncSessionLoop(&info->ti, on_connect_error, pass(session, counter)) or,
//       for a test that opens its own sessions, RunFuncLoop(&info->ti, pass(counter)); a body
//       that counts its passes otherwise keeps a ThreadErrorSignaling and runs FuncLoop(ti,
//       passes, pass).
//
//   -j  A record with THREAD_INFO ti first. The entry loads LoadJobParameters (or
//       LoadGenericParameters then ForceSingleJobRun), reads its options and answers
//         StartJob(JobXThread, &job.ti, sizeof job, is_anonymous, options_ok, ShowJobXHelp);
//       The routine is RunSessionJob(&job->ti, work(session)) or RunClientJob(&job->ti,
//       work(client)); work answers 0 or the code of its failing call (printed by CheckJobCall).
//       The help page is JobHelpPage, or JobHelpHeader, own lines and JobHelpExamples.
//
// Each runner starts with a marked spot, before any thread or HSM call, where checks of the
// command line as a whole belong.

#include "harness/connection.h"
#include "harness/func_frame.h"
#include "harness/handles.h"
#include "harness/help_frame.h"
#include "harness/job_frame.h"
#include "harness/loaders.h"
#include "harness/perf_frame.h"
#include "harness/runners.h"
#include "harness/sampling.h"
#include "harness/temp_names.h"
#include "harness/thread_info.h"
#include "harness/threads.h"
#include "harness/user_names.h"
