// The word tables of the enumerated getters: the values the words stand for, and the getters
// reading their own tables.

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "param_options.h"
#include "qlutil.h"

namespace {

std::vector<std::string> Split(const std::string &words) {
  std::istringstream in(words);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

// The value a lookup gives: the first row with the word.
int ValueOf(const COMMAND_OPTION_TYPE *table, int rows, const std::string &word) {
  TEST_PARAMETER param{};
  snprintf(param.szParameter, sizeof(param.szParameter), "-w");
  snprintf(param.szValue, sizeof(param.szValue), "%s", word.c_str());
  return GetParameterOptionInt(&param, table, rows, 1, "-w");
}

using Group = std::pair<std::string, std::vector<int>>;  // words in the group's own order, values

void ExpectGroups(const COMMAND_OPTION_TYPE *table, int rows, const std::vector<Group> &groups) {
  for (const auto &[words, values] : groups) {
    const auto list = Split(words);
    ASSERT_EQ(list.size(), values.size()) << words;
    for (size_t i = 0; i < list.size(); ++i) {
      EXPECT_EQ(ValueOf(table, rows, list[i]), values[i]) << list[i];
    }
  }
}

TEST(AlgTable, EveryValue) {
  const std::vector<Group> groups = {
      {"md5 sha1 sha224 sha256 sha384 sha512", {1, 2, 7, 4, 5, 6}},
      {"sha3_224 sha3_256 sha3_384 sha3_512", {8, 9, 10, 11}},
      {"hmac_md5 hmac_sha1 hmac_sha2_256 hmac_sha2_384 hmac_sha2_512 hmac_sha2_224 "
       "hmac_sha3_224 hmac_sha3_256 hmac_sha3_384 hmac_sha3_512",
       {92, 93, 94, 95, 96, 97, 98, 99, 100, 101}},
      {"cmac_aes cmac_des idfunc", {250, 251, 255}},
      // PKCS#11 mechanism numbers.
      {"ckm_md5 ckm_sha_1 ckm_sha256 ckm_sha384 ckm_sha512 ckm_rsa_pkcs ckm_rsa_x509",
       {0x210, 0x220, 0x250, 0x260, 0x270, 1, 3}},
      {"ckm_sha_1_hmac ckm_md5_hmac ckm_sha224_hmac ckm_sha256_hmac ckm_sha384_hmac "
       "ckm_sha512_hmac",
       {0x221, 0x211, 0x256, 0x251, 0x261, 0x271}},
      {"ckm_sha3_224_hmac ckm_sha3_256_hmac ckm_sha3_384_hmac ckm_sha3_512_hmac ckm_ecdsa_sha1",
       {0x2B6, 0x2B1, 0x2C1, 0x2D1, 0x1042}},
      {"des desx 3des112 3des168 aes128 aes192 aes256 arc4 arc5", {1, 91, 2, 3, 7, 8, 9, 10, 89}},
      {"rsa512 rsa1024 rsa2048 rsa4096", {4, 5, 6, 11}},
      {"rsa1152 rsa1408 rsa1984 rsa8192 rsa2304 rsa2560 rsa2816 rsa3072 rsa1976 rsa1536",
       {121, 122, 123, 124, 126, 127, 128, 129, 130, 131}},
      {"csp", {193}},
      {"p11rsa512 p11rsa1024 p11rsa2048 p11rsa4096 p11rsa1152 p11rsa1408 p11rsa1536 p11rsa1976 "
       "p11rsa1984 p11rsa8192 p11rsa2304 p11rsa2560 p11rsa2816 p11rsa3072",
       {512, 1024, 2048, 4096, 1152, 1408, 1536, 1976, 1984, 8192, 2304, 2560, 2816, 3072}},
      {"p11des p11des2 p11des3 p11aes128 p11aes192 p11aes256", {1, 2, 3, 7, 8, 9}},
      {"ecc_secp112r1 ecc_secp112r2 ecc_secp128r1 ecc_secp128r2 ecc_secp160k1 ecc_secp160r1 "
       "ecc_secp160r2 ecc_secp192k1 ecc_secp192r1 ecc_secp224k1 ecc_secp224r1 ecc_secp256k1 "
       "ecc_secp256r1 ecc_secp384r1 ecc_secp521r1",
       {18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32}},
      {"ecc_x9_62_prime192v1 ecc_x9_62_prime256v1", {26, 30}},
      {"ecc_x9_62_prime192v2 ecc_x9_62_prime192v3 ecc_x9_62_prime239v1 ecc_x9_62_prime239v2 "
       "ecc_x9_62_prime239v3",
       {33, 34, 35, 36, 37}},
      {"ecc_brainpool_p160r1 ecc_brainpool_p160t1 ecc_brainpool_p192r1 ecc_brainpool_p192t1 "
       "ecc_brainpool_p224r1 ecc_brainpool_p224t1 ecc_brainpool_p256r1 ecc_brainpool_p256t1 "
       "ecc_brainpool_p320r1 ecc_brainpool_p320t1 ecc_brainpool_p384r1 ecc_brainpool_p384t1 "
       "ecc_brainpool_p512r1 ecc_brainpool_p512t1",
       {38, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51}},
      {"ed25519 ed448 x25519 x448", {201, 202, 203, 204}},
      {"publicKeyBlob rsaPubKeyBlob eccPubKeyBlob spkiRsaPubKeyBlob eccEdBlob eccXBlob dsaBlob "
       "dhBlob",
       {350, 351, 352, 353, 354, 355, 356, 357}},
      {"none ecb cbc ofb kwp ctr gcm kw", {0, 1, 2, 8, 4, 16, 32, 64}},
      {"no_padding pkcs5_padding zero_padding rsa_no_padding force_actual_rsa", {0, 1, 2, 3, 4}},
      {"privatekey_blob publickey_blob simple_blob plaintextkey_blob hotp_blob simple_blob_oaep "
       "sym_wrapped_key_blob publickey_blob_hsm privatekey_blob_strict wrapped_key_blob",
       {1, 2, 3, 4, 6, 7, 9, 11, 14, 16}},
      {"p10_csr_version1 p10_csr_der p10_csr_pem", {0, 1, 2}},
      {"obj x509 pkcs7 crl hotp dpg03 map", {12, 13, 14, 15, 16, 17, 90}},
      {"rnm_probe rnm_down rnm_slp_bypass_add rnm_slp_bypass_del", {1, 2, 3, 4}},
      {"ql_gen_key_kdf_raw_secret ql_gen_key_x9_63_sha256", {1, 2}},
      {"INVALID", {99999}},
  };
  ExpectGroups(kAlgOptions, kAlgOptionsRows, groups);

  // Every row is covered by a group above, and both kwp rows hold the same value.
  std::map<std::string, int> covered;
  for (const auto &[words, values] : groups) {
    const auto list = Split(words);
    for (size_t i = 0; i < list.size(); ++i) covered[list[i]] = values[i];
  }
  for (int i = 0; i < kAlgOptionsRows; ++i) {
    const auto it = covered.find(kAlgOptions[i].pszStringId);
    ASSERT_NE(it, covered.end()) << kAlgOptions[i].pszStringId;
    EXPECT_EQ(kAlgOptions[i].nId, it->second) << "row " << i;
  }
}

// The getters read their own tables.
TEST(WordTables, GettersUseThem) {
  TEST_PARAMETER p[] = {{"-a", "sha256"}, {"-b", "aes192"},   {"-c", "sha256"}, {"-d", "t"},
                        {"-e", "x9-24"},  {"-f", "b0"},       {"-g", "users"},  {"-h", "cng"},
                        {"-i", "csv"},    {"-j", "hash_hex"}, {"-k", "event"},  {"-l", "der"},
                        {"-m", "aes"},    {"-n", "secret"}};
  const int n = static_cast<int>(std::size(p));
  EXPECT_EQ(GetParameterAlg(p, n, "-a"), 4);
  EXPECT_EQ(GetParameterAesAlg(p, n, "-b"), 8);
  EXPECT_EQ(GetParameterAesAlg(p, n, "-a"), -1);
  EXPECT_EQ(GetParameterAlgCSP(p, n, "-c"), 0x800c);
  EXPECT_EQ(GetParameterTR31Mode(p, n, "-d"), 'U');
  EXPECT_EQ(GetParameterTR31Exp(p, n, "-e"), 'E');
  EXPECT_EQ(GetParameterTR31Usage(p, n, "-f"), 0x3042);
  EXPECT_EQ(GetParameterCertStore(p, n, "-g"), 0x60000);
  EXPECT_EQ(GetParameterKeySpec(p, n, "-h"), 0);
  EXPECT_EQ(GetParameterFindHSM(p, n, "-i"), 2);
  EXPECT_EQ(GetParameterSignHashInform(p, n, "-j"), 3);
  EXPECT_EQ(GetParameterOathType(p, n, "-k"), 2);
  EXPECT_EQ(GetParameterCertOutForm(p, n, "-l"), 1);
  EXPECT_EQ(GetParameterAlgCSP(p, n, "-m"), 0x6611);
  EXPECT_EQ(GetParameterSVaultGetData(p, n, "-n", 0), 1);
  EXPECT_EQ(GetParameterSVault(p, n, "-n", 0), 2);
}

}  // namespace
