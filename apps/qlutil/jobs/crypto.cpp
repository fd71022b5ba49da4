// Cryptographic jobs: "gen-rand", "hash", "sign-hash", "verify-hash", "encrypt", "decrypt".

#include <cstring>

#include "harness/harness.h"
#include "job.h"

namespace {

constexpr uint32_t kNoAlg = 0xFFFFFFFF;

bool IsDigestAlg(uint32_t alg) {
  return (alg >= QL_ALG_MD5 && alg <= QL_ALG_SHA3_512 && alg != 3) || alg == QL_ALG_IDFUNC;
}

bool IsKeyedHashAlg(uint32_t alg) {
  return (alg >= QL_ALG_HMAC_MD5 && alg <= QL_ALG_HMAC_SHA3_512) || alg == QL_ALG_CMAC_AES ||
         alg == QL_ALG_CMAC_DES;
}

bool IsModeWord(uint32_t mode) {
  switch (mode) {
    case QL_MODE_NONE:
    case QL_MODE_ECB:
    case QL_MODE_CBC:
    case QL_MODE_KWP:
    case QL_MODE_OFB:
    case QL_MODE_CTR:
    case QL_MODE_GCM:
    case QL_MODE_KW:
      return true;
    default:
      return false;
  }
}

int OpenKey(HSESSIONCTX session, const char *name, KeyOwner *key) {
  const int rc = QGetUserKey(session, name, 0, key->Put());
  if (rc != 0) PrintJobError("QGetUserKey", rc);
  return rc;
}

// The data of the signing jobs: -inform file (default), hex, hash_file or hash_hex.
bool LoadSignInput(TEST_PARAMETER *pTestParam, int nParameters, Bytes *data, int32_t *is_hash) {
  int inform = GetParameterSignHashInform(pTestParam, nParameters, "-inform");
  if (inform == -1) {
    if (IsParameterDefined(pTestParam, nParameters, "-inform")) return false;
    inform = 0;
  }
  *is_hash = inform >= 2 ? 1 : 0;
  const DataInform form = (inform == 1 || inform == 3) ? kHexData : kFile;
  return ReadJobData(pTestParam, nParameters, "-in", form, data);
}

void PrintSignInformHelp() {
  ScreenOutput("     -in     The data, or its hash (see -inform)\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ScreenOutput("             file - a file with the data.\r\n");
  ScreenOutput("             hex - the data as a hex string.\r\n");
  ScreenOutput("             hash_file - a file with the hash.\r\n");
  ScreenOutput("             hash_hex - the hash as a hex string.\r\n\r\n");
}

// A hash of the job's data: hashed here through the library, or a value computed elsewhere.
int MakeHash(HSESSIONCTX session, uint32_t alg, const Bytes &data, bool is_hash, HashOwner *hash) {
  int rc = QCreateHash(session, alg, nullptr, 0, hash->Put());
  if (rc != 0) {
    PrintJobError("QCreateHash", rc);
    return rc;
  }
  if (is_hash) {
    rc =
        QSetHashParam(hash->Get(), QHP_HASHVAL, data.data(), static_cast<uint32_t>(data.size()), 0);
    if (rc != 0) PrintJobError("QSetHashParam", rc);
    return rc;
  }
  rc = QHashData(hash->Get(), data.data(), static_cast<uint32_t>(data.size()), 0);
  if (rc != 0) PrintJobError("QHashData", rc);
  return rc;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// gen-rand

typedef struct _JOB_GEN_RAND_INFO {
  THREAD_INFO ti;
  uint32_t dwLen;          // -len
  const char *pszOutFile;  // --out; null: hex on the console
} JOB_GEN_RAND_INFO;

namespace {

void ShowJobGenRandHelp() {
  JobHelpHeader(false, {"Draw random bytes from the HSM's generator."});
  ScreenOutput("     -len    Number of bytes\r\n");
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the bytes are printed in\r\n");
  ScreenOutput("             hex.\r\n");
  JobHelpExamples("gen-rand", {"-len 32", "-len 1024 --out rand.bin"});
}

int GenRandWork(JOB_GEN_RAND_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  Bytes data(job->dwLen);
  rc = QGetRandom(session, data.data(), job->dwLen);
  if (rc != 0) {
    PrintJobError("QGetRandom", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, data.data(), data.size()) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobGenRandThread(void *p) {
  auto *job = static_cast<JOB_GEN_RAND_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return GenRandWork(job, session); });
}

int JobGenRand(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_GEN_RAND_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = GetJobNumber(pTestParam, nParameters, "-len", &job.dwLen) && job.dwLen > 0 &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobGenRandThread, &job.ti, sizeof job, false, ok, &ShowJobGenRandHelp);
}

// ---------------------------------------------------------------------------------------------
// hash

typedef struct _JOB_HASH_INFO {
  THREAD_INFO ti;
  uint32_t nHashAlgId;     // -h
  const char *pszKeyName;  // -kn: the key of an HMAC or CMAC
  const Bytes *pData;      // -in
  const char *pszOutFile;  // --out
} JOB_HASH_INFO;

namespace {

void ShowJobHashHelp() {
  JobHelpHeader(false, {"Hash data, or compute its HMAC or CMAC with a key of the HSM."});
  ScreenOutput("     -h      Hash algorithm\r\n");
  ShowHelpHashAlgorithms();
  ShowHelpHmacAlgorithms();
  ShowHelpCmacAlgorithms();
  ScreenOutput("     -kn     Key name, for HMAC and CMAC only\r\n");
  ScreenOutput("     -in     The data\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the value is printed in\r\n");
  ScreenOutput("             hex.\r\n");
  JobHelpExamples("hash",
                  {"-h sha256 -in data.bin", "-h hmac_sha2_256 -kn myhmac -inform hex -in 616263"});
}

int HashWork(JOB_HASH_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  KeyOwner key;
  if (job->pszKeyName != nullptr) {
    rc = OpenKey(session, job->pszKeyName, &key);
    if (rc != 0) return rc;
  }
  HashOwner hash;
  rc = QCreateHash(session, job->nHashAlgId, key.Get(), 0, hash.Put());
  if (rc != 0) {
    PrintJobError("QCreateHash", rc);
    return rc;
  }
  rc = QHashData(hash.Get(), job->pData->data(), static_cast<uint32_t>(job->pData->size()), 0);
  if (rc != 0) {
    PrintJobError("QHashData", rc);
    return rc;
  }
  unsigned char value[128];
  uint32_t len = sizeof value;
  rc = QGetHashParam(hash.Get(), QHP_HASHVAL, value, &len, 0);
  if (rc != 0) {
    PrintJobError("QGetHashParam", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, value, len) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobHashThread(void *p) {
  auto *job = static_cast<JOB_HASH_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return HashWork(job, session); });
}

int JobHash(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_HASH_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.nHashAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-h"));
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  DataInform inform = kFile;
  Bytes data;
  const bool keyed = IsKeyedHashAlg(job.nHashAlgId);
  const bool ok = (keyed ? IsGivenText(job.pszKeyName)
                         : (IsDigestAlg(job.nHashAlgId) && job.nHashAlgId != QL_ALG_IDFUNC &&
                            job.pszKeyName == nullptr)) &&
                  LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &data) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  job.pData = &data;
  return StartJob(&JobHashThread, &job.ti, sizeof job, false, ok, &ShowJobHashHelp);
}

// ---------------------------------------------------------------------------------------------
// sign-hash, verify-hash

typedef struct _JOB_SIGN_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;   // -kn
  uint32_t nHashAlgId;      // -h
  int32_t bIsHash;          // -in holds the hash, not the data
  const Bytes *pData;       // -in
  const char *pszOutFile;   // sign: --out
  const Bytes *pSignature;  // verify: -sig
  const Bytes *pPubKey;     // verify: -pub (SubjectPublicKeyInfo, DER) instead of -kn
  uint32_t nKeyAlgId;       // verify: -k, the algorithm of -pub
} JOB_SIGN_INFO;

namespace {

void ShowJobSignHashHelp() {
  JobHelpHeader(false, {"Sign data, or a hash of it, with a private key of the HSM."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -h      Hash algorithm\r\n");
  ShowHelpHashAlgorithms();
  PrintSignInformHelp();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the signature is printed\r\n");
  ScreenOutput("             in hex.\r\n");
  JobHelpExamples("sign-hash", {"-kn myrsa -h sha256 -in data.bin --out data.sig"});
}

void ShowJobVerifyHashHelp() {
  JobHelpHeader(false, {"Verify a signature of data, or of a hash of it, with a key of the HSM",
                        "or a public key given as a file."});
  ScreenOutput("     -kn     Key name (or -pub)\r\n");
  ScreenOutput("     -pub    Public key file (SubjectPublicKeyInfo, DER), with -k\r\n");
  ScreenOutput("     -k      Algorithm of the -pub key\r\n");
  ShowHelpAsymSigAlgorithms();
  ScreenOutput("     -h      Hash algorithm\r\n");
  ShowHelpHashAlgorithms();
  PrintSignInformHelp();
  ScreenOutput("     -sig    Signature file\r\n");
  JobHelpExamples("verify-hash", {"-kn myrsa -h sha256 -in data.bin -sig data.sig",
                                  "-pub pub.der -k rsa2048 -h sha256 -in data.bin -sig data.sig"});
}

int SignHashWork(JOB_SIGN_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  KeyOwner key;
  rc = OpenKey(session, job->pszKeyName, &key);
  if (rc != 0) return rc;
  HashOwner hash;
  rc = MakeHash(session, job->nHashAlgId, *job->pData, job->bIsHash != 0, &hash);
  if (rc != 0) return rc;
  uint32_t len = 0;
  rc = QSignHash(hash.Get(), key.Get(), 0, nullptr, &len);
  Bytes signature;
  // An ECDSA signature's DER length varies from one signature to the next: when the HSM needs
  // more than its size answer said, it says so again and the job asks once more.
  for (int tries = 0; rc == QL_ERR_BUFFER_TOO_SMALL && tries < 3; ++tries) {
    signature.resize(len);
    rc = QSignHash(hash.Get(), key.Get(), 0, signature.data(), &len);
  }
  if (rc != 0) {
    PrintJobError("QSignHash", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, signature.data(), len) ? 0 : QL_ERR_FILE_IO;
}

int VerifyHashWork(JOB_SIGN_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  KeyOwner key;
  if (job->pszKeyName != nullptr) {
    rc = OpenKey(session, job->pszKeyName, &key);
  } else {
    rc = QImportKey(session, nullptr, nullptr, job->pPubKey->data(),
                    static_cast<uint32_t>(job->pPubKey->size()), QL_PUBLICKEY_BLOB,
                    job->nKeyAlgId | QL_ALG_PUBLIC_KEY_BIT, 0, key.Put());
    if (rc != 0) PrintJobError("QImportKey", rc);
  }
  if (rc != 0) return rc;
  HashOwner hash;
  rc = MakeHash(session, job->nHashAlgId, *job->pData, job->bIsHash != 0, &hash);
  if (rc != 0) return rc;
  rc = QVerifySignature(hash.Get(), job->pSignature->data(),
                        static_cast<uint32_t>(job->pSignature->size()), key.Get());
  if (rc != 0) {
    PrintJobError("QVerifySignature", rc);
    return rc;
  }
  ScreenOutput("Signature verified.\r\n");
  return 0;
}

bool LoadSignJob(JOB_SIGN_INFO *job, TEST_PARAMETER *pTestParam, int nParameters, Bytes *data) {
  LoadJobParameters(&job->ti, pTestParam, nParameters, false);
  job->pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job->nHashAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-h"));
  job->pData = data;
  return IsDigestAlg(job->nHashAlgId) &&
         LoadSignInput(pTestParam, nParameters, data, &job->bIsHash);
}

}  // namespace

unsigned int JobSignHashThread(void *p) {
  auto *job = static_cast<JOB_SIGN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return SignHashWork(job, session); });
}

unsigned int JobVerifyHashThread(void *p) {
  auto *job = static_cast<JOB_SIGN_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return VerifyHashWork(job, session); });
}

int JobSignHash(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SIGN_INFO job{};
  Bytes data;
  bool ok = LoadSignJob(&job, pTestParam, nParameters, &data);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  ok = ok && IsGivenText(job.pszKeyName) && IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobSignHashThread, &job.ti, sizeof job, false, ok, &ShowJobSignHashHelp);
}

