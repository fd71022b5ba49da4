// SPB secure message jobs: "spb-gen-key", "spb-gen-csr", "spb-import-cert", "spb-import-pkcs12",
// "spb-activate-cert", "spb-encode", "spb-decode", "spb-dump-message".
//
// Messages travel as one file: the 588-byte security header, then the body.

#include <algorithm>
#include <cstring>
#include <string>

#include "harness/harness.h"
#include "job.h"
#include "section_table.h"

namespace {

constexpr uint32_t kPiece = 32768;
constexpr uint32_t kPieceOut = kPiece + 16;  // a piece's output may hold a block more

bool IsIspb(const char *s) {
  if (s == nullptr || std::strlen(s) != 8) return false;
  return std::all_of(s, s + 8, [](char c) { return c >= '0' && c <= '9'; });
}

bool IsOptionalIspbGood(TEST_PARAMETER *pTestParam, int nParameters, const char *name) {
  const char *v = GetParameterStr(pTestParam, nParameters, name);
  return !IsParameterDefined(pTestParam, nParameters, name) || IsIspb(v);
}

// The CSR hash words of -h.
struct SpbHashWord {
  const char *word;
  uint32_t flag;
  const char *text;
};
constexpr SpbHashWord kSpbHashWords[] = {
    {"spbsha256", 0, "SHA-256 (default)"},
    {"spbsha1", QL_SPB_CSR_SHA1, "SHA-1"},
};

void ShowHelpSPBHashAlgorithms() {
  for (const SpbHashWord &w : kSpbHashWords)
    ScreenOutput("               %-10s %s\r\n", w.word, w.text);
}

bool GetSpbHashFlag(TEST_PARAMETER *pTestParam, int nParameters, uint32_t *flag) {
  if (!IsParameterDefined(pTestParam, nParameters, "-h")) {
    *flag = 0;
    return true;
  }
  const char *v = GetParameterStr(pTestParam, nParameters, "-h");
  for (const SpbHashWord &w : kSpbHashWords)
    if (v != nullptr && std::strcmp(v, w.word) == 0) {
      *flag = w.flag;
      return true;
    }
  return false;
}

void ShowOutOption(const char *what) {
  ScreenOutput("     --out     [OPTIONAL] Output file of the %s. If not defined, it is\r\n", what);
  ScreenOutput("               printed in hex.\r\n");
}

void ShowInOption(const char *what) {
  ScreenOutput("     -in       %s\r\n", what);
  ScreenOutput("     -inform   [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// spb-gen-key

typedef struct _JOB_SPB_GEN_KEY_INFO {
  THREAD_INFO ti;
  const char *pszIspb;  // --ispb
  uint32_t dwFlags;     // -exp 1: QL_KEY_EXPORTABLE
} JOB_SPB_GEN_KEY_INFO;

namespace {

void ShowJobSPBGenKeyHelp() {
  JobHelpPage("spb-gen-key", {"Generate an RSA-2048 SPB key of an institution."},
              {"--ispb    The institution's ISPB (8 digits)",
               "-exp      [OPTIONAL] 1: the key is exportable. Default 0."},
              {"--ispb 22222222", "--ispb 22222222 -exp 1"});
}

}  // namespace

unsigned int JobSPBGenKeyThread(void *p) {
  auto *job = static_cast<JOB_SPB_GEN_KEY_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    char name[QL_MAX_OBJ_NAME + 1] = {};
    uint32_t len = sizeof name;
    const int rc = CheckJobCall("QSPBGenerateKey",
                                QSPBGenerateKey(session, job->pszIspb, name, &len, job->dwFlags));
    if (rc == 0) ScreenOutput("Key: %s\r\n", name);
    return rc;
  });
}

int JobSPBGenKey(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_GEN_KEY_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszIspb = GetParameterStr(pTestParam, nParameters, "--ispb");
  job.dwFlags = LoadGenericKeyFlagsParameters(pTestParam, nParameters) & QL_KEY_EXPORTABLE;
  return StartJob(&JobSPBGenKeyThread, &job.ti, sizeof job, false, IsIspb(job.pszIspb),
                  &ShowJobSPBGenKeyHelp);
}

// ---------------------------------------------------------------------------------------------
// spb-gen-csr

typedef struct _JOB_SPB_GEN_CSR_INFO {
  THREAD_INFO ti;
  const char *pszIspb;     // --ispb
  const char *pszKeyName;  // -kn
  const char *pszDn;       // --dn
  uint32_t dwFlags;        // -h, --outform
  const char *pszOutFile;  // --out
} JOB_SPB_GEN_CSR_INFO;

namespace {

void ShowJobSPBGenCSRHelp() {
  JobHelpHeader(false, {"Make a PKCS#10 certificate request for an SPB key."});
  ScreenOutput("     --ispb    The institution's ISPB (8 digits)\r\n");
  ScreenOutput("     -kn       Key name\r\n");
  ScreenOutput("     --dn      Subject, as /C=BR/O=<bank>/serialNumber=<ISPB>/CN=<name>\r\n");
  ScreenOutput("     -h        [OPTIONAL] Signature hash. Default spbsha256.\r\n");
  ShowHelpSPBHashAlgorithms();
  ScreenOutput("     --outform [OPTIONAL] pem (default) or der.\r\n");
  ScreenOutput("     --out     [OPTIONAL] Output file. If not defined, it is printed.\r\n");
  JobHelpExamples("spb-gen-csr", {"--ispb 22222222 -kn SPB_22222222_0123456789ABCDEF "
                                  "--dn /C=BR/O=Bank/serialNumber=22222222/CN=BANK --out req.pem"});
}

}  // namespace

unsigned int JobSPBGenCSRThread(void *p) {
  auto *job = static_cast<JOB_SPB_GEN_CSR_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    unsigned char *csr = nullptr;
    uint32_t len = 0;
    int rc = CheckJobCall("QSPBGenerateCSR", QSPBGenerateCSR(session, job->pszIspb, job->pszKeyName,
                                                             job->pszDn, &csr, &len, job->dwFlags));
    if (rc != 0) return rc;
    if (job->pszOutFile != nullptr) {
      if (!WriteLocalFile(job->pszOutFile, csr, len)) rc = QL_ERR_FILE_IO;
    } else if (job->dwFlags & QL_SPB_CSR_DER) {
      WriteJobOutput(nullptr, csr, len);
    } else {
      ScreenOutput("%.*s", static_cast<int>(len), reinterpret_cast<const char *>(csr));
    }
    QFree(csr);
    return rc;
  });
}

