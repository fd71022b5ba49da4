// The PKCS#11 performance tests: p11-sign-hash, p11-enc-dec, p11-gen-key-pair, p11-gen-key.
//
// They measure a PKCS#11 module (-p11) instead of the client library, on the runner's pattern:
// TestInit loads the module and initialises it; each thread's ThreadInit opens its own serial
// session on the -slot slot, logs in as the normal user with -w as the PIN and makes what the
// operation needs (session objects only, so nothing outlives the session); the thread body
// performs the measured calls; ThreadFin destroys and closes; TestFin finalises and unloads.
// The connection options are checked as for every performance test, although only -w is used.

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>

#include "Output.h"
#include "PerformanceTests.h"
#include "loadpkcs11.h"
#include "harness/harness.h"
#include "qlutil.h"

namespace {

// TestInit's answer when the module cannot be loaded (the runner prints it and exits with it).
constexpr CK_RV kModuleNotLoaded = CKR_GENERAL_ERROR;
// The bytes signed on every pass of p11-sign-hash.
constexpr CK_ULONG kSignDataLen = 64;
// Room for the input of CKM_RSA_X_509: one block the size of the largest modulus (8192 bits).
constexpr CK_ULONG kMaxSignInputLen = 1024;

// Key algorithm numbers of the -k words (p11rsa<bits> gives the bits; the symmetric words
// 1, 2, 3, 7, 8, 9).
constexpr int kP11Des = 1;
constexpr int kP11Des2 = 2;
constexpr int kP11Des3 = 3;
constexpr int kP11Aes128 = 7;
constexpr int kP11Aes192 = 8;
constexpr int kP11Aes256 = 9;
constexpr int kP11EcP256 = 30;
constexpr int kP11EcP384 = 31;
constexpr int kP11EcP521 = 32;

// The EC words of the PKCS#11 key lists, which the general algorithm table does not hold.
const COMMAND_OPTION_TYPE kP11EcOptions[] = {
    {"p11ecc_secp256r1", kP11EcP256},
    {"p11ecc_secp384r1", kP11EcP384},
    {"p11ecc_secp521r1", kP11EcP521},
};

// Named curves as CKA_EC_PARAMS takes them: the DER of the curve's object identifier.
const CK_BYTE kOidP256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
const CK_BYTE kOidP384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
const CK_BYTE kOidP521[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

// DigestInfo prefix of a SHA-256 digest (PKCS #1): what CKM_RSA_PKCS signs in front of it.
const CK_BYTE kSha256DigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                     0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
// The largest digest of the offered words (SHA-512).
constexpr CK_ULONG kMaxDigestLen = 64;

bool IsP11RsaAlg(int alg) {
  return alg >= 512 && alg % 8 == 0;
}
bool IsP11EcAlg(int alg) {
  return alg == kP11EcP256 || alg == kP11EcP384 || alg == kP11EcP521;
}
bool IsP11AsymmetricAlg(int alg) {
  return IsP11RsaAlg(alg) || IsP11EcAlg(alg);
}
bool IsP11SymmetricAlg(int alg) {
  return alg == kP11Des || alg == kP11Des2 || alg == kP11Des3 || alg == kP11Aes128 ||
         alg == kP11Aes192 || alg == kP11Aes256;
}

// The -k word: only the p11 words count (the general table gives other words the same numbers).
int GetParameterP11KeyAlg(TEST_PARAMETER *pTestParam, int nParameters) {
  const char *word = GetParameterStr(pTestParam, nParameters, "-k");
  if (word == nullptr || std::strncmp(word, "p11", 3) != 0) return -1;
  const int alg = GetParameterAlg(pTestParam, nParameters, "-k");
  if (alg != -1) return alg;
  return GetParameterOptionInt(pTestParam, kP11EcOptions,
                               static_cast<int>(std::size(kP11EcOptions)), nParameters, "-k");
}

// The -h word of p11-sign-hash: a ckm_* word's mechanism number, or -1.
int GetParameterP11Mechanism(TEST_PARAMETER *pTestParam, int nParameters) {
  const char *word = GetParameterStr(pTestParam, nParameters, "-h");
  if (word == nullptr || std::strncmp(word, "ckm_", 4) != 0) return -1;
  return GetParameterAlg(pTestParam, nParameters, "-h");
}

// The signing mechanism that -h selects for the key's type; CKM_VENDOR_DEFINED when the pair
// does not go together. A digest word selects the mechanism that hashes and signs;
// ckm_rsa_pkcs and ckm_rsa_x509 sign a digest made beforehand.
CK_MECHANISM_TYPE SignMechanismFor(int mechanism, int key_alg) {
  const bool rsa = IsP11RsaAlg(key_alg);
  const bool ec = IsP11EcAlg(key_alg);
  switch (static_cast<CK_MECHANISM_TYPE>(mechanism)) {
    case CKM_MD5:
      return rsa ? CKM_MD5_RSA_PKCS : CKM_VENDOR_DEFINED;
    case CKM_SHA_1:
      return rsa ? CKM_SHA1_RSA_PKCS : ec ? CKM_ECDSA_SHA1 : CKM_VENDOR_DEFINED;
    case CKM_SHA256:
      return rsa ? CKM_SHA256_RSA_PKCS : ec ? CKM_ECDSA_SHA256 : CKM_VENDOR_DEFINED;
    case CKM_SHA384:
      return rsa ? CKM_SHA384_RSA_PKCS : ec ? CKM_ECDSA_SHA384 : CKM_VENDOR_DEFINED;
    case CKM_SHA512:
      return rsa ? CKM_SHA512_RSA_PKCS : ec ? CKM_ECDSA_SHA512 : CKM_VENDOR_DEFINED;
    case CKM_ECDSA_SHA1:
      return ec ? CKM_ECDSA_SHA1 : CKM_VENDOR_DEFINED;
    case CKM_RSA_PKCS:
      return rsa ? CKM_RSA_PKCS : CKM_VENDOR_DEFINED;
    case CKM_RSA_X_509:
      return rsa ? CKM_RSA_X_509 : CKM_VENDOR_DEFINED;
    default:
      return CKM_VENDOR_DEFINED;
  }
}

// Key generation and encryption mechanisms of a symmetric -k word.
struct SymmetricAlg {
  CK_MECHANISM_TYPE KeyGen;
  CK_ULONG ValueLen;  // CKA_VALUE_LEN for AES; 0 for DES, whose length is the mechanism's
  CK_MECHANISM_TYPE Cipher;
  CK_ULONG BlockLen;
};

SymmetricAlg SymmetricAlgFor(int key_alg) {
  switch (key_alg) {
    case kP11Des:
      return {CKM_DES_KEY_GEN, 0, CKM_DES_CBC_PAD, 8};
    case kP11Des2:
      return {CKM_DES2_KEY_GEN, 0, CKM_DES3_CBC_PAD, 8};
    case kP11Des3:
      return {CKM_DES3_KEY_GEN, 0, CKM_DES3_CBC_PAD, 8};
    case kP11Aes128:
      return {CKM_AES_KEY_GEN, 16, CKM_AES_CBC_PAD, 16};
    case kP11Aes192:
      return {CKM_AES_KEY_GEN, 24, CKM_AES_CBC_PAD, 16};
    default:
      return {CKM_AES_KEY_GEN, 32, CKM_AES_CBC_PAD, 16};
  }
}

// The module part of every PKCS#11 test record. TestInit fills the whole-test fields of the
// entry's record before the runner copies it, so every thread's copy carries the table.
struct P11_TEST_MODULE {
  const char *pszModulePath;        // -p11 (points into the parameter array)
  CK_SLOT_ID SlotId;                // -slot
  const char *pszPin;               // -w as typed; null when the password comes from elsewhere
  void *hModule;                    // loaded in TestInit, unloaded in TestFin
  bool bInitialized;                // C_Initialize succeeded
  DL_PKCS11_FUNCTIONS stFunctions;  // read-only once the threads run
  CK_SESSION_HANDLE hSession;       // the thread's session; 0 when none
};

// True when the module exports the named entry point (the table holds it).
bool IsExported(const DL_PKCS11_FUNCTIONS &f, const char *name) {
#define QL_P11_IS_EXPORTED(entry) \
  if (std::strcmp(name, #entry) == 0) return f.entry != nullptr;
  QL_P11_ENTRY_POINTS(QL_P11_IS_EXPORTED)
#undef QL_P11_IS_EXPORTED
  return false;
}

// CKR_FUNCTION_NOT_SUPPORTED, with its message, for the first of the names that the module
// does not export; CKR_OK when it exports them all.
CK_RV CheckExported(const char *tag, const DL_PKCS11_FUNCTIONS &f,
                    std::initializer_list<const char *> names) {
  for (const char *name : names) {
    if (!IsExported(f, name)) {
      ScreenOutput("[%s] Fail in %s: not exported by the module. rc = %lu\r\n", tag, name,
                   CKR_FUNCTION_NOT_SUPPORTED);
      return CKR_FUNCTION_NOT_SUPPORTED;
    }
  }
  return CKR_OK;
}

// TestInit: load the module, check that it exports what the test calls (a missing name would
// otherwise show as a call through a null pointer in the middle of the run), initialise it.
CK_RV LoadP11Module(const char *tag, P11_TEST_MODULE *m,
                    std::initializer_list<const char *> needs) {
  DL_PKCS11_FUNCTIONS functions{};
  void *module = P11_LoadSymbols(m->pszModulePath, &functions);
  if (module == nullptr) {
    ScreenOutput("[%s] Failed to load symbols P11_LoadSymbols. Return NULL\r\n", tag);
    return kModuleNotLoaded;
  }
  m->hModule = module;
  m->stFunctions = functions;
  const DL_PKCS11_FUNCTIONS &f = m->stFunctions;
  // Every test initialises, opens, logs in, destroys, closes and finalises.
  CK_RV rv = CheckExported(tag, f,
                           {"C_Initialize", "C_Finalize", "C_OpenSession", "C_Login",
                            "C_CloseSession", "C_DestroyObject"});
  if (rv == CKR_OK) rv = CheckExported(tag, f, needs);
  if (rv == CKR_OK) {
    // A departure from calling C_Initialize without arguments: without them a module may
    // assume one thread only (SoftHSM2 then turns its own locking off) while our threads share
    // it. The flag lets the module lock with the system's primitives.
    CK_C_INITIALIZE_ARGS args;
    std::memset(&args, 0, sizeof(args));
    args.flags = CKF_OS_LOCKING_OK;
    rv = f.C_Initialize(&args);
    if (rv != CKR_OK) {
      ScreenOutput("[%s] Fail in C_Initialize. rc = %lu\r\n", tag, rv);
    } else {
      m->bInitialized = true;
    }
  }
  if (rv != CKR_OK) {
    // The runner does not call TestFin after a failing TestInit.
    P11_UnloadSymbols(m->hModule);
    m->hModule = nullptr;
    std::memset(&m->stFunctions, 0, sizeof(m->stFunctions));
  }
  return rv;
}

// TestFin: finalise and unload. Sessions that a failed ThreadInit left open end here too.
int UnloadP11Module(P11_TEST_MODULE *m) {
  if (m->bInitialized) m->stFunctions.C_Finalize(nullptr);
  m->bInitialized = false;
  if (m->hModule != nullptr) P11_UnloadSymbols(m->hModule);
  m->hModule = nullptr;
  return 0;
}

// ThreadInit: the thread's serial session on the slot, logged in as the normal user. The login
// state belongs to the token and is shared by all its sessions, so the second thread's login
// answers CKR_USER_ALREADY_LOGGED_IN, which is what it wanted.
CK_RV OpenUserSession(const char *tag, P11_TEST_MODULE *m, const THREAD_INFO &ti) {
  const DL_PKCS11_FUNCTIONS &f = m->stFunctions;
  CK_RV rv = f.C_OpenSession(m->SlotId, CKF_SERIAL_SESSION, nullptr, nullptr, &m->hSession);
  if (rv != CKR_OK) {
    m->hSession = CK_INVALID_HANDLE;
    ScreenOutput("[%s] Fail in C_OpenSession. rc = %lu\r\n", tag, rv);
    return rv;
  }
  // -w as typed: the login record keeps 16 characters, a PIN may be longer.
  std::string pin = m->pszPin != nullptr ? m->pszPin : ti.GetPassword();
  rv = f.C_Login(m->hSession, CKU_USER, reinterpret_cast<CK_UTF8CHAR *>(pin.data()), pin.size());
  if (rv == CKR_USER_ALREADY_LOGGED_IN) rv = CKR_OK;
  if (rv != CKR_OK) {
    ScreenOutput("[%s] Fail in C_Login. rc = %lu\r\n", tag, rv);
  }
  return rv;
}

// Closing the session is enough to end the login: no C_Logout, which would log out every
// other session of the token too.
void CloseUserSession(P11_TEST_MODULE *m) {
  if (m->hSession != CK_INVALID_HANDLE) m->stFunctions.C_CloseSession(m->hSession);
  m->hSession = CK_INVALID_HANDLE;
}

void DestroyObject(P11_TEST_MODULE *m, CK_OBJECT_HANDLE *object) {
  if (*object != CK_INVALID_HANDLE && m->hSession != CK_INVALID_HANDLE) {
    m->stFunctions.C_DestroyObject(m->hSession, *object);
  }
  *object = CK_INVALID_HANDLE;
}

// The templates of a session key pair for the -k word: RSA with exponent 65537, or EC on a
// named curve. They point into the object itself, so it is built in place and never copied.
class KeyPairTemplate {
 public:
  KeyPairTemplate(int key_alg, bool for_signing) {
    const CK_BBOOL usage = for_signing ? CK_TRUE : CK_FALSE;
    verify_ = usage;
    sign_ = usage;
    Add(public_, &public_count_, CKA_TOKEN, &false_, sizeof(false_));
    Add(public_, &public_count_, CKA_VERIFY, &verify_, sizeof(verify_));
    Add(private_, &private_count_, CKA_TOKEN, &false_, sizeof(false_));
    Add(private_, &private_count_, CKA_PRIVATE, &true_, sizeof(true_));
    Add(private_, &private_count_, CKA_SENSITIVE, &true_, sizeof(true_));
    Add(private_, &private_count_, CKA_SIGN, &sign_, sizeof(sign_));
    if (IsP11EcAlg(key_alg)) {
      mechanism_.mechanism = CKM_EC_KEY_PAIR_GEN;
      const CK_BYTE *oid = key_alg == kP11EcP256   ? kOidP256
                           : key_alg == kP11EcP384 ? kOidP384
                                                   : kOidP521;
      const CK_ULONG oid_len = key_alg == kP11EcP256   ? sizeof(kOidP256)
                               : key_alg == kP11EcP384 ? sizeof(kOidP384)
                                                       : sizeof(kOidP521);
      Add(public_, &public_count_, CKA_EC_PARAMS, const_cast<CK_BYTE *>(oid), oid_len);
    } else {
      mechanism_.mechanism = CKM_RSA_PKCS_KEY_PAIR_GEN;
      modulus_bits_ = static_cast<CK_ULONG>(key_alg);
      Add(public_, &public_count_, CKA_MODULUS_BITS, &modulus_bits_, sizeof(modulus_bits_));
      Add(public_, &public_count_, CKA_PUBLIC_EXPONENT, exponent_, sizeof(exponent_));
    }
  }
  KeyPairTemplate(const KeyPairTemplate &) = delete;
  KeyPairTemplate &operator=(const KeyPairTemplate &) = delete;

  CK_RV Generate(const DL_PKCS11_FUNCTIONS &f, CK_SESSION_HANDLE session,
                 CK_OBJECT_HANDLE *public_key, CK_OBJECT_HANDLE *private_key) {
    return f.C_GenerateKeyPair(session, &mechanism_, public_, public_count_, private_,
                               private_count_, public_key, private_key);
  }

 private:
  static void Add(CK_ATTRIBUTE *list, CK_ULONG *count, CK_ATTRIBUTE_TYPE type, void *value,
                  CK_ULONG len) {
    list[*count] = {type, value, len};
    ++*count;
  }

  CK_MECHANISM mechanism_{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_BBOOL true_ = CK_TRUE;
  CK_BBOOL false_ = CK_FALSE;
  CK_BBOOL verify_ = CK_TRUE;
  CK_BBOOL sign_ = CK_TRUE;
  CK_ULONG modulus_bits_ = 0;
  CK_BYTE exponent_[3] = {0x01, 0x00, 0x01};
  CK_ATTRIBUTE public_[4] = {};
  CK_ULONG public_count_ = 0;
  CK_ATTRIBUTE private_[4] = {};
  CK_ULONG private_count_ = 0;
};

// The template of a secret session key for encryption, built in place like KeyPairTemplate.
class SecretKeyTemplate {
 public:
  explicit SecretKeyTemplate(int key_alg) : alg_(SymmetricAlgFor(key_alg)) {
    mechanism_.mechanism = alg_.KeyGen;
    value_len_ = alg_.ValueLen;
    const CK_ATTRIBUTE fixed[] = {
        {CKA_CLASS, &class_, sizeof(class_)}, {CKA_TOKEN, &false_, sizeof(false_)},
        {CKA_PRIVATE, &true_, sizeof(true_)}, {CKA_SENSITIVE, &true_, sizeof(true_)},
        {CKA_ENCRYPT, &true_, sizeof(true_)}, {CKA_DECRYPT, &true_, sizeof(true_)}};
    for (const CK_ATTRIBUTE &a : fixed) attributes_[count_++] = a;
    if (value_len_ != 0) attributes_[count_++] = {CKA_VALUE_LEN, &value_len_, sizeof(value_len_)};
  }
  SecretKeyTemplate(const SecretKeyTemplate &) = delete;
  SecretKeyTemplate &operator=(const SecretKeyTemplate &) = delete;

  CK_RV Generate(const DL_PKCS11_FUNCTIONS &f, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE *key) {
    return f.C_GenerateKey(session, &mechanism_, attributes_, count_, key);
  }
  const SymmetricAlg &Alg() const { return alg_; }

 private:
  SymmetricAlg alg_;
  CK_MECHANISM mechanism_{CKM_AES_KEY_GEN, nullptr, 0};
  CK_OBJECT_CLASS class_ = CKO_SECRET_KEY;
  CK_BBOOL true_ = CK_TRUE;
  CK_BBOOL false_ = CK_FALSE;
  CK_ULONG value_len_ = 0;
  CK_ATTRIBUTE attributes_[7] = {};
  CK_ULONG count_ = 0;
};

// A step of a ThreadInit: runs while *rc is 0; a failing answer of the module is printed,
// "[<tag>] Fail in <call>. rc = <rv>\r\n", and becomes *rc.
template <typename Step>
void P11Step(int *rc, const char *tag, const char *call, Step &&step) {
  if (*rc != 0) return;
  const CK_RV rv = step();
  if (rv != CKR_OK) ScreenOutput("[%s] Fail in %s. rc = %lu\r\n", tag, call, rv);
  *rc = static_cast<int>(rv);
}

// The output buffer of a one-shot operation (C_SignInit and C_Sign, C_EncryptInit and
// C_Encrypt), sized and proved before the clock starts: init(), a size query op(nullptr, len),
// a buffer of that size in *ppOut and *pOutLen, and the real op(*ppOut, len), which ends the
// operation the query left open.
template <typename Init, typename Op>
void SizeOneShotOutput(int *rc, const char *tag, const char *init_call, Init &&init,
                       const char *op_call, Op &&op, CK_BYTE **ppOut, CK_ULONG *pOutLen) {
  P11Step(rc, tag, init_call, init);
  CK_ULONG len = 0;
  P11Step(rc, tag, op_call, [&] { return op(nullptr, &len); });
  if (*rc == 0) {
    *ppOut = static_cast<CK_BYTE *>(std::malloc(len));
    if (*ppOut == nullptr) {
      *rc = -1;
      ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, *rc);
    } else {
      *pOutLen = len;
    }
  }
  P11Step(rc, tag, op_call, [&] { return op(*ppOut, &len); });
}

// The loop's failure line, "[<tag>] Fail in <call> rc = <rv>. Iteration = <counter>\r\n".
// Answers rv.
CK_RV P11PassFailed(const char *tag, const char *call, CK_RV rv, unsigned long counter) {
  ScreenOutput("[%s] Fail in %s rc = %lu. Iteration = %lu\r\n", tag, call, rv, counter);
  return rv;
}

// Reads -p11 and -slot into the module part; false when either is missing or bad.
bool LoadP11ModuleParams(P11_TEST_MODULE *m, TEST_PARAMETER *pTestParam, int nParameters) {
  m->pszModulePath = GetParameterStr(pTestParam, nParameters, "-p11");
  m->pszPin = GetParameterStr(pTestParam, nParameters, "-w");
  uint32_t slot = 0;
  const bool has_slot = GetParameterDword(pTestParam, nParameters, "-slot", &slot);
  m->SlotId = slot;
  return m->pszModulePath != nullptr && m->pszModulePath[0] != '\0' && has_slot;
}

void ShowHelpP11ModuleParameters() {
  ScreenOutput("     -p11    Path of the PKCS#11 module (a shared library).\r\n");
  ScreenOutput("     -slot   Slot id of the token. The password (-w) is the token's user PIN.\r\n");
}

const char *const kExampleModule = "/usr/lib/softhsm/libsofthsm2.so";

}  // namespace

// ---------------------------------------------------------------------------------------------
// p11-sign-hash

typedef struct tag_PERF_P11_SIGN_HASH_INFO {
  THREAD_INFO ti;
  int MechanismId;  // -h: the ckm_* word's mechanism number
  int KeyAlgId;     // -k
  P11_TEST_MODULE stP11;
  CK_MECHANISM_TYPE SignMechanism;    // what C_SignInit gets
  bool bDigestFirst;                  // the input is a digest made in ThreadInit ...
  CK_MECHANISM_TYPE DigestMechanism;  // ... with this mechanism
  CK_OBJECT_HANDLE hPublicKey;
  CK_OBJECT_HANDLE hPrivateKey;
  CK_BYTE pbData[kMaxSignInputLen];  // the input signed on every pass
  CK_ULONG dwDataLen;
  CK_BYTE *pbSignature;  // heap, dwSignatureLen bytes
  CK_ULONG dwSignatureLen;
} PERF_P11_SIGN_HASH_INFO;

namespace {

// The input of the signing mechanism. A combined mechanism gets the random bytes and hashes
// them itself. Otherwise the module digests them here, outside the timed loop: CKM_ECDSA signs
// the bare digest, CKM_RSA_PKCS the digest in its DigestInfo, and CKM_RSA_X_509 that DigestInfo
// in a PKCS #1 block type 1 the size of the modulus.
CK_RV PrepareSignInput(const char *tag, PERF_P11_SIGN_HASH_INFO *info, const CK_BYTE *random) {
  if (!info->bDigestFirst) {
    std::memcpy(info->pbData, random, kSignDataLen);
    info->dwDataLen = kSignDataLen;
    return CKR_OK;
  }
  const DL_PKCS11_FUNCTIONS &f = info->stP11.stFunctions;
  const CK_SESSION_HANDLE session = info->stP11.hSession;
  CK_MECHANISM digest_mechanism = {info->DigestMechanism, nullptr, 0};
  CK_RV rv = f.C_DigestInit(session, &digest_mechanism);
  if (rv != CKR_OK) {
    ScreenOutput("[%s] Fail in C_DigestInit. rc = %lu\r\n", tag, rv);
    return rv;
  }
  CK_BYTE digest[kMaxDigestLen];
  CK_ULONG digest_len = sizeof(digest);
  rv = f.C_Digest(session, const_cast<CK_BYTE *>(random), kSignDataLen, digest, &digest_len);
  if (rv != CKR_OK) {
    ScreenOutput("[%s] Fail in C_Digest. rc = %lu\r\n", tag, rv);
    return rv;
  }
  if (info->SignMechanism == CKM_ECDSA) {
    std::memcpy(info->pbData, digest, digest_len);
    info->dwDataLen = digest_len;
    return CKR_OK;
  }
  const CK_ULONG info_len = sizeof(kSha256DigestInfo) + digest_len;
  const CK_ULONG block_len =
      info->SignMechanism == CKM_RSA_X_509 ? static_cast<CK_ULONG>(info->KeyAlgId) / 8 : info_len;
  CK_BYTE *out = info->pbData;
  if (info->SignMechanism == CKM_RSA_X_509) {
    // 00 01 FF..FF 00 DigestInfo: fits every offered modulus (512 bits and up).
    const CK_ULONG fill = block_len - info_len - 3;
    *out++ = 0x00;
    *out++ = 0x01;
    std::memset(out, 0xFF, fill);
    out += fill;
    *out++ = 0x00;
  }
  std::memcpy(out, kSha256DigestInfo, sizeof(kSha256DigestInfo));
  std::memcpy(out + sizeof(kSha256DigestInfo), digest, digest_len);
  info->dwDataLen = block_len;
  return CKR_OK;
}

// The digest of a combined ECDSA mechanism.
CK_MECHANISM_TYPE EcdsaDigestOf(CK_MECHANISM_TYPE mechanism) {
  switch (mechanism) {
    case CKM_ECDSA_SHA1:
      return CKM_SHA_1;
    case CKM_ECDSA_SHA256:
      return CKM_SHA256;
    case CKM_ECDSA_SHA384:
      return CKM_SHA384;
    default:
      return CKM_SHA512;
  }
}

// Session objects die with the session; they are destroyed first all the same, so that a
// module keeping sessions alive across a failure holds nothing of ours.
int PerfP11SignHashThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_SIGN_HASH_INFO *>(pThreadInfo);
  DestroyObject(&info->stP11, &info->hPrivateKey);
  DestroyObject(&info->stP11, &info->hPublicKey);
  CloseUserSession(&info->stP11);
  std::free(info->pbSignature);
  info->pbSignature = nullptr;
  info->dwSignatureLen = 0;
  return 0;
}

int PerfP11SignHashTestInit(void *pTestInfo) {
  auto *info = static_cast<PERF_P11_SIGN_HASH_INFO *>(pTestInfo);
  const char *tag = "PerfP11SignHashTestInit";
  P11_TEST_MODULE *m = &info->stP11;
  if (info->bDigestFirst) {
    return static_cast<int>(LoadP11Module(tag, m,
                                          {"C_GenerateKeyPair", "C_GenerateRandom", "C_DigestInit",
                                           "C_Digest", "C_SignInit", "C_Sign"}));
  }
  const CK_RV rv =
      LoadP11Module(tag, m, {"C_GenerateKeyPair", "C_GenerateRandom", "C_SignInit", "C_Sign"});
  if (rv != CKR_OK || !IsP11EcAlg(info->KeyAlgId)) return static_cast<int>(rv);
  // Many modules offer ECDSA only over a digest made by the caller (CKM_ECDSA). When the
  // combined mechanism is unknown to the slot, the digest is made in ThreadInit instead, with
  // the word's hash. Any other answer is left for ThreadInit to report.
  const DL_PKCS11_FUNCTIONS &f = m->stFunctions;
  if (f.C_GetMechanismInfo == nullptr || f.C_DigestInit == nullptr || f.C_Digest == nullptr) {
    return 0;
  }
  CK_MECHANISM_INFO mechanism_info;
  if (f.C_GetMechanismInfo(m->SlotId, info->SignMechanism, &mechanism_info) ==
      CKR_MECHANISM_INVALID) {
    info->DigestMechanism = EcdsaDigestOf(info->SignMechanism);
    info->SignMechanism = CKM_ECDSA;
    info->bDigestFirst = true;
  }
  return 0;
}

int PerfP11SignHashThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_SIGN_HASH_INFO *>(pThreadInfo);
  const char *tag = "PerfP11SignHashThreadInit";
  P11_TEST_MODULE *m = &info->stP11;
  const DL_PKCS11_FUNCTIONS &f = m->stFunctions;
  int rc = static_cast<int>(OpenUserSession(tag, m, info->ti));
  P11Step(&rc, tag, "C_GenerateKeyPair", [&] {
    KeyPairTemplate key_pair(info->KeyAlgId, true);
    const CK_RV rv = key_pair.Generate(f, m->hSession, &info->hPublicKey, &info->hPrivateKey);
    if (rv != CKR_OK) info->hPublicKey = info->hPrivateKey = CK_INVALID_HANDLE;
    return rv;
  });
  CK_BYTE random[kSignDataLen];
  P11Step(&rc, tag, "C_GenerateRandom",
          [&] { return f.C_GenerateRandom(m->hSession, random, sizeof(random)); });
  if (rc == 0) rc = static_cast<int>(PrepareSignInput(tag, info, random));
  CK_MECHANISM mechanism = {info->SignMechanism, nullptr, 0};
  SizeOneShotOutput(
      &rc, tag, "C_SignInit",
      [&] { return f.C_SignInit(m->hSession, &mechanism, info->hPrivateKey); }, "C_Sign",
      [&](CK_BYTE *out, CK_ULONG *len) {
        return f.C_Sign(m->hSession, info->pbData, info->dwDataLen, out, len);
      },
      &info->pbSignature, &info->dwSignatureLen);
  // The runner does not call ThreadFin for a copy whose ThreadInit failed.
  if (rc != 0) PerfP11SignHashThreadFin(info);
  return rc;
}

unsigned int PerfP11SignHashThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_SIGN_HASH_INFO *>(pThreadInfo);
  const DL_PKCS11_FUNCTIONS &f = info->stP11.stFunctions;
  const CK_SESSION_HANDLE session = info->stP11.hSession;
  const char *tag = "PerfP11SignHashThread";
  CK_MECHANISM mechanism = {info->SignMechanism, nullptr, 0};
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    CK_RV rv = f.C_SignInit(session, &mechanism, info->hPrivateKey);
    if (rv != CKR_OK) return P11PassFailed(tag, "C_SignInit", rv, counter);
    CK_ULONG len = info->dwSignatureLen;
    rv = f.C_Sign(session, info->pbData, info->dwDataLen, info->pbSignature, &len);
    return rv == CKR_OK ? rv : P11PassFailed(tag, "C_Sign", rv, counter);
  });
}