int JobVerifyHash(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SIGN_INFO job{};
  Bytes data;
  Bytes signature;
  Bytes pub_key;
  bool ok = LoadSignJob(&job, pTestParam, nParameters, &data) &&
            ReadJobData(pTestParam, nParameters, "-sig", kFile, &signature);
  const bool has_pub = IsParameterDefined(pTestParam, nParameters, "-pub");
  if (has_pub) {
    job.nKeyAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-k"));
    ok = ok && job.pszKeyName == nullptr && job.nKeyAlgId != kNoAlg &&
         ReadJobData(pTestParam, nParameters, "-pub", kFile, &pub_key);
  } else {
    ok = ok && IsGivenText(job.pszKeyName);
  }
  job.pSignature = &signature;
  job.pPubKey = &pub_key;
  return StartJob(&JobVerifyHashThread, &job.ti, sizeof job, false, ok, &ShowJobVerifyHashHelp);
}

// ---------------------------------------------------------------------------------------------
// encrypt, decrypt

typedef struct _JOB_CRYPT_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  int32_t bSetMode;        // -m given
  uint32_t dwMode;
  int32_t bSetPadding;  // -pad given
  uint32_t dwPadding;
  const Bytes *pIv;        // -iv (hex); may be empty
  const Bytes *pData;      // -in
  const char *pszOutFile;  // --out
  int32_t bEncrypt;
} JOB_CRYPT_INFO;

