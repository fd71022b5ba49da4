#pragma once
// A stand-in for the few library calls the harness makes, linked into the test binary so that
// it takes the place of libqlapi's own. It records what it was given and answers what the test
// sets. Everything is guarded by one mutex: the sampler and test threads call it too.

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qlapi.h"

struct FakeOpenCall {
  uint32_t auth_type;
  std::vector<unsigned char> record;
  uint32_t flags;
};

struct FakeLibrary {
  std::mutex mutex;
  // QOpenSession
  int open_result = 0;
  std::vector<FakeOpenCall> opens;
  // QCloseSession
  std::vector<uint32_t> close_flags;
  // QGetStatInfo: the n-th call (from 0) answers session_count n, cpu 10 + n, mem_used 100 + n.
  int stat_result = 0;
  std::atomic<int> stat_calls{0};
  // QGetHsmInfo
  int info_result = 0;
  // Users: QCreateUser answers 5013 for a name in `users` and adds the others; QRemoveUser
  // removes; QGetUserParam(QL_UP_ACL) answers acl_answer at offset 34 and keeps the record.
  std::vector<std::string> users;
  std::vector<std::string> user_calls;  // "create:<name>", "remove:<name>"
  std::vector<unsigned char> user_param_record;
  uint32_t acl_answer = 0;
  // The credential store: target -> (user, password); every read is counted.
  std::map<std::string, std::pair<std::string, std::string>> credentials;
  int credential_reads = 0;

  static FakeLibrary &Get();
  void Reset();
  std::vector<FakeOpenCall> Opens();
  std::vector<uint32_t> Closes();
};