int PerfP11SignHashTestFin(void *pTestInfo) {
  return UnloadP11Module(&static_cast<PERF_P11_SIGN_HASH_INFO *>(pTestInfo)->stP11);
}

void ShowHelpP11SignMechanisms() {
  ScreenOutput("     -h      Signing mechanism. A digest word signs 64 random bytes with the\r\n");
  ScreenOutput("             mechanism that hashes and signs for the key's type:\r\n");
  ScreenOutput("                   ckm_md5         CKM_MD5_RSA_PKCS (RSA keys only)\r\n");
  ScreenOutput("                   ckm_sha_1       CKM_SHA1_RSA_PKCS or CKM_ECDSA_SHA1\r\n");
  ScreenOutput("                   ckm_sha256      CKM_SHA256_RSA_PKCS or CKM_ECDSA_SHA256\r\n");
  ScreenOutput("                   ckm_sha384      CKM_SHA384_RSA_PKCS or CKM_ECDSA_SHA384\r\n");
  ScreenOutput("                   ckm_sha512      CKM_SHA512_RSA_PKCS or CKM_ECDSA_SHA512\r\n");
  ScreenOutput("                   ckm_ecdsa_sha1  CKM_ECDSA_SHA1 (EC keys only)\r\n");
  ScreenOutput("             With an EC key on a slot that does not offer the combined\r\n");
  ScreenOutput(
      "             mechanism, the module digests beforehand and signs with CKM_ECDSA.\r\n");
  ScreenOutput("             The RSA words sign a SHA-256 digest computed beforehand:\r\n");
  ScreenOutput("                   ckm_rsa_pkcs    CKM_RSA_PKCS over the digest in its\r\n");
  ScreenOutput("                                   DigestInfo (RSA keys only)\r\n");
  ScreenOutput("                   ckm_rsa_x509    CKM_RSA_X_509 over that DigestInfo in a\r\n");
  ScreenOutput("                                   PKCS#1 block the size of the modulus\r\n");
  ScreenOutput("                                   (RSA keys only)\r\n");
  ScreenOutput("\r\n");
}

}  // namespace