unsigned int JobEncryptThread(void *p);

namespace {

void PrintCryptOptionsHelp() {
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -m      [OPTIONAL] Cipher mode. If not defined, the key's own.\r\n");
  ShowHelpMode();
  ScreenOutput("     -pad    [OPTIONAL] Padding. If not defined, the key's own.\r\n");
  ShowHelpPadding();
  ScreenOutput("     -iv     [OPTIONAL] Initialisation vector (hex)\r\n");
  ScreenOutput("     -in     The data\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the result is printed in\r\n");
  ScreenOutput("             hex.\r\n");
}

void ShowJobEncryptHelp() {
  JobHelpHeader(false, {"Encrypt data with a key of the HSM."});
  PrintCryptOptionsHelp();
  JobHelpExamples("encrypt",
                  {"-kn myaes -m cbc -pad pkcs5_padding -iv 000102030405060708090A0B0C0D0E0F "
                   "-in data.bin --out data.enc"});
}

void ShowJobDecryptHelp() {
  JobHelpHeader(false, {"Decrypt data with a key of the HSM."});
  PrintCryptOptionsHelp();
  JobHelpExamples("decrypt",
                  {"-kn myaes -m cbc -pad pkcs5_padding -iv 000102030405060708090A0B0C0D0E0F "
                   "-in data.enc --out data.bin"});
}

int SetCryptParam(HKEYCTX key, uint32_t param, const void *data, uint32_t len) {
  const int rc = QSetKeyParam(key, param, data, len, 0);
  if (rc != 0) PrintJobError("QSetKeyParam", rc);
  return rc;
}

int CryptWork(JOB_CRYPT_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  KeyOwner key;
  rc = OpenKey(session, job->pszKeyName, &key);
  if (rc != 0) return rc;
  if (job->bSetMode && (rc = SetCryptParam(key.Get(), QKP_MODE, &job->dwMode, 4)) != 0) return rc;
  if (job->bSetPadding && (rc = SetCryptParam(key.Get(), QKP_PADDING, &job->dwPadding, 4)) != 0)
    return rc;
  if (!job->pIv->empty() && (rc = SetCryptParam(key.Get(), QKP_IV, job->pIv->data(),
                                                static_cast<uint32_t>(job->pIv->size()))) != 0)
    return rc;
  Bytes buffer = *job->pData;
  uint32_t len = static_cast<uint32_t>(buffer.size());
  if (job->bEncrypt) {
    // Padding, a tag or an RSA block makes the output longer: the library says by how much.
    buffer.resize(buffer.size() + 64);
    rc = QEncrypt(key.Get(), nullptr, 1, 0, buffer.data(), &len,
                  static_cast<uint32_t>(buffer.size()));
    if (rc == QL_ERR_BUFFER_TOO_SMALL) {
      buffer = *job->pData;
      buffer.resize(len);
      len = static_cast<uint32_t>(job->pData->size());
      rc = QEncrypt(key.Get(), nullptr, 1, 0, buffer.data(), &len,
                    static_cast<uint32_t>(buffer.size()));
    }
  } else {
    rc = QDecrypt(key.Get(), nullptr, 1, 0, buffer.data(), &len);
  }
  if (rc != 0) {
    PrintJobError(job->bEncrypt ? "QEncrypt" : "QDecrypt", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, buffer.data(), len) ? 0 : QL_ERR_FILE_IO;
}

int StartCrypt(TEST_PARAMETER *pTestParam, int nParameters, bool encrypt) {
  JOB_CRYPT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.bEncrypt = encrypt ? 1 : 0;
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  bool ok = IsGivenText(job.pszKeyName) && IsOptionalTextGood(pTestParam, nParameters, "--out");
  if (IsParameterDefined(pTestParam, nParameters, "-m")) {
    job.bSetMode = 1;
    job.dwMode = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-m"));
    ok = ok && IsModeWord(job.dwMode);
  }
  if (IsParameterDefined(pTestParam, nParameters, "-pad")) {
    job.bSetPadding = 1;
    job.dwPadding = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-pad"));
    ok = ok && job.dwPadding <= QL_PAD_FORCE_ACTUAL_RSA;
  }
  Bytes iv = GetParameterHex(pTestParam, nParameters, "-iv");
  ok = ok && (!IsParameterDefined(pTestParam, nParameters, "-iv") || !iv.empty());
  DataInform inform = kFile;
  Bytes data;
  ok = ok && LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
       ReadJobData(pTestParam, nParameters, "-in", inform, &data);
  job.pIv = &iv;
  job.pData = &data;
  return StartJob(&JobEncryptThread, &job.ti, sizeof job, false, ok,
                  encrypt ? &ShowJobEncryptHelp : &ShowJobDecryptHelp);
}

}  // namespace

unsigned int JobEncryptThread(void *p) {
  auto *job = static_cast<JOB_CRYPT_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return CryptWork(job, session); });
}

