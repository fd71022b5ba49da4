// The PKI performance tests: sign-xml, verify-xml and pkcs7-sign.

#include <cstring>
#include <iterator>

#include "PerformanceTests.h"
#include "harness/harness.h"
#include "signing_identity.h"

namespace {

constexpr const char kDefaultXml[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<document><header><id>QLUTIL-PERF-0001</id></header>"
    "<body Id=\"body\"><item>performance test</item></body></document>";

const char *OptionalText(TEST_PARAMETER *pTestParam, int nParameters, const char *name) {
  const char *value = GetParameterStr(pTestParam, nParameters, name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

// The document from -x (false when it is given and cannot be read), else the sample.
bool LoadDocument(DBLOB *blob, TEST_PARAMETER *pTestParam, int nParameters, const char *option,
                  const char *fallback) {
  if (GetParameterFileContent(pTestParam, nParameters, option, blob) != nullptr) {
    return blob->pvData != nullptr;
  }
  if (fallback == nullptr) return false;
  const uint32_t len = static_cast<uint32_t>(std::strlen(fallback));
  blob->pvData = static_cast<unsigned char *>(QAlloc(len + 1));
  if (blob->pvData == nullptr) return false;
  std::memcpy(blob->pvData, fallback, len + 1);
  blob->dwDataLen = len;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// sign-xml, verify-xml

typedef struct _PERF_XML_INFO {
  THREAD_INFO ti;
  int HashAlgId;            // -h
  bool bVerify;             // verify-xml
  const char *pszKeyName;   // -kn; the installed test identity when absent
  const char *pszCertName;  // -c
  const char *pszChain;     // -p7: the chain (PKCS#7) that verifies the signer
  const char *pszCrl;       // -crl
  const char *pszFilter;    // -ft: the element signed
  DBLOB stXml;              // -x, or the sample document
  HSESSIONCTX hSrcSession;
  SigningIdentityNames stIdentity;  // the XML signing objects of the test
  HSESSIONCTX hSession;
  HKEYCTX hKey;             // the signing key, opened by name
  unsigned char *pbSigned;  // verify-xml: signed once in ThreadInit (QAlloc)
  uint32_t dwSignedLen;
} PERF_XML_INFO;

namespace {

const char *XmlKey(const PERF_XML_INFO *info) {
  return info->pszKeyName != nullptr ? info->pszKeyName : info->stIdentity.szKey;
}
const char *XmlCert(const PERF_XML_INFO *info) {
  return info->pszCertName != nullptr ? info->pszCertName : info->stIdentity.szCert;
}
const char *XmlChain(const PERF_XML_INFO *info) {
  return info->pszChain != nullptr ? info->pszChain : info->stIdentity.szChain;
}

// The XML signing objects of the test: the embedded identity (key, certificate and its CA as
// the chain) under temporary names.
int InstallXMSigObjects(const char *tag, PERF_XML_INFO *info) {
  return InstallSigningIdentity(tag, info->hSrcSession, &info->stIdentity);
}

}  // namespace

int PerfXMLFin(void *pTestInfo) {
  auto *info = static_cast<PERF_XML_INFO *>(pTestInfo);
  RemoveSigningIdentity(info->hSrcSession, &info->stIdentity);
  CloseRecordSession(&info->hSrcSession);
  return 0;
}

int PerfXMLInit(void *pTestInfo) {
  auto *info = static_cast<PERF_XML_INFO *>(pTestInfo);
  if (info->pszKeyName != nullptr) return 0;
  PerfSetup setup(info->bVerify ? "PerfVerifyXMLInit" : "PerfSignXMLInit");
  setup.Connect(&info->ti, &info->hSrcSession);
  // InstallSigningIdentity reports its own failure first.
  setup.Do("InstallXMSigObjects", [&] { return InstallXMSigObjects(setup.Tag(), info); });
  if (!setup.Ok()) PerfXMLFin(info);
  return setup.Rc();
}

int PerfXMLThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_XML_INFO *>(pThreadInfo);
  if (info->pbSigned != nullptr) QFree(info->pbSigned);
  info->pbSigned = nullptr;
  DestroyRecordKey(&info->hKey, 0);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfXMLThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_XML_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  info->hKey = nullptr;
  info->pbSigned = nullptr;
  info->dwSignedLen = 0;
  PerfSetup setup(info->bVerify ? "PerfVerifyXMLThreadInit" : "PerfSignXMLThreadInit");
  setup.Connect(&info->ti, &info->hSession);
  setup.Do("QGetUserKey",
           [&] { return QGetUserKey(info->hSession, XmlKey(info), 0, &info->hKey); });
  if (info->bVerify) {
    setup.Do("QSignXml", [&] {
      return QSignXml(info->hSession, static_cast<uint32_t>(info->HashAlgId), XmlKey(info),
                      XmlCert(info), info->pszFilter, info->stXml.pvData, info->stXml.dwDataLen,
                      &info->pbSigned, &info->dwSignedLen, 0);
    });
  }
  if (!setup.Ok()) PerfXMLThreadFin(info);
  return setup.Rc();
}

unsigned int PerfSignXMLThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_XML_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    unsigned char *signed_xml = nullptr;
    uint32_t signed_len = 0;
    const int rc = QSignXml(info->hSession, static_cast<uint32_t>(info->HashAlgId), XmlKey(info),
                            XmlCert(info), info->pszFilter, info->stXml.pvData,
                            info->stXml.dwDataLen, &signed_xml, &signed_len, 0);
    QFree(signed_xml);
    return rc == 0 ? 0 : PerfPassFailed("PerfSignXMLThread", "QSignXml", rc, counter);
  });
}

unsigned int PerfVerifyXMLThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_XML_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    const int rc = QVerifySignedXmlEx(info->hSession, XmlChain(info), info->pszCrl, info->pszFilter,
                                      info->pbSigned, info->dwSignedLen, 0);
    return rc == 0 ? 0 : PerfPassFailed("PerfVerifyXMLThread", "QVerifySignedXmlEx", rc, counter);
  });
}

