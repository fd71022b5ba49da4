// -f enc-dec and -f wrap-unwrap: data encrypted and decrypted in the HSM must come back
// byte for byte; wrap-unwrap also carries the key out of the HSM and back under a wrapping key.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "FunctionalTests.h"
#include "Output.h"
#include "harness/harness.h"

namespace {

// Room for the padding a block cipher adds, and for a GCM tag.
constexpr uint32_t kCipherSlack = 64;

// The IV of a key's block cipher: 8 bytes for DES and triple DES, 16 for AES (a GCM key takes 12).
uint32_t IvLength(int nAlg, int nMode) {
  if (nMode == QL_MODE_GCM) return 12;
  return (nAlg == QL_ALG_AES128 || nAlg == QL_ALG_AES192 || nAlg == QL_ALG_AES256) ? 16 : 8;
}

// ---------------------------------------------------------------------------------------------
// enc-dec

typedef struct tag_FUNC_ENC_DEC_INFO {
  THREAD_INFO ti;
  int nKeyAlg;   // -k
  int nMode;     // -mo
  int nPadding;  // -pa
} FUNC_ENC_DEC_INFO;

// Encrypts or decrypts the file `in` into `out` in one piece with hKey. Prints and returns the
// library's code; 0 on success.
int CryptFile(HKEYCTX hKey, bool bEncrypt, const std::string &in, const std::string &out) {
  std::string data;
  if (!ReadWholeFile(in, &data)) {
    ScreenOutput("[FuncEncDecThread] Fail in fopen.\r\n");
    return QL_ERR_FILE_IO;
  }
  std::vector<unsigned char> buffer(data.begin(), data.end());
  buffer.resize(data.size() + kCipherSlack);
  uint32_t len = static_cast<uint32_t>(data.size());
  int rc = 0;
  if (bEncrypt) {
    rc = QEncrypt(hKey, nullptr, 1, 0, buffer.data(), &len, static_cast<uint32_t>(buffer.size()));
    if (rc != 0) ScreenOutput("[FuncEncDecThread] Fail in QEncrypt. rc = %d\r\n", rc);
  } else {
    rc = QDecrypt(hKey, nullptr, 1, 0, buffer.data(), &len);
    if (rc != 0) ScreenOutput("[FuncEncDecThread] Fail in QDecrypt. rc = %d\r\n", rc);
  }
  if (rc != 0) return rc;
  if (!WriteWholeFile(out, buffer.data(), len)) {
    ScreenOutput("[FuncEncDecThread] Fail in fopen.\r\n");
    return QL_ERR_FILE_IO;
  }
  return 0;
}

// One round: random plaintext, a fresh temporary key, encrypt, decrypt, compare.
int EncDecRound(FUNC_ENC_DEC_INFO *info, HSESSIONCTX hSession, const std::string files[3],
                unsigned long outer, unsigned long inner) {
  std::vector<unsigned char> plain(static_cast<size_t>(info->ti.MessageSize));
  int rc = GetRandomBytes(hSession, plain.data(), plain.size());
  if (rc != 0) {
    ScreenOutput("[FuncEncDecThread] Fail in QGetRandom. rc = %d\r\n", rc);
    return rc;
  }
  if (!WriteWholeFile(files[0], plain.data(), plain.size())) {
    ScreenOutput("[FuncEncDecThread] Fail in fopen.\r\n");
    return QL_ERR_FILE_IO;
  }
  KeyOwner key;
  rc = QGenerateKey(hSession, nullptr, static_cast<uint32_t>(info->nKeyAlg), QL_KEY_TEMPORARY,
                    key.Put());
  if (rc != 0) {
    ScreenOutput("[FuncEncDecThread] Fail in QGenerateKey. rc = %d\r\n", rc);
    return rc;
  }
  const uint32_t mode = static_cast<uint32_t>(info->nMode);
  rc = QSetKeyParam(key.Get(), QKP_MODE, &mode, sizeof mode, 0);
  if (rc != 0) {
    ScreenOutput("[FuncEncDecThread] Fail in QSetKeyParam(QKP_MODE). rc = %d\r\n", rc);
    return rc;
  }
  const uint32_t padding = static_cast<uint32_t>(info->nPadding);
  rc = QSetKeyParam(key.Get(), QKP_PADDING, &padding, sizeof padding, 0);
  if (rc != 0) {
    ScreenOutput("[FuncEncDecThread] Fail in QSetKeyParam(QKP_PADDING). rc = %d\r\n", rc);
    return rc;
  }
  rc = CryptFile(key.Get(), true, files[0], files[1]);
  if (rc != 0) return rc;
  rc = CryptFile(key.Get(), false, files[1], files[2]);
  if (rc != 0) return rc;
  if (!FileCompare(files[0], files[2])) {
    ScreenOutput(
        "[FuncEncDecThread][%lu] [o:%lu/i:%lu] ERROR: Decrypted result does not match with the "
        "original file!\r\n",
        static_cast<unsigned long>(info->ti.ThreadId), outer, inner);
    return kResultCheckFailed;
  }
  return 0;
}

unsigned int FuncEncDecThread(void *pvInfo) {
  auto *info = static_cast<FUNC_ENC_DEC_INFO *>(pvInfo);
  THREAD_INFO *ti = &info->ti;
  int rc = 0;
  ThreadErrorSignaling signaling(rc, *ti);
  // The thread's own three files, named with its number.
  const char *bases[3] = {"qlutil_temp_plaintext", "qlutil_temp_enc",
                          "qlutil_temp_destination_plaintext"};
  std::string files[3];
  for (int i = 0; i < 3; ++i) {
    char name[128];
    snprintf(name, sizeof name, "%s_%d", bases[i], ti->ThreadId);
    files[i] = name;
  }
  // With session reuse one session holds every round (o stays 1, i counts); otherwise each
  // round has its own session (o counts, i stays 1).
  const bool reuse = ti->ReuseSession == 1;
  rc = FuncLoop(ti, reuse ? 1 : ti->Iterations, [&](unsigned long outer) {
    SessionOwner session;
    const int connected = ConnectEx(session.Put(), ti);
    if (connected != 0) {
      ScreenOutput("[FuncEncDecThread] Error in ConnectEx. Err = %lu\r\n",
                   static_cast<unsigned long>(connected));
      return connected;
    }
    return FuncLoop(ti, reuse ? ti->Iterations : 1, [&](unsigned long inner) {
      return EncDecRound(info, session.Get(), files, outer, inner);
    });
  });
  for (const std::string &f : files) remove(f.c_str());
  return 1;
}

int ShowFuncEncDecHelp() {
  FuncHelpDescription({"     Functional encryption and decryption test. Random data is\r\n",
                       "     encrypted and decrypted through files, and the result is compared\r\n",
                       "     with the original.\r\n"});
  ScreenOutput("     -k      Symmetric key algorithm\r\n");
  ShowHelpSymmetricAlgorithms();
  ScreenOutput("     -mo     Mode\r\n");
  ShowHelpMode();
  ScreenOutput("     -pa     Padding\r\n");
  ShowHelpPadding();
  ScreenOutput("     -m      Message size in bytes\r\n");
  return FuncHelpExample(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -f enc-dec -t 5 -i 10 -k aes256 -mo cbc "
      "-pa pkcs5_padding -m 1024\r\n");
}

// ---------------------------------------------------------------------------------------------
// wrap-unwrap

typedef struct tag_FUNC_WRAP_UNWRAP_INFO {
  THREAD_INFO ti;
  int nKeyAlg;      // -k: the data key
  int nWrapKeyAlg;  // -wk: the RSA wrapping key
  int nMode;        // -mo
  int nPadding;     // -pa
  char szWrapKeyName[64];
} FUNC_WRAP_UNWRAP_INFO;

constexpr uint32_t kWrapDataLen = 256;  // whole blocks of every cipher, so any padding works

int SetCipherParams(HKEYCTX hKey, const FUNC_WRAP_UNWRAP_INFO *info, const unsigned char *iv) {
  const uint32_t mode = static_cast<uint32_t>(info->nMode);
  int rc = QSetKeyParam(hKey, QKP_MODE, &mode, sizeof mode, 0);
  if (rc != 0) {
    ScreenOutput("Fail in QSetKeyParam(QKP_MODE). rc = %d\r\n", rc);
    return rc;
  }
  const uint32_t padding = static_cast<uint32_t>(info->nPadding);
  rc = QSetKeyParam(hKey, QKP_PADDING, &padding, sizeof padding, 0);
  if (rc != 0) {
    ScreenOutput("Fail in QSetKeyParam(QKP_PADDING). rc = %d\r\n", rc);
    return rc;
  }
  if (info->nMode != QL_MODE_ECB && info->nMode != QL_MODE_NONE && info->nMode != QL_MODE_KW &&
      info->nMode != QL_MODE_KWP) {
    rc = QSetKeyParam(hKey, QKP_IV, iv, IvLength(info->nKeyAlg, info->nMode), 0);
    if (rc != 0) {
      ScreenOutput("Fail in QSetKeyParam(QKP_IV). rc = %d\r\n", rc);
      return rc;
    }
  }
  return 0;
}

// Exports hKey wrapped under hWrap and imports the blob again as a new temporary key.
int WrapUnwrap(HSESSIONCTX hSession, HKEYCTX hKey, HKEYCTX hWrap, int nAlg, KeyOwner *pOut) {
  unsigned char blob[4096];
  uint32_t len = sizeof blob;
  int rc = QExportKey(hKey, hWrap, QL_SIMPLE_BLOB, 0, blob, &len);
  if (rc != 0) {
    ScreenOutput("Error in QExportKey. Err = %d", rc);
    return rc;
  }
  rc = QImportKey(hSession, nullptr, hWrap, blob, len, QL_SIMPLE_BLOB, static_cast<uint32_t>(nAlg),
                  QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, pOut->Put());
  if (rc != 0) ScreenOutput("Error in QImportKey. Err = %d", rc);
  return rc;
}

int WrapUnwrapRound(FUNC_WRAP_UNWRAP_INFO *info, HSESSIONCTX hSession) {
  KeyOwner wrap;
  int rc = QGetUserKey(hSession, info->szWrapKeyName, 0, wrap.Put());
  if (rc != 0) {
    ScreenOutput("Error in QGetUserKey. Err = %d", rc);
    return rc;
  }
  KeyOwner original;
  rc = QGenerateKey(hSession, nullptr, static_cast<uint32_t>(info->nKeyAlg),
                    QL_KEY_EXPORTABLE | QL_KEY_TEMPORARY, original.Put());
  if (rc != 0) {
    ScreenOutput("Error in QGenerateKey. Err = %d", rc);
    return rc;
  }
  unsigned char iv[16];
  unsigned char data[kWrapDataLen];
  rc = QGetRandom(hSession, iv, sizeof iv);
  if (rc == 0) rc = QGetRandom(hSession, data, sizeof data);
  if (rc != 0) {
    ScreenOutput("Error in QGetRandom. Err = %d", rc);
    return rc;
  }
  // The key that encrypts has been out of the HSM and back once, the key that decrypts twice.
  KeyOwner encryptor;
  rc = WrapUnwrap(hSession, original.Get(), wrap.Get(), info->nKeyAlg, &encryptor);
  if (rc != 0) return rc;
  rc = SetCipherParams(encryptor.Get(), info, iv);
  if (rc != 0) return rc;
  unsigned char buffer[kWrapDataLen + kCipherSlack];
  memcpy(buffer, data, sizeof data);
  uint32_t len = sizeof data;
  rc = QEncrypt(encryptor.Get(), nullptr, 1, 0, buffer, &len, sizeof buffer);
  if (rc != 0) {
    ScreenOutput("Error in QEncrypt. Err = %d", rc);
    return rc;
  }
  KeyOwner decryptor;
  rc = WrapUnwrap(hSession, encryptor.Get(), wrap.Get(), info->nKeyAlg, &decryptor);
  if (rc != 0) return rc;
  rc = SetCipherParams(decryptor.Get(), info, iv);
  if (rc != 0) return rc;
  rc = QDecrypt(decryptor.Get(), nullptr, 1, 0, buffer, &len);
  if (rc != 0) {
    ScreenOutput("Error in QDecrypt. Err = %d", rc);
    return rc;
  }
  if (len != sizeof data || memcmp(buffer, data, sizeof data) != 0) {
    ScreenOutput("[WrapUnwrapThread][%lu] Deciphered data do not match the original.\r\n",
                 static_cast<unsigned long>(info->ti.ThreadId));
    return kResultCheckFailed;
  }
  return 0;
}

unsigned int FuncWrapUnwrapThread(void *pvInfo) {
  auto *info = static_cast<FUNC_WRAP_UNWRAP_INFO *>(pvInfo);
  return RunFuncSessionLoop(
      &info->ti, [](int rc) { ScreenOutput("Error in ConnectEx. Err = %d", rc); },
      [info](HSESSIONCTX session, unsigned long) { return WrapUnwrapRound(info, session); });
}

int ShowFuncWrapUnwrapHelp() {
  FuncHelpDescription({"     Functional key wrap and unwrap test. A data key is exported under\r\n",
                       "     a shared RSA wrapping key and imported again; data encrypted with\r\n",
                       "     one copy must decrypt with another.\r\n"});
  ScreenOutput("     -k      Symmetric key algorithm\r\n");
  ShowHelpSymmetricAlgorithms();
  ScreenOutput("     -wk     [OPTIONAL] RSA wrapping key algorithm (rsa2048 default)\r\n");
  ScreenOutput("     -mo     Mode\r\n");
  ShowHelpMode();
  ScreenOutput("     -pa     Padding\r\n");
  ShowHelpPadding();
  return FuncHelpExample(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -f wrap-unwrap -t 5 -i 10 -k aes256 -wk "
      "rsa2048 -mo cbc -pa pkcs5_padding\r\n");
}

}  // namespace