int JobEncrypt(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartCrypt(pTestParam, nParameters, true);
}

int JobDecrypt(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartCrypt(pTestParam, nParameters, false);
}

// ---------------------------------------------------------------------------------------------
// sign-soluti: an RSASSA-PKCS1-v1_5 signature made as an RSA private-key encryption of the
// DigestInfo built here; the HSM pads it and applies the private operation.

typedef struct _JOB_SIGN_SOLUTI_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  uint32_t dwHashAlgId;    // -h
  const Bytes *pData;      // -in
  const char *pszOutFile;  // --out
} JOB_SIGN_SOLUTI_INFO;

unsigned int JobSignSolutiThread(void *p);

namespace {

// The DER of a DigestInfo up to the digest itself (RFC 8017, section 9.2, note 1); empty for a
// hash this job does not take.
Bytes DigestInfoPrefix(uint32_t alg) {
  switch (alg) {
    case QL_ALG_SHA1:
      return {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
              0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
    case QL_ALG_SHA256:
    case QL_ALG_SHA384:
    case QL_ALG_SHA512: {
      const unsigned char n = alg == QL_ALG_SHA256 ? 1 : alg == QL_ALG_SHA384 ? 2 : 3;
      const unsigned char len = alg == QL_ALG_SHA256 ? 0x20 : alg == QL_ALG_SHA384 ? 0x30 : 0x40;
      return {0x30, static_cast<unsigned char>(len + 0x11),
              0x30, 0x0d,
              0x06, 0x09,
              0x60, 0x86,
              0x48, 0x01,
              0x65, 0x03,
              0x04, 0x02,
              n,    0x05,
              0x00, 0x04,
              len};
    }
    default:
      return {};
  }
}

void ShowJobSignSolutiHelp() {
  JobHelpHeader(false, {"Sign data with RSASSA-PKCS1-v1_5: the DigestInfo of the data's hash is",
                        "encrypted with the RSA private key in the HSM."});
  ScreenOutput("     -kn     Name of the RSA private key\r\n");
  ScreenOutput("     -h      Hash: sha1, sha256, sha384 or sha512\r\n");
  ScreenOutput("     -in     The data\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the signature is printed\r\n");
  ScreenOutput("             in hex.\r\n");
  JobHelpExamples("sign-soluti", {"-kn myrsa -h sha256 -in document.pdf --out document.sig"});
}

int SignSolutiWork(JOB_SIGN_SOLUTI_INFO *job, HSESSIONCTX session) {
  HashOwner hash;
  int rc = MakeHash(session, job->dwHashAlgId, *job->pData, false, &hash);
  if (rc != 0) return rc;
  Bytes digest(64);
  uint32_t digest_len = static_cast<uint32_t>(digest.size());
  rc = QGetHashParam(hash.Get(), QHP_HASHVAL, digest.data(), &digest_len, 0);
  if (rc != 0) {
    PrintJobError("QGetHashParam", rc);
    return rc;
  }
  Bytes value = DigestInfoPrefix(job->dwHashAlgId);
  value.insert(value.end(), digest.begin(), digest.begin() + digest_len);
  KeyOwner key;
  rc = OpenKey(session, job->pszKeyName, &key);
  if (rc != 0) return rc;
  // The output is the modulus' length; the library says how long when the buffer is short.
  Bytes buffer = value;
  buffer.resize(512);
  uint32_t len = static_cast<uint32_t>(value.size());
  rc = QEncrypt(key.Get(), nullptr, 1, QL_ENCRYPT_RSA_PRIVATE, buffer.data(), &len,
                static_cast<uint32_t>(buffer.size()));
  if (rc == QL_ERR_BUFFER_TOO_SMALL) {
    buffer = value;
    buffer.resize(len);
    len = static_cast<uint32_t>(value.size());
    rc = QEncrypt(key.Get(), nullptr, 1, QL_ENCRYPT_RSA_PRIVATE, buffer.data(), &len,
                  static_cast<uint32_t>(buffer.size()));
  }
  if (rc != 0) {
    PrintJobError("QEncrypt", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, buffer.data(), len) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobSignSolutiThread(void *p) {
  auto *job = static_cast<JOB_SIGN_SOLUTI_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return SignSolutiWork(job, session); });
}

int JobSignSoluti(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_SIGN_SOLUTI_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.dwHashAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-h"));
  DataInform inform = kFile;
  Bytes data;
  job.pData = &data;
  const bool ok = IsGivenText(job.pszKeyName) && !DigestInfoPrefix(job.dwHashAlgId).empty() &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out") &&
                  LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &data);
  return StartJob(&JobSignSolutiThread, &job.ti, sizeof job, false, ok, &ShowJobSignSolutiHelp);
}
