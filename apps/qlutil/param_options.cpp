#include "param_options.h"

#include <p11-kit/pkcs11.h>

#include <iterator>

namespace {

constexpr int Ckm(CK_MECHANISM_TYPE mechanism) {
  return static_cast<int>(mechanism);
}

// The SHA-3 HMAC mechanisms of PKCS#11 3.0, which the installed pkcs11.h may lack.
constexpr int kCkmSha3_256Hmac = 0x2B1;
constexpr int kCkmSha3_224Hmac = 0x2B6;
constexpr int kCkmSha3_384Hmac = 0x2C1;
constexpr int kCkmSha3_512Hmac = 0x2D1;

// A TR-31 key usage as the library takes it: first character (upper case) in the low byte.
constexpr int Tr31Usage(const char (&usage)[3]) {
  const char first = usage[0] >= 'a' && usage[0] <= 'z' ? usage[0] - 'a' + 'A' : usage[0];
  return static_cast<unsigned char>(first) | (static_cast<unsigned char>(usage[1]) << 8);
}
static_assert(Tr31Usage("b0") == 0x3042);

}  // namespace

// clang-format off
const COMMAND_OPTION_TYPE kAlgOptions[] = {
    {"md5", 1},
    {"sha1", 2},
    {"sha224", 7},
    {"sha256", 4},
    {"sha384", 5},
    {"sha512", 6},
    {"sha3_224", 8},
    {"sha3_256", 9},
    {"sha3_384", 10},
    {"sha3_512", 11},
    {"hmac_md5", 92},
    {"hmac_sha1", 93},
    {"hmac_sha2_256", 94},
    {"hmac_sha2_384", 95},
    {"hmac_sha2_512", 96},
    {"hmac_sha2_224", 97},
    {"hmac_sha3_224", 98},
    {"hmac_sha3_256", 99},
    {"hmac_sha3_384", 100},
    {"hmac_sha3_512", 101},
    {"cmac_aes", 250},
    {"cmac_des", 251},
    {"idfunc", 255},
    {"ckm_md5", Ckm(CKM_MD5)},
    {"ckm_sha_1", Ckm(CKM_SHA_1)},
    {"ckm_sha256", Ckm(CKM_SHA256)},
    {"ckm_sha384", Ckm(CKM_SHA384)},
    {"ckm_sha512", Ckm(CKM_SHA512)},
    {"ckm_rsa_pkcs", Ckm(CKM_RSA_PKCS)},
    {"ckm_rsa_x509", Ckm(CKM_RSA_X_509)},
    {"ckm_sha_1_hmac", Ckm(CKM_SHA_1_HMAC)},
    {"ckm_md5_hmac", Ckm(CKM_MD5_HMAC)},
    {"ckm_sha224_hmac", Ckm(CKM_SHA224_HMAC)},
    {"ckm_sha256_hmac", Ckm(CKM_SHA256_HMAC)},
    {"ckm_sha384_hmac", Ckm(CKM_SHA384_HMAC)},
    {"ckm_sha512_hmac", Ckm(CKM_SHA512_HMAC)},
    {"ckm_sha3_224_hmac", kCkmSha3_224Hmac},
    {"ckm_sha3_256_hmac", kCkmSha3_256Hmac},
    {"ckm_sha3_384_hmac", kCkmSha3_384Hmac},
    {"ckm_sha3_512_hmac", kCkmSha3_512Hmac},
    {"ckm_ecdsa_sha1", Ckm(CKM_ECDSA_SHA1)},
    {"des", 1},
    {"desx", 91},
    {"3des112", 2},
    {"3des168", 3},
    {"aes128", 7},
    {"aes192", 8},
    {"aes256", 9},
    {"arc4", 10},
    {"arc5", 89},
    {"rsa512", 4},
    {"rsa1024", 5},
    {"rsa2048", 6},
    {"rsa4096", 11},
    {"rsa1152", 121},
    {"rsa1408", 122},
    {"rsa1536", 131},
    {"rsa1976", 130},
    {"rsa1984", 123},
    {"rsa8192", 124},
    {"rsa2304", 126},
    {"rsa2560", 127},
    {"rsa2816", 128},
    {"rsa3072", 129},
    {"csp", 193},
    {"p11rsa512", 512},
    {"p11rsa1024", 1024},
    {"p11rsa2048", 2048},
    {"p11rsa4096", 4096},
    {"p11rsa1152", 1152},
    {"p11rsa1408", 1408},
    {"p11rsa1536", 1536},
    {"p11rsa1976", 1976},
    {"p11rsa1984", 1984},
    {"p11rsa8192", 8192},
    {"p11rsa2304", 2304},
    {"p11rsa2560", 2560},
    {"p11rsa2816", 2816},
    {"p11rsa3072", 3072},
    {"p11des", 1},
    {"p11des2", 2},
    {"p11des3", 3},
    {"p11aes128", 7},
    {"p11aes192", 8},
    {"p11aes256", 9},
    {"ecc_secp112r1", 18},
    {"ecc_secp112r2", 19},
    {"ecc_secp128r1", 20},
    {"ecc_secp128r2", 21},
    {"ecc_secp160k1", 22},
    {"ecc_secp160r1", 23},
    {"ecc_secp160r2", 24},
    {"ecc_secp192k1", 25},
    {"ecc_secp192r1", 26},
    {"ecc_secp224k1", 27},
    {"ecc_secp224r1", 28},
    {"ecc_secp256k1", 29},
    {"ecc_secp256r1", 30},
    {"ecc_secp384r1", 31},
    {"ecc_secp521r1", 32},
    {"ecc_x9_62_prime192v1", 26},
    {"ecc_x9_62_prime192v2", 33},
    {"ecc_x9_62_prime192v3", 34},
    {"ecc_x9_62_prime239v1", 35},
    {"ecc_x9_62_prime239v2", 36},
    {"ecc_x9_62_prime239v3", 37},
    {"ecc_x9_62_prime256v1", 30},
    {"ecc_brainpool_p160r1", 38},
    {"ecc_brainpool_p160t1", 39},
    {"ecc_brainpool_p192r1", 40},
    {"ecc_brainpool_p192t1", 41},
    {"ecc_brainpool_p224r1", 42},
    {"ecc_brainpool_p224t1", 43},
    {"ecc_brainpool_p256r1", 44},
    {"ecc_brainpool_p256t1", 45},
    {"ecc_brainpool_p320r1", 46},
    {"ecc_brainpool_p320t1", 47},
    {"ecc_brainpool_p384r1", 48},
    {"ecc_brainpool_p384t1", 49},
    {"ecc_brainpool_p512r1", 50},
    {"ecc_brainpool_p512t1", 51},
    {"ed448", 202},
    {"ed25519", 201},
    {"x448", 204},
    {"x25519", 203},
    {"publicKeyBlob", 350},
    {"rsaPubKeyBlob", 351},
    {"eccPubKeyBlob", 352},
    {"spkiRsaPubKeyBlob", 353},
    {"eccEdBlob", 354},
    {"eccXBlob", 355},
    {"dsaBlob", 356},
    {"dhBlob", 357},
    {"none", 0},
    {"ecb", 1},
    {"cbc", 2},
    {"ofb", 8},
    {"kwp", 4},
    {"ctr", 16},
    {"gcm", 32},
    {"kw", 64},
    {"kwp", 4},
    {"no_padding", 0},
    {"pkcs5_padding", 1},
    {"zero_padding", 2},
    {"force_actual_rsa", 4},
    {"rsa_no_padding", 3},
    {"privatekey_blob", 1},
    {"privatekey_blob_strict", 14},
    {"publickey_blob", 2},
    {"plaintextkey_blob", 4},
    {"simple_blob", 3},
    {"simple_blob_oaep", 7},
    {"sym_wrapped_key_blob", 9},
    {"hotp_blob", 6},
    {"publickey_blob_hsm", 11},
    {"wrapped_key_blob", 16},
    {"p10_csr_version1", 0},
    {"p10_csr_der", 1},
    {"p10_csr_pem", 2},
    {"obj", 12},
    {"x509", 13},
    {"pkcs7", 14},
    {"crl", 15},
    {"hotp", 16},
    {"dpg03", 17},
    {"map", 90},
    {"rnm_probe", 1},
    {"rnm_down", 2},
    {"rnm_slp_bypass_add", 3},
    {"rnm_slp_bypass_del", 4},
    {"ql_gen_key_kdf_raw_secret", 1},
    {"ql_gen_key_x9_63_sha256", 2},
    {"INVALID", kOptionInvalid},
};
const int kAlgOptionsRows = static_cast<int>(std::size(kAlgOptions));

