// The PIX performance tests: pix-sign, pix-dict-sign, pix-verify, pix-dict-verify,
// pix-jws-sign, pix-jws-check, pix-request.
//
// Members that differ only in the call share their callbacks: pix-sign and pix-dict-sign run
// PerfSignPIXDictThread, pix-verify and pix-dict-verify PerfVerifyPIXDictThread, pix-jws-sign
// and pix-jws-check PerfSignCheckPIXJWSThread; the record says which call to make. The PIX
// default objects (the embedded signing identity: key, certificate and its CA as the chain) are
// installed in Init and removed in Fin when the user names no key.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "PerformanceTests.h"
#include "harness/harness.h"
#include "jws_payload.h"
#include "signing_identity.h"

namespace {

// The document signed when -x names none.
constexpr const char kDefaultPixXml[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<envelope xmlns=\"https://www.bcb.gov.br/pi/pacs.008/1.0\">"
    "<AppHdr><Fr><FIId><FinInstnId><Othr><Id>11111111</Id></Othr></FinInstnId></FIId></Fr>"
    "<To><FIId><FinInstnId><Othr><Id>22222222</Id></Othr></FinInstnId></FIId></To>"
    "<BizMsgIdr>M1111111100000000000000000000001</BizMsgIdr><MsgDefIdr>pacs.008.spi.1.0</MsgDefIdr>"
    "<CreDt>2020-01-01T00:00:00.000Z</CreDt><Sgntr/></AppHdr>"
    "<Document><FIToFICstmrCdtTrf><GrpHdr><MsgId>M1111111100000000000000000000001</MsgId>"
    "<NbOfTxs>1</NbOfTxs></GrpHdr></FIToFICstmrCdtTrf></Document></envelope>";
constexpr const char kDefaultJwsHeader[] = "{\"alg\":\"RS256\",\"typ\":\"JWT\"}";
constexpr const char kDefaultJwsPayload[] = "{\"sub\":\"qlutil\",\"test\":\"pix-jws\"}";
constexpr uint32_t kPixFlagRemoveNamespace = 1;  // --rns
constexpr uint32_t kDefaultRequestTimeoutMs = 30000;

enum PixKind { kPixSign, kPixVerify, kPixJwsSign, kPixJwsCheck, kPixRequest };
enum PixMethod { kPixPost, kPixGet, kPixPut, kPixDelete };

}  // namespace

typedef struct _PERF_PIX_INFO {
  THREAD_INFO ti;
  int Kind;    // PixKind
  bool bDict;  // the DICT calls (QPIXDictSign, QPIXDictVerify)
  uint32_t dwFlags;
  const char *pszKeyName;   // -kn; the default objects' key when absent
  const char *pszCertName;  // -c
  const char *pszChain;     // --chain
  const char *pszCrl;       // --crl
  const char *pszHeader;    // --header
  const char *pszUrl;       // --url
  const char *pszDumpDir;   // --dump
  int Method;               // -r (pix-request)
  uint32_t dwTimeoutMs;     // --tmout
  DBLOB stInput;            // -x or --rdata or --payload: the document, request body or payload
  HSESSIONCTX hSrcSession;  // Init and Fin
  SigningIdentityNames stIdentity;  // the PIX default objects
  unsigned char *pbSigned;          // verify and check: signed once in Init (QAlloc)
  uint32_t dwSignedLen;
  HSESSIONCTX hSession;
} PERF_PIX_INFO;

namespace {

const char *PixKey(const PERF_PIX_INFO *info) {
  return info->pszKeyName != nullptr ? info->pszKeyName : info->stIdentity.szKey;
}
const char *PixCert(const PERF_PIX_INFO *info) {
  return info->pszCertName != nullptr ? info->pszCertName : info->stIdentity.szCert;
}
const char *PixChain(const PERF_PIX_INFO *info) {
  return info->pszChain != nullptr ? info->pszChain : info->stIdentity.szChain;
}

// The PIX default objects: the embedded signing identity under temporary names.
int PIXDefaultObjects(const char *tag, PERF_PIX_INFO *info, bool install) {
  if (install) return InstallSigningIdentity(tag, info->hSrcSession, &info->stIdentity);
  RemoveSigningIdentity(info->hSrcSession, &info->stIdentity);
  return 0;
}

int SignOnce(PERF_PIX_INFO *info, HSESSIONCTX session, unsigned char **out, uint32_t *out_len) {
  const unsigned char *in = info->stInput.pvData;
  const uint32_t in_len = info->stInput.dwDataLen;
  switch (info->Kind) {
    case kPixJwsSign:
      return QPIXJWSSign(session, PixKey(info), info->pszHeader, in, in_len,
                         reinterpret_cast<char **>(out), out_len, info->dwFlags);
    case kPixJwsCheck:
      // The check finds the signer in x5c.
      return QPIXJWSSign(session, PixKey(info), info->pszHeader, in, in_len,
                         reinterpret_cast<char **>(out), out_len, info->dwFlags | QL_JWS_ADD_X5C);
    default:
      return info->bDict ? QPIXDictSign(session, PixKey(info), PixCert(info), in, in_len, out,
                                        out_len, info->dwFlags)
                         : QPIXSign(session, PixKey(info), PixCert(info), in, in_len, out, out_len,
                                    info->dwFlags);
  }
}

const char *SignCallName(const PERF_PIX_INFO *info) {
  if (info->Kind == kPixJwsSign || info->Kind == kPixJwsCheck) return "QPIXJWSSign";
  return info->bDict ? "QPIXDictSign" : "QPIXSign";
}

// One DER element at p (n bytes there): its header and content lengths. False when it does not
// fit.
bool ReadDer(const unsigned char *p, size_t n, size_t *head, size_t *len) {
  if (n < 2) return false;
  *head = 2;
  *len = p[1];
  if (*len & 0x80) {
    const size_t bytes = *len & 0x7f;
    if (bytes == 0 || bytes > 4 || n < 2 + bytes) return false;
    *len = 0;
    for (size_t i = 0; i < bytes; ++i) *len = (*len << 8) | p[2 + i];
    *head += bytes;
  }
  return n - *head >= *len;
}

bool AppendPem(const unsigned char *der, size_t len, std::string *pem) {
  std::string b64(len * 4 / 3 + 8, '\0');
  uint32_t b64_len = static_cast<uint32_t>(b64.size());
  if (QByteArray2Base64(der, static_cast<uint32_t>(len), b64.data(), &b64_len) != 0) return false;
  b64.resize(b64_len);
  *pem += "-----BEGIN CERTIFICATE-----\n";
  for (size_t i = 0; i < b64.size(); i += 64) *pem += b64.substr(i, 64) + "\n";
  *pem += "-----END CERTIFICATE-----\n";
  return true;
}

// The certificates of a certs-only PKCS#7 (ContentInfo { OID, [0] SignedData { version,
// digest algorithms, content, [0] certificates, ... } }) whose content starts at p.
bool AppendPkcs7Certificates(const unsigned char *p, size_t n, std::string *pem) {
  size_t head, len;
  // Skip the OID; enter [0] and the SignedData SEQUENCE.
  if (!ReadDer(p, n, &head, &len)) return false;
  p += head + len, n -= head + len;
  for (int level = 0; level < 2; ++level) {
    if (!ReadDer(p, n, &head, &len)) return false;
    p += head, n = len;
  }
  while (n > 0) {
    if (!ReadDer(p, n, &head, &len)) return false;
    if (p[0] == 0xA0) {
      const unsigned char *cert = p + head;
      size_t left = len;
      while (left > 0) {
        size_t cert_head, cert_len;
        if (!ReadDer(cert, left, &cert_head, &cert_len) ||
            !AppendPem(cert, cert_head + cert_len, pem))
          return false;
        cert += cert_head + cert_len;
        left -= cert_head + cert_len;
      }
      return true;
    }
    p += head + len, n -= head + len;
  }
  return false;
}

// PEM of a certificate or chain object's material: kept as it is when it is PEM already; else
// each certificate (one, several one after the other, or a PKCS#7's) in its own block.
bool MaterialToPem(const std::vector<unsigned char> &material, std::string *pem) {
  static const char kBegin[] = "-----BEGIN";
  if (material.size() >= sizeof kBegin - 1 &&
      std::memcmp(material.data(), kBegin, sizeof kBegin - 1) == 0) {
    pem->assign(material.begin(), material.end());
    return true;
  }
  const unsigned char *p = material.data();
  size_t n = material.size();
  while (n > 0) {
    size_t head, len;
    if (p[0] != 0x30 || !ReadDer(p, n, &head, &len) || len == 0) return false;
    // A PKCS#7 starts with its content type (an OID), a certificate with a SEQUENCE.
    const bool pkcs7 = p[head] == 0x06;
    if (pkcs7 ? !AppendPkcs7Certificates(p + head, len, pem) : !AppendPem(p, head + len, pem))
      return false;
    p += head + len;
    n -= head + len;
  }
  return !pem->empty();
}

// The PEM of a certificate or chain object of the HSM.
int ExportCertificatePem(HSESSIONCTX session, const char *name, std::string *pem) {
  HKEYCTX key = nullptr;
  int rc = QGetUserKey(session, name, 0, &key);
  if (rc != 0) return rc;
  std::vector<unsigned char> material(1 << 16);
  uint32_t len = static_cast<uint32_t>(material.size());
  rc = QExportKey(key, nullptr, QL_CERT_BLOB, 0, material.data(), &len);
  if (rc == QL_ERR_BUFFER_TOO_SMALL) {
    material.resize(len);
    rc = QExportKey(key, nullptr, QL_CERT_BLOB, 0, material.data(), &len);
  }
  QDestroyKey(&key, 0);
  if (rc != 0) return rc;
  material.resize(len);
  return MaterialToPem(material, pem) ? 0 : QL_ERR_BAD_CERT;
}

// Writes the request's pieces into the --dump folder, so that the same request can be replayed
// by other tools: the client's certificate and the chain that verifies the service (PEM), the
// URL, the header lines and the body.
int DumpRequestFiles(const PERF_PIX_INFO *info) {
  std::string client_pem, ca_pem;
  int rc = ExportCertificatePem(info->hSrcSession, PixCert(info), &client_pem);
  if (rc == 0) rc = ExportCertificatePem(info->hSrcSession, PixChain(info), &ca_pem);
  if (rc != 0) return rc;
  const std::string dir = info->pszDumpDir;
  const std::string body(reinterpret_cast<const char *>(info->stInput.pvData),
                         info->stInput.dwDataLen);
  const bool ok = WriteTextToFile((dir + "/client_cert.pem").c_str(), client_pem.c_str()) == 0 &&
                  WriteTextToFile((dir + "/ca_chain.pem").c_str(), ca_pem.c_str()) == 0 &&
                  WriteTextToFile((dir + "/pix_request_url").c_str(), info->pszUrl) == 0 &&
                  WriteTextToFile((dir + "/pix_request_header").c_str(),
                                  info->pszHeader ? info->pszHeader : "") == 0 &&
                  WriteTextToFile((dir + "/pix_request_body").c_str(), body.c_str()) == 0;
  return ok ? 0 : QL_ERR_FILE_IO;
}

// A detached JWS signed in Init gets its payload back, so that each pass checks it whole.
int AttachPayload(PERF_PIX_INFO *info) {
  std::string jws(reinterpret_cast<const char *>(info->pbSigned), info->dwSignedLen);
  if (!AttachJwsPayload(&jws, info->stInput.pvData, info->stInput.dwDataLen)) {
    return QL_ERR_BAD_ARGUMENT;
  }
  auto *whole = static_cast<unsigned char *>(QAlloc(static_cast<unsigned int>(jws.size() + 1)));
  if (whole == nullptr) return QL_ERR_NO_MEMORY;
  std::memcpy(whole, jws.c_str(), jws.size() + 1);
  QFree(info->pbSigned);
  info->pbSigned = whole;
  info->dwSignedLen = static_cast<uint32_t>(jws.size());
  return 0;
}

}  // namespace

int PerfPIXFin(void *pTestInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pTestInfo);
  if (info->pbSigned != nullptr) QFree(info->pbSigned);
  info->pbSigned = nullptr;
  PIXDefaultObjects("PerfPIXFin", info, false);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfPIXInit(void *pTestInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pTestInfo);
  PerfSetup setup("PerfPIXInit");
  setup.Connect(&info->ti, &info->hSrcSession);
  if (info->pszKeyName == nullptr) {
    setup.Run([&] { return PIXDefaultObjects(setup.Tag(), info, true); });
  }
  if (info->Kind == kPixVerify || info->Kind == kPixJwsCheck) {
    setup.Do(SignCallName(info), [&] {
      return SignOnce(info, info->hSrcSession, &info->pbSigned, &info->dwSignedLen);
    });
  }
  if (info->Kind == kPixJwsCheck && (info->dwFlags & QL_JWS_DETACHED)) {
    setup.Do("AttachJwsPayload", [&] { return AttachPayload(info); });
  }
  if (info->Kind == kPixRequest && info->pszDumpDir != nullptr) {
    setup.Do("DumpRequestFiles", [&] { return DumpRequestFiles(info); });
  }
  if (!setup.Ok()) PerfPIXFin(info);
  return setup.Rc();
}

int PerfPIXThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  return PerfSetup("PerfPIXThreadInit").Connect(&info->ti, &info->hSession).Rc();
}

int PerfPIXThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  return 0;
}

unsigned int PerfSignPIXDictThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    unsigned char *out = nullptr;
    uint32_t out_len = 0;
    const int rc = SignOnce(info, info->hSession, &out, &out_len);
    QFree(out);
    return rc == 0 ? 0 : PerfPassFailed("PerfSignPIXDictThread", SignCallName(info), rc, counter);
  });
}

unsigned int PerfVerifyPIXDictThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    const int rc = info->bDict ? QPIXDictVerify(info->hSession, PixChain(info), info->pszCrl,
                                                info->pbSigned, info->dwSignedLen, info->dwFlags)
                               : QPIXVerify(info->hSession, PixChain(info), info->pszCrl,
                                            info->pbSigned, info->dwSignedLen, info->dwFlags);
    return rc == 0 ? 0
                   : PerfPassFailed("PerfVerifyPIXDictThread",
                                    info->bDict ? "QPIXDictVerify" : "QPIXVerify", rc, counter);
  });
}

unsigned int PerfSignCheckPIXJWSThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    int rc = 0;
    if (info->Kind == kPixJwsCheck) {
      rc = QPIXJWSCheck(info->hSession, PixChain(info), info->pszCrl,
                        reinterpret_cast<const char *>(info->pbSigned), info->dwSignedLen,
                        info->dwFlags);
    } else {
      unsigned char *jws = nullptr;
      uint32_t jws_len = 0;
      rc = SignOnce(info, info->hSession, &jws, &jws_len);
      QFree(jws);
    }
    return rc == 0 ? 0
                   : PerfPassFailed("PerfSignCheckPIXJWSThread",
                                    info->Kind == kPixJwsCheck ? "QPIXJWSCheck" : "QPIXJWSSign", rc,
                                    counter);
  });
}

