#include "option_usage.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace {

struct CommandOptions {
  std::atomic<const TEST_PARAMETER *> params{nullptr};
  int count = 0;
  const TEST_FUNCTION *row = nullptr;
  std::unique_ptr<std::atomic<bool>[]> read;
  bool checked = false;
  std::mutex reported_mutex;  // only taken on a getter's failure path
  std::set<std::string> reported;
};

CommandOptions &State() {
  static CommandOptions state;
  return state;
}

bool IsKindSwitch(const TEST_PARAMETER &param) {
  const char *p = param.szParameter;
  return p[0] == '-' && p[1] != '\0' && p[2] == '\0' && strchr("pfsj", p[1]) != nullptr;
}

}  // namespace

void BeginCommandOptions(const TEST_PARAMETER *pTestParam, int nParameters) {
  CommandOptions &s = State();
  s.count = pTestParam == nullptr || nParameters < 0 ? 0 : nParameters;
  s.row = nullptr;
  s.checked = false;
  s.reported.clear();
  s.read = std::make_unique<std::atomic<bool>[]>(static_cast<size_t>(s.count));
  for (int i = 0; i < s.count; ++i) s.read[i].store(false, std::memory_order_relaxed);
  s.params.store(pTestParam, std::memory_order_release);
}

const TEST_FUNCTION *GetCommandRow() {
  return State().row;
}

TEST_PARAMETER *GetCommandOptions(int *count) {
  CommandOptions &s = State();
  const TEST_PARAMETER *params = s.params.load(std::memory_order_acquire);
  *count = params != nullptr ? s.count : 0;
  // The getters take the array as writable; none of them writes to it.
  return const_cast<TEST_PARAMETER *>(params);
}

void SetCommandRow(const TEST_FUNCTION *row) {
  CommandOptions &s = State();
  s.row = row;
  const TEST_PARAMETER *params = s.params.load(std::memory_order_acquire);
  // The first kind switch names the command: it is read by finding the command.
  for (int i = 0; row != nullptr && i < s.count; ++i) {
    if (IsKindSwitch(params[i])) {
      s.read[i].store(true, std::memory_order_relaxed);
      break;
    }
  }
}

void EndCommandOptions() {
  CommandOptions &s = State();
  s.params.store(nullptr, std::memory_order_release);
  s.row = nullptr;
  s.count = 0;
  s.read.reset();
}

void MarkOptionRead(const TEST_PARAMETER *pTestParam, int index) {
  CommandOptions &s = State();
  if (pTestParam == nullptr || pTestParam != s.params.load(std::memory_order_acquire) ||
      index < 0 || index >= s.count) {
    return;
  }
  // A switch given twice is read with its first value; the later ones are not unknown.
  const char *name = pTestParam[index].szParameter;
  for (int i = index; i < s.count; ++i) {
    if (strcmp(pTestParam[i].szParameter, name) == 0) {
      s.read[i].store(true, std::memory_order_relaxed);
    }
  }
}

bool CheckUnreadOptions() {
  CommandOptions &s = State();
  const TEST_PARAMETER *params = s.params.load(std::memory_order_acquire);
  if (params == nullptr || s.row == nullptr || s.checked) return false;
  s.checked = true;
  bool unread = false;
  for (int i = 0; i < s.count; ++i) {
    if (s.read[i].load(std::memory_order_relaxed)) continue;
    bool earlier = false;  // one line per switch name
    for (int j = 0; j < i && !earlier; ++j) {
      earlier = strcmp(params[j].szParameter, params[i].szParameter) == 0;
    }
    if (earlier) continue;
    unread = true;
    fprintf(stderr, "qlutil: %s is not an option of -%c %s; ignored\n", params[i].szParameter,
            s.row->FunctionType, s.row->pszFunctionName);
  }
  fflush(stderr);
  return unread && (s.row->dwFlags & kCommandDestructive) != 0;
}

void ReportOptionValue(const char *pszName, const char *pszText) {
  CommandOptions &s = State();
  if (pszName == nullptr || pszText == nullptr) return;
  // Within a run a switch is named once, however many threads read it.
  if (s.params.load(std::memory_order_acquire) != nullptr) {
    const std::lock_guard<std::mutex> lock(s.reported_mutex);
    if (!s.reported.insert(pszName).second) return;
  }
  fprintf(stderr, "qlutil: %s\n", pszText);
  fflush(stderr);
}

void ReportInputFile(const char *pszName, const char *pszFile, const char *what) {
  if (pszName == nullptr || pszFile == nullptr || what == nullptr) return;
  const std::string text = std::string("the file of ") + pszName + ", " + pszFile + ", " + what;
  ReportOptionValue(pszName, text.c_str());
}
