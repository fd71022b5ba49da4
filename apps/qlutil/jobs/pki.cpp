// Signing-identity jobs: "import-pkcs12", "export-pkcs12", "cert-encoding-conv", "gen-pkcs10",
// "pkcs7-sign", "get-tls-cert", "set-tls-bundle".

#include <cstring>

#include "harness/harness.h"
#include "job.h"

typedef struct _JOB_PKCS12_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;   // -kn
  const char *pszCertName;  // -c; import: optional
  const char *pszPassword;  // -pwd
  const char *pszOutFile;   // export: --out; null: hex on the console
  const Bytes *pData;       // import: -in, read by the front function, which outlives the run
  uint32_t dwKeyFlags;      // import: the key flags
} JOB_PKCS12_INFO;

namespace {

void ShowJobImportPkcs12Help() {
  JobHelpHeader(false, {"Import a private key (RSA, EC or Ed25519) and its certificate from a",
                        "PKCS#12 file. With -c the certificate is kept too and linked to the",
                        "key (equal id and label); nothing is written when any step fails."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -c      [OPTIONAL] Certificate name. If not defined, the certificate is\r\n");
  ScreenOutput("             not kept.\r\n");
  ScreenOutput("     -in     PKCS#12 file\r\n");
  ScreenOutput("     -pwd    Password of the PKCS#12 file\r\n");
  ShowHelpKeyAttributesParameters();
  JobHelpExamples("import-pkcs12", {"-kn mykey -c mycert -in id.pfx -pwd 12345678 -exp 1"});
}

void ShowJobExportPkcs12Help() {
  JobHelpHeader(false, {"Export an exportable key and its certificate as a PKCS#12 file",
                        "(AES-256-CBC, PBKDF2, HMAC-SHA-256) under a password."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -c      Certificate name\r\n");
  ScreenOutput("     -pwd    Password of the PKCS#12 file\r\n");
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the file is printed in\r\n");
  ScreenOutput("             hex.\r\n");
  JobHelpExamples("export-pkcs12", {"-kn mykey -c mycert -pwd 12345678 --out id.pfx"});
}

int ImportPkcs12Work(JOB_PKCS12_INFO *job, HSESSIONCTX session) {
  int rc =
      QImportPKCS12Buffer(session, job->pData->data(), static_cast<uint32_t>(job->pData->size()),
                          job->pszPassword, job->pszKeyName, job->pszCertName, job->dwKeyFlags);
  if (rc != 0) {
    PrintJobError("QImportPKCS12Buffer", rc);
    return rc;
  }
  if (!IsGivenText(job->pszCertName)) {
    ScreenOutput("Key %s imported.\r\n", job->pszKeyName);
    return 0;
  }
  rc = QAssociatePKCS11Key(session, job->pszKeyName, job->pszCertName, 0);
  if (rc != 0) {
    PrintJobError("QAssociatePKCS11Key", rc);
    return rc;
  }
  ScreenOutput("Key %s and certificate %s imported.\r\n", job->pszKeyName, job->pszCertName);
  return 0;
}

int ExportPkcs12Work(JOB_PKCS12_INFO *job, HSESSIONCTX session) {
  LibBuffer data;
  uint32_t len = 0;
  int rc = QExportPKCS12(session, job->pszPassword, job->pszKeyName, job->pszCertName, data.Put(),
                         &len, 0);
  if (rc != 0) {
    PrintJobError("QExportPKCS12", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, data.Get(), len, true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobImportPKCS12Thread(void *p) {
  auto *job = static_cast<JOB_PKCS12_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ImportPkcs12Work(job, session); });
}

unsigned int JobExportPKCS12Thread(void *p) {
  auto *job = static_cast<JOB_PKCS12_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ExportPkcs12Work(job, session); });
}

int JobImportPKCS12(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PKCS12_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszCertName = GetParameterStr(pTestParam, nParameters, "-c");
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-pwd");
  job.dwKeyFlags = LoadGenericKeyFlagsParameters(pTestParam, nParameters);
  Bytes data;
  const bool ok = IsGivenText(job.pszKeyName) && job.pszPassword != nullptr &&
                  IsOptionalTextGood(pTestParam, nParameters, "-c") &&
                  ReadJobData(pTestParam, nParameters, "-in", kFile, &data);
  job.pData = &data;
  return StartJob(&JobImportPKCS12Thread, &job.ti, sizeof job, false, ok, &ShowJobImportPkcs12Help);
}

int JobExportPKCS12(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PKCS12_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszCertName = GetParameterStr(pTestParam, nParameters, "-c");
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-pwd");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = IsGivenText(job.pszKeyName) && IsGivenText(job.pszCertName) &&
                  IsGivenText(job.pszPassword) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobExportPKCS12Thread, &job.ti, sizeof job, false, ok, &ShowJobExportPkcs12Help);
}

namespace {

void ShowJobCertEncodingConvHelp() {
  ScreenOutput("\r\nDESCRIPTION\r\n");
  ScreenOutput("     Convert a certificate from DER to PEM or back. No HSM is needed.\r\n");
  ScreenOutput("\r\nOPTIONS\r\n");
  ScreenOutput("     -in        Certificate file, DER or PEM\r\n");
  ScreenOutput("     --outform  pem or der\r\n");
  ScreenOutput(
      "     --out      [OPTIONAL] Output file. If not defined, PEM is printed as text\r\n");
  ScreenOutput("                and DER in hex.\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("     qlutil -j cert-encoding-conv -in cert.der --outform pem --out cert.pem\r\n");
}

}  // namespace

// Runs in the library alone: no session, so no connection options and no job thread.
int JobCertEncodingConv(TEST_PARAMETER *pTestParam, int nParameters) {
  const char *in = GetParameterStr(pTestParam, nParameters, "-in");
  const char *outform = GetParameterStr(pTestParam, nParameters, "--outform");
  const char *out = GetParameterStr(pTestParam, nParameters, "--out");
  uint32_t form = 0;
  if (outform != nullptr && strcmp(outform, "der") == 0) form = 1;
  if (outform != nullptr && strcmp(outform, "pem") == 0) form = 2;
  Bytes data;
  if (form == 0 || !IsGivenText(in) || !IsOptionalTextGood(pTestParam, nParameters, "--out") ||
      !ReadLocalFile(in, &data) || data.empty()) {
    ShowJobCertEncodingConvHelp();
    return kResultUsage;
  }
  LibBuffer converted;
  uint32_t len = 0;
  const int rc = QCertEncodingConvert(data.data(), static_cast<uint32_t>(data.size()), form,
                                      converted.Put(), &len);
  if (rc != 0) {
    PrintJobError("QCertEncodingConvert", rc);
    return rc;
  }
  if (out == nullptr && form == 2) {
    ScreenOutput("%.*s", static_cast<int>(len), reinterpret_cast<const char *>(converted.Get()));
    return kResultSuccess;
  }
  return WriteJobOutput(out, converted.Get(), len) ? kResultSuccess : QL_ERR_FILE_IO;
}

// ---------------------------------------------------------------------------------------------
// "gen-pkcs10", "pkcs7-sign"

typedef struct _JOB_SIGNED_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;    // -kn
  const char *pszSubject;    // gen-pkcs10: --subject
  const char *pszCertName;   // pkcs7-sign: -keycert
  const char *pszChainName;  // pkcs7-sign: -certchain, optional
  const char *pszOutFile;    // --out; null: on the console
  const Bytes *pData;        // pkcs7-sign: -filein
  uint32_t dwHashAlgId;      // -h; 0: SHA-256
  uint32_t dwOutForm;        // gen-pkcs10: -of
  uint32_t dwAttributes;     // pkcs7-sign: the -p7attr_* switches
} JOB_SIGNED_INFO;

namespace {

struct P7Switch {
  const char *pszSwitch;
  uint32_t dwBit;
};
constexpr P7Switch kP7Switches[] = {
    {"-p7attr_text", QL_P7_TEXT},
    {"-p7attr_nocerts", QL_P7_NOCERTS},
    {"-p7attr_nosigns", QL_P7_NOSIGS},
    {"-p7attr_nochain", QL_P7_NOCHAIN},
    {"-p7attr_nointern", QL_P7_NOINTERN},
    {"-p7attr_noverify", QL_P7_NOVERIFY},
    {"-p7attr_detached", QL_P7_DETACHED},
    {"-p7attr_binary", QL_P7_BINARY},
    {"-p7attr_noattr", QL_P7_NOATTR},
    {"-p7attr_nosmimecap", QL_P7_NOSMIMECAP},
    {"-p7attr_nooldmimetype", QL_P7_NOOLDMIMETYPE},
    {"-p7attr_crlfeol", QL_P7_CRLFEOL},
    {"-p7attr_nocrl", QL_P7_NOCRL},
    {"-p7attr_cosign", QL_P7_COSIGN},
};

void ShowJobGenPkcs10Help() {
  JobHelpHeader(false, {"Generate a PKCS#10 certificate request signed by a key of the HSM",
                        "(RSA PKCS#1 v1.5, ECDSA or Ed25519)."});
  ScreenOutput("     -kn        Key name\r\n");
  ScreenOutput("     --subject  Subject, RFC 4514 (\"CN=alice,O=Acme,C=BR\")\r\n");
  ScreenOutput("     -h         [OPTIONAL] Hash algorithm. Default sha256.\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -ver       [OPTIONAL] Request version. Default p10_csr_version1.\r\n");
  ShowHelpGenPkcs10Version();
  ScreenOutput("     -of        [OPTIONAL] Output form. Default p10_csr_pem.\r\n");
  ShowHelpGenPkcs10OutType();
  ScreenOutput(
      "     --out      [OPTIONAL] Output file. If not defined, PEM is printed as text\r\n");
  ScreenOutput("                and DER in hex.\r\n");
  JobHelpExamples("gen-pkcs10", {"-kn myrsa --subject \"CN=alice,O=Acme\" -of p10_csr_der "
                                 "--out alice.csr"});
}

void ShowJobPkcs7SignHelp() {
  JobHelpHeader(false, {"Sign data as CMS SignedData (DER) with a key of the HSM, adding its",
                        "certificate and chain."});
  ScreenOutput("     -filein     File to sign\r\n");
  ScreenOutput("     -kn         Name of the signing key\r\n");
  ScreenOutput("     -keycert    Name of the signer certificate\r\n");
  ScreenOutput("     -certchain  [OPTIONAL] Name of the certificate chain to include\r\n");
  ScreenOutput("     -h          [OPTIONAL] Hash algorithm: sha1, sha256 (default), sha384,\r\n");
  ScreenOutput("                 sha512\r\n");
  ScreenOutput("     --out       [OPTIONAL] Output file. If not defined, the signature is\r\n");
  ScreenOutput("                 printed in hex.\r\n");
  ShowHelpP7SignAttributesParameters();
  JobHelpExamples("pkcs7-sign",
                  {"-filein data.txt -kn p7key -keycert p7cert -p7attr_detached --out data.p7s"});
}

int GenPkcs10Work(JOB_SIGNED_INFO *job, HSESSIONCTX session) {
  LibBuffer csr;
  uint32_t len = 0;
  int rc = QGeneratePKCS10CSR(session, job->pszKeyName, job->pszSubject, QL_P10_CSR_VERSION1,
                              job->dwOutForm, job->dwHashAlgId, csr.Put(), &len, 0);
  if (rc != 0) {
    PrintJobError("QGeneratePKCS10CSR", rc);
    return rc;
  }
  if (job->pszOutFile == nullptr && job->dwOutForm == QL_P10_CSR_PEM) {
    ScreenOutput("%.*s", static_cast<int>(len), reinterpret_cast<const char *>(csr.Get()));
    return 0;
  }
  return WriteJobOutput(job->pszOutFile, csr.Get(), len) ? 0 : QL_ERR_FILE_IO;
}

int Pkcs7SignWork(JOB_SIGNED_INFO *job, HSESSIONCTX session) {
  LibBuffer signed_data;
  uint32_t len = 0;
  int rc =
      QPKCS7Sign(session, job->pszKeyName, job->pszCertName, job->pszChainName, job->dwAttributes,
                 job->pData->data(), static_cast<uint32_t>(job->pData->size()), signed_data.Put(),
                 &len, (job->dwHashAlgId & 0xFF) << 16);
  if (rc != 0) {
    PrintJobError("QPKCS7Sign", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, signed_data.Get(), len) ? 0 : QL_ERR_FILE_IO;
}

// -h: absent gives 0 (the HSM's default); a word that is no algorithm is refused.
bool LoadOptionalHash(TEST_PARAMETER *pTestParam, int nParameters, uint32_t *hash) {
  *hash = 0;
  if (!IsParameterDefined(pTestParam, nParameters, "-h")) return true;
  const int alg = GetParameterAlg(pTestParam, nParameters, "-h");
  if (alg < 0) return false;
  *hash = static_cast<uint32_t>(alg);
  return true;
}

}  // namespace

unsigned int JobGenPkcs10Thread(void *p) {
  auto *job = static_cast<JOB_SIGNED_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return GenPkcs10Work(job, session); });
}

unsigned int JobPkcs7SignThread(void *p) {
  auto *job = static_cast<JOB_SIGNED_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return Pkcs7SignWork(job, session); });
}