namespace {

// One PIX request of the method -r names; the answer is released at once.
int PIXRequestRouter(PERF_PIX_INFO *info, uint32_t *http_status) {
  unsigned char *answer = nullptr;
  uint32_t answer_len = 0;
  const unsigned char *body = info->stInput.pvData;
  const uint32_t body_len = info->stInput.dwDataLen;
  const char *key = PixKey(info);
  const char *cert = PixCert(info);
  const char *chain = PixChain(info);
  int rc;
  switch (info->Method) {
    case kPixGet:
      rc = QPIXGet(info->hSession, key, cert, chain, info->pszUrl, info->pszHeader,
                   info->dwTimeoutMs, &answer, &answer_len, http_status, 0);
      break;
    case kPixPut:
      rc = QPIXPut(info->hSession, key, cert, chain, info->pszUrl, info->pszHeader, body, body_len,
                   info->dwTimeoutMs, &answer, &answer_len, http_status, 0);
      break;
    case kPixDelete:
      rc = QPIXDelete(info->hSession, key, cert, chain, info->pszUrl, info->pszHeader,
                      info->dwTimeoutMs, &answer, &answer_len, http_status, 0);
      break;
    default:
      rc = QPIXPost(info->hSession, key, cert, chain, info->pszUrl, info->pszHeader, body, body_len,
                    info->dwTimeoutMs, &answer, &answer_len, http_status, 0);
      break;
  }
  QFree(answer);
  return rc;
}

}  // namespace