int JobSPBGenCSR(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_GEN_CSR_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszIspb = GetParameterStr(pTestParam, nParameters, "--ispb");
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszDn = GetParameterStr(pTestParam, nParameters, "--dn");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const char *form = GetParameterStr(pTestParam, nParameters, "--outform");
  bool ok = IsIspb(job.pszIspb) && IsGivenText(job.pszKeyName) && IsGivenText(job.pszDn) &&
            GetSpbHashFlag(pTestParam, nParameters, &job.dwFlags) &&
            IsOptionalTextGood(pTestParam, nParameters, "--out");
  if (form != nullptr) {
    if (std::strcmp(form, "der") == 0)
      job.dwFlags |= QL_SPB_CSR_DER;
    else if (std::strcmp(form, "pem") != 0)
      ok = false;
  }
  return StartJob(&JobSPBGenCSRThread, &job.ti, sizeof job, false, ok, &ShowJobSPBGenCSRHelp);
}

// ---------------------------------------------------------------------------------------------
// spb-import-cert

typedef struct _JOB_SPB_IMPORT_CERT_INFO {
  THREAD_INFO ti;
  const Bytes *pCert;  // -in
  uint32_t dwFlags;    // --activate: QL_SPB_CERT_ACTIVATE
} JOB_SPB_IMPORT_CERT_INFO;

namespace {

void ShowJobSPBImportCertHelp() {
  JobHelpHeader(false, {"Import an institution's SPB certificate (PEM or DER)."});
  ShowInOption("Certificate file");
  ScreenOutput("     --activate [OPTIONAL] Make it the ISPB's active certificate.\r\n");
  JobHelpExamples("spb-import-cert", {"-in inst.pem", "-in inst.pem --activate"});
}

}  // namespace

unsigned int JobSPBImportCertificateThread(void *p) {
  auto *job = static_cast<JOB_SPB_IMPORT_CERT_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    return CheckJobCall(
        "QSPBImportCertificate",
        QSPBImportCertificate(session, job->pCert->data(),
                              static_cast<uint32_t>(job->pCert->size()), job->dwFlags));
  });
}

