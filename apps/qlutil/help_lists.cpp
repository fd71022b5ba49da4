// The accepted-word lists of the usage pages. Algorithm lists are indented by 19 blanks, the
// short value lists by 13 (the text column of a short switch); each list ends with an empty line.

#include <initializer_list>

#include "Output.h"
#include "qlutil.h"

namespace {

void PrintLines(const char *indent, std::initializer_list<const char *> lines) {
  for (const char *line : lines) {
    ScreenOutput("%s%s\r\n", indent, line);
  }
}

constexpr const char *kWide = "                   ";  // 19 blanks
constexpr const char *kShort = "             ";       // 13 blanks

void WideList(std::initializer_list<const char *> lines) {
  PrintLines(kWide, lines);
  ScreenOutput("\r\n");
}

void ShortList(std::initializer_list<const char *> lines) {
  PrintLines(kShort, lines);
  ScreenOutput("\r\n");
}

}  // namespace

void ShowHelpHashAlgorithms() {
  WideList({"md5 sha1 sha224 sha256 sha384 sha512", "sha3_224 sha3_256 sha3_384 sha3_512",
            "idfunc (for EdDSA curves only)"});
}

void ShowHelpHmacAlgorithms() {
  WideList({"hmac_md5 hmac_sha1 hmac_sha2_256 hmac_sha2_384 hmac_sha2_512",
            "hmac_sha2_224 hmac_sha3_224 hmac_sha3_256 hmac_sha3_384 hmac_sha3_512"});
}

void ShowHelpCmacAlgorithms() {
  WideList({"cmac_aes cmac_des"});
}

void ShowHelpP11HashAlgorithms() {
  WideList({"ckm_md5 ckm_sha_1 ckm_sha256 ckm_sha384 ckm_sha512", "ckm_rsa_pkcs ckm_rsa_x509",
            "ckm_sha_1_hmac ckm_md5_hmac ckm_sha256_hmac ckm_sha384_hmac ckm_sha512_hmac"});
}

void ShowHelpSymmetricAlgorithms() {
  WideList({"des desx 3des112 3des168", "aes128 aes192 aes256", "arc4 arc5"});
}

void ShowHelpDESAlgorithms() {
  WideList({"des desx 3des112 3des168"});
}

void ShowHelpTDESAlgorithms() {
  WideList({"3des112 3des168"});
}

void ShowHelpAESAlgorithms() {
  WideList({"aes128 aes192 aes256"});
}

void ShowHelpExportTR31KbpkAlg() {
  ShowHelpTDESAlgorithms();
  ShowHelpAESAlgorithms();
}

void ShowHelpRSAAlgorithms() {
  WideList({"rsa512 rsa1024 rsa2048 rsa4096", "rsa1152 rsa1408 rsa1536 rsa1976 rsa1984",
            "rsa8192 rsa2304 rsa2560 rsa2816 rsa3072"});
}

void ShowHelpECCAlgorithms() {
  WideList({"ecc_secp112r1 ecc_secp112r2 ecc_secp128r1 ecc_secp128r2",
            "ecc_secp160k1 ecc_secp160r1 ecc_secp160r2 ecc_secp192k1",
            "ecc_secp192r1 ecc_secp224k1 ecc_secp224r1 ecc_secp256k1",
            "ecc_secp256r1 ecc_secp384r1 ecc_secp521r1",
            "ecc_x9_62_prime192v1 ecc_x9_62_prime192v2 ecc_x9_62_prime192v3",
            "ecc_x9_62_prime239v1 ecc_x9_62_prime239v2 ecc_x9_62_prime239v3",
            "ecc_x9_62_prime256v1",
            "ecc_brainpool_p160r1 ecc_brainpool_p160t1 ecc_brainpool_p192r1",
            "ecc_brainpool_p192t1 ecc_brainpool_p224r1 ecc_brainpool_p224t1",
            "ecc_brainpool_p256r1 ecc_brainpool_p256t1 ecc_brainpool_p320r1",
            "ecc_brainpool_p320t1 ecc_brainpool_p384r1 ecc_brainpool_p384t1",
            "ecc_brainpool_p512r1 ecc_brainpool_p512t1"});
}