unsigned int PerfRequestPIXThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_PIX_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    uint32_t http_status = 0;
    const int rc = PIXRequestRouter(info, &http_status);
    return rc == 0 ? 0 : PerfPassFailed("PerfRequestPIXThread", "PIXRequestRouter", rc, counter);
  });
}

namespace {

// Owns the record's input blob for the whole run.
struct PixRecord {
  PERF_PIX_INFO info;
  PixRecord() { std::memset(&info, 0, sizeof(info)); }
  ~PixRecord() { ResetDblob(&info.stInput); }
  PixRecord(const PixRecord &) = delete;
  PixRecord &operator=(const PixRecord &) = delete;
};

const char *OptionalText(TEST_PARAMETER *pTestParam, int nParameters, const char *name) {
  const char *value = GetParameterStr(pTestParam, nParameters, name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

// The input from a file option (false when it is given and cannot be read), else the text.
bool LoadPixInput(PERF_PIX_INFO *info, TEST_PARAMETER *pTestParam, int nParameters,
                  const char *file_option, const char *fallback) {
  if (file_option != nullptr &&
      GetParameterFileContent(pTestParam, nParameters, file_option, &info->stInput) != nullptr) {
    return info->stInput.pvData != nullptr;
  }
  const uint32_t len = static_cast<uint32_t>(std::strlen(fallback));
  info->stInput.pvData = static_cast<unsigned char *>(QAlloc(len + 1));
  if (info->stInput.pvData == nullptr) return false;
  std::memcpy(info->stInput.pvData, fallback, len + 1);
  info->stInput.dwDataLen = len;
  return true;
}

void LoadPixCommon(PERF_PIX_INFO *info, TEST_PARAMETER *pTestParam, int nParameters, int kind) {
  LoadGenericParameters(&info->ti, pTestParam, nParameters);
  info->ti.Metric = 1;
  info->Kind = kind;
  info->pszKeyName = OptionalText(pTestParam, nParameters, "-kn");
  info->pszCertName = OptionalText(pTestParam, nParameters, "-c");
  info->pszChain = OptionalText(pTestParam, nParameters, "--chain");
  info->pszCrl = OptionalText(pTestParam, nParameters, "--crl");
  if (IsParameterDefined(pTestParam, nParameters, "--rns")) {
    info->dwFlags |= kPixFlagRemoveNamespace;
  }
}

int RunPixXmlTest(TEST_PARAMETER *pTestParam, int nParameters, int kind, bool dict,
                  const char *command, std::initializer_list<const char *> description) {
  PixRecord record;
  PERF_PIX_INFO &info = record.info;
  LoadPixCommon(&info, pTestParam, nParameters, kind);
  info.bDict = dict;
  const bool input_ok = LoadPixInput(&info, pTestParam, nParameters, "-x", kDefaultPixXml);
  // A key of the user's signs with the user's certificate.
  const bool names_ok = info.pszKeyName == nullptr || info.pszCertName != nullptr;
  if (IsValidTestCountersConfig(&info.ti) && input_ok && names_ok &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(
        kind == kPixSign ? PerfSignPIXDictThread : PerfVerifyPIXDictThread, PerfPIXInit, PerfPIXFin,
        PerfPIXThreadInit, PerfPIXThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription(description);
  if (kind == kPixVerify) {
    ScreenOutput(
        "     --chain [OPTIONAL] Name of the certificate chain that verifies the signer.\r\n");
  }
  ScreenOutput("     -x      [OPTIONAL] XML file to sign. A sample message by default.\r\n");
  ScreenOutput("     --rns   [OPTIONAL] Remove the namespace before signing.\r\n");
  return PerfHelpCommandExamples(command, {"-t 5 -i 10", "-t 5 -i 10 -x pacs008.xml"});
}

int RunPixJwsTest(TEST_PARAMETER *pTestParam, int nParameters, int kind, const char *command,
                  std::initializer_list<const char *> description) {
  PixRecord record;
  PERF_PIX_INFO &info = record.info;
  LoadPixCommon(&info, pTestParam, nParameters, kind);
  info.pszHeader = OptionalText(pTestParam, nParameters, "--header");
  if (info.pszHeader == nullptr) info.pszHeader = kDefaultJwsHeader;
  const char *payload = OptionalText(pTestParam, nParameters, "--payload");
  const bool input_ok = LoadPixInput(&info, pTestParam, nParameters, nullptr,
                                     payload != nullptr ? payload : kDefaultJwsPayload);
  uint32_t flags = 0;
  const bool flags_ok = !IsParameterDefined(pTestParam, nParameters, "--flags") ||
                        GetParameterDword(pTestParam, nParameters, "--flags", &flags);
  info.dwFlags |= flags;
  // A key of the user's is checked against the user's chain.
  const bool names_ok =
      kind != kPixJwsCheck || info.pszKeyName == nullptr || info.pszChain != nullptr;
  if (IsValidTestCountersConfig(&info.ti) && input_ok && flags_ok && names_ok &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfSignCheckPIXJWSThread, PerfPIXInit, PerfPIXFin,
                                  PerfPIXThreadInit, PerfPIXThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription(description);
  ScreenOutput("     -kn     [OPTIONAL] Name of the signing key. A test key by default.\r\n");
  if (kind == kPixJwsCheck) {
    ScreenOutput(
        "     --chain [OPTIONAL] Name of the certificate chain that verifies the signer.\r\n");
    ScreenOutput("             Required with -kn.\r\n");
    ScreenOutput("     --crl   [OPTIONAL] Name of the CRL checked.\r\n");
  }
  ScreenOutput("     --header  [OPTIONAL] JWS protected header (JSON).\r\n");
  ScreenOutput("     --payload [OPTIONAL] JWS payload (JSON).\r\n");
  ScreenOutput("     --flags   [OPTIONAL] JWS flags, a sum of: 1 - add x5c, 2 - detached\r\n");
  ScreenOutput("               payload. 0 (default).\r\n");
  return PerfHelpCommandExamples(command, {"-t 5 -i 10"});
}

}  // namespace

int PerfSignPIX(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunPixXmlTest(pTestParam, nParameters, kPixSign, false, "pix-sign",
                       {"PIX signature performance test.",
                        "This test returns the number of PIX messages signed per second."});
}

int PerfSignPIXDict(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunPixXmlTest(pTestParam, nParameters, kPixSign, true, "pix-dict-sign",
                       {"PIX DICT signature performance test.",
                        "This test returns the number of DICT messages signed per second."});
}

int PerfVerifyPIX(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunPixXmlTest(pTestParam, nParameters, kPixVerify, false, "pix-verify",
                       {"PIX signature verification performance test.",
                        "This test returns the number of PIX signatures verified per second."});
}

int PerfVerifyPIXDict(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunPixXmlTest(pTestParam, nParameters, kPixVerify, true, "pix-dict-verify",
                       {"PIX DICT signature verification performance test.",
                        "This test returns the number of DICT signatures verified per second."});
}

int PerfSignPIXJWS(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunPixJwsTest(pTestParam, nParameters, kPixJwsSign, "pix-jws-sign",
                       {"PIX JWS signature performance test.",
                        "This test returns the number of JWS signed per second."});
}

int PerfCheckPIXJWS(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunPixJwsTest(pTestParam, nParameters, kPixJwsCheck, "pix-jws-check",
                       {"PIX JWS check performance test.",
                        "This test returns the number of JWS checked per second."});
}

int PerfRequestPIX(TEST_PARAMETER *pTestParam, int nParameters) {
  PixRecord record;
  PERF_PIX_INFO &info = record.info;
  LoadPixCommon(&info, pTestParam, nParameters, kPixRequest);
  info.pszHeader = OptionalText(pTestParam, nParameters, "--header");
  info.pszUrl = OptionalText(pTestParam, nParameters, "--url");
  info.pszDumpDir = OptionalText(pTestParam, nParameters, "--dump");
  const char *method = OptionalText(pTestParam, nParameters, "-r");
  bool method_ok = true;
  info.Method = kPixPost;
  if (method != nullptr && std::strcmp(method, "post") != 0) {
    info.Method = std::strcmp(method, "get") == 0      ? kPixGet
                  : std::strcmp(method, "put") == 0    ? kPixPut
                  : std::strcmp(method, "delete") == 0 ? kPixDelete
                                                       : -1;
    method_ok = info.Method != -1;
  }
  // -r is the method here, so each thread keeps its session as every performance test does.
  info.ti.ReuseSession = 1;
  info.dwTimeoutMs = kDefaultRequestTimeoutMs;
  if (IsParameterDefined(pTestParam, nParameters, "--tmout")) {
    const int timeout = GetParameterInt(pTestParam, nParameters, "--tmout");
    method_ok = method_ok && timeout > 0;
    info.dwTimeoutMs = timeout > 0 ? static_cast<uint32_t>(timeout) : 0;
  }
  const bool input_ok = LoadPixInput(&info, pTestParam, nParameters, "--rdata", "");
  // A key of the user's goes with the user's certificate and a chain for the service.
  const bool names_ok =
      info.pszKeyName == nullptr || (info.pszCertName != nullptr && info.pszChain != nullptr);
  if (IsValidTestCountersConfig(&info.ti) && info.pszUrl != nullptr && method_ok && input_ok &&
      names_ok && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfRequestPIXThread, PerfPIXInit, PerfPIXFin, PerfPIXThreadInit,
                                  PerfPIXThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription({"PIX request performance test.",
                       "This test returns the number of PIX requests made through the HSM per",
                       "second."});
  ScreenOutput("     --url   Address of the PIX service.\r\n");
  ScreenOutput("     -r      [OPTIONAL] Method: post (default), get, put, delete.\r\n");
  ScreenOutput("     --rdata [OPTIONAL] File with the request body.\r\n");
  ScreenOutput("     --header [OPTIONAL] Extra HTTP headers.\r\n");
  ScreenOutput("     -kn     [OPTIONAL] Name of the client key. A test key by default.\r\n");
  ScreenOutput("     -c      [OPTIONAL] Name of the client certificate. Required with -kn.\r\n");
  ScreenOutput("     --chain [OPTIONAL] Name of the chain that verifies the service. Required\r\n");
  ScreenOutput("             with -kn; the test identity's chain by default.\r\n");
  ScreenOutput("     --tmout [OPTIONAL] Timeout in ms. 30000 (default).\r\n");
  ScreenOutput("     --dump  [OPTIONAL] Folder where the client and CA certificates (PEM) and\r\n");
  ScreenOutput("             the request's URL, headers and body are written.\r\n");
  return PerfHelpCommandExamples("pix-request",
                                 {"-t 2 -i 10 --url https://pix.example/api/v1/dict -r get"});
}