namespace {

struct XmlRecord {
  PERF_XML_INFO info;
  XmlRecord() { std::memset(&info, 0, sizeof(info)); }
  ~XmlRecord() { ResetDblob(&info.stXml); }
  XmlRecord(const XmlRecord &) = delete;
  XmlRecord &operator=(const XmlRecord &) = delete;
};

int RunXmlTest(TEST_PARAMETER *pTestParam, int nParameters, bool verify) {
  XmlRecord record;
  PERF_XML_INFO &info = record.info;
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.bVerify = verify;
  info.HashAlgId = GetParameterAlg(pTestParam, nParameters, "-h");
  info.pszKeyName = OptionalText(pTestParam, nParameters, "-kn");
  info.pszCertName = OptionalText(pTestParam, nParameters, "-c");
  info.pszChain = OptionalText(pTestParam, nParameters, "-p7");
  info.pszCrl = OptionalText(pTestParam, nParameters, "-crl");
  info.pszFilter = OptionalText(pTestParam, nParameters, "-ft");
  const bool xml_ok = LoadDocument(&info.stXml, pTestParam, nParameters, "-x", kDefaultXml);

  // A named key needs its certificate; a key of the user's is checked against a chain of the
  // user's.
  const bool names_ok = info.pszKeyName == nullptr ||
                        (info.pszCertName != nullptr && (!verify || info.pszChain != nullptr));
  if (IsValidTestCountersConfig(&info.ti) && info.HashAlgId != -1 && xml_ok && names_ok &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(verify ? PerfVerifyXMLThread : PerfSignXMLThread, PerfXMLInit,
                                  PerfXMLFin, PerfXMLThreadInit, PerfXMLThreadFin, &info,
                                  sizeof(info));
  }
  if (verify) {
    PerfHelpDescription({"XML signature verification performance test.",
                         "This test returns the number of XML signatures verified per second."});
  } else {
    PerfHelpDescription({"XML signature performance test.",
                         "This test returns the number of XML documents signed per second."});
  }
  ScreenOutput("     -h      Hash algorithm:\r\n");
  ShowHelpHashAlgorithms();
  ScreenOutput("     -kn     [OPTIONAL] Name of the signing key. A test key by default.\r\n");
  ScreenOutput("     -c      [OPTIONAL] Name of the signer certificate.\r\n");
  if (verify) {
    ScreenOutput(
        "     -p7     [OPTIONAL] Name of the chain (PKCS#7) that verifies the signer.\r\n");
    ScreenOutput("     -crl    [OPTIONAL] Name of the CRL checked.\r\n");
  }
  ScreenOutput("     -ft     [OPTIONAL] Filter: the element to sign.\r\n");
  ScreenOutput("     -x      [OPTIONAL] XML file. A sample document by default.\r\n");
  return PerfHelpCommandExamples(
      verify ? "verify-xml" : "sign-xml",
      {"-t 5 -i 10 -h sha256", "-t 5 -i 10 -h sha256 -kn xmlkey -c xmlcert -x doc.xml"});
}

}  // namespace

int PerfSignXML(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunXmlTest(pTestParam, nParameters, false);
}

int PerfVerifyXML(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunXmlTest(pTestParam, nParameters, true);
}

// ---------------------------------------------------------------------------------------------
// pkcs7-sign

