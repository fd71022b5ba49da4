// -f xml and -f pkcs12: a signed electronic-invoice document made and verified in the HSM, and
// PKCS#12 imports.

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "FunctionalTests.h"
#include "Output.h"
#include "harness/harness.h"
#include "option_usage.h"
#include "ql_arch.h"
#include "signing_identity.h"

namespace {

// The document every thread signs: a small electronic invoice.
const char kInvoiceXml[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<Invoice xmlns=\"urn:quelta:test:invoice\" Id=\"INV-0001\">\n"
    "  <IssueDate>2024-01-15</IssueDate>\n"
    "  <Seller><Name>Example Supplies Ltd.</Name><TaxId>12345678000195</TaxId></Seller>\n"
    "  <Buyer><Name>Example Buyer</Name><TaxId>98765432000110</TaxId></Buyer>\n"
    "  <Item><Description>Paper, A4, 500 sheets</Description><Quantity>10</Quantity>"
    "<UnitPrice>4.50</UnitPrice></Item>\n"
    "  <Total Currency=\"BRL\">45.00</Total>\n"
    "</Invoice>\n";

struct LibTextDeleter {
  void operator()(unsigned char *p) const { QFree(p); }
};

// ---------------------------------------------------------------------------------------------
// xml

typedef struct tag_FUNC_SIGN_XML_INFO {
  THREAD_INFO ti;
  int nHashAlg;  // -h
  char szKeyName[32];
  char szCertName[32];
  char szP7Name[32];
  char szPfxFile[32];
} FUNC_SIGN_XML_INFO;

int LoadKeyAndCert(FUNC_SIGN_XML_INFO *info) {
  SessionOwner session;
  int rc = ConnectEx(session.Put(), &info->ti);
  if (rc != 0) {
    ScreenOutput("[LoadKeyAndCert] Error in ConnectEx. Err = %lu\r\n",
                 static_cast<unsigned long>(rc));
    return rc;
  }
  uint32_t random = 0;
  rc = QGetRandom(session.Get(), reinterpret_cast<unsigned char *>(&random), sizeof random);
  if (rc != 0) {
    ScreenOutput("[LoadKeyAndCert] Error in QGetRandom. Err = %lu\r\n",
                 static_cast<unsigned long>(rc));
    return rc;
  }
  const unsigned long n = random;
  snprintf(info->szKeyName, sizeof info->szKeyName, "%lu_key", n);
  snprintf(info->szCertName, sizeof info->szCertName, "%lu_cert", n);
  snprintf(info->szP7Name, sizeof info->szP7Name, "%lu_p7", n);
  snprintf(info->szPfxFile, sizeof info->szPfxFile, "test%lu.pfx", n);
  unsigned char pfx[4096];
  uint32_t pfxLen = sizeof pfx;
  // The embedded signing identity, written to a local file before the threads start.
  rc = QBase642ByteArray(kSigningIdentityPkcs12Base64,
                         static_cast<uint32_t>(strlen(kSigningIdentityPkcs12Base64)), pfx, &pfxLen);
  if (rc != 0 || WriteSecretFile(info->szPfxFile, pfx, pfxLen) != 0) {
    ScreenOutput("[LoadKeyAndCert] Error in fopen(%s).\r\n", info->szPfxFile);
    return rc != 0 ? rc : QL_ERR_FILE_IO;
  }
  rc = QImportPKCS12(session.Get(), info->szPfxFile, kSigningIdentityPassword, info->szKeyName,
                     info->szCertName, 0);
  if (rc != 0) {
    ScreenOutput("[LoadKeyAndCert] Error in QImportPKCS12. Err = %lu\r\n",
                 static_cast<unsigned long>(rc));
    remove(info->szPfxFile);
    return rc;
  }
  // The PKCS#12 itself is kept beside them as a file object.
  rc = QWriteFile(session.Get(), info->szPfxFile, info->szP7Name, 0);
  if (rc != 0) {
    ScreenOutput("[LoadKeyAndCert] Error in QWriteFile. Err = %lu\r\n",
                 static_cast<unsigned long>(rc));
  }
  return rc;
}

void RemoveKeyAndCert(FUNC_SIGN_XML_INFO *info) {
  remove(info->szPfxFile);
  SessionOwner session;
  if (ConnectEx(session.Put(), &info->ti) != 0) return;
  QRemoveObj(session.Get(), info->szKeyName);
  QRemoveObj(session.Get(), info->szCertName);
  QRemoveObj(session.Get(), info->szP7Name);
}

int SignXmlRound(FUNC_SIGN_XML_INFO *info, HSESSIONCTX hSession) {
  KeyOwner key;
  int rc = QGetUserKey(hSession, info->szKeyName, 0, key.Put());
  if (rc != 0) {
    ScreenOutput("[FuncSignXMLThread] Fail in QGetUserKey. rc = %d\r\n", rc);
    return rc;
  }
  unsigned char *pbSigned = nullptr;
  uint32_t signedLen = 0;
  rc = QSignXml(hSession, static_cast<uint32_t>(info->nHashAlg), info->szKeyName, info->szCertName,
                nullptr, reinterpret_cast<const unsigned char *>(kInvoiceXml),
                sizeof kInvoiceXml - 1, &pbSigned, &signedLen, 0);
  std::unique_ptr<unsigned char, LibTextDeleter> owner(pbSigned);
  if (rc != 0) {
    ScreenOutput("[FuncSignXMLThread] Fail in QSignXml. rc = %d\r\n", rc);
    return rc;
  }
  rc = QVerifySignedXmlEx(hSession, info->szCertName, nullptr, nullptr, pbSigned, signedLen, 0);
  if (rc != 0) {
    ScreenOutput("[FuncSignXMLThread] Fail in QVerifySignedXmlEx. rc = %d\r\n", rc);
  }
  return rc;
}

unsigned int FuncSignXMLThread(void *pvInfo) {
  auto *info = static_cast<FUNC_SIGN_XML_INFO *>(pvInfo);
  return RunFuncSessionLoop(
      &info->ti,
      [](int rc) {
        ScreenOutput("[FuncSignXMLThread] Error in ConnectEx. Err = %lu\r\n",
                     static_cast<unsigned long>(rc));
      },
      [info](HSESSIONCTX session, unsigned long) { return SignXmlRound(info, session); });
}

// ---------------------------------------------------------------------------------------------
// pkcs12

typedef struct tag_FUNC_PKCS12_INFO {
  THREAD_INFO ti;
  char szFile[256];
  char szPassword[256];
} FUNC_PKCS12_INFO;

unsigned int FuncImpPkcs12Thread(void *pvInfo) {
  auto *info = static_cast<FUNC_PKCS12_INFO *>(pvInfo);
  return RunFuncSessionLoop(
      &info->ti,
      [](int rc) {
        ScreenOutput("[FuncSignXMLThread] Error in ConnectEx. Err = %lu\r\n",
                     static_cast<unsigned long>(rc));
      },
      [info](HSESSIONCTX session, unsigned long) {
        int rc = 0;
        char keyName[kTempKeyNameSize];
        char certName[kTempKeyNameSize];
        if (!GetTempKeyName(keyName, session, &rc) || !GetTempKeyName(certName, session, &rc)) {
          ScreenOutput("[FuncImpPkcs12Thread] Fail in QGetRandom. rc = %d\r\n", rc);
          return rc;
        }
        rc = QImportPKCS12(session, info->szFile, info->szPassword, keyName, certName, 0);
        if (rc != 0) {
          ScreenOutput("[FuncSignXMLThread] Fail in QImportPKCS12. rc = %d\r\n", rc);
          return rc;
        }
        QRemoveObj(session, keyName);
        QRemoveObj(session, certName);
        return 0;
      });
}

// The value of the second "-f" switch: the first one names the command kind.
const char *GetPkcs12FileParameter(TEST_PARAMETER *pTestParam, int nParameters) {
  bool seenKind = false;
  for (int i = 0; i < nParameters; ++i) {
    if (strcmp(pTestParam[i].szParameter, "-f") != 0) continue;
    if (seenKind) {
      MarkOptionRead(pTestParam, i);
      return pTestParam[i].szValue;
    }
    seenKind = true;
  }
  return nullptr;
}

}  // namespace

int FuncSignXML(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_SIGN_XML_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.nHashAlg = GetParameterAlg(pTestParam, nParameters, "-h");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || info.nHashAlg == -1 ||
      !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Functional XML signature test. An electronic invoice is signed\r\n",
                         "     and its signature verified in the HSM.\r\n"});
    ScreenOutput("     -h      Hash algorithm\r\n");
    ShowHelpHashAlgorithms();
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f xml -t 5 -i 10 -h sha256\r\n");
  }
  int rc = LoadKeyAndCert(&info);
  if (rc != 0) {
    RemoveKeyAndCert(&info);
    return rc;
  }
  rc = ExecuteTestThreads(FuncSignXMLThread, &info, sizeof info);
  RemoveKeyAndCert(&info);
  return rc;
}

int FuncImpPkcs12(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_PKCS12_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  const char *file = GetPkcs12FileParameter(pTestParam, nParameters);
  const char *password = GetParameterStr(pTestParam, nParameters, "-p");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || file == nullptr || file[0] == '\0' ||
      password == nullptr || !CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     Functional PKCS#12 import test. Each operation imports the file\r\n",
                         "     under two temporary names and removes both objects.\r\n"});
    ScreenOutput("     -f      PKCS#12 file\r\n");
    ScreenOutput("     -p      PKCS#12 password\r\n");
    return FuncHelpExample(
        "     qlutil -a 10.10.10.10 -u master -w 24681357 -f pkcs12 -t 5 -i 10 -f cert.pfx -p "
        "24681357\r\n");
  }
  CopyFixedField(info.szFile, sizeof info.szFile - 1, file);
  CopyFixedField(info.szPassword, sizeof info.szPassword - 1, password);
  return ExecuteTestThreads(FuncImpPkcs12Thread, &info, sizeof info);
}
