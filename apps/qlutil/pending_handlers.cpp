// Handlers that are not built yet, one line each.
//
// This file is shared for DELETIONS ONLY: when you implement a handler in its family's files,
// delete its line here in the same commit. Do not add other code.
//
//   QL_PENDING(Handler, kind, "name")       prints "Not implemented yet: -<kind> <name>\r\n"
//                                           and returns 50.
//   QL_WINDOWS_ONLY(Handler, kind, "name")  on non-Windows prints "Available on Windows only:
//                                           -<kind> <name>\r\n" and returns 50; on Windows it is
//                                           still pending. When the Windows version exists (in a
//                                           *_win.cpp file), change the line to
//                                           QL_NON_WINDOWS_STUB, which defines only the non-Windows
//                                           answer.

#include "ACLTests.h"
#include "CSPTests.h"
#include "FunctionalTests.h"
#include "Output.h"
#include "PerformanceTests.h"
#include "StressTests.h"
#include "job.h"
#include "qlutil.h"

#define QL_PENDING(handler, kind, name)                          \
  int handler(TEST_PARAMETER *, int) {                           \
    ScreenOutput("Not implemented yet: -%c %s\r\n", kind, name); \
    return kResultNotSupported;                                  \
  }

#define QL_WINDOWS_STUB(handler, kind, name)                           \
  int handler(TEST_PARAMETER *, int) {                                 \
    ScreenOutput("Available on Windows only: -%c %s\r\n", kind, name); \
    return kResultNotSupported;                                        \
  }

#ifdef _WIN32
#define QL_WINDOWS_ONLY(handler, kind, name) QL_PENDING(handler, kind, name)
#define QL_NON_WINDOWS_STUB(handler, kind, name)
#else
#define QL_WINDOWS_ONLY(handler, kind, name) QL_WINDOWS_STUB(handler, kind, name)
#define QL_NON_WINDOWS_STUB(handler, kind, name) QL_WINDOWS_STUB(handler, kind, name)
#endif

// clang-format off
QL_WINDOWS_ONLY(PerfCSPKeyGen, 'p', "csp-key-gen")
QL_WINDOWS_ONLY(PerfCSPEnc, 'p', "csp-enc")
QL_WINDOWS_ONLY(PerfCSPDec, 'p', "csp-dec")
QL_WINDOWS_ONLY(PerfCSPSign, 'p', "csp-sign")
QL_WINDOWS_ONLY(PerfCSPVerifySign, 'p', "csp-verify")
QL_WINDOWS_ONLY(PerfCSPImportKey, 'p', "csp-import-key")
QL_WINDOWS_ONLY(PerfCSPExportKey, 'p', "csp-export-key")
QL_WINDOWS_ONLY(PerfCSPHash, 'p', "csp-hash")
QL_WINDOWS_ONLY(CSPHash, 'f', "csp-hash")
QL_WINDOWS_ONLY(CSPSignHash, 'f', "csp-sign-hash")
QL_WINDOWS_ONLY(CSPEncDec, 'f', "csp-enc-dec")
QL_WINDOWS_ONLY(CSPWrapUnwrap, 'f', "csp-wrap-unwrap")
QL_WINDOWS_ONLY(CSPSpbEnc, 'f', "spb-enc")
QL_WINDOWS_ONLY(CSPSpbDec, 'f', "spb-dec")
QL_WINDOWS_ONLY(JobCertAssignKey, 'j', "cert-assign-key")
QL_WINDOWS_ONLY(JobCertSign, 'j', "cert-sign")
QL_WINDOWS_ONLY(JobCertInfo, 'j', "cert-info")
QL_WINDOWS_ONLY(JobRegisterCNG, 'j', "cng-register")
QL_WINDOWS_ONLY(JobUnregisterCNG, 'j', "cng-unregister")
// clang-format on