int JobSPBImportCertificate(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_IMPORT_CERT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes cert;
  DataInform inform = kFile;
  const bool ok = LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &cert);
  job.pCert = &cert;
  if (IsParameterDefined(pTestParam, nParameters, "--activate")) job.dwFlags = QL_SPB_CERT_ACTIVATE;
  return StartJob(&JobSPBImportCertificateThread, &job.ti, sizeof job, false, ok,
                  &ShowJobSPBImportCertHelp);
}

// ---------------------------------------------------------------------------------------------
// spb-import-pkcs12

typedef struct _JOB_SPB_IMPORT_P12_INFO {
  THREAD_INFO ti;
  const char *pszFile;      // -in
  const char *pszPassword;  // -pwd
  const char *pszIspb;      // --ispb (optional)
  uint32_t dwFlags;         // --activate
} JOB_SPB_IMPORT_P12_INFO;

namespace {

void ShowJobSPBImportPKCS12Help() {
  JobHelpPage("spb-import-pkcs12",
              {"Import an institution's SPB key and certificate from a PKCS#12 file."},
              {"-in        PKCS#12 file", "-pwd       Password of the file",
               "--ispb     [OPTIONAL] The ISPB the certificate must name",
               "--activate [OPTIONAL] Make it the ISPB's active certificate."},
              {"-in inst.p12 -pwd secret --ispb 22222222 --activate"});
}

}  // namespace

unsigned int JobSPBImportPKCS12Thread(void *p) {
  auto *job = static_cast<JOB_SPB_IMPORT_P12_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    return CheckJobCall(
        "QSPBImportPKCS12",
        QSPBImportPKCS12(session, job->pszFile, job->pszPassword, job->pszIspb, job->dwFlags));
  });
}

int JobSPBImportPKCS12(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_IMPORT_P12_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszFile = GetParameterStr(pTestParam, nParameters, "-in");
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-pwd");
  job.pszIspb = GetParameterStr(pTestParam, nParameters, "--ispb");
  if (IsParameterDefined(pTestParam, nParameters, "--activate")) job.dwFlags = QL_SPB_CERT_ACTIVATE;
  const bool ok = IsGivenText(job.pszFile) && job.pszPassword != nullptr &&
                  IsOptionalIspbGood(pTestParam, nParameters, "--ispb");
  return StartJob(&JobSPBImportPKCS12Thread, &job.ti, sizeof job, false, ok,
                  &ShowJobSPBImportPKCS12Help);
}

// ---------------------------------------------------------------------------------------------
// spb-activate-cert

typedef struct _JOB_SPB_ACTIVATE_INFO {
  THREAD_INFO ti;
  const char *pszIspb;    // --ispb
  const char *pszDomain;  // --domain (optional)
  const char *pszSerial;  // --serial, hex
} JOB_SPB_ACTIVATE_INFO;

namespace {

void ShowJobSPBActivateCertHelp() {
  JobHelpPage("spb-activate-cert", {"Make one certificate of an ISPB its active certificate."},
              {"--ispb    The institution's ISPB (8 digits)",
               "--domain  [OPTIONAL] Domain recorded with it, 1 to 16 characters. Default SPB.",
               "--serial  The certificate's serial number, in hex"},
              {"--ispb 22222222 --serial 0123456789AB"});
}

}  // namespace

unsigned int JobSPBActivateCertificateThread(void *p) {
  auto *job = static_cast<JOB_SPB_ACTIVATE_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    return CheckJobCall(
        "QSPBActivateCertificate",
        QSPBActivateCertificate(session, job->pszIspb, job->pszDomain, job->pszSerial, 0));
  });
}

int JobSPBActivateCertificate(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_ACTIVATE_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszIspb = GetParameterStr(pTestParam, nParameters, "--ispb");
  job.pszDomain = GetParameterStr(pTestParam, nParameters, "--domain");
  job.pszSerial = GetParameterStr(pTestParam, nParameters, "--serial");
  const bool ok = IsIspb(job.pszIspb) && IsGivenText(job.pszSerial) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--domain");
  return StartJob(&JobSPBActivateCertificateThread, &job.ti, sizeof job, false, ok,
                  &ShowJobSPBActivateCertHelp);
}

// ---------------------------------------------------------------------------------------------
// spb-encode, spb-decode