int FuncEncDec(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_ENC_DEC_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.nKeyAlg = GetParameterAlg(pTestParam, nParameters, "-k");
  info.nMode = GetParameterAlg(pTestParam, nParameters, "-mo");
  info.nPadding = GetParameterAlg(pTestParam, nParameters, "-pa");
  info.ti.MessageSize = GetParameterInt(pTestParam, nParameters, "-m");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || info.nKeyAlg == -1 || info.nMode == -1 ||
      info.nPadding == -1 || info.ti.MessageSize <= 0 || !CheckConnectionFlags(&info.ti, false)) {
    return ShowFuncEncDecHelp();
  }
  return ExecuteTestThreads(FuncEncDecThread, &info, sizeof info);
}

int FuncWrapUnwrap(TEST_PARAMETER *pTestParam, int nParameters) {
  FUNC_WRAP_UNWRAP_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.nKeyAlg = GetParameterAlg(pTestParam, nParameters, "-k");
  info.nWrapKeyAlg = GetParameterAlg(pTestParam, nParameters, "-wk");
  if (info.nWrapKeyAlg == -1) info.nWrapKeyAlg = QL_ALG_RSA2048;
  info.nMode = GetParameterAlg(pTestParam, nParameters, "-mo");
  info.nPadding = GetParameterAlg(pTestParam, nParameters, "-pa");
  if (info.ti.Threads == -1 || info.ti.Iterations == -1 || info.nKeyAlg == -1 || info.nMode == -1 ||
      info.nPadding == -1 || !CheckConnectionFlags(&info.ti, false)) {
    return ShowFuncWrapUnwrapHelp();
  }
  // The wrapping key every thread shares: persistent, made before the threads, removed after.
  SessionOwner session;
  int rc = ConnectEx(session.Put(), &info.ti);
  if (rc != 0) {
    ScreenOutput("Error in ConnectEx. Err = %d", rc);
    return rc;
  }
  uint32_t random = 0;
  rc = QGetRandom(session.Get(), reinterpret_cast<unsigned char *>(&random), sizeof random);
  if (rc != 0) {
    ScreenOutput("Error in QGetRandom. Err = %d", rc);
    return rc;
  }
  snprintf(info.szWrapKeyName, sizeof info.szWrapKeyName, "%luQLUTI_TMP_KEY",
           static_cast<unsigned long>(random));
  rc = QGenerateKey(session.Get(), info.szWrapKeyName, static_cast<uint32_t>(info.nWrapKeyAlg), 0,
                    nullptr);
  if (rc != 0) {
    ScreenOutput("Error in QGenerateKey. Err = %d", rc);
    return rc;
  }
  const int result = ExecuteTestThreads(FuncWrapUnwrapThread, &info, sizeof info);
  QRemoveObj(session.Get(), info.szWrapKeyName);
  return result;
}
