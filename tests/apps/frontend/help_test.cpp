// The banner, the help screen and the shared option pages, compared byte for byte with the
// lines the help pages are defined by.

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "frontend_test_util.h"
#include "qlutil.h"

using frontend_test::CaptureStdout;

namespace {

int Dummy(TEST_PARAMETER *, int) {
  return 0;
}

TEST(Help, Banner) {
  EXPECT_EQ(CaptureStdout(ShowHelpHeader), frontend_test::Banner());
}

TEST(Help, ScreenLayoutWithASmallTable) {
  const TEST_FUNCTION table[] = {
      {'p', "a", Dummy, "x"},    {'p', "bb", Dummy, "x"}, {'p', "ccc", Dummy, "x"},
      {'p', "dddd", Dummy, "x"}, {'p', "e", Dummy, "x"},  {'f', "twenty-characters-xx", Dummy, "x"},
      {'f', "g", Dummy, "x"},    {'q', "h", Dummy, "x"},  {'j', "i", Dummy, "x"},
  };
  const std::string expected =
      frontend_test::HelpIntro() +
      "\r\n\r\nPerformance tests (-p command):\r\n"
      "a                   bb                  ccc                 dddd                \r\n"
      "e                   "
      "\r\n\r\nFunctional tests (-f command):\r\n"
      "twenty-characters-xxg                   "
      "h                   "  // no heading for an unknown kind
      "\r\n\r\nUtility functions (-j command:):\r\n"
      "i                   "
      "\r\n\r\n";
  EXPECT_EQ(CaptureStdout([&] { ShowHelp(table, 9); }), expected);
}

TEST(Help, ScreenOfTheCommandTable) {
  EXPECT_EQ(CaptureStdout([] { ShowHelp(kCommandTable, kCommandTableRows); }),
            frontend_test::ExpectedFullHelp());
}

const char kResultFileLines[] =
    "     --retfiles  If defined, write return code and run time in files\r\n"
    "                 (qlutil_result and qlutil_time). Placed at\r\n"
    "                 the current folder.\r\n";

TEST(Help, GlobalParameters) {
  const std::string expected =
      std::string(
          "     -a      QUELTA IP Address\r\n"
          "     -u      QUELTA user\r\n"
          "     -w      QUELTA password\r\n"
          "     -t      Number of threads\r\n"
          "     -i      Number of iterations per thread\r\n"
          "     -out    [OPTIONAL] Output comma delimeted result file\r\n"
          "     -print  [OPTIONAL] time: Shows only the performance counter number on "
          "the output screen\r\n"
          "     -tc     [OPTIONAL] Test case number to be appended in the output file\r\n"
          "     -r      [OPTIONAL] 0: Create a new session for each iteration. \r\n"
          "                        1: Reuse the same session for all iterations "
          "(default)\r\n"
          "     -sc     [OPTIONAL] 0: Bypass session cache\r\n"
          "                        1: Use session cache (default)\r\n"
          "     -tls    [OPTIONAL] 0: Do not encrypt communication\r\n"
          "                        1: Encrypt communication (default)\r\n"
          "     -lb     [OPTIONAL] 0: Bypass loadbalance (default)\r\n"
          "                        1: Use loadbalance\r\n") +
      kResultFileLines;
  EXPECT_EQ(CaptureStdout(ShowHelpGlobalParameters), expected);
  EXPECT_EQ(CaptureStdout(ShowHelpResultFilesParameters), kResultFileLines);
}

const char kPortLine[] =
    "     --port              [OPTIONAL] QUELTA port. If not defined 4433(default) is used.\r\n";

TEST(Help, ConnectionParameters) {
  const std::string out = CaptureStdout(ShowHelpConnectionParameters);
  // -a, -u, -w with the text at column 25, then the port line.
  EXPECT_EQ(out.rfind("     -a                  QUELTA IP Address\r\n"
                      "     -u                  QUELTA user\r\n"
                      "     -w                  QUELTA password\r\n",
                      0),
            0u);
  EXPECT_NE(out.find(kPortLine), std::string::npos);
  EXPECT_NE(out.find("Target must be equal to\r\n                         the HSM address."),
            std::string::npos);
  EXPECT_NE(out.find("     -at   "), std::string::npos);
  EXPECT_NE(out.find("     -atf  "), std::string::npos);
  EXPECT_NE(out.find("in base64 format"), std::string::npos);
  EXPECT_NE(out.find("If defined, the parameters -u and -w can be ignored."), std::string::npos);
  EXPECT_LT(out.find("     -at "), out.find("     -atf "));
  EXPECT_LT(out.find("     --cm "), out.find("     -at "));

  EXPECT_EQ(CaptureStdout(ShowHelpAnonymousConnectionParameters),
            std::string("     -a                  QUELTA IP Address\r\n") + kPortLine);
}

TEST(Help, PerfAndJobPagesAreComposedInOrder) {
  const std::string conn = CaptureStdout(ShowHelpConnectionParameters);
  const std::string anon = CaptureStdout(ShowHelpAnonymousConnectionParameters);
  const std::string perf = CaptureStdout(ShowHelpGlobalPerfParameters);
  const std::string perfHead = conn + kResultFileLines +
                               "     -t      Number of threads\r\n"
                               "     -i      [OPTIONAL] Number of iterations per thread. If not "
                               "defined it\r\n"
                               "             will enter in an infinite loop.\r\n"
                               "     -out    [OPTIONAL] Output comma delimeted result file\r\n";
  EXPECT_EQ(perf.rfind(perfHead, 0), 0u);
  // -tls first line, both -sc lines, -tls second line, then -lb.
  EXPECT_NE(perf.find("     -tls    [OPTIONAL] 0: Do not encrypt communication\r\n"
                      "     -sc     [OPTIONAL] 0: Bypass session cache\r\n"
                      "                        1: Use session cache (default)\r\n"
                      "                        1: Encrypt communication (default)\r\n"
                      "     -lb     [OPTIONAL] 0: Bypass loadbalance (default)\r\n"
                      "                        1: Use loadbalance\r\n"),
            std::string::npos);
  for (const char *s : {"--stats_file", "--stats_interval", "--stats_print", "0 is disabled.",
                        "500", "-print", "-tc "}) {
    EXPECT_NE(perf.find(s), std::string::npos) << s;
  }
  EXPECT_LT(perf.find("--stats_file"), perf.find("--stats_interval"));
  EXPECT_LT(perf.find("--stats_interval"), perf.find("--stats_print"));

  const std::string jobTail =
      std::string(kResultFileLines) +
      "     -out    [OPTIONAL] Output comma delimeted result file\r\n"
      "     -print  [OPTIONAL] time: Shows only the performance counter number on the output "
      "screen\r\n"
      "     -tc     [OPTIONAL] Test case number to be appended in the output file\r\n"
      "     -sc     [OPTIONAL] 0: Bypass session cache\r\n"
      "                        1: Use session cache (default)\r\n"
      "     -tls    [OPTIONAL] 0: Do not encrypt communication\r\n"
      "                        1: Encrypt communication (default)\r\n";
  EXPECT_EQ(CaptureStdout([] { ShowHelpGlobalJobParameters(false); }), conn + jobTail);
  EXPECT_EQ(CaptureStdout([] { ShowHelpGlobalJobParameters(true); }), anon + jobTail);
}

// The words a list printer must offer, in order, each list ending with an empty line and its
// lines indented by the given number of blanks.
struct WordList {
  const char *name;
  std::function<void()> print;
  const char *words;
  size_t indent;
};

std::vector<std::string> Tokens(const std::string &text) {
  std::istringstream in(text);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

TEST(Help, WordLists) {
  const WordList lists[] = {
      {"hash", ShowHelpHashAlgorithms,
       "md5 sha1 sha224 sha256 sha384 sha512 sha3_224 sha3_256 sha3_384 sha3_512 idfunc (for "
       "EdDSA curves only)",
       19},
      {"hmac", ShowHelpHmacAlgorithms,
       "hmac_md5 hmac_sha1 hmac_sha2_256 hmac_sha2_384 hmac_sha2_512 hmac_sha2_224 hmac_sha3_224 "
       "hmac_sha3_256 hmac_sha3_384 hmac_sha3_512",
       19},
      {"cmac", ShowHelpCmacAlgorithms, "cmac_aes cmac_des", 19},
      {"p11hash", ShowHelpP11HashAlgorithms,
       "ckm_md5 ckm_sha_1 ckm_sha256 ckm_sha384 ckm_sha512 ckm_rsa_pkcs ckm_rsa_x509 "
       "ckm_sha_1_hmac ckm_md5_hmac ckm_sha256_hmac ckm_sha384_hmac ckm_sha512_hmac",
       19},
      {"sym", ShowHelpSymmetricAlgorithms,
       "des desx 3des112 3des168 aes128 aes192 aes256 arc4 arc5", 19},
      {"des", ShowHelpDESAlgorithms, "des desx 3des112 3des168", 19},
      {"tdes", ShowHelpTDESAlgorithms, "3des112 3des168", 19},
      {"aes", ShowHelpAESAlgorithms, "aes128 aes192 aes256", 19},
      {"kbpk", ShowHelpExportTR31KbpkAlg, "3des112 3des168 aes128 aes192 aes256", 19},
      {"rsa", ShowHelpRSAAlgorithms,
       "rsa512 rsa1024 rsa2048 rsa4096 rsa1152 rsa1408 rsa1536 rsa1976 rsa1984 rsa8192 rsa2304 "
       "rsa2560 rsa2816 rsa3072",
       19},
      {"eddsa", ShowHelpEDDSAAlgorithms,
       "ed448 ed25519 Obs: for ed448 and ed25519 the hash MUST be idfunc.", 19},
      {"xecdh", ShowHelpXECDHAlgorithms, "x448 x25519", 19},
      {"ecx", ShowHelpECXAlgorithms,
       "ed448 ed25519 Obs: for ed448 and ed25519 the hash MUST be idfunc. x448 x25519", 19},
      {"hsmpub", ShowHelpHSMPubKeyAlgorithms,
       "publicKeyBlob rsaPubKeyBlob eccPubKeyBlob spkiRsaPubKeyBlob", 19},
      {"p11sym", ShowHelpP11SymmetricAlgorithms,
       "p11des p11des2 p11des3 p11aes128 p11aes192 p11aes256", 19},
      {"spbhash", ShowHelpSPBHashAlgorithms, "spbsha1 spbsha256", 13},
      {"ecdhop", ShowHelpEcdhOpAlgorithms, "ql_gen_key_kdf_raw_secret ql_gen_key_x9_63_sha256", 13},
      {"oath", ShowHelpOathTypes, "time event", 13},
      {"mode", ShowHelpMode, "ecb cbc ofb cfb ctr gcm kw kwp none", 13},
      {"padding", ShowHelpPadding, "no_padding pkcs5_padding zero_padding", 13},
      {"certout", ShowHelpCertOutForm, "pem der", 13},
      {"store", ShowHelpCertStoreLocation,
       "current_user local_machine services users current_service local_machine_group_policy "
       "current_user_group_policy local_machine_enterprise",
       19},
      {"keyspec", ShowHelpKeySpec, "at_keyexchange at_signature cng", 13},
      {"p10ver", ShowHelpGenPkcs10Version, "p10_csr_version1", 13},
      {"p10out", ShowHelpGenPkcs10OutType, "p10_csr_der p10_csr_pem", 13},
      {"blob", ShowHelpExportBlobTypeParameters,
       "privatekey_blob privatekey_blob_strict publickey_blob publickey_blob_hsm "
       "plaintextkey_blob simple_blob simple_blob_oaep hotp_blob sym_wrapped_key_blob "
       "wrapped_key_blob",
       19},
      {"inform", ShowHelpDataInformParameters,
       "file - Receives a file name for a binary file. hex - Receives a hex string", 13},
      {"textinform", ShowHelpDataTextInformParameters,
       "file - Receives a file name for a text file. text - Receives a text string", 13},
      {"outform", ShowHelpFileOutformParameters,
       "original - As it would be printed on screen. csv - CSV file", 13},
      {"symflags", ShowHelpSymCryptFlagsParameters, "force_actual_rsa rsa_no_padding", 13},
      {"repl", ShowHelpReplicationMessages,
       "rnm_probe rnm_down rnm_slp_bypass_add rnm_slp_bypass_del", 19},
      {"nettool", ShowHelpNetToolCommand, "ping tracert", 13},
      {"service", ShowHelpFindHSMServiceType, "ip aap s_all", 13},
      {"findout", ShowHelpFindHSMOutFormat, "line csv", 13},
      {"tokflags", ShowHelpSVaultGetTokenFlags, "token secret", 13},
      {"cks", ShowHelpSVaultGetTokenCKS, "none cpf cnpj pan iel", 13},
      {"toktype", ShowHelpSVaultGetTokenType, "tkr2", 13},
      {"repr", ShowHelpSVaultGetTokenRepresentation, "base10 base16 base26 base52 base62", 13},
      {"dataop", ShowHelpSVaultGetDataOp, "secret token", 13},
  };
  for (const WordList &l : lists) {
    const std::string out = CaptureStdout(l.print);
    EXPECT_EQ(Tokens(out), Tokens(l.words)) << l.name;
    ASSERT_GE(out.size(), 4u) << l.name;
    EXPECT_EQ(out.substr(out.size() - 4), "\r\n\r\n") << l.name;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      if (line == "\r") continue;
      EXPECT_EQ(line.find_first_not_of(' '), l.indent) << l.name << ": " << line;
      EXPECT_EQ(line.back(), '\r') << l.name;
    }
  }
}

TEST(Help, CompositeAlgorithmLists) {
  const std::string rsa = CaptureStdout(ShowHelpRSAAlgorithms);
  const std::string ecc = CaptureStdout(ShowHelpECCAlgorithms);
  const std::string eddsa = CaptureStdout(ShowHelpEDDSAAlgorithms);
  const std::string ecx = CaptureStdout(ShowHelpECXAlgorithms);
  EXPECT_EQ(CaptureStdout(ShowHelpAsymmetricAlgorithms), rsa + ecc + ecx);
  EXPECT_EQ(CaptureStdout(ShowHelpAsymSigAlgorithms), rsa + ecc + eddsa);
  for (const char *w : {"ecc_secp112r1", "ecc_secp521r1", "ecc_x9_62_prime192v1",
                        "ecc_x9_62_prime256v1", "ecc_brainpool_p160r1", "ecc_brainpool_p512t1"}) {
    EXPECT_NE(ecc.find(w), std::string::npos) << w;
  }
  const std::string p11 = CaptureStdout(ShowHelpP11AssymmetricAlgorithms);
  EXPECT_NE(p11.find("p11rsa2048"), std::string::npos);
  EXPECT_NE(p11.find("p11ecc_"), std::string::npos);
}

TEST(Help, TR31Lists) {
  const std::string usage = CaptureStdout(ShowHelpExportTR31Usage);
  for (const char *u : {"auto", "b0", "b1", "b2", "c0", "d0", "d1", "d2", "e0", "e6",
                        "i0",   "k0", "k3", "m0", "m8", "p0", "s0", "s2", "v0", "v4"}) {
    EXPECT_NE(usage.find(std::string("                   ") + u + " - "), std::string::npos) << u;
  }
  const std::string mode = CaptureStdout(ShowHelpExportTR31Mode);
  for (const char *m : {"auto", "b", "c", "d", "e", "g", "n", "s", "t", "v", "x", "y"}) {
    EXPECT_NE(mode.find(std::string("                   ") + m + " - "), std::string::npos) << m;
  }
  const std::string exp = CaptureStdout(ShowHelpExportTR31Exp);
  for (const char *e : {"auto", "x9-24", "non-exportable", "kek-exportable"}) {
    EXPECT_NE(exp.find(e), std::string::npos) << e;
  }
}

TEST(Help, SwitchPages) {
  struct Page {
    const char *name;
    std::function<void()> print;
    std::vector<const char *> switches;  // in order
  };
  const Page pages[] = {
      {"user",
       ShowHelpGlobalUserParameters,
       {"-pwd", "-operator", "-usr_create", "-usr_list", "-remote_log", "-backup", "-firm_update",
        "-ns_auth", "-cold_partition"}},
      {"keyattr", ShowHelpKeyAttributesParameters, {"-exp", "-tmp"}},
      {"tr31attr", ShowHelpExportTR31KeyAttributesParameters, {"-tmp"}},
      {"genkey", ShowHelpGenKeyParamParameters, {"-rsaexp3", "-nocrypt", "-bchain"}},
      {"spbkey", ShowHelpGenSPBKeyParamParameters, {"-exp"}},
      {"impkey", ShowHelpImpKeyParamParameters, {"-nocrypt"}},
      {"p7",
       ShowHelpP7SignAttributesParameters,
       {"-p7attr_text", "-p7attr_nocerts", "-p7attr_nosigns", "-p7attr_nochain", "-p7attr_nointern",
        "-p7attr_noverify", "-p7attr_detached", "-p7attr_binary", "-p7attr_noattr",
        "-p7attr_nosmimecap", "-p7attr_nooldmimetype", "-p7attr_crlfeol", "-p7attr_nocrl",
        "-p7attr_cosign"}},
      {"svgen", ShowHelpSVaultGenToken, {"-kn", "-masktype", "-cks", "-type"}},
      {"svget", ShowHelpSVaultGetData, {"-mask", "-op"}},
  };
  for (const Page &page : pages) {
    const std::string out = CaptureStdout(page.print);
    size_t last = 0;
    for (const char *s : page.switches) {
      const size_t at = out.find(std::string("     ") + s + " ", last);
      ASSERT_NE(at, std::string::npos) << page.name << " " << s;
      last = at + 1;
    }
  }
}

TEST(Help, CertFindHelp) {
  const std::string out = CaptureStdout(PrintCertFindHelp);
  const std::string scope = "     --scope       Certificate store scope\\location\r\n";
  const std::string store =
      "     --store       Certificate store name\r\n"
      "     --certhash    Certificate hash\r\n";
  EXPECT_EQ(out, scope + CaptureStdout(ShowHelpCertStoreLocation) + store +
                     CaptureStdout(ShowHelpKeySpec));
}

}  // namespace