typedef struct _JOB_SPB_MESSAGE_INFO {
  THREAD_INFO ti;
  const char *pszLocal;   // --si
  const char *pszRemote;  // --di
  const Bytes *pIn;       // -in
  unsigned char bC3;      // --c3 (hex)
  unsigned char bC4;      // --c4 (decimal)
  unsigned char bAcceptExpired;
  unsigned char bAutoUpdateCert;
  uint32_t dwFlags;
  const char *pszOutFile;  // --out
} JOB_SPB_MESSAGE_INFO;

namespace {

void ShowJobSPBEncodeHelp() {
  JobHelpHeader(false, {"Encode an SPB message: the security header, then the body."});
  ScreenOutput("     --si      The sending (local) institution's ISPB\r\n");
  ScreenOutput("     --di      The destination institution's ISPB\r\n");
  ShowInOption("The message");
  ScreenOutput("     --c3      [OPTIONAL] C03 (error code) byte, in hex. Default 00.\r\n");
  ScreenOutput("     --c4      [OPTIONAL] C04 (special treatment) byte. Default 0.\r\n");
  ScreenOutput("     --v3      [OPTIONAL] Version 3 (AES-256, SHA-256); version 2 by default.\r\n");
  ScreenOutput("     --gen01   [OPTIONAL] Sign only: the body stays in the clear.\r\n");
  ShowOutOption("encoded message");
  JobHelpExamples("spb-encode", {"--si 22222222 --di 11111111 -in msg.xml --v3 --out msg.spb"});
}

void ShowJobSPBDecodeHelp() {
  JobHelpHeader(false, {"Decode an SPB message (the security header, then the body) and check",
                        "its signature."});
  ScreenOutput("     --si      The receiving (local) institution's ISPB\r\n");
  ScreenOutput("     --di      The sending institution's ISPB\r\n");
  ShowInOption("The encoded message");
  ScreenOutput("     --aexp    [OPTIONAL] Accept expired certificates.\r\n");
  ScreenOutput("     --autocer [OPTIONAL] Activate the sender's certificate named by C13.\r\n");
  ScreenOutput("     --v3      [OPTIONAL] Refuse a version 2 header.\r\n");
  ScreenOutput("     --pad     [OPTIONAL] Leave the padding on the output.\r\n");
  ShowOutOption("message");
  JobHelpExamples("spb-decode", {"--si 11111111 --di 22222222 -in msg.spb --out msg.xml"});
}

int SpbEncodeWork(JOB_SPB_MESSAGE_INFO *job, HSESSIONCTX session) {
  const Bytes &in = *job->pIn;
  const auto size = static_cast<uint32_t>(in.size());
  HSPBMSGCTX msg = nullptr;
  int rc =
      CheckJobCall("QSPBEncodeInit", QSPBEncodeInit(session, job->pszLocal, job->pszRemote, size,
                                                    job->bC3, job->bC4, &msg, job->dwFlags));
  if (rc != 0) return rc;
  Bytes out(QL_SPB_HEADER_LEN);
  Bytes piece_out(kPieceOut);
  for (uint32_t done = 0; done < size && rc == 0;) {
    const uint32_t n = std::min(size - done, kPiece);
    uint32_t len = kPieceOut;
    rc = CheckJobCall("QSPBEncodeCont",
                      QSPBEncodeCont(msg, in.data() + done, n, piece_out.data(), &len));
    if (rc == 0) out.insert(out.end(), piece_out.begin(), piece_out.begin() + len);
    done += n;
  }
  uint32_t header_len = QL_SPB_HEADER_LEN;
  const int end = QSPBEncodeEnd(&msg, out.data(), &header_len);
  if (rc != 0) return rc;
  if (CheckJobCall("QSPBEncodeEnd", end) != 0) return end;
  return WriteJobOutput(job->pszOutFile, out.data(), out.size()) ? 0 : QL_ERR_FILE_IO;
}

int SpbDecodeWork(JOB_SPB_MESSAGE_INFO *job, HSESSIONCTX session) {
  const Bytes &in = *job->pIn;
  if (in.size() < QL_SPB_HEADER_LEN) {
    PrintJobError("QSPBDecodeInit", QL_ERR_SPB_BAD_HEADER);
    return QL_ERR_SPB_BAD_HEADER;
  }
  const auto body_len = static_cast<uint32_t>(in.size() - QL_SPB_HEADER_LEN);
  HSPBMSGCTX msg = nullptr;
  int rc = CheckJobCall(
      "QSPBDecodeInit",
      QSPBDecodeInit(session, job->pszLocal, job->pszRemote, in.data(), QL_SPB_HEADER_LEN, body_len,
                     job->bAcceptExpired, job->bAutoUpdateCert, &msg, job->dwFlags));
  if (rc != 0) return rc;
  Bytes out, piece_out(kPieceOut);
  for (uint32_t done = 0; done < body_len && rc == 0;) {
    const uint32_t n = std::min(body_len - done, kPiece);
    uint32_t len = kPieceOut;
    rc = CheckJobCall("QSPBDecodeCont", QSPBDecodeCont(msg, in.data() + QL_SPB_HEADER_LEN + done, n,
                                                       piece_out.data(), &len));
    if (rc == 0) out.insert(out.end(), piece_out.begin(), piece_out.begin() + len);
    done += n;
  }
  const int end = QSPBDecodeEnd(&msg);
  if (rc != 0) return rc;
  // Nothing decoded is shown unless the signature holds.
  if (CheckJobCall("QSPBDecodeEnd", end) != 0) return end;
  return WriteJobOutput(job->pszOutFile, out.data(), out.size()) ? 0 : QL_ERR_FILE_IO;
}

bool LoadMessageJob(JOB_SPB_MESSAGE_INFO *job, Bytes *in, TEST_PARAMETER *pTestParam,
                    int nParameters) {
  LoadJobParameters(&job->ti, pTestParam, nParameters, false);
  job->pszLocal = GetParameterStr(pTestParam, nParameters, "--si");
  job->pszRemote = GetParameterStr(pTestParam, nParameters, "--di");
  job->pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job->pIn = in;
  if (IsParameterDefined(pTestParam, nParameters, "--v3")) job->dwFlags |= QL_SPB_V3;
  DataInform inform = kFile;
  return IsIspb(job->pszLocal) && IsIspb(job->pszRemote) &&
         LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
         ReadJobData(pTestParam, nParameters, "-in", inform, in) &&
         IsOptionalTextGood(pTestParam, nParameters, "--out");
}

unsigned char OptionalByte(TEST_PARAMETER *pTestParam, int nParameters, const char *name, int base,
                           bool *ok) {
  if (!IsParameterDefined(pTestParam, nParameters, name)) return 0;
  const char *v = GetParameterStr(pTestParam, nParameters, name);
  char *end = nullptr;
  const unsigned long n = v != nullptr ? std::strtoul(v, &end, base) : 256;
  if (v == nullptr || *v == '\0' || *end != '\0' || n > 255) *ok = false;
  return static_cast<unsigned char>(n & 0xFF);
}

}  // namespace