void ShowHelpEDDSAAlgorithms() {
  WideList({"ed448 ed25519", "Obs: for ed448 and ed25519 the hash MUST be idfunc."});
}

void ShowHelpXECDHAlgorithms() {
  WideList({"x448 x25519"});
}

void ShowHelpECXAlgorithms() {
  ShowHelpEDDSAAlgorithms();
  ShowHelpXECDHAlgorithms();
}

void ShowHelpAsymmetricAlgorithms() {
  ShowHelpRSAAlgorithms();
  ShowHelpECCAlgorithms();
  ShowHelpECXAlgorithms();
}

void ShowHelpAsymSigAlgorithms() {
  ShowHelpRSAAlgorithms();
  ShowHelpECCAlgorithms();
  ShowHelpEDDSAAlgorithms();
}

void ShowHelpHSMPubKeyAlgorithms() {
  WideList({"publicKeyBlob rsaPubKeyBlob eccPubKeyBlob spkiRsaPubKeyBlob"});
}

void ShowHelpP11SymmetricAlgorithms() {
  WideList({"p11des p11des2 p11des3 p11aes128 p11aes192 p11aes256"});
}

void ShowHelpP11AssymmetricAlgorithms() {
  WideList({"p11rsa512 p11rsa1024 p11rsa2048 p11rsa4096",
            "p11rsa1152 p11rsa1408 p11rsa1536 p11rsa1976 p11rsa1984",
            "p11rsa8192 p11rsa2304 p11rsa2560 p11rsa2816 p11rsa3072",
            "p11ecc_secp256r1 p11ecc_secp384r1 p11ecc_secp521r1"});
}

void ShowHelpSPBHashAlgorithms() {
  ShortList({"spbsha1 spbsha256"});
}

void ShowHelpEcdhOpAlgorithms() {
  ShortList({"ql_gen_key_kdf_raw_secret ql_gen_key_x9_63_sha256"});
}

void ShowHelpOathTypes() {
  ShortList({"time event"});
}

void ShowHelpMode() {
  ShortList({"ecb cbc ofb cfb ctr gcm kw kwp none"});
}

void ShowHelpPadding() {
  ShortList({"no_padding pkcs5_padding zero_padding"});
}

void ShowHelpCertOutForm() {
  ShortList({"pem der"});
}

void ShowHelpCertStoreLocation() {
  WideList({"current_user local_machine services users current_service",
            "local_machine_group_policy current_user_group_policy", "local_machine_enterprise"});
}

void ShowHelpKeySpec() {
  ShortList({"at_keyexchange at_signature cng"});
}

void ShowHelpGenPkcs10Version() {
  ShortList({"p10_csr_version1"});
}

void ShowHelpGenPkcs10OutType() {
  ShortList({"p10_csr_der p10_csr_pem"});
}

void ShowHelpExportBlobTypeParameters() {
  WideList({"privatekey_blob privatekey_blob_strict publickey_blob publickey_blob_hsm",
            "plaintextkey_blob simple_blob simple_blob_oaep hotp_blob",
            "sym_wrapped_key_blob wrapped_key_blob"});
}

void ShowHelpDataInformParameters() {
  ShortList({"file - Receives a file name for a binary file.", "hex - Receives a hex string"});
}

void ShowHelpDataTextInformParameters() {
  ShortList({"file - Receives a file name for a text file.", "text - Receives a text string"});
}

void ShowHelpFileOutformParameters() {
  ShortList({"original - As it would be printed on screen.", "csv - CSV file"});
}

void ShowHelpSymCryptFlagsParameters() {
  ShortList({"force_actual_rsa rsa_no_padding"});
}

