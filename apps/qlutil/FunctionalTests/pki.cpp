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

namespace {

// A PKCS#12 made for this test (RSA-2048 key and its self-signed certificate
// "CN=qlutil functional test", password "24681357"), written to a local file before the
// threads start.
const char kTestPkcs12Base64[] =
    "MIIKHwIBAzCCCdUGCSqGSIb3DQEHAaCCCcYEggnCMIIJvjCCBDIGCSqGSIb3DQEHBqCCBCMwggQf"
    "AgEAMIIEGAYJKoZIhvcNAQcBMFcGCSqGSIb3DQEFDTBKMCkGCSqGSIb3DQEFDDAcBAjrStXbCXzE"
    "bQICCAAwDAYIKoZIhvcNAgkFADAdBglghkgBZQMEASoEEAHt2jxvLEjp3GSVmLMmtYGAggOwh3S2"
    "36tIFU75aiNp6o+MAc2tgVXblNpUduxarsfbw4V1p/J5POTImzhSeilrHBLy5quZNfNSdEPSLxmB"
    "TpQ2qRwXtghExgSFca30Z0h+AeKEbDswaKJH8J7sloaIN7ilaeP2QbS9Yej5jnVimr4QBIr/Qa6S"
    "Z9tAHHO+Tm/pLaPm10ZxtSvhRxfMfziNhDMVWlCK74pCnwDkdYSz5i/Ov1adimW7aBF6EUyYH8TW"
    "k9yXFGirLyb2vXG7VAc70WTq6L0mvK9y0Z2kc8IQ4eJnGuNHMEwp/grIFw5rcmgQlbdi8tmppSjT"
    "y+Um1Ei4PPZW35fBCXH5nbpK8egHT+TS28tUvKjah9vQyzQ1Bu1CPOyXk4wWC+4m6QhPz3hfyVBV"
    "ViRPMlNb3lrunpfCbaFbNkd1EiJVurklJFpCnuxRBInq6kCT36HaicggvlRgbjVgeiOUo+/PBepI"
    "GT/Uop71HOi8a5jxMI/8/BzCvp8D04L4cwEaMY2uaYIDF4U9olpsKuTApoaplmi8n+lw0qm6GWnI"
    "/t+cW5z8bKKKLAnl1pYHNhBsdoTzpR0c431I4Eu64IX0yR9h1EdxDBhmTS5Dd4+V28/edrcWhQ9v"
    "We1DM9qaDbaO/tqj9r5F39FvLubg8CsS2ZrWh+W5qttN5nHX2la51ptSGgf2uGoN/UQtEqDs8e4d"
    "lShBaUzKpd0KQwNnt34w9eJgEjgb75GYpxlITz0GYcHxp0tq83GUVVV+bThYbz2pNnk//T5nNh9V"
    "62T/y7cheG6FpMKEPDU//M3l9HkXBTuEET8Pfx5JkevugyJJPkSeYosdtSPxYnTmEiWictjDvu51"
    "yvD+GOXT3Ok6IBnYe0Ek/7o81NZTdTH/q0d9SRQADhlzbZ2dH3zo9fqRBxzwqnQry/rQBduE6QoC"
    "GWQd3xem31E/qDQLWLVh3ljDwulkcUk3PbSkMTVeQdGO2JrXOoLwLHi5cIT5Fcz2BwSzDFc4bHSE"
    "56HdPAGUCRV2HWSr/1PGRvQbbFKFrpXFP7ChV+4CBRhu1Li5Dih77FURJxNQOU0a+tSSgskIqQZ3"
    "wXEGK1T62hxASXB0o3xdH1x3PH/MRTXPWCZEjQiV5/dUip5JLxwN0yaGZvk8+zA3ETutYHMJw4vF"
    "Hxn1ozSn/uxVR1Dx17V9EcvEBZxiQqqm5ZmQqB7fIRJs3LXqsoivDumH4Op52K80APnZC4Qo8mGB"
    "ji8uCkA3VL2Jc/TYPXLBZQ33EmxR//1tKESy7YIwggWEBgkqhkiG9w0BBwGgggV1BIIFcTCCBW0w"
    "ggVpBgsqhkiG9w0BDAoBAqCCBTEwggUtMFcGCSqGSIb3DQEFDTBKMCkGCSqGSIb3DQEFDDAcBAgA"
    "DgYnB8VVjQICCAAwDAYIKoZIhvcNAgkFADAdBglghkgBZQMEASoEENWZdy/iWFosQWAcLMVz4VAE"
    "ggTQmtUB5VmrAlgpRsP8gX5YUaB2ZgGp88K16T8E7STVvgOU5JzIM4MqsqctrBPriolePnn9vgGr"
    "TwqptRon7LdoDEOLHqZ+aGZxLg22US/sc/EqrL9TWE1wcEoKTdZh76sB7ocplWGxZvstLfkPFFSX"
    "wrXo2Dz06D5PFNQG8J1cPM7ZvCeBN8PNYU1mfpWN34L2mugwtBxnhQy128QLSIpc5vLaOHU1hqCF"
    "xu6cVniV0R56Xx8ptyTjVgiV6GfQ+o7hVhOUb+lfN/vBXsNr7uIyfy+jTMWEOQPjFSHOn4NrC6ha"
    "ql33ly3jsjUKrC/YrAuYaRPL8DwTOFZaxi0/4aKtPZM2gmiuwumjuKVrZlnPvGsZFB6WcsOBycbO"
    "yHciVJdtyZfRcHJnL0/b52gGN31Wm0LBe97fjUV8ZNhgvQ6zqH3oyuMcnRLa49ePgymkc8ouUen/"
    "LwyHnHJKUt0GO5Y5Xq0TtXuQT+b1+H1M2ybbm4y3bq6/OjOTqYxiptJWgFLaFZ0w3KlxRlETNN5D"
    "y5nKqm6jzBBxgv0Tr2p/fMYvrcSGkToOo6FdP8W6FWt+YrlFgCEBG7sbmvYii7E5hEDs6uLYmuXP"
    "2ZOOpbTISSlOCZb1DOUGzhM2PJlffF6PvLiK/XsM2rFoNGHKteGJJ7Bf/WwRLZ2YBeg5p+8Wkp9S"
    "k1VyQH9Y5Qlu6XJ2WXpfo/iBA5IufqK0cbm8Jbqx9OmN8X9kKmncl7WcG5tnXd4i1a3z2cjwXRjr"
    "kJ85tQ9z8eXorkxnmeEmZ5GPbrTzZ4A7sDGZFflKr7Brxuv1v6+KQRyDSvihyp+svufzY/uFeNVW"
    "eBgJeNl/vVu4treecW3teNNj6yD7Tg1VsN078DcBMX51hA6KEdR0EmT2yTQjxPdFFgK0rvOZF8n3"
    "xFV8wkfR57+IvMPrONGRu2diEuL6eDW/k1sRRdvPCxtLnnYAnxgXwQSPesMCEitJR2qcPtjFWKlO"
    "LwZuxK2rLN565SNyT7erAYT9C8l5cR9hxF9l9CV7hCXuSSPng2kZMRJBpGGfhpvmEH4faAgAv9/X"
    "SzQW4MDPmiGyb33sQxPNh14qcdTJf+zcbHtazuN8RlrBKW5BU5x9Aud4kDEXwEBswen2U5QV5yM6"
    "VMsexFx6Hc6TbIlmJ0AM1e6nuO7lKCMvkcAsXuAPhdtAs3SQlV6vX1NBuTH54RSdILyJC0yRE3o+"
    "r1rcAYYXlHU8bxwH/Fvcq4FOo+Nyg5fJTkWmn3bJoaoPoEjnF5LeBZVvxc8PQVjiLrRJV+Khcv9I"
    "kiORCZWKfR9ooG9OiOh2+sVzeu7+aGp40CKxY0orJr3XRBZeSp/VPikn1MOHYIbePSVSpQM3eO6L"
    "4iFaLnm0eHN3g563BvNDRACC5/C+SCKqi6yRocREuP+USCXv5W/1kI+uEqcN8CPSALPnisB0IzcH"
    "z1SWvoa5rzXYYPXwaG2gR2zM+DTlSjFgdAjKcqmyzv9uPHzbU6mHd1Xc7C3I5hKKfZbqrRzhHqlx"
    "mtC2Aq1Px+sDJQGVI11yKdEU+BTt9gN6kAcI4avPy58nb1NZIt9z33Yj9uA2XLBWkfVnijSmYCt8"
    "xmveK3a4WPQUKt18XLL7nJJ2EhKnJ1H+Wi2AoD3pjY9lZENKiisxJTAjBgkqhkiG9w0BCRUxFgQU"
    "E+xYlYhdAKiwkyrs/HEd1vUoI4kwQTAxMA0GCWCGSAFlAwQCAQUABCBVCNwnNHli6kg4P1NQ3n4c"
    "zAoQCMp8vlqkiuwzQaFzMwQIC4ZkhZKtuW4CAggA";
constexpr const char *kTestPkcs12Password = "24681357";

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
  rc = QBase642ByteArray(kTestPkcs12Base64, sizeof kTestPkcs12Base64 - 1, pfx, &pfxLen);
  if (rc != 0 || WriteSecretFile(info->szPfxFile, pfx, pfxLen) != 0) {
    ScreenOutput("[LoadKeyAndCert] Error in fopen(%s).\r\n", info->szPfxFile);
    return rc != 0 ? rc : QL_ERR_FILE_IO;
  }
  rc = QImportPKCS12(session.Get(), info->szPfxFile, kTestPkcs12Password, info->szKeyName,
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