unsigned int JobSPBEncodeThread(void *p) {
  auto *job = static_cast<JOB_SPB_MESSAGE_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return SpbEncodeWork(job, session); });
}

int JobSPBEncode(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_MESSAGE_INFO job{};
  Bytes in;
  bool ok = LoadMessageJob(&job, &in, pTestParam, nParameters);
  job.bC3 = OptionalByte(pTestParam, nParameters, "--c3", 16, &ok);
  job.bC4 = OptionalByte(pTestParam, nParameters, "--c4", 10, &ok);
  if (IsParameterDefined(pTestParam, nParameters, "--gen01")) job.dwFlags |= QL_SPB_GEN01;
  return StartJob(&JobSPBEncodeThread, &job.ti, sizeof job, false, ok, &ShowJobSPBEncodeHelp);
}

unsigned int JobSPBDecodeThread(void *p) {
  auto *job = static_cast<JOB_SPB_MESSAGE_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return SpbDecodeWork(job, session); });
}

int JobSPBDecode(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_MESSAGE_INFO job{};
  Bytes in;
  const bool ok = LoadMessageJob(&job, &in, pTestParam, nParameters);
  job.bAcceptExpired = IsParameterDefined(pTestParam, nParameters, "--aexp") ? 1 : 0;
  job.bAutoUpdateCert = IsParameterDefined(pTestParam, nParameters, "--autocer") ? 1 : 0;
  if (IsParameterDefined(pTestParam, nParameters, "--pad")) job.dwFlags |= QL_SPB_PAD;
  return StartJob(&JobSPBDecodeThread, &job.ti, sizeof job, false, ok, &ShowJobSPBDecodeHelp);
}

// ---------------------------------------------------------------------------------------------
// spb-dump-message