int JobGenPkcs10(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SIGNED_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszSubject = GetParameterStr(pTestParam, nParameters, "--subject");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.dwOutForm = QL_P10_CSR_PEM;
  bool ok = LoadOptionalHash(pTestParam, nParameters, &job.dwHashAlgId);
  if (IsParameterDefined(pTestParam, nParameters, "-ver"))
    ok = ok && GetParameterAlg(pTestParam, nParameters, "-ver") == QL_P10_CSR_VERSION1;
  if (IsParameterDefined(pTestParam, nParameters, "-of")) {
    const int form = GetParameterAlg(pTestParam, nParameters, "-of");
    ok = ok && (form == QL_P10_CSR_DER || form == QL_P10_CSR_PEM);
    job.dwOutForm = static_cast<uint32_t>(form);
  }
  ok = ok && IsGivenText(job.pszKeyName) && IsGivenText(job.pszSubject) &&
       IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobGenPkcs10Thread, &job.ti, sizeof job, false, ok, &ShowJobGenPkcs10Help);
}

int JobPkcs7Sign(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SIGNED_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszCertName = GetParameterStr(pTestParam, nParameters, "-keycert");
  job.pszChainName = GetParameterStr(pTestParam, nParameters, "-certchain");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  for (const P7Switch &s : kP7Switches)
    if (IsParameterDefined(pTestParam, nParameters, s.pszSwitch)) job.dwAttributes |= s.dwBit;
  Bytes data;
  const bool ok = LoadOptionalHash(pTestParam, nParameters, &job.dwHashAlgId) &&
                  IsGivenText(job.pszKeyName) && IsGivenText(job.pszCertName) &&
                  IsOptionalTextGood(pTestParam, nParameters, "-certchain") &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out") &&
                  ReadJobData(pTestParam, nParameters, "-filein", kFile, &data);
  job.pData = &data;
  return StartJob(&JobPkcs7SignThread, &job.ti, sizeof job, false, ok, &ShowJobPkcs7SignHelp);
}