int PerfP11SignHash(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_P11_SIGN_HASH_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.MechanismId = GetParameterP11Mechanism(pTestParam, nParameters);
  info.KeyAlgId = GetParameterP11KeyAlg(pTestParam, nParameters);
  const bool has_module = LoadP11ModuleParams(&info.stP11, pTestParam, nParameters);
  info.SignMechanism = SignMechanismFor(info.MechanismId, info.KeyAlgId);
  if (info.SignMechanism == CKM_RSA_PKCS || info.SignMechanism == CKM_RSA_X_509) {
    info.bDigestFirst = true;
    info.DigestMechanism = CKM_SHA256;
  }

  if (IsValidTestCountersConfig(&info.ti) && has_module && IsP11AsymmetricAlg(info.KeyAlgId) &&
      info.SignMechanism != CKM_VENDOR_DEFINED && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfP11SignHashThread, PerfP11SignHashTestInit,
                                  PerfP11SignHashTestFin, PerfP11SignHashThreadInit,
                                  PerfP11SignHashThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription(
      {"PKCS#11 hash signature performance test.",
       "This test returns the number of signatures generated per second by a PKCS#11",
       "module. Each thread signs with a session key pair of its own."});
  ShowHelpP11ModuleParameters();
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpP11AssymmetricAlgorithms();
  ShowHelpP11SignMechanisms();
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -p p11-sign-hash -t 5 -i 10 -h ckm_sha256 "
      "-k p11rsa2048 -p11 %s -slot 0\r\n",
      kExampleModule);
  ScreenOutput(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -p p11-sign-hash -t 5 -i 10 -h ckm_sha256 "
      "-k p11ecc_secp256r1 -p11 %s -slot 0\r\n",
      kExampleModule);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// p11-enc-dec

typedef struct tag_PERF_P11_ENC_INFO {
  THREAD_INFO ti;
  int KeyAlgId;  // -k
  P11_TEST_MODULE stP11;
  CK_MECHANISM_TYPE CipherMechanism;  // CBC with PKCS padding for the key's type
  CK_OBJECT_HANDLE hKey;
  CK_BYTE pbIV[16];
  CK_ULONG dwIVLen;
  CK_BYTE *pbData;       // heap, ti.MessageSize random bytes
  CK_BYTE *pbEncrypted;  // heap, dwEncryptedLen bytes
  CK_ULONG dwEncryptedLen;
} PERF_P11_ENC_INFO;

namespace {

int PerfP11EncThreadFin(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_ENC_INFO *>(pThreadInfo);
  DestroyObject(&info->stP11, &info->hKey);
  CloseUserSession(&info->stP11);
  std::free(info->pbData);
  info->pbData = nullptr;
  std::free(info->pbEncrypted);
  info->pbEncrypted = nullptr;
  info->dwEncryptedLen = 0;
  return 0;
}

int PerfP11EncTestInit(void *pTestInfo) {
  auto *info = static_cast<PERF_P11_ENC_INFO *>(pTestInfo);
  return static_cast<int>(
      LoadP11Module("PerfP11EncTestInit", &info->stP11,
                    {"C_GenerateKey", "C_GenerateRandom", "C_EncryptInit", "C_Encrypt"}));
}

int PerfP11EncThreadInit(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_ENC_INFO *>(pThreadInfo);
  const char *tag = "PerfP11EncThreadInit";
  P11_TEST_MODULE *m = &info->stP11;
  const DL_PKCS11_FUNCTIONS &f = m->stFunctions;
  const CK_ULONG data_len = static_cast<CK_ULONG>(info->ti.MessageSize);
  int rc = static_cast<int>(OpenUserSession(tag, m, info->ti));
  P11Step(&rc, tag, "C_GenerateKey", [&] {
    SecretKeyTemplate key(info->KeyAlgId);
    info->CipherMechanism = key.Alg().Cipher;
    info->dwIVLen = key.Alg().BlockLen;
    const CK_RV rv = key.Generate(f, m->hSession, &info->hKey);
    if (rv != CKR_OK) info->hKey = CK_INVALID_HANDLE;
    return rv;
  });
  if (rc == 0) {
    info->pbData = static_cast<CK_BYTE *>(std::malloc(data_len));
    if (info->pbData == nullptr) {
      rc = -1;
      ScreenOutput("[%s] Fail in malloc. rc = %d\r\n", tag, rc);
    }
  }
  P11Step(&rc, tag, "C_GenerateRandom", [&] {
    const CK_RV rv = f.C_GenerateRandom(m->hSession, info->pbData, data_len);
    return rv != CKR_OK ? rv : f.C_GenerateRandom(m->hSession, info->pbIV, info->dwIVLen);
  });
  CK_MECHANISM mechanism = {info->CipherMechanism, info->pbIV, info->dwIVLen};
  SizeOneShotOutput(
      &rc, tag, "C_EncryptInit",
      [&] { return f.C_EncryptInit(m->hSession, &mechanism, info->hKey); }, "C_Encrypt",
      [&](CK_BYTE *out, CK_ULONG *len) {
        return f.C_Encrypt(m->hSession, info->pbData, data_len, out, len);
      },
      &info->pbEncrypted, &info->dwEncryptedLen);
  if (rc != 0) PerfP11EncThreadFin(info);
  return rc;
}

unsigned int PerfP11EncThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_ENC_INFO *>(pThreadInfo);
  const DL_PKCS11_FUNCTIONS &f = info->stP11.stFunctions;
  const CK_SESSION_HANDLE session = info->stP11.hSession;
  const CK_ULONG data_len = static_cast<CK_ULONG>(info->ti.MessageSize);
  const char *tag = "PerfP11EncThread";
  CK_MECHANISM mechanism = {info->CipherMechanism, info->pbIV, info->dwIVLen};
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    CK_RV rv = f.C_EncryptInit(session, &mechanism, info->hKey);
    if (rv != CKR_OK) return P11PassFailed(tag, "C_EncryptInit", rv, counter);
    CK_ULONG len = info->dwEncryptedLen;
    rv = f.C_Encrypt(session, info->pbData, data_len, info->pbEncrypted, &len);
    return rv == CKR_OK ? rv : P11PassFailed(tag, "C_Encrypt", rv, counter);
  });
}