typedef struct _PERF_PKCS7_SIGN_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;    // -kn
  const char *pszCertName;   // -keycert
  const char *pszChainName;  // -certchain
  uint32_t dwAttributes;     // the -p7attr_* switches
  DBLOB stData;              // -filein, read once by the entry and shared read-only
  HSESSIONCTX hSession;
} PERF_PKCS7_SIGN_INFO;

namespace {

// The -p7attr_* switches and their attribute bits.
struct P7Attribute {
  const char *pszSwitch;
  uint32_t dwBit;
};
constexpr P7Attribute kP7Attributes[] = {
    {"-p7attr_text", 0x1},         {"-p7attr_nocerts", 0x2},         {"-p7attr_nosigns", 0x4},
    {"-p7attr_nochain", 0x8},      {"-p7attr_nointern", 0x10},       {"-p7attr_noverify", 0x20},
    {"-p7attr_detached", 0x40},    {"-p7attr_binary", 0x80},         {"-p7attr_noattr", 0x100},
    {"-p7attr_nosmimecap", 0x200}, {"-p7attr_nooldmimetype", 0x400}, {"-p7attr_crlfeol", 0x800},
    {"-p7attr_nocrl", 0x2000},     {"-p7attr_cosign", 0x4000},
};

struct Pkcs7Record {
  PERF_PKCS7_SIGN_INFO info;
  Pkcs7Record() { std::memset(&info, 0, sizeof(info)); }
  ~Pkcs7Record() { ResetDblob(&info.stData); }
  Pkcs7Record(const Pkcs7Record &) = delete;
  Pkcs7Record &operator=(const Pkcs7Record &) = delete;
};

}  // namespace

int PerfPkcs7SignThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_PKCS7_SIGN_INFO *>(pThreadInfo);
  info->hSession = nullptr;
  return PerfSetup("PerfPkcs7SignThreadInit").Connect(&info->ti, &info->hSession).Rc();
}

unsigned int PerfPkcs7SignThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_PKCS7_SIGN_INFO *>(pThreadInfo);
  return RunPerfLoop(&info->ti, [info](unsigned long counter) {
    unsigned char *signed_data = nullptr;
    uint32_t signed_len = 0;
    const int rc = QPKCS7Sign(info->hSession, info->pszKeyName, info->pszCertName,
                              info->pszChainName, info->dwAttributes, info->stData.pvData,
                              info->stData.dwDataLen, &signed_data, &signed_len, 0);
    QFree(signed_data);
    return rc == 0 ? 0 : PerfPassFailed("PerfPkcs7SignThread", "QPKCS7Sign", rc, counter);
  });
}

int PerfPkcs7SignThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_PKCS7_SIGN_INFO *>(pThreadInfo);
  CloseRecordSession(&info->hSession);
  return 0;
}

int PerfPkcs7Sign(TEST_PARAMETER *pTestParam, int nParameters) {
  Pkcs7Record record;
  PERF_PKCS7_SIGN_INFO &info = record.info;
  LoadGenericParameters(&info.ti, pTestParam, nParameters);
  info.ti.Metric = 1;
  info.pszKeyName = OptionalText(pTestParam, nParameters, "-kn");
  info.pszCertName = OptionalText(pTestParam, nParameters, "-keycert");
  info.pszChainName = OptionalText(pTestParam, nParameters, "-certchain");
  for (const P7Attribute &attribute : kP7Attributes) {
    if (IsParameterDefined(pTestParam, nParameters, attribute.pszSwitch)) {
      info.dwAttributes |= attribute.dwBit;
    }
  }
  const bool data_ok = LoadDocument(&info.stData, pTestParam, nParameters, "-filein", nullptr);

  if (IsValidTestCountersConfig(&info.ti) && info.pszKeyName != nullptr &&
      info.pszCertName != nullptr && data_ok && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfPkcs7SignThread, nullptr, nullptr, PerfPkcs7SignThreadInit,
                                  PerfPkcs7SignThreadFin, &info, sizeof(info));
  }
  PerfHelpDescription({"PKCS#7 signature performance test.",
                       "This test returns the number of PKCS#7 signatures made per second."});
  ScreenOutput("     -filein     File to sign.\r\n");
  ScreenOutput("     -kn         Name of the signing key.\r\n");
  ScreenOutput("     -keycert    Name of the signer certificate.\r\n");
  ScreenOutput("     -certchain  [OPTIONAL] Name of the certificate chain to include.\r\n");
  ShowHelpP7SignAttributesParameters();
  return PerfHelpCommandExamples("pkcs7-sign",
                                 {"-t 5 -i 10 -filein data.txt -kn p7key -keycert p7cert"});
}
