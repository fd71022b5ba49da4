// The driver of qlutil: command line to parameter array, command selection, the run between
// library start and stop, help, result file and exit code, all inside the exception guard.

#include "qlutil.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "Output.h"
#include "harness/results.h"
#include "option_usage.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace {

// Copies src into a field of `size` bytes, cut to size - 1 bytes and always terminated, so that
// no getter can read past an entry.
void CopyField(char *dst, size_t size, const char *src) {
  const size_t len = strnlen(src, size - 1);
  memcpy(dst, src, len);
  dst[len] = '\0';
}

bool IsTypeSwitch(const TEST_PARAMETER &param) {
  const char *p = param.szParameter;
  return p[0] != '\0' && p[1] != '\0' && p[2] == '\0' &&
         (p[1] == 's' || p[1] == 'f' || p[1] == 'p' || p[1] == 'j');
}

// The result the guard exits with when a fault ends the run. Only assigned when a handler
// returns (or when no handler ran), so a fault inside a handler exits with 0.
volatile sig_atomic_t g_nFunctionRet = kResultSuccess;

int MapResult(int nFunctionRet) {
  return nFunctionRet == kResultSuccess ? 0 : nFunctionRet;
}

constexpr char kExceptionText[] = "*** Exception ***\r\n";

struct ParamsDeleter {
  void operator()(TEST_PARAMETER *p) const { FreeParameters(p); }
};

// Steps 2 to 8 of the run; the guard is around it.
int RunDriver(int argc, const char *const *argv, const TEST_FUNCTION *pFunctions, int nFunctions) {
  bool bShowHelp = true;
  // The table is copied so that nothing a handler does can change the caller's rows.
  const std::vector<TEST_FUNCTION> functions(pFunctions, pFunctions + nFunctions);

  TEST_PARAMETER *pRaw = nullptr;
  int nParameters = 0;
  ParseParameters(argc, argv, &pRaw, &nParameters);
  const std::unique_ptr<TEST_PARAMETER[], ParamsDeleter> pTestParam(pRaw);
  BeginCommandOptions(pTestParam.get(), nParameters);
  ResetResultsOptions();
  SetResultsCommandLine(argc, argv);
  struct OptionsEnd {
    ~OptionsEnd() { EndCommandOptions(); }
  } options_end;

  const bool bWriteToFile = IsParameterDefined(pTestParam.get(), nParameters, "--retfiles") != 0;

  if (nParameters == 0) {
    g_nFunctionRet = kResultUsage;
  } else {
    const TEST_FUNCTION *row =
        FindCommandRow(pTestParam.get(), nParameters, functions.data(), nFunctions);
    const pfn_TestFunction TestFunction = row == nullptr ? nullptr : row->pFunction;
    if (TestFunction == nullptr) {
      g_nFunctionRet = kResultUsage;
    } else {
      const char *pszOutputFile = GetParameterStr(pTestParam.get(), nParameters, "-out");
      if (pszOutputFile != nullptr) {
        OpenFileOutput(pszOutputFile);  // a file that cannot be opened leaves file output off
      }
      const char *pszPrintOption = GetParameterStr(pTestParam.get(), nParameters, "-print");
      SetFooterFormat(pszPrintOption != nullptr && strncmp(pszPrintOption, "time", 4) == 0
                          ? kFooterTimeOnly
                          : kFooterFull);
      SetCommandRow(row);
      QInitialize(0);
      const int nRet = TestFunction(pTestParam.get(), nParameters);
      g_nFunctionRet = nRet;
      QFinalize();
      if (nRet != kResultShowHelp) {
        bShowHelp = false;
      }
    }
  }

  if (bShowHelp) {
    ShowHelpHeader();
    ShowHelp(functions.data(), nFunctions);
  }
  CloseFileOutput();
  const int mapped = MapResult(g_nFunctionRet);
  SetErrorCode(mapped, bWriteToFile);
  return mapped;
}

#ifdef _WIN32

int RunSehGuarded(int argc, const char *const *argv, const TEST_FUNCTION *pFunctions,
                  int nFunctions, bool *pbFaulted) {
  __try {
    return RunDriver(argc, argv, pFunctions, nFunctions);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    *pbFaulted = true;
    return 0;
  }
}

#else

constexpr int kGuardedSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

extern "C" void FatalSignalHandler(int) {
  // Only async-signal-safe calls here: write(2) and _exit(2).
  ssize_t ignored = write(STDOUT_FILENO, kExceptionText, sizeof(kExceptionText) - 1);
  (void)ignored;
  const int ret = g_nFunctionRet;
  _exit(MapResult(ret));
}

