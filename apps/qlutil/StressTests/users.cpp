// -s user, -s create-user and -s create-user-ptl: users created in bulk. The users are left in
// the HSM: finding its limits is the point.

#include <cstdio>
#include <cstring>

#include "Output.h"
#include "StressTests.h"
#include "harness/harness.h"

namespace {

constexpr const char *kStressUserPassword = "864209";
// The password of the counter users when -pwd is not given.
constexpr const char *kDefaultCountUserPassword = "24681357";

// ---------------------------------------------------------------------------------------------
// user

typedef struct tag_STRESS_USER_INFO {
  THREAD_INFO ti;
} STRESS_USER_INFO;

unsigned int StressUserThread(void *pvInfo) {
  auto *info = static_cast<STRESS_USER_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  const unsigned long tid = static_cast<unsigned long>(ti->ThreadId);
  // With session reuse one session holds all the thread's users; otherwise one user a session.
  const bool reuse = ti->ReuseSession == 1;
  const int sessions = reuse ? 1 : ti->Iterations;
  const int usersPerSession = reuse ? ti->Iterations : 1;
  int rc = 0;
  for (int s = 0; s < sessions; ++s) {
    SessionOwner session;
    rc = ConnectEx(session.Put(), ti);
    if (rc != 0) {
      ScreenOutput("Error in ConnectEx. Err: %lu Thread: %lu\r\n", static_cast<unsigned long>(rc),
                   tid);
      break;
    }
    for (int u = 0; u < usersPerSession; ++u) {
      uint32_t r = 0;
      rc = QGetRandom(session.Get(), reinterpret_cast<unsigned char *>(&r), sizeof r);
      if (rc == 0) {
        char name[64];
        snprintf(name, sizeof name, "%luUSER%d%d%d", static_cast<unsigned long>(r % 10000),
                 static_cast<int>(tid % 1000), u % 1000, s % 1000);
        QL_USER_INFO record;
        memset(&record, 0, sizeof record);
        // A name that fills the whole field is too long: the HSM refuses it like any failure.
        CopyFixedField(record.szUserId, sizeof record.szUserId, name);
        CopyFixedField(record.szPassword, sizeof record.szPassword, kStressUserPassword);
        rc = QCreateUser(session.Get(), &record);
      }
      if (rc != 0) {
        ScreenOutput("Error in QCreateUser. Err: %lu Thread: %lu\r\n",
                     static_cast<unsigned long>(rc), tid);
        continue;
      }
      if (RunFailed(ti)) break;
    }
    session.CleanUp();
    if (rc != 0) break;
    if (RunFailed(ti)) break;
  }
  if (rc != 0) {
    ti->Error = rc;
    SignalErrorEvent(ti->phErrorEvent);
  }
  return 1;
}

// ---------------------------------------------------------------------------------------------
// create-user, create-user-ptl

typedef struct tag_STRESS_CREATE_USER_INFO {
  THREAD_INFO ti;
  int nTotalUsers;                       // -tu (create-user); Threads x Iterations (ptl)
  char szPrefix[kMaxUserPrefixLen + 1];  // -pre
  char szPassword[QL_MAX_PASSWORD + 1];  // -pwd
  uint32_t dwAcl;                        // the user-creation switches
  bool bPtl;                             // the replication form: its message names the user
} STRESS_CREATE_USER_INFO;

unsigned int StressCreateUserThread(void *pvInfo) {
  auto *info = static_cast<STRESS_CREATE_USER_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  const unsigned long tid = static_cast<unsigned long>(ti->ThreadId);
  int first = 0;
  int count = 0;
  CalculateCreateCountUserRange(info->nTotalUsers, ti->Threads, ti->ThreadId, &first, &count);
  int rc = 0;
  ThreadErrorSignaling signaling(rc, *ti);
  SessionOwner session;
  rc = ConnectEx(session.Put(), ti);
  if (rc != 0) {
    ScreenOutput("Error in ConnectEx. Err: %lu Thread: %lu\r\n", static_cast<unsigned long>(rc),
                 tid);
    return 1;
  }
  // One pass per user of the thread's share.
  rc = FuncLoop(ti, count, [&](unsigned long pass) {
    const int counter = first + static_cast<int>(pass) - 1;
    char name[64];
    GenCountUserName(info->szPrefix, counter, name, sizeof name);
    QL_USER_INFO record;
    memset(&record, 0, sizeof record);
    CopyFixedField(record.szUserId, sizeof record.szUserId, name);
    CopyFixedField(record.szPassword, sizeof record.szPassword, info->szPassword);
    record.dwAcl = info->dwAcl;
    const int created = QCreateUser(session.Get(), &record);
    if (created != 0) {
      if (info->bPtl) {
        ScreenOutput("Error in QCreateUser. Err: %lu User: %s Thread: %lu\r\n",
                     static_cast<unsigned long>(created), name, tid);
      } else {
        ScreenOutput("Error in QCreateUser. Err: %lu Thread: %lu\r\n",
                     static_cast<unsigned long>(created), tid);
      }
    }
    return created;
  });
  return 1;
}

// Reads the prefix and the user options. False when the prefix is too long.
bool LoadCreateUserOptions(STRESS_CREATE_USER_INFO *info, TEST_PARAMETER *pTestParam,
                           int nParameters) {
  const char *prefix = GetParameterStr(pTestParam, nParameters, "-pre");
  if (prefix != nullptr && strlen(prefix) > kMaxUserPrefixLen) return false;
  if (prefix != nullptr) CopyFixedField(info->szPrefix, kMaxUserPrefixLen, prefix);
  char *password = nullptr;
  LoadUserCreationParams(&password, &info->dwAcl, pTestParam, nParameters);
  CopyFixedField(info->szPassword, QL_MAX_PASSWORD,
                 password != nullptr ? password : kDefaultCountUserPassword);
  return true;
}

// The HSM's pending replication transaction, after the threads.
int GetReplicationInfo(const THREAD_INFO *ti, QL_HSM_INFO *pInfo) {
  SessionOwner session;
  int rc = ConnectEx(session.Put(), ti);
  if (rc != 0) {
    ScreenOutput("Error in ConnectEx. Err: %lu\r\n", static_cast<unsigned long>(rc));
    return rc;
  }
  return QGetHsmInfo(session.Get(), pInfo);
}

}  // namespace

