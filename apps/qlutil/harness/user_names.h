#pragma once
// Names of bulk-created users (the user stress tests and the user jobs): counter names and the
// division of a total between threads.

#include <cstddef>
#include <cstdint>

// Longest -pre prefix the user-creation commands accept.
constexpr size_t kMaxUserPrefixLen = 9;

// The share of `total` counter values that thread `thread_index` of `thread_count` creates:
// [*first, *first + *count). The shares are as even as can be (the first total % thread_count
// threads get one more), consecutive and disjoint, and together cover [0, total). A
// thread_count below 1 counts as 1; a negative total as 0.
void CalculateCreateCountUserRange(int total, int thread_count, int thread_index, int *first,
                                   int *count);

// "<prefix><counter>" into out (out_len bytes, always terminated). A null prefix is empty.
// Names longer than a user name may hold are made as they are: the HSM refuses them.
void GenCountUserName(const char *prefix, int counter, char *out, size_t out_len);

// The loop guard of the stress threads: with max -1 never stops; stops once *counter has
// reached max; otherwise counts one up.
inline bool ShouldStopStressTestLoop(unsigned long *counter, int max) {
  if (max == -1) return false;
  if (static_cast<long long>(*counter) >= max) return true;
  ++*counter;
  return false;
}