// ---------------------------------------------------------------------------------------------
// "get-tls-cert"

typedef struct _JOB_TLS_CERT_INFO {
  THREAD_INFO ti;
  const char *pszOutFile;  // --out; null: on the console
  uint32_t dwFormat;       // --outform: 1 DER, 2 PEM
} JOB_TLS_CERT_INFO;

namespace {

void ShowJobGetTlsCertHelp() {
  JobHelpHeader(true, {"Show the HSM's TLS certificate and its SHA-256 fingerprint, as the",
                       "known-HSMs file records it. The connection is checked as any other:",
                       "a changed or unknown certificate is refused, never bypassed."});
  ScreenOutput("     --out      [OPTIONAL] Output file for the certificate. If not defined,\r\n");
  ScreenOutput("                PEM is printed as text and DER in hex.\r\n");
  ScreenOutput("     --outform  [OPTIONAL] pem (default) or der\r\n");
  JobHelpExamples("get-tls-cert", {"", "--out hsm.pem"});
}

std::string LowerHex(const unsigned char *data, size_t len) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < len; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 15];
  }
  return out;
}

int GetTlsCertWork(JOB_TLS_CERT_INFO *job, HSESSIONCTX session) {
  LibBuffer der;
  uint32_t der_len = 0;
  int rc = QGetHSMTLSCert(session, 1, der.Put(), &der_len);
  if (rc != 0) {
    PrintJobError("QGetHSMTLSCert", rc);
    return rc;
  }
  HashOwner hash;
  unsigned char digest[32];
  uint32_t digest_len = sizeof digest;
  rc = QCreateHash(session, QL_ALG_SHA256, nullptr, 0, hash.Put());
  if (rc == 0) rc = QHashData(hash.Get(), der.Get(), der_len, 0);
  if (rc == 0) rc = QGetHashParam(hash.Get(), QHP_HASHVAL, digest, &digest_len, 0);
  if (rc != 0) {
    PrintJobError("QHashData", rc);
    return rc;
  }
  if (job->dwFormat == 1) {
    if (!WriteJobOutput(job->pszOutFile, der.Get(), der_len)) return QL_ERR_FILE_IO;
  } else {
    LibBuffer pem;
    uint32_t pem_len = 0;
    rc = QGetHSMTLSCert(session, 2, pem.Put(), &pem_len);
    if (rc != 0) {
      PrintJobError("QGetHSMTLSCert", rc);
      return rc;
    }
    if (job->pszOutFile == nullptr) {
      ScreenOutput("%.*s", static_cast<int>(pem_len), reinterpret_cast<const char *>(pem.Get()));
    } else if (!WriteLocalFile(job->pszOutFile, pem.Get(), pem_len)) {
      return QL_ERR_FILE_IO;
    }
  }
  const std::string address = job->ti.GetAddress();
  const std::string host = address.find(':') != std::string::npos ? "[" + address + "]" : address;
  ScreenOutput("%s:%d %s\r\n", host.c_str(), job->ti.GetPort(),
               LowerHex(digest, digest_len).c_str());
  return 0;
}

}  // namespace