int StressUser(TEST_PARAMETER *pTestParam, int nParameters) {
  STRESS_USER_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     User generation stress test.\r\n"});
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -s user -t 5 -i 10\r\n");
  }
  return ExecuteTestThreads(StressUserThread, &info, sizeof info);
}

int StressCreateUser(TEST_PARAMETER *pTestParam, int nParameters) {
  STRESS_CREATE_USER_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.nTotalUsers = GetParameterInt(pTestParam, nParameters, "-tu");
  const bool options = LoadCreateUserOptions(&info, pTestParam, nParameters);
  if (info.ti.Threads == -1 || info.nTotalUsers < 0 || !options ||
      !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     User creation stress test. Create users based on a\r\n",
                         "     prefix and a counter.\r\n"});
    ScreenOutput("     -tu     Total number of users, divided between the threads\r\n");
    ScreenOutput("     -pre    [OPTIONAL] User name prefix (at most 9 characters)\r\n");
    ShowHelpGlobalUserParameters();
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -s create-user -t 5 -i 1 -tu 1000 "
        "-pre user -pwd 12345678\r\n");
  }
  // One pass per thread: the share of -tu is the work.
  if (info.ti.Iterations == -1) info.ti.Iterations = 1;
  return ExecuteTestThreads(StressCreateUserThread, &info, sizeof info);
}

int StressCreateUserPTL(TEST_PARAMETER *pTestParam, int nParameters) {
  STRESS_CREATE_USER_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.bPtl = true;
  const bool options = LoadCreateUserOptions(&info, pTestParam, nParameters);
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || !options ||
      !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     User creation stress test for replication. Create users based\r\n",
                         "     on a prefix and a counter, then show the pending transaction.\r\n"});
    ScreenOutput("     -pre    [OPTIONAL] User name prefix (at most 9 characters)\r\n");
    ShowHelpGlobalUserParameters();
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -s create-user-ptl -t 5 -i 100 -pre "
        "ptl\r\n");
  }
  // Each thread creates its -i users.
  info.nTotalUsers = info.ti.Threads * info.ti.Iterations;
  const int result = ExecuteTestThreads(StressCreateUserThread, &info, sizeof info);
  QL_HSM_INFO hsmInfo;
  memset(&hsmInfo, 0, sizeof hsmInfo);
  const int rc = GetReplicationInfo(&info.ti, &hsmInfo);
  if (rc != 0) {
    ScreenOutput("Error in GetReplicationInfo. Err: %lu\r\n", static_cast<unsigned long>(rc));
    return result == kResultSuccess ? rc : result;
  }
  char lastUser[64];
  GenCountUserName(info.szPrefix, info.nTotalUsers - 1, lastUser, sizeof lastUser);
  const unsigned char *t = hsmInfo.pbPendingTransaction;
  ScreenOutput("Iteration count    : %d\n", info.ti.Iterations);
  ScreenOutput("Last user name     : %s\n", lastUser);
  ScreenOutput("Pending Transaction: %02X%02X%02X%02X%02X%02X%02X%02X\n", t[0], t[1], t[2], t[3],
               t[4], t[5], t[6], t[7]);
  return result;
}