const COMMAND_OPTION_TYPE kAlgCSPOptions[] = {
    {"rsa", 2},
    {"md5", 0x8003},
    {"sha1", 0x8004},
    {"sha256", 0x800c},
    {"sha384", 0x800d},
    {"sha512", 0x800e},
    {"des", 0x6601},
    {"3des", 0x6603},
    {"3des112", 0x6609},
    {"desx", 0x6604},
    {"arc4", 0x6801},
    {"aes", 0x6611},
    {"aes128", 0x660e},
    {"aes192", 0x660f},
    {"aes256", 0x6610},
    {"ecb", 2},
    {"cbc", 1},
    {"ofb", 3},
    {"cfb", 4},
    {"no_padding", 0},
    {"pkcs5_padding", 1},
    {"zero_padding", 3},
};
const int kAlgCSPOptionsRows = static_cast<int>(std::size(kAlgCSPOptions));

const COMMAND_OPTION_TYPE kAesAlgOptions[] = {
    {"aes128", 7},
    {"aes192", 8},
    {"aes256", 9},
};
const int kAesAlgOptionsRows = static_cast<int>(std::size(kAesAlgOptions));

const COMMAND_OPTION_TYPE kNetToolOptions[] = {
    {"ping", 1},
    {"tracert", 2},
    {"INVALID", kOptionInvalid},
};
const int kNetToolOptionsRows = static_cast<int>(std::size(kNetToolOptions));