int PerfP11EncTestFin(void *pTestInfo) {
  return UnloadP11Module(&static_cast<PERF_P11_ENC_INFO *>(pTestInfo)->stP11);
}

}  // namespace

int PerfP11Enc(TEST_PARAMETER *pTestParam, int nParameters) {
  PERF_P11_ENC_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters,
                 GetParameterInt(pTestParam, nParameters, "-ops") == 1 ? 1 : 2);
  info.ti.MessageSize = GetParameterInt(pTestParam, nParameters, "-m");
  info.KeyAlgId = GetParameterP11KeyAlg(pTestParam, nParameters);
  const bool has_module = LoadP11ModuleParams(&info.stP11, pTestParam, nParameters);

  if (IsValidTestCountersConfig(&info.ti) && has_module && IsP11SymmetricAlg(info.KeyAlgId) &&
      info.ti.MessageSize > 0 && CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(PerfP11EncThread, PerfP11EncTestInit, PerfP11EncTestFin,
                                  PerfP11EncThreadInit, PerfP11EncThreadFin, &info, sizeof(info));
  }

  PerfHelpDescription(
      {"PKCS#11 symmetric encryption performance test.",
       "This test returns the number of bytes encrypted per second or operations per second",
       "by a PKCS#11 module, in CBC mode with PKCS padding."});
  ShowHelpP11ModuleParameters();
  ScreenOutput("     -k      Key algorithm:\r\n");
  ShowHelpP11SymmetricAlgorithms();
  ScreenOutput("     -m      Message size in bytes\r\n");
  ScreenOutput("     -ops    [OPTIONAL] 1: Operations per second\r\n");
  ScreenOutput("                        0: Bytes per second (default)\r\n");
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -p p11-enc-dec -t 5 -i 10 -k p11aes256 "
      "-m 1024 -p11 %s -slot 0\r\n",
      kExampleModule);
  return kResultUsage;
}