// Installs the fatal-signal handlers (process-wide, so a fault on a test thread is caught too)
// and restores the previous ones when the run ends.
class SignalGuard {
 public:
  SignalGuard() {
    // An alternate stack lets the handler run after a stack overflow on the main thread.
    static char alt_stack[64 * 1024];
    stack_t ss{};
    ss.ss_sp = alt_stack;
    ss.ss_size = sizeof(alt_stack);
    have_alt_stack_ = sigaltstack(&ss, &old_stack_) == 0;

    struct sigaction sa {};
    sa.sa_handler = FatalSignalHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_ONSTACK;
    for (size_t i = 0; i < std::size(kGuardedSignals); ++i) {
      sigaction(kGuardedSignals[i], &sa, &old_[i]);
    }
  }
  ~SignalGuard() {
    for (size_t i = 0; i < std::size(kGuardedSignals); ++i) {
      sigaction(kGuardedSignals[i], &old_[i], nullptr);
    }
    if (have_alt_stack_) {
      sigaltstack(&old_stack_, nullptr);
    }
  }
  SignalGuard(const SignalGuard &) = delete;
  SignalGuard &operator=(const SignalGuard &) = delete;

 private:
  struct sigaction old_[std::size(kGuardedSignals)]{};
  stack_t old_stack_{};
  bool have_alt_stack_ = false;
};

#endif

}  // namespace

void ParseParameters(int argc, const char *const *argv, TEST_PARAMETER **ppTestParam,
                     int *pnParameters) {
  *ppTestParam = nullptr;
  *pnParameters = 0;
  if (argc < 2 || argv == nullptr) {
    return;
  }
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr && argv[i][0] == '-') {
      ++count;
    }
  }
  if (count == 0) {
    return;
  }
  TEST_PARAMETER *params = new TEST_PARAMETER[count];
  TEST_PARAMETER *current = nullptr;
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    if (arg == nullptr) {
      continue;
    }
    if (arg[0] == '-') {
      current = current == nullptr ? params : current + 1;
      CopyField(current->szParameter, sizeof(current->szParameter), arg);
      current->szValue[0] = '\0';
    } else if (current != nullptr && current->szValue[0] == '\0') {
      CopyField(current->szValue, sizeof(current->szValue), arg);
    }
  }
  *ppTestParam = params;
  *pnParameters = count;
}

void FreeParameters(TEST_PARAMETER *pTestParam) {
  delete[] pTestParam;
}

pfn_TestFunction FindFunction(TEST_PARAMETER *pTestParam, int nParameters,
                              const TEST_FUNCTION *pFunctions, int nFunctions) {
  const TEST_FUNCTION *row = FindCommandRow(pTestParam, nParameters, pFunctions, nFunctions);
  return row == nullptr ? nullptr : row->pFunction;
}

const TEST_FUNCTION *FindCommandRow(TEST_PARAMETER *pTestParam, int nParameters,
                                    const TEST_FUNCTION *pFunctions, int nFunctions) {
  if (pTestParam == nullptr || pFunctions == nullptr) {
    return nullptr;
  }
  const TEST_PARAMETER *typeSwitch = nullptr;
  for (int i = 0; i < nParameters; ++i) {
    if (IsTypeSwitch(pTestParam[i])) {
      typeSwitch = &pTestParam[i];
      break;
    }
  }
  if (typeSwitch == nullptr) {
    return nullptr;
  }
  const char kind = typeSwitch->szParameter[1];
  for (int i = 0; i < nFunctions; ++i) {
    if (pFunctions[i].FunctionType == kind && pFunctions[i].pszFunctionName != nullptr &&
        strcmp(pFunctions[i].pszFunctionName, typeSwitch->szValue) == 0) {
      return &pFunctions[i];
    }
  }
  return nullptr;
}

int RunQlutil(int argc, const char *const *argv, const TEST_FUNCTION *pFunctions, int nFunctions) {
  g_nFunctionRet = kResultSuccess;
#ifdef _WIN32
  bool bFaulted = false;
  int mapped = 0;
  try {
    mapped = RunSehGuarded(argc, argv, pFunctions, nFunctions, &bFaulted);
  } catch (...) {
    bFaulted = true;
  }
  if (bFaulted) {
    fflush(stdout);
    ScreenOutput("%s", kExceptionText);
    return MapResult(g_nFunctionRet);
  }
  return mapped;
#else
  const SignalGuard guard;
  try {
    return RunDriver(argc, argv, pFunctions, nFunctions);
  } catch (...) {
    ScreenOutput("%s", kExceptionText);
    return MapResult(g_nFunctionRet);
  }
#endif
}
