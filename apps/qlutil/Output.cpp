#include "Output.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

struct FileCloser {
  void operator()(FILE *f) const { fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// The -out file. Test threads may report while the main thread holds it, hence the lock.
std::mutex g_outputMutex;
UniqueFile g_outputFile;

std::atomic<int> g_footerFormat{kFooterFull};
std::atomic<HsmVersionQueryFn> g_versionQuery{nullptr};

constexpr size_t kLineBufferSize = 4098;

void LocalTime(time_t t, struct tm *out) {
#ifdef _WIN32
  localtime_s(out, &t);
#else
  localtime_r(&t, out);
#endif
}

}  // namespace

void ScreenOutput(const char *pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  vprintf(pszFormat, args);
  va_end(args);
}

void ErrorPrint(const char *pszPrefix) {
#ifdef _WIN32
  const DWORD err = GetLastError();
  char *msg = nullptr;
  FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, err, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPSTR>(&msg), 0,
      nullptr);
  printf("%s %lx: %s", pszPrefix, static_cast<unsigned long>(err), msg != nullptr ? msg : "");
  LocalFree(msg);
#else
  const int err = errno;
  char buf[256] = {};
  // The GNU strerror_r may return a static text instead of filling buf.
  const char *msg = buf;
#if defined(__GLIBC__) && defined(_GNU_SOURCE)
  msg = strerror_r(err, buf, sizeof(buf));
#else
  if (strerror_r(err, buf, sizeof(buf)) != 0) {
    snprintf(buf, sizeof(buf), "Unknown error %d", err);
  }
#endif
  // The system text has no line end of its own here (Windows messages carry one).
  printf("%s %x: %s\r\n", pszPrefix, static_cast<unsigned>(err), msg);
#endif
}

bool OpenFileOutput(const char *pszPath) {
  const std::lock_guard<std::mutex> lock(g_outputMutex);
  g_outputFile.reset();
  if (pszPath == nullptr) {
    return false;
  }
  g_outputFile.reset(fopen(pszPath, "a+"));
  return g_outputFile != nullptr;
}

void CloseFileOutput() {
  const std::lock_guard<std::mutex> lock(g_outputMutex);
  g_outputFile.reset();
}

bool IsFileOutputOpen() {
  const std::lock_guard<std::mutex> lock(g_outputMutex);
  return g_outputFile != nullptr;
}

void SetHsmVersionQuery(HsmVersionQueryFn fn) {
  g_versionQuery.store(fn);
}

void FileOutput(const char *pszTestCase, int Metric, time_t StartDate, time_t EndDate, int Result,
                double Duration, double PerformanceCounter, int Threads, int Iterations,
                const char *szAddress, const char *szUser, const char *szPassword, uint32_t dwFlags,
                int nPort, const char *szFormat, ...) {
  va_list args;
  va_start(args, szFormat);
  FileOutputV(pszTestCase, Metric, StartDate, EndDate, Result, Duration, PerformanceCounter,
              Threads, Iterations, szAddress, szUser, szPassword, dwFlags, nPort, szFormat, args);
  va_end(args);
}

void FileOutputV(const char *pszTestCase, int Metric, time_t StartDate, time_t EndDate, int Result,
                 double Duration, double PerformanceCounter, int Threads, int Iterations,
                 const char *szAddress, const char *szUser, const char *szPassword,
                 uint32_t dwFlags, int nPort, const char *szFormat, va_list args) {
  if (!IsFileOutputOpen()) {
    return;
  }
  char versions[6][512] = {};
  const HsmVersionQueryFn query = g_versionQuery.load();
  if (query != nullptr && !query(szAddress, szUser, szPassword, dwFlags, nPort, versions)) {
    memset(versions, 0, sizeof(versions));
  }
  for (auto &v : versions) {
    v[sizeof(v) - 1] = '\0';
  }
  struct tm start = {};
  struct tm end = {};
  LocalTime(StartDate, &start);
  LocalTime(EndDate, &end);

  // Only the caller's format is expanded with the caller's arguments; every other text field
  // goes in as data.
  auto expanded = std::make_unique<char[]>(kLineBufferSize);
  if (szFormat != nullptr) {
    vsnprintf(expanded.get(), kLineBufferSize, szFormat, args);
  }
  auto line = std::make_unique<char[]>(kLineBufferSize);
  snprintf(line.get(), kLineBufferSize,
           "\"%s\";\"%d\";\"%d\";\"%d\";\"%.02f\";\"%.02f\";"
           "\"%02d/%02d/%04d %02d:%02d:%02d\";\"%02d/%02d/%04d %02d:%02d:%02d\";"
           "\"%s\";\"%s\";\"%s\";\"%s\";%d;\"%s\";\"%s\";\"%s\";\n",
           pszTestCase != nullptr ? pszTestCase : "", Threads, Iterations, Result, Duration,
           PerformanceCounter, start.tm_mday, start.tm_mon + 1, start.tm_year + 1900, start.tm_hour,
           start.tm_min, start.tm_sec, end.tm_mday, end.tm_mon + 1, end.tm_year + 1900, end.tm_hour,
           end.tm_min, end.tm_sec, versions[0], versions[1], versions[2], versions[3], Metric,
           versions[4], versions[5], expanded.get());

  const std::lock_guard<std::mutex> lock(g_outputMutex);
  if (g_outputFile) {
    fputs(line.get(), g_outputFile.get());
    fflush(g_outputFile.get());
  }
}

int WriteTextToFile(const char *pszFileName, const char *pszText) {
  const UniqueFile file(fopen(pszFileName, "w"));
  if (!file) {
    return -1;
  }
  fputs(pszText, file.get());
  return 0;
}

int WriteFloatToFile(const char *pszFileName, float fValue) {
  const UniqueFile file(fopen(pszFileName, "w"));
  if (!file) {
    return -1;
  }
  fprintf(file.get(), "%.0f", static_cast<double>(fValue));
  return 0;
}

void SetErrorCode(int nCode, bool bWrite) {
  char szCode[16] = {};
  snprintf(szCode, sizeof(szCode), "%d", nCode);
  if (bWrite) {
    WriteTextToFile(kResultFileName, szCode);  // a file that cannot be created is ignored
  }
}

void SetFooterFormat(int nFormat) {
  g_footerFormat.store(nFormat);
}

int GetFooterFormat() {
  return g_footerFormat.load();
}

char *FormatByteLenOutput(float fValue, char *pszBuffer) {
  if (fValue < 1024.0f) {
    snprintf(pszBuffer, kByteLenBufferSize, "%.02f bytes", static_cast<double>(fValue));
  } else if (fValue < 1048576.0f) {
    snprintf(pszBuffer, kByteLenBufferSize, "%.02f KB", static_cast<double>(fValue / 1024.0f));
  } else if (fValue < 1073741824.0f) {
    snprintf(pszBuffer, kByteLenBufferSize, "%.02f MB", static_cast<double>(fValue / 1048576.0f));
  } else {
    snprintf(pszBuffer, kByteLenBufferSize, "%.02f GB",
             static_cast<double>(fValue / 1073741824.0f));
  }
  return pszBuffer;
}

char *FormatByteLenOutputPrintTimeFormat(float fValue, char *pszBuffer) {
  snprintf(pszBuffer, kByteLenBufferSize, "%.0f", static_cast<double>(fValue));
  return pszBuffer;
}
