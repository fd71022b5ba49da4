#pragma once
// The frame every job (-j) is built on.
//
// A job is a front function (JobRemove) and a thread routine (JobRemoveThread). The front
// function zero-fills the job's record (THREAD_INFO `ti` first), loads the common options
// (LoadGenericParameters then ForceSingleJobRun, or LoadGenericJobParameters then Metric 1),
// reads its own options and calls StartJob, which either runs the routine once through
// ExecuteTestThreads or prints the job's help page and answers -1 without reaching the HSM.
//
// The routine opens its session (ConnectEx, ConnectAnonymous, or a QueltaClient for facade
// jobs), makes its library calls, prints one "Error in <call>. Err = <code>\r\n" line on a
// failure, and leaves the code in the record (PublishJobError, or ThreadErrorSignaling in
// facade jobs). Handles are held by owners declared in acquisition order, so they are released
// newest first whichever way the routine ends. The routine always returns 1.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "Output.h"
#include "harness/connection.h"
#include "harness/handles.h"
#include "harness/loaders.h"
#include "harness/runners.h"
#include "harness/threads.h"
#include "ql_client_helper.h"
#include "qlapi.h"
#include "qlutil.h"
#include "quelta_client.h"

using Bytes = std::vector<unsigned char>;

// The key flags of the key-making jobs, OR-ed: "-exp 1" 1 (exportable), "-tmp 1" 4 (temporary),
// "-rsaexp3 1" 2048, "-nocrypt 1" 2, "-bchain" present 16384.
uint32_t LoadGenericKeyFlagsParameters(TEST_PARAMETER *pTestParam, int nParameters);

// The common-option style of "remove": after LoadGenericParameters, one thread, one iteration,
// operations per second, TLS and no load balancing whatever -tls and -lb said.
void ForceSingleJobRun(THREAD_INFO *ti);

// The common options of a job in the style of "gen-key": LoadGenericJobParameters, then
// operations per second.
void LoadJobParameters(THREAD_INFO *ti, TEST_PARAMETER *pTestParam, int nParameters,
                       bool is_anonymous);

// Runs routine on the record once the connection (CheckConnectionFlags) and the job's own
// options are good: the result is 100002 while the runner starts, then the runner's answer.
// Otherwise show_help() and -1; nothing reaches the HSM.
int StartJob(pfn_TestThread routine, THREAD_INFO *ti, size_t record_size, bool is_anonymous,
             bool options_ok, void (*show_help)());

// Stores a non-zero code in the record and sets the run's error event.
void PublishJobError(THREAD_INFO *ti, int rc);

// "Error in <call>. Err = <rc>\r\n".
void PrintJobError(const char *call, int rc);

// The answer of a library call: printed with PrintJobError when it is not 0. Answers rc.
int CheckJobCall(const char *call, int rc);

// A routine on one session: opens it (ConnectEx, or ConnectAnonymous for kAnonymousSession;
// "Error in ConnectEx" on a failure), runs work(session), which answers 0 or the code of its
// failing call, closes the session, then publishes a non-zero code (PublishJobError). Answers 1,
// the routine's answer.
constexpr bool kAnonymousSession = true;
template <typename Work>
unsigned int RunSessionJob(THREAD_INFO *ti, Work &&work, bool anonymous = false) {
  int rc = 0;
  {
    SessionOwner session;
    rc = CheckJobCall("ConnectEx", anonymous ? ConnectAnonymous(session.Put(), ti)
                                             : ConnectEx(session.Put(), ti));
    if (rc == 0) rc = work(session.Get());
  }
  PublishJobError(ti, rc);
  return 1;
}

// The routine of a facade job: a QueltaClient with the record's connection, Connect()
// ("Error in Connect" on a failure), then work(client), which answers 0 or the code of its
// failing call. The client is released first, then a non-zero code is published
// (ThreadErrorSignaling). Answers 1.
template <typename Work>
unsigned int RunClientJob(THREAD_INFO *ti, Work &&work) {
  int rc = 0;
  ThreadErrorSignaling signaling(rc, *ti);
  QueltaClient client = GetQueltaClient(ti, false);
  rc = CheckJobCall("Connect", client.Connect());
  if (rc == 0) rc = work(client);
  return 1;
}

// Reads the data of an input switch: with inform kFile the value names a file read whole, with
// kHexData it is a hex string. False (data empty) when the switch is absent, the file cannot be
// read or is empty, or the hex text is not valid.
bool ReadJobData(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                 DataInform inform, Bytes *data);
// Reads a whole local file. False when it cannot be opened.
bool ReadLocalFile(const char *path, Bytes *data);
// Writes bytes to a local file (created or truncated; with `secret`, readable by its owner only:
// keys, passwords, tokens). False, with "Error opening file <path>\r\n" printed, when it cannot
// be written.
bool WriteLocalFile(const char *path, const unsigned char *data, size_t len, bool secret = false);
// Upper-case hex digits.
std::string ToHex(const unsigned char *data, size_t len);
// The output of a job that yields bytes: into the file when path is given, otherwise as hex on
// the console followed by "\r\n". False when the file could not be written.
bool WriteJobOutput(const char *path, const unsigned char *data, size_t len, bool secret = false);

// True for a non-null, non-empty text.
inline bool IsGivenText(const char *text) {
  return text != nullptr && *text != '\0';
}
// True when the switch is absent or holds a non-empty value.
bool IsOptionalTextGood(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
// The -inform style word of pszName (file, the default, or hex). False for another word.
bool LoadDataInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                    DataInform *inform);

// A 32-bit number of a switch written in decimal or as 0x-prefixed hex. False when absent or
// malformed.
bool GetJobNumber(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                  uint32_t *value);