// ---------------------------------------------------------------------------------------------
// p11-gen-key-pair and p11-gen-key: one pass generates a session key (pair) and destroys it,
// so that the module holds no more objects after a million passes than after one.

typedef struct tag_PERF_P11_GEN_KEY_INFO {
  THREAD_INFO ti;
  int KeyAlgId;  // -k
  P11_TEST_MODULE stP11;
} PERF_P11_GEN_KEY_INFO;

namespace {

int PerfP11GenKeyThreadFin(void *pThreadInfo) {
  CloseUserSession(&static_cast<PERF_P11_GEN_KEY_INFO *>(pThreadInfo)->stP11);
  return 0;
}

// The whole ThreadInit of the generation tests: the thread's logged-in session.
int OpenGenKeySession(const char *tag, void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_GEN_KEY_INFO *>(pThreadInfo);
  const int rc = static_cast<int>(OpenUserSession(tag, &info->stP11, info->ti));
  if (rc != 0) CloseUserSession(&info->stP11);
  return rc;
}

int PerfP11GenKeyPairThreadInit(void *pThreadInfo) {
  return OpenGenKeySession("PerfP11GenKeyPairThreadInit", pThreadInfo);
}

int PerfP11GenKeyThreadInit(void *pThreadInfo) {
  return OpenGenKeySession("PerfP11GenKeyThreadInit", pThreadInfo);
}

int PerfP11GenKeyPairTestInit(void *pTestInfo) {
  auto *info = static_cast<PERF_P11_GEN_KEY_INFO *>(pTestInfo);
  return static_cast<int>(
      LoadP11Module("PerfP11GenKeyPairTestInit", &info->stP11, {"C_GenerateKeyPair"}));
}

int PerfP11GenKeyTestInit(void *pTestInfo) {
  auto *info = static_cast<PERF_P11_GEN_KEY_INFO *>(pTestInfo);
  return static_cast<int>(LoadP11Module("PerfP11GenKeyTestInit", &info->stP11, {"C_GenerateKey"}));
}

int PerfP11GenKeyTestFin(void *pTestInfo) {
  return UnloadP11Module(&static_cast<PERF_P11_GEN_KEY_INFO *>(pTestInfo)->stP11);
}

unsigned int PerfP11GenKeyPairThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_GEN_KEY_INFO *>(pThreadInfo);
  const DL_PKCS11_FUNCTIONS &f = info->stP11.stFunctions;
  const CK_SESSION_HANDLE session = info->stP11.hSession;
  const char *tag = "PerfP11GenKeyPairThread";
  KeyPairTemplate key_pair(info->KeyAlgId, true);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    CK_OBJECT_HANDLE public_key = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE private_key = CK_INVALID_HANDLE;
    CK_RV rv = key_pair.Generate(f, session, &public_key, &private_key);
    if (rv != CKR_OK) return P11PassFailed(tag, "C_GenerateKeyPair", rv, counter);
    rv = f.C_DestroyObject(session, private_key);
    const CK_RV rv_public = f.C_DestroyObject(session, public_key);
    if (rv == CKR_OK) rv = rv_public;
    return rv == CKR_OK ? rv : P11PassFailed(tag, "C_DestroyObject", rv, counter);
  });
}