void ShowHelpReplicationMessages() {
  WideList({"rnm_probe rnm_down rnm_slp_bypass_add rnm_slp_bypass_del"});
}

void ShowHelpNetToolCommand() {
  ShortList({"ping tracert"});
}

void ShowHelpFindHSMServiceType() {
  ShortList({"ip aap s_all"});
}

void ShowHelpFindHSMFilter() {
  ShortList({"any soft net pcie usb cloud lab"});
}

void ShowHelpFindHSMOutFormat() {
  ShortList({"line csv"});
}

void ShowHelpSVaultGetTokenFlags() {
  ShortList({"token secret"});
}

void ShowHelpSVaultGetTokenCKS() {
  ShortList({"none cpf cnpj pan iel"});
}

void ShowHelpSVaultGetTokenType() {
  ShortList({"tkr2"});
}

void ShowHelpSVaultGetTokenRepresentation() {
  ShortList({"base10 base16 base26 base52 base62"});
}

void ShowHelpSVaultGetDataOp() {
  ShortList({"secret token"});
}

void ShowHelpExportTR31Usage() {
  WideList({"auto - Chosen from the key",
            "b0 - BDK base derivation key",
            "b1 - Initial DUKPT key",
            "b2 - Base key variant key",
            "c0 - CVK card verification key",
            "d0 - Symmetric key for data encryption",
            "d1 - Asymmetric key for data encryption",
            "d2 - Data encryption key for decimalization table",
            "e0 - EMV/chip issuer master key: application cryptograms",
            "e1 - EMV/chip issuer master key: secure messaging for confidentiality",
            "e2 - EMV/chip issuer master key: secure messaging for integrity",
            "e3 - EMV/chip issuer master key: data authentication code",
            "e4 - EMV/chip issuer master key: dynamic numbers",
            "e5 - EMV/chip issuer master key: card personalization",
            "e6 - EMV/chip issuer master key: other",
            "i0 - Initialization vector (IV)",
            "k0 - Key encryption or wrapping",
            "k1 - TR-31 key block protection key",
            "k2 - TR-34 asymmetric key",
            "k3 - Asymmetric key for key agreement/key wrapping",
            "m0 - ISO 16609 MAC algorithm 1 (using TDEA)",
            "m1 - ISO 9797-1 MAC algorithm 1",
            "m2 - ISO 9797-1 MAC algorithm 2",
            "m3 - ISO 9797-1 MAC algorithm 3",
            "m4 - ISO 9797-1 MAC algorithm 4",
            "m5 - ISO 9797-1:1999 MAC algorithm 5",
            "m6 - ISO 9797-1:2011 MAC algorithm 5/CMAC",
            "m7 - HMAC",
            "m8 - ISO 9797-1:2011 MAC algorithm 6",
            "p0 - PIN encryption",
            "s0 - Asymmetric key pair for digital signature",
            "s1 - Asymmetric key pair, CA key",
            "s2 - Asymmetric key pair, non-X9.24 key",
            "v0 - PIN verification, KPV, other algorithm",
            "v1 - PIN verification, IBM 3624",
            "v2 - PIN verification, VISA PVV",
            "v3 - PIN verification, X9.132 algorithm 1",
            "v4 - PIN verification, X9.132 algorithm 2"});
}

void ShowHelpExportTR31Mode() {
  WideList({"auto - Chosen from the key", "b - Both encrypt and decrypt / wrap and unwrap",
            "c - Both generate and verify", "d - Decrypt / unwrap only", "e - Encrypt / wrap only",
            "g - Generate only", "n - No special restrictions", "s - Signature only",
            "t - Both sign and decrypt", "v - Verify only", "x - Key used to derive other keys",
            "y - Key used to create key variants"});
}

void ShowHelpExportTR31Exp() {
  WideList({"auto - Chosen from the key", "x9-24 - Exportable under a KEK as X9.24 requires",
            "non-exportable - Not exportable", "kek-exportable - Exportable under a KEK"});
}