const COMMAND_OPTION_TYPE kSVaultOptions[] = {
    {"token", 1},
    {"secret", 2},
    {"none", 0},
    {"cpf", 1},
    {"cnpj", 2},
    {"pan", 3},
    {"iel", 4},
    {"tkr2", 1},
    {"base10", 10},
    {"base16", 16},
    {"base26", 26},
    {"base52", 52},
    {"base62", 62},
    {"INVALID", kOptionInvalid},
};
const int kSVaultOptionsRows = static_cast<int>(std::size(kSVaultOptions));

const COMMAND_OPTION_TYPE kSVaultGetDataOptions[] = {
    {"token", 2},
    {"secret", 1},
    {"INVALID", kOptionInvalid},
};
const int kSVaultGetDataOptionsRows = static_cast<int>(std::size(kSVaultGetDataOptions));

const COMMAND_OPTION_TYPE kCertOutFormOptions[] = {
    {"pem", 2},
    {"der", 1},
    {"INVALID", kOptionInvalid},
};
const int kCertOutFormOptionsRows = static_cast<int>(std::size(kCertOutFormOptions));

const COMMAND_OPTION_TYPE kOathTypeOptions[] = {
    {"time", 3},
    {"event", 2},
    {"INVALID", kOptionInvalid},
};
const int kOathTypeOptionsRows = static_cast<int>(std::size(kOathTypeOptions));

const COMMAND_OPTION_TYPE kDataInformOptions[] = {
    {"file", kFile},
    {"hex", kHexData},
};
const int kDataInformOptionsRows = static_cast<int>(std::size(kDataInformOptions));

const COMMAND_OPTION_TYPE kTextInformOptions[] = {
    {"file", kTextFile},
    {"text", kTextString},
};
const int kTextInformOptionsRows = static_cast<int>(std::size(kTextInformOptions));

