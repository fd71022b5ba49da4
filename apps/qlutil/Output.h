#pragma once
// Console output, the -out result file, the --retfiles result files and the byte/rate texts of
// the runners' footers.

#include <cstdarg>
#include <cstdint>
#include <ctime>

// Formatted print to standard output, nothing else (it does not copy to the output file).
void ScreenOutput(const char *pszFormat, ...)
#if defined(__GNUC__) || defined(__clang__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// Prints "<prefix> <error in hex>: <system message>" for the calling thread's last system error
// (errno on POSIX, GetLastError on Windows).
void ErrorPrint(const char *pszPrefix);

// Closes an open output file, then opens pszPath for appending ("a+", text). True when open.
bool OpenFileOutput(const char *pszPath);
// Closes the output file if one is open. Harmless otherwise.
void CloseFileOutput();
// True while an output file is open.
bool IsFileOutputOpen();

// Appends one result line to the output file; does nothing when none is open. The line is
//   "tc";"threads";"iterations";"result";"duration";"counter";"start";"end";"v1";"v2";"v3";"v4";
//   metric;"v5";"v6";"<szFormat expanded>";\n
// with dates as dd/mm/yyyy hh:mm:ss local time and v1..v6 the HSM's version texts (queried over
// the given connection through the registered hook; empty without one). Only szFormat is
// expanded with the variable arguments: the test case and the version texts are inserted as
// data, so a '%' in them is written as itself.
void FileOutput(const char *pszTestCase, int Metric, time_t StartDate, time_t EndDate, int Result,
                double Duration, double PerformanceCounter, int Threads, int Iterations,
                const char *szAddress, const char *szUser, const char *szPassword, uint32_t dwFlags,
                int nPort, const char *szFormat, ...);
void FileOutputV(const char *pszTestCase, int Metric, time_t StartDate, time_t EndDate, int Result,
                 double Duration, double PerformanceCounter, int Threads, int Iterations,
                 const char *szAddress, const char *szUser, const char *szPassword,
                 uint32_t dwFlags, int nPort, const char *szFormat, va_list args);

// Asks the HSM at address/port for its six version texts (each at most 511 characters and a
// terminator). Returns false when they cannot be had; FileOutput then writes empty texts.
using HsmVersionQueryFn = bool (*)(const char *address, const char *user, const char *password,
                                   unsigned flags, int port, char texts[6][512]);
// Registers the version query FileOutput uses (null: none, six empty texts).
void SetHsmVersionQuery(HsmVersionQueryFn fn);

// Creates or truncates the file and writes the text as it is. 0, or -1 when it cannot be opened.
int WriteTextToFile(const char *pszFileName, const char *pszText);
// Creates or truncates the file and writes the value with "%.0f". 0 or -1.
int WriteFloatToFile(const char *pszFileName, float fValue);

// Name of the result file written by SetErrorCode, and of the runners' time file.
constexpr const char *kResultFileName = "qlutil_result";
constexpr const char *kTimeFileName = "qlutil_time";

// Formats the code with "%d" and, when bWrite, writes it to "qlutil_result".
void SetErrorCode(int nCode, bool bWrite);

// Footer format of the runners: 2 prints only the performance number, 3 the full footer.
constexpr int kFooterTimeOnly = 2;
constexpr int kFooterFull = 3;
void SetFooterFormat(int nFormat);
int GetFooterFormat();

// Size of the buffers the two formatters below write into.
constexpr size_t kByteLenBufferSize = 64;
// "%.02f bytes" below 1024, "KB" below 1048576, "MB" below 1073741824, else "GB" (the value
// divided in single precision). Writes into pszBuffer (kByteLenBufferSize bytes) and returns it.
char *FormatByteLenOutput(float fValue, char *pszBuffer);
// The value as "%.0f". Writes into pszBuffer (kByteLenBufferSize bytes) and returns it.
char *FormatByteLenOutputPrintTimeFormat(float fValue, char *pszBuffer);