unsigned int PerfP11GenKeyThread(void *pThreadInfo) {
  auto *info = static_cast<PERF_P11_GEN_KEY_INFO *>(pThreadInfo);
  const DL_PKCS11_FUNCTIONS &f = info->stP11.stFunctions;
  const CK_SESSION_HANDLE session = info->stP11.hSession;
  const char *tag = "PerfP11GenKeyThread";
  SecretKeyTemplate key(info->KeyAlgId);
  return RunPerfLoop(&info->ti, [&](unsigned long counter) {
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    CK_RV rv = key.Generate(f, session, &handle);
    if (rv != CKR_OK) return P11PassFailed(tag, "C_GenerateKey", rv, counter);
    rv = f.C_DestroyObject(session, handle);
    return rv == CKR_OK ? rv : P11PassFailed(tag, "C_DestroyObject", rv, counter);
  });
}

}  // namespace

namespace {

// The front of the generation tests: pair says p11-gen-key-pair (an asymmetric -k) rather than
// p11-gen-key (a symmetric one).
int RunP11GenKeyTest(TEST_PARAMETER *pTestParam, int nParameters, bool pair) {
  PERF_P11_GEN_KEY_INFO info;
  LoadPerfRecord(&info, pTestParam, nParameters, 1);
  info.KeyAlgId = GetParameterP11KeyAlg(pTestParam, nParameters);
  const bool has_module = LoadP11ModuleParams(&info.stP11, pTestParam, nParameters);
  const bool alg_ok = pair ? IsP11AsymmetricAlg(info.KeyAlgId) : IsP11SymmetricAlg(info.KeyAlgId);

  if (IsValidTestCountersConfig(&info.ti) && has_module && alg_ok &&
      CheckConnectionFlags(&info.ti, false)) {
    return ExecutePerfTestThreads(pair ? PerfP11GenKeyPairThread : PerfP11GenKeyThread,
                                  pair ? PerfP11GenKeyPairTestInit : PerfP11GenKeyTestInit,
                                  PerfP11GenKeyTestFin,
                                  pair ? PerfP11GenKeyPairThreadInit : PerfP11GenKeyThreadInit,
                                  PerfP11GenKeyThreadFin, &info, sizeof(info));
  }

  if (pair) {
    PerfHelpDescription(
        {"PKCS#11 key pair generation performance test.",
         "This test returns the number of key pairs generated per second by a PKCS#11 module.",
         "Each pair is a session object, destroyed right after it is made."});
  } else {
    PerfHelpDescription(
        {"PKCS#11 symmetric key generation performance test.",
         "This test returns the number of keys generated per second by a PKCS#11 module.",
         "Each key is a session object, destroyed right after it is made."});
  }
  ShowHelpP11ModuleParameters();
  ScreenOutput("     -k      Key algorithm:\r\n");
  if (pair) {
    ShowHelpP11AssymmetricAlgorithms();
  } else {
    ShowHelpP11SymmetricAlgorithms();
  }
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput(
      "     qlutil -a 10.10.10.10 -u master -w 24681357 -p %s -t 5 -i 10 -k %s -p11 %s -slot 0\r\n",
      pair ? "p11-gen-key-pair" : "p11-gen-key", pair ? "p11rsa2048" : "p11aes256", kExampleModule);
  return kResultUsage;
}

}  // namespace

int PerfP11GenKeyPair(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunP11GenKeyTest(pTestParam, nParameters, true);
}

int PerfP11GenKey(TEST_PARAMETER *pTestParam, int nParameters) {
  return RunP11GenKeyTest(pTestParam, nParameters, false);
}