const COMMAND_OPTION_TYPE kFileOutformOptions[] = {
    {"original", kOriginal},
    {"csv", kCsv},
};
const int kFileOutformOptionsRows = static_cast<int>(std::size(kFileOutformOptions));

const COMMAND_OPTION_TYPE kSignHashInformOptions[] = {
    {"file", 0},
    {"hex", 1},
    {"hash_file", 2},
    {"hash_hex", 3},
};
const int kSignHashInformOptionsRows = static_cast<int>(std::size(kSignHashInformOptions));

const COMMAND_OPTION_TYPE kCertStoreOptions[] = {
    {"current_user", 0x10000},
    {"local_machine", 0x20000},
    {"services", 0x50000},
    {"users", 0x60000},
    {"current_service", 0x40000},
    {"local_machine_group_policy", 0x80000},
    {"current_user_group_policy", 0x70000},
    {"local_machine_enterprise", 0x90000},
};
const int kCertStoreOptionsRows = static_cast<int>(std::size(kCertStoreOptions));

const COMMAND_OPTION_TYPE kKeySpecOptions[] = {
    {"at_keyexchange", 1},
    {"at_signature", 2},
    {"cng", 0},
    {"INVALID", kOptionInvalid},
};
const int kKeySpecOptionsRows = static_cast<int>(std::size(kKeySpecOptions));

const COMMAND_OPTION_TYPE kFindHSMOptions[] = {
    {"ip", 1},
    {"aap", 2},
    {"s_all", 3},
    {"line", 1},
    {"csv", 2},
    // Product families (--filter of find-hsm): 0x100 any, then each family's number + 0x100.
    {"any", 0x100},
    {"soft", 0x101},
    {"net", 0x102},
    {"pcie", 0x103},
    {"usb", 0x104},
    {"cloud", 0x105},
    {"lab", 0x106},
    {"INVALID", kOptionInvalid},
};
const int kFindHSMOptionsRows = static_cast<int>(std::size(kFindHSMOptions));

const COMMAND_OPTION_TYPE kTR31UsageOptions[] = {
    {"auto", 0},
    {"b0", Tr31Usage("b0")},
    {"b1", Tr31Usage("b1")},
    {"b2", Tr31Usage("b2")},
    {"c0", Tr31Usage("c0")},
    {"d0", Tr31Usage("d0")},
    {"d1", Tr31Usage("d1")},
    {"d2", Tr31Usage("d2")},
    {"e0", Tr31Usage("e0")},
    {"e1", Tr31Usage("e1")},
    {"e2", Tr31Usage("e2")},
    {"e3", Tr31Usage("e3")},
    {"e4", Tr31Usage("e4")},
    {"e5", Tr31Usage("e5")},
    {"e6", Tr31Usage("e6")},
    {"i0", Tr31Usage("i0")},
    {"k0", Tr31Usage("k0")},
    {"k1", Tr31Usage("k1")},
    {"k2", Tr31Usage("k2")},
    {"k3", Tr31Usage("k3")},
    {"m0", Tr31Usage("m0")},
    {"m1", Tr31Usage("m1")},
    {"m2", Tr31Usage("m2")},
    {"m3", Tr31Usage("m3")},
    {"m4", Tr31Usage("m4")},
    {"m5", Tr31Usage("m5")},
    {"m6", Tr31Usage("m6")},
    {"m7", Tr31Usage("m7")},
    {"m8", Tr31Usage("m8")},
    {"p0", Tr31Usage("p0")},
    {"s0", Tr31Usage("s0")},
    {"s1", Tr31Usage("s1")},
    {"s2", Tr31Usage("s2")},
    {"v0", Tr31Usage("v0")},
    {"v1", Tr31Usage("v1")},
    {"v2", Tr31Usage("v2")},
    {"v3", Tr31Usage("v3")},
    {"v4", Tr31Usage("v4")},
};
const int kTR31UsageOptionsRows = static_cast<int>(std::size(kTR31UsageOptions));