unsigned int JobGetTLSCertThread(void *p) {
  auto *job = static_cast<JOB_TLS_CERT_INFO *>(p);
  return RunSessionJob(
      &job->ti, [job](HSESSIONCTX session) { return GetTlsCertWork(job, session); },
      kAnonymousSession);
}

int JobGetTLSCert(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_TLS_CERT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, true);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const char *form = GetParameterStr(pTestParam, nParameters, "--outform");
  job.dwFormat = 2;
  bool ok = IsOptionalTextGood(pTestParam, nParameters, "--out");
  if (form != nullptr) {
    ok = ok && (strcmp(form, "pem") == 0 || strcmp(form, "der") == 0);
    job.dwFormat = strcmp(form, "der") == 0 ? 1 : 2;
  }
  return StartJob(&JobGetTLSCertThread, &job.ti, sizeof job, true, ok, &ShowJobGetTlsCertHelp);
}

// ---------------------------------------------------------------------------------------------
// "set-tls-bundle"

typedef struct _JOB_TLS_BUNDLE_INFO {
  THREAD_INFO ti;
  const Bytes *pBundle;  // -in, read by the front function, which outlives the run
} JOB_TLS_BUNDLE_INFO;

namespace {

void ShowJobSetTlsBundleHelp() {
  JobHelpPage("set-tls-bundle",
              {"Replace the HSM's TLS identity: a PEM file holding the private key (RSA",
               "of 2048 bits or more, P-256, P-384 or Ed25519), its certificate, then any",
               "intermediates. New connections get it at once and after a restart; open",
               "ones keep the old one. Clients that pinned the old certificate in their",
               "known-HSMs file must pin the new one (see get-tls-cert); clients that",
               "trust a CA bundle accept a certificate of that CA."},
              {"-in     Bundle file (PEM: key, certificate, intermediates)"},
              {"-in hsm-bundle.pem"});
}

}  // namespace

unsigned int JobSetTLSBundleThread(void *p) {
  auto *job = static_cast<JOB_TLS_BUNDLE_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc = CheckJobCall(
        "QAdmOperation",
        QAdmOperation(session, QL_ADM_SET_TLS_BUNDLE, job->pBundle->data(),
                      static_cast<uint32_t>(job->pBundle->size()), nullptr, nullptr, 0));
    if (rc == 0) ScreenOutput("TLS bundle set.\r\n");
    return rc;
  });
}

int JobSetTLSBundle(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_TLS_BUNDLE_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  const char *in = GetParameterStr(pTestParam, nParameters, "-in");
  Bytes bundle;
  const bool ok = IsGivenText(in) && ReadLocalFile(in, &bundle) && !bundle.empty();
  job.pBundle = &bundle;
  return StartJob(&JobSetTLSBundleThread, &job.ti, sizeof job, false, ok, &ShowJobSetTlsBundleHelp);
}