typedef struct _JOB_SPB_DUMP_INFO {
  THREAD_INFO ti;
  const Bytes *pIn;        // -in: header then body
  const char *pszKeyName;  // -kn (optional): the destination's key, to open the body
  const char *pszOutFile;  // --out
} JOB_SPB_DUMP_INFO;

namespace {

void ShowJobSPBDumpMessageHelp() {
  JobHelpHeader(false, {"Show the fields of an SPB security header and, with the destination's",
                        "key, the body it protects (its signature is not checked)."});
  ShowInOption("The encoded message");
  ScreenOutput("     -kn       [OPTIONAL] The destination's key: the body is decrypted.\r\n");
  ShowOutOption("decrypted body");
  JobHelpExamples("spb-dump-message", {"-in msg.spb", "-in msg.spb -kn SPB_11111111_00AA"});
}

void PrintHeader(const QL_SPB_HEADER &h) {
  SectionTable t("SPB security header", 3);
  t.AddRow("C01", "%s", ToHex(h.C01, sizeof h.C01).c_str());
  const unsigned char *fields[] = {&h.C02, &h.C03, &h.C04, &h.C05, &h.C06,
                                   &h.C07, &h.C08, &h.C09, &h.C10};
  for (int i = 0; i < 9; ++i) t.AddRow("C0" + std::to_string(i + 2), "%02X", *fields[i]);
  t.AddRow("C10", "%02X", h.C10);
  t.AddRow("C11", "%s", ToHex(h.C11, sizeof h.C11).c_str());
  t.AddRow("C12", "%02X", h.C12);
  t.AddRow("C13", "%s", ToHex(h.C13, sizeof h.C13).c_str());
  t.AddRow("C14", "%s", ToHex(h.C14, sizeof h.C14).c_str());
  t.AddRow("C15", "%s", ToHex(h.C15, sizeof h.C15).c_str());
  t.Print();
}

int SpbDumpWork(JOB_SPB_DUMP_INFO *job, HSESSIONCTX session) {
  const Bytes &in = *job->pIn;
  QL_SPB_HEADER h;
  std::memcpy(&h, in.data(), sizeof h);
  PrintHeader(h);
  if (job->pszKeyName == nullptr) return 0;
  KeyOwner key, session_key;
  int rc = CheckJobCall("QGetUserKey", QGetUserKey(session, job->pszKeyName, 0, key.Put()));
  if (rc != 0) return rc;
  const uint32_t alg = h.C07 == 2 ? QL_ALG_AES256 : QL_ALG_3DES_168;
  rc = CheckJobCall("QImportKey",
                    QImportKey(session, nullptr, key.Get(), h.C14, sizeof h.C14, QL_SIMPLE_BLOB,
                               alg, QL_KEY_TEMPORARY, session_key.Put()));
  if (rc != 0) return rc;
  const uint32_t mode = QL_MODE_CBC, padding = QL_PAD_PKCS5;
  const unsigned char iv[16] = {};
  rc = CheckJobCall("QSetKeyParam",
                    QSetKeyParam(session_key.Get(), QKP_MODE, &mode, sizeof mode, 0));
  if (rc == 0)
    rc = CheckJobCall("QSetKeyParam",
                      QSetKeyParam(session_key.Get(), QKP_PADDING, &padding, sizeof padding, 0));
  if (rc == 0)
    rc = CheckJobCall("QSetKeyParam",
                      QSetKeyParam(session_key.Get(), QKP_IV, iv, h.C07 == 2 ? 16 : 8, 0));
  if (rc != 0) return rc;
  Bytes body(in.begin() + QL_SPB_HEADER_LEN, in.end());
  uint32_t len = static_cast<uint32_t>(body.size());
  rc = CheckJobCall("QDecrypt", QDecrypt(session_key.Get(), nullptr, 1, 0, body.data(), &len));
  if (rc != 0) return rc;
  return WriteJobOutput(job->pszOutFile, body.data(), len) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobSPBDumpMessageThread(void *p) {
  auto *job = static_cast<JOB_SPB_DUMP_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return SpbDumpWork(job, session); });
}

int JobSPBDumpMessage(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SPB_DUMP_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes in;
  DataInform inform = kFile;
  job.pIn = &in;
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &in) &&
                  in.size() >= QL_SPB_HEADER_LEN &&
                  IsOptionalTextGood(pTestParam, nParameters, "-kn") &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobSPBDumpMessageThread, &job.ti, sizeof job, false, ok,
                  &ShowJobSPBDumpMessageHelp);
}