const COMMAND_OPTION_TYPE kTR31ModeOptions[] = {
    {"auto", 0},
    {"b", 'B'},
    {"c", 'C'},
    {"d", 'D'},
    {"e", 'E'},
    {"g", 'G'},
    {"n", 'N'},
    {"s", 'S'},
    {"t", 'U'},
    {"v", 'V'},
    {"x", 'X'},
    {"y", 'Y'},
};
const int kTR31ModeOptionsRows = static_cast<int>(std::size(kTR31ModeOptions));

const COMMAND_OPTION_TYPE kTR31ExpOptions[] = {
    {"auto", 0},
    {"x9-24", 'E'},
    {"non-exportable", 'N'},
    {"kek-exportable", 'S'},
};
const int kTR31ExpOptionsRows = static_cast<int>(std::size(kTR31ExpOptions));
// clang-format on

namespace {

int Lookup(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
           const COMMAND_OPTION_TYPE *pOptions, int nOptions) {
  return GetParameterOptionInt(pTestParam, pOptions, nOptions, nParameters, pszName);
}

template <typename T>
T LookupOr(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
           const COMMAND_OPTION_TYPE *pOptions, int nOptions, T def) {
  const int n = Lookup(pTestParam, nParameters, pszName, pOptions, nOptions);
  return n == -1 ? def : static_cast<T>(n);
}

}  // namespace

uint32_t GetParameterNetToolCmd(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                                uint32_t dwDefault) {
  return LookupOr(pTestParam, nParameters, pszName, kNetToolOptions, kNetToolOptionsRows,
                  dwDefault);
}

uint8_t GetParameterSVault(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                           uint8_t bDefault) {
  // The tokenisation calls take these values as one byte; INVALID (99999) is cut to 0x9f too.
  const int n = Lookup(pTestParam, nParameters, pszName, kSVaultOptions, kSVaultOptionsRows);
  return n == -1 ? bDefault : static_cast<uint8_t>(n & 0xff);
}

int GetParameterSVaultGetData(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                              int nDefault) {
  return LookupOr(pTestParam, nParameters, pszName, kSVaultGetDataOptions,
                  kSVaultGetDataOptionsRows, nDefault);
}

int GetParameterCertOutForm(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kCertOutFormOptions, kCertOutFormOptionsRows);
}

int GetParameterOathType(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kOathTypeOptions, kOathTypeOptionsRows);
}

DataInform GetParameterDataInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                                  DataInform eDefault) {
  return LookupOr(pTestParam, nParameters, pszName, kDataInformOptions, kDataInformOptionsRows,
                  eDefault);
}

TextInform GetParameterTextInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                                  TextInform eDefault) {
  return LookupOr(pTestParam, nParameters, pszName, kTextInformOptions, kTextInformOptionsRows,
                  eDefault);
}

DataFileOutform GetParameterFileOutform(TEST_PARAMETER *pTestParam, int nParameters,
                                        const char *pszName, DataFileOutform eDefault) {
  return LookupOr(pTestParam, nParameters, pszName, kFileOutformOptions, kFileOutformOptionsRows,
                  eDefault);
}

int GetParameterSignHashInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kSignHashInformOptions,
                kSignHashInformOptionsRows);
}

int GetParameterCertStore(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kCertStoreOptions, kCertStoreOptionsRows);
}

int GetParameterKeySpec(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kKeySpecOptions, kKeySpecOptionsRows);
}

int GetParameterFindHSM(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kFindHSMOptions, kFindHSMOptionsRows);
}

int GetParameterTR31Usage(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kTR31UsageOptions, kTR31UsageOptionsRows);
}

int GetParameterTR31Mode(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kTR31ModeOptions, kTR31ModeOptionsRows);
}

int GetParameterTR31Exp(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kTR31ExpOptions, kTR31ExpOptionsRows);
}

int GetParameterAesAlg(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kAesAlgOptions, kAesAlgOptionsRows);
}

int GetParameterAlgCSP(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kAlgCSPOptions, kAlgCSPOptionsRows);
}

int GetParameterAlg(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName) {
  return Lookup(pTestParam, nParameters, pszName, kAlgOptions, kAlgOptionsRows);
}
