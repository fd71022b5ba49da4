// Blockchain jobs: "bchain-hash", "bchain-verify" and "bchain-recover-pbk", which need no key of
// the HSM, and the jobs of the HSM's blockchain keys: "bchain-create-xprv", "bchain-create-ckd",
// "bchain-key-info", "bchain-get-pbk", "bchain-get-addr", "bchain-sign", "bchain-exp-pk" and
// "bchain-imp-pk". The data given with -in is hashed with --mode (BchainHashData) before it is
// signed, a signature over it checked or its signer's key recovered.

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>

#include "harness/harness.h"
#include "job.h"
#include "ql_string_helper.h"

namespace {

// A list of words under an option, as the help pages print them (13 blanks, then a blank line).
void ShortList(std::initializer_list<const char *> lines) {
  for (const char *line : lines) ScreenOutput("             %s\r\n", line);
  ScreenOutput("\r\n");
}

struct Word {
  const char *text;
  uint32_t value;
};

// The value of a word option, or of its number; `fallback` when the option is absent. False for
// an unknown word.
template <size_t N>
bool GetWordOption(TEST_PARAMETER *pTestParam, int nParameters, const char *name,
                   const Word (&words)[N], uint32_t fallback, uint32_t *value) {
  const char *text = GetParameterStr(pTestParam, nParameters, name);
  if (text == nullptr) {
    *value = fallback;
    return fallback != 0;
  }
  for (const Word &w : words) {
    if (strcmp(text, w.text) == 0 || std::to_string(w.value) == text) {
      *value = w.value;
      return true;
    }
  }
  return false;
}

constexpr Word kHashModes[] = {{"sha256", QL_BCHAIN_HASH_SHA256},
                               {"sha256d", QL_BCHAIN_HASH_SHA256D},
                               {"hash160", QL_BCHAIN_HASH_HASH160},
                               {"message", QL_BCHAIN_HASH_MESSAGE}};
constexpr Word kSigTypes[] = {{"compact", QL_BCHAIN_SIG_COMPACT},
                              {"der", QL_BCHAIN_SIG_DER},
                              {"schnorr", QL_BCHAIN_SIG_SCHNORR}};
constexpr Word kPbkTypes[] = {{"compressed", QL_BCHAIN_PBK_COMPRESSED},
                              {"uncompressed", QL_BCHAIN_PBK_UNCOMPRESSED},
                              {"xonly", QL_BCHAIN_PBK_XONLY}};

void ShowModeHelp(const char *default_word) {
  ScreenOutput("     --mode  [OPTIONAL] Hash of the data. Default \"%s\".\r\n", default_word);
  ShortList({"sha256 - SHA-256.", "sha256d - SHA-256 of SHA-256.",
             "hash160 - RIPEMD-160 of SHA-256 (not signed: 20 bytes).",
             "message - The hash of a signed message (BIP137)."});
}

void ShowDataHelp() {
  ScreenOutput("     -in     The data\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
}

bool LoadData(TEST_PARAMETER *pTestParam, int nParameters, Bytes *data) {
  DataInform inform = kFile;
  return LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
         ReadJobData(pTestParam, nParameters, "-in", inform, data);
}

// A hex option that must be present and valid.
bool LoadHex(TEST_PARAMETER *pTestParam, int nParameters, const char *name, Bytes *out) {
  *out = GetParameterHex(pTestParam, nParameters, name);
  return !out->empty();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// bchain-hash

typedef struct _JOB_BCHAIN_HASH_INFO {
  THREAD_INFO ti;
  uint32_t dwMode;         // --mode
  const Bytes *pData;      // -in
  const char *pszOutFile;  // --out
} JOB_BCHAIN_HASH_INFO;

unsigned int JobBchainHashThread(void *p);

namespace {

void ShowJobBchainHashHelp() {
  JobHelpHeader(false, {"Hash data as blockchains do."});
  ShowDataHelp();
  ShowModeHelp("sha256d");
  ScreenOutput(
      "     --out   [OPTIONAL] Output file. If not defined, the hash is printed in hex.\r\n");
  JobHelpExamples("bchain-hash", {"-in tx.bin", "--mode hash160 -inform hex -in 0279BE66"});
}

}  // namespace

unsigned int JobBchainHashThread(void *p) {
  auto *job = static_cast<JOB_BCHAIN_HASH_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    Bytes hash;
    int rc = CheckJobCall("BchainHashData", client.BchainHashData(job->dwMode, *job->pData, &hash));
    if (rc == 0 && !WriteJobOutput(job->pszOutFile, hash.data(), hash.size())) rc = QL_ERR_FILE_IO;
    return rc;
  });
}

int JobBchainHash(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_BCHAIN_HASH_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes data;
  job.pData = &data;
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = GetWordOption(pTestParam, nParameters, "--mode", kHashModes,
                                QL_BCHAIN_HASH_SHA256D, &job.dwMode) &&
                  LoadData(pTestParam, nParameters, &data) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobBchainHashThread, &job.ti, sizeof job, false, ok, &ShowJobBchainHashHelp);
}

// ---------------------------------------------------------------------------------------------
// bchain-verify, bchain-recover-pbk

typedef struct _JOB_BCHAIN_SIG_INFO {
  THREAD_INFO ti;
  uint32_t dwSigType;  // --sigtype
  uint32_t dwMode;     // --mode
  uint32_t dwPbkType;  // --pbktype (verify)
  const Bytes *pData;  // -in
  const Bytes *pSig;   // --sig
  const Bytes *pPbk;   // --pbk (verify)
  const char *pszOutFile;
} JOB_BCHAIN_SIG_INFO;

unsigned int JobBchainVerifyThread(void *p);
unsigned int JobBchainRecoverPbkThread(void *p);

namespace {

void ShowSigTypeHelp() {
  ScreenOutput("     --sigtype [OPTIONAL] Signature type. Default \"compact\".\r\n");
  ShortList({"compact - ECDSA, 65 bytes with the recovery header (BIP137).",
             "der - ECDSA, strict DER.", "schnorr - BIP340, 64 bytes."});
}

void ShowJobBchainVerifyHelp() {
  JobHelpHeader(false, {"Check a blockchain signature over data against a public key."});
  ShowDataHelp();
  ShowModeHelp("sha256d");
  ShowSigTypeHelp();
  ScreenOutput("     --sig   The signature, in hex\r\n");
  ScreenOutput("     --pbk   The public key, in hex\r\n");
  ScreenOutput("     --pbktype [OPTIONAL] Form of --pbk. Default: by its length.\r\n");
  ShortList({"compressed - SEC1, 33 bytes.", "uncompressed - SEC1, 65 bytes.",
             "xonly - BIP340, 32 bytes (schnorr only)."});
  JobHelpExamples("bchain-verify",
                  {"-in tx.bin --sig 1F0A...9C --pbk 0279BE66...98",
                   "-in tx.bin --sigtype schnorr --sig E907...0A --pbk 79BE...98"});
}

void ShowJobBchainRecoverPbkHelp() {
  JobHelpHeader(false, {"Recover the signer's public key from a compact blockchain signature."});
  ShowDataHelp();
  ShowModeHelp("sha256d");
  ScreenOutput("     --sig   The compact signature (65 bytes), in hex\r\n");
  ScreenOutput(
      "     --out   [OPTIONAL] Output file. If not defined, the key is printed in hex.\r\n");
  JobHelpExamples("bchain-recover-pbk", {"-in tx.bin --sig 1F0A...9C",
                                         "--mode message -inform hex -in 6869 --sig 20D1...04"});
}

// BchainHashData, then the digest for the signature call.
int HashForSignature(QueltaClient &client, const JOB_BCHAIN_SIG_INFO *job, Bytes *hash) {
  return CheckJobCall("BchainHashData", client.BchainHashData(job->dwMode, *job->pData, hash));
}

}  // namespace

unsigned int JobBchainVerifyThread(void *p) {
  auto *job = static_cast<JOB_BCHAIN_SIG_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    Bytes hash;
    int rc = HashForSignature(client, job, &hash);
    if (rc != 0) return rc;
    rc = CheckJobCall("BchainVerify", client.BchainVerify(job->dwSigType, job->dwMode, hash,
                                                          *job->pSig, job->dwPbkType, *job->pPbk));
    if (rc == 0) ScreenOutput("Signature verified.\r\n");
    return rc;
  });
}

unsigned int JobBchainRecoverPbkThread(void *p) {
  auto *job = static_cast<JOB_BCHAIN_SIG_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    Bytes hash;
    int rc = HashForSignature(client, job, &hash);
    if (rc != 0) return rc;
    Bytes pbk;
    rc = CheckJobCall("BchainRecoverPbk",
                      client.BchainRecoverPbk(job->dwSigType, job->dwMode, hash, *job->pSig, &pbk));
    if (rc == 0 && !WriteJobOutput(job->pszOutFile, pbk.data(), pbk.size())) rc = QL_ERR_FILE_IO;
    return rc;
  });
}

namespace {

int StartSignatureJob(TEST_PARAMETER *pTestParam, int nParameters, bool verify) {
  JOB_BCHAIN_SIG_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes data, sig, pbk;
  job.pData = &data;
  job.pSig = &sig;
  job.pPbk = &pbk;
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  bool ok = GetWordOption(pTestParam, nParameters, "--mode", kHashModes, QL_BCHAIN_HASH_SHA256D,
                          &job.dwMode) &&
            LoadData(pTestParam, nParameters, &data) &&
            LoadHex(pTestParam, nParameters, "--sig", &sig);
  if (verify) {
    ok = ok &&
         GetWordOption(pTestParam, nParameters, "--sigtype", kSigTypes, QL_BCHAIN_SIG_COMPACT,
                       &job.dwSigType) &&
         LoadHex(pTestParam, nParameters, "--pbk", &pbk);
    // Without --pbktype the key's length tells its form.
    const uint32_t by_length = pbk.size() == 65   ? QL_BCHAIN_PBK_UNCOMPRESSED
                               : pbk.size() == 32 ? QL_BCHAIN_PBK_XONLY
                                                  : QL_BCHAIN_PBK_COMPRESSED;
    ok = ok &&
         GetWordOption(pTestParam, nParameters, "--pbktype", kPbkTypes, by_length, &job.dwPbkType);
    return StartJob(&JobBchainVerifyThread, &job.ti, sizeof job, false, ok,
                    &ShowJobBchainVerifyHelp);
  }
  job.dwSigType = QL_BCHAIN_SIG_COMPACT;
  ok = ok && IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobBchainRecoverPbkThread, &job.ti, sizeof job, false, ok,
                  &ShowJobBchainRecoverPbkHelp);
}

}  // namespace

int JobBchainVerify(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartSignatureJob(pTestParam, nParameters, true);
}

int JobBchainRecoverPbk(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartSignatureJob(pTestParam, nParameters, false);
}

// ---------------------------------------------------------------------------------------------
// The jobs of the HSM's blockchain keys

namespace {

constexpr Word kNets[] = {{"main", 1}, {"test", 2}};
constexpr Word kAddressTypes[] = {{"p2pkh", QL_BCHAIN_ADDR_P2PKH},
                                  {"p2pkh-u", QL_BCHAIN_ADDR_P2PKH_UNCOMPRESSED},
                                  {"p2wpkh", QL_BCHAIN_ADDR_P2WPKH},
                                  {"p2tr", QL_BCHAIN_ADDR_P2TR}};
constexpr Word kFormats[] = {{"raw", QL_BCHAIN_FORMAT_RAW},
                             {"wif", QL_BCHAIN_FORMAT_WIF},
                             {"xprv", QL_BCHAIN_FORMAT_XPRV},
                             {"xpub", QL_BCHAIN_FORMAT_XPUB}};

// --net as 0 (absent: the key's own network), 1 main or 2 test; false for another word.
bool LoadNet(TEST_PARAMETER *pTestParam, int nParameters, uint32_t *net) {
  if (GetParameterStr(pTestParam, nParameters, "--net") == nullptr) {
    *net = 0;
    return true;
  }
  return GetWordOption(pTestParam, nParameters, "--net", kNets, 0, net);
}

// --index: a decimal number, hardened with a trailing h, H or '.
bool LoadIndex(TEST_PARAMETER *pTestParam, int nParameters, uint32_t *index) {
  const char *text = GetParameterStr(pTestParam, nParameters, "--index");
  if (!IsGivenText(text)) return false;
  std::string digits(text);
  uint32_t hardened = 0;
  const char last = digits.back();
  if (last == 'h' || last == 'H' || last == '\'') {
    hardened = 0x80000000u;
    digits.pop_back();
  }
  if (digits.empty() || digits.size() > 10 || !IsDigitString(digits.c_str())) return false;
  const unsigned long long value = std::stoull(digits);
  if (value >= 0x80000000ull && hardened != 0) return false;
  if (value > 0xFFFFFFFFull) return false;
  *index = static_cast<uint32_t>(value) | hardened;
  return true;
}

// A key of the HSM's blockchain keys, named by -kn, and what each job takes besides.
struct BchainKeyJob {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  const char *pszDst;      // --dst (create-ckd)
  const char *pszHrp;      // --hrp (get-addr)
  const char *pszOutFile;  // --out
  uint32_t dwType;         // the type, form or format of the call
  uint32_t dwNet;          // --net: 0 the key's own, 1 main, 2 test
  uint32_t dwIndex;        // --index
  uint32_t dwMode;         // --mode (sign)
  bool bExportable;        // -exp
  bool bTemporary;         // -tmp
  const Bytes *pData;      // --seed, --minikey, -in
};

void ShowKeyNameHelp() {
  ScreenOutput("     -kn     Key name\r\n");
}

void ShowNetHelp(const char *what) {
  ScreenOutput("     --net   [OPTIONAL] Network of %s. Default: the key's.\r\n", what);
  ShortList({"main - Mainnet.", "test - Testnet."});
}

void ShowOutHelp(const char *what) {
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, %s is printed.\r\n", what);
}

// Prints a key's BIP32 data.
void PrintKeyInfo(const QL_BCHAIN_KEY_INFO &info) {
  ScreenOutput("Type: %u\r\n", info.dwType);
  ScreenOutput("Version: %08X\r\n", info.dwVersion);
  ScreenOutput("Depth: %u\r\n", info.dwDepth);
  ScreenOutput("Index: %u\r\n", info.dwIndex);
  ScreenOutput("Parent fingerprint: %s\r\n", ToHex(info.pbParentFingerprint, 4).c_str());
  ScreenOutput("Chain code: %s\r\n", ToHex(info.pbChainCode, sizeof info.pbChainCode).c_str());
  ScreenOutput("Public key: %s\r\n", ToHex(info.pbPublicKey, info.dwPublicKeyLen).c_str());
}

// Text when a path is given goes to the file, else to the console.
bool WriteText(const char *path, const std::string &text, bool secret) {
  if (path != nullptr) {
    return WriteLocalFile(path, reinterpret_cast<const unsigned char *>(text.data()), text.size(),
                          secret);
  }
  ScreenOutput("%s\r\n", text.c_str());
  return true;
}

int StartKeyJob(BchainKeyJob *job, pfn_TestThread routine, bool ok, void (*help)()) {
  return StartJob(routine, &job->ti, sizeof *job, false, ok && IsGivenText(job->pszKeyName), help);
}

void LoadKeyJob(BchainKeyJob *job, TEST_PARAMETER *pTestParam, int nParameters) {
  LoadJobParameters(&job->ti, pTestParam, nParameters, false);
  job->pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job->pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const uint32_t flags = LoadGenericKeyFlagsParameters(pTestParam, nParameters);
  job->bExportable = (flags & QL_KEY_EXPORTABLE) != 0;
  job->bTemporary = (flags & QL_KEY_TEMPORARY) != 0;
}

// ----- bchain-create-xprv

void ShowJobBchainCreateXprvHelp() {
  JobHelpHeader(false, {"Create a blockchain key in the HSM: a BIP32 master key of a seed, or the",
                        "key of a mini private key."});
  ShowKeyNameHelp();
  ScreenOutput("     --seed  The seed (16 to 64 bytes), in hex. Or:\r\n");
  ScreenOutput("     --minikey The mini private key (22 or 30 characters)\r\n");
  ScreenOutput("     --net   [OPTIONAL] Network of a BIP32 key. Default \"main\".\r\n");
  ShortList({"main - Mainnet (xprv).", "test - Testnet (tprv)."});
  ShowHelpKeyAttributesParameters();
  JobHelpExamples("bchain-create-xprv",
                  {"-kn wallet --seed 000102030405060708090A0B0C0D0E0F -exp 1",
                   "-kn mini --minikey S6c56bnXQiBjk9mqSYE7ykVQ7NzrRy"});
}

unsigned int JobBchainCreateXprvThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    if (job->dwType == QL_BCHAIN_XPRV_MINIKEY) {
      const std::string mini(job->pData->begin(), job->pData->end());
      return CheckJobCall("BchainCreateXPrv",
                          client.BchainCreateXPrvBtcMinikey(job->pszKeyName, mini.c_str(),
                                                            job->bExportable, job->bTemporary));
    }
    const uint32_t version = job->dwNet == 2 ? QL_BCHAIN_XPRV_TEST : QL_BCHAIN_XPRV_MAIN;
    return CheckJobCall("BchainCreateXPrv",
                        client.BchainCreateXPrvBip32(job->pszKeyName, version, job->pData->data(),
                                                     static_cast<uint32_t>(job->pData->size()),
                                                     job->bExportable, job->bTemporary));
  });
}

// ----- bchain-create-ckd

void ShowJobBchainCreateCkdHelp() {
  JobHelpHeader(false, {"Derive a BIP32 child of a blockchain key into a new key."});
  ScreenOutput("     -kn     Parent key name\r\n");
  ScreenOutput("     --dst   Child key name\r\n");
  ScreenOutput("     --index Child index; a trailing h (44h) makes it hardened.\r\n");
  ShowNetHelp("the child (its BIP32 version)");
  ShowHelpKeyAttributesParameters();
  JobHelpExamples("bchain-create-ckd", {"-kn wallet --dst account0 --index 0h -exp 1",
                                        "-kn account0 --dst receive5 --index 5"});
}

unsigned int JobBchainCreateCkdThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    const uint32_t version = job->dwNet == 0   ? 0
                             : job->dwNet == 1 ? QL_BCHAIN_XPRV_MAIN
                                               : QL_BCHAIN_XPRV_TEST;
    QL_BCHAIN_KEY_INFO info{};
    const int rc = CheckJobCall(
        "BchainCreateBip32Ckd",
        client.BchainCreateBip32Ckd(job->pszKeyName, job->pszDst, version, job->dwIndex,
                                    job->bExportable, job->bTemporary, &info));
    if (rc == 0) PrintKeyInfo(info);
    return rc;
  });
}

// ----- bchain-key-info

void ShowJobBchainKeyInfoHelp() {
  JobHelpHeader(false, {"Show the BIP32 data of a blockchain key: type (1 extended, 2 extended",
                        "public, 3 plain), version, depth, index, parent fingerprint, chain code",
                        "and compressed public key."});
  ShowKeyNameHelp();
  JobHelpExamples("bchain-key-info", {"-kn wallet"});
}

unsigned int JobBchainKeyInfoThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    QL_BCHAIN_KEY_INFO info{};
    const int rc =
        CheckJobCall("BchainGetKeyInfo", client.BchainGetKeyInfo(job->pszKeyName, &info));
    if (rc == 0) PrintKeyInfo(info);
    return rc;
  });
}

// ----- bchain-get-pbk

void ShowJobBchainGetPbkHelp() {
  JobHelpHeader(false, {"Get the public key of a blockchain key."});
  ShowKeyNameHelp();
  ScreenOutput("     --pbktype [OPTIONAL] Form of the key. Default \"compressed\".\r\n");
  ShortList({"compressed - SEC1, 33 bytes.", "uncompressed - SEC1, 65 bytes.",
             "xonly - BIP340, 32 bytes."});
  ShowOutHelp("the key in hex");
  JobHelpExamples("bchain-get-pbk", {"-kn wallet", "-kn wallet --pbktype xonly --out key.bin"});
}

unsigned int JobBchainGetPbkThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    Bytes pbk;
    int rc =
        CheckJobCall("BchainGetPubKey", client.BchainGetPubKey(job->pszKeyName, job->dwType, &pbk));
    if (rc == 0 && !WriteJobOutput(job->pszOutFile, pbk.data(), pbk.size())) rc = QL_ERR_FILE_IO;
    return rc;
  });
}

// ----- bchain-get-addr

void ShowJobBchainGetAddrHelp() {
  JobHelpHeader(false, {"Get an address of a blockchain key."});
  ShowKeyNameHelp();
  ScreenOutput("     --type  [OPTIONAL] Address type. Default \"p2wpkh\".\r\n");
  ShortList({"p2pkh - Base58Check of the compressed key's HASH160.",
             "p2pkh-u - The same, of the uncompressed key.", "p2wpkh - Bech32 (BIP173).",
             "p2tr - Bech32m taproot (BIP341, BIP86 tweak)."});
  ScreenOutput("     --net   [OPTIONAL] Network. Default \"main\".\r\n");
  ShortList({"main - Version byte 00, bc.", "test - Version byte 6F, tb."});
  ScreenOutput("     --hrp   [OPTIONAL] Human-readable part of a segwit address (BIP173).\r\n");
  JobHelpExamples("bchain-get-addr", {"-kn receive5", "-kn receive5 --type p2tr --net test"});
}

unsigned int JobBchainGetAddrThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    const uint32_t version = job->dwNet == 2 ? QL_BCHAIN_ADDR_TESTNET : QL_BCHAIN_ADDR_MAINNET;
    std::string address;
    const int rc = CheckJobCall(
        "BchainGetAddress",
        client.BchainGetAddress(job->pszKeyName, job->dwType, version, job->pszHrp, &address));
    if (rc == 0) ScreenOutput("%s\r\n", address.c_str());
    return rc;
  });
}

// ----- bchain-sign

void ShowJobBchainSignHelp() {
  JobHelpHeader(false, {"Sign data with a blockchain key."});
  ShowKeyNameHelp();
  ShowDataHelp();
  ShowModeHelp("sha256d");
  ShowSigTypeHelp();
  ShowOutHelp("the signature in hex");
  JobHelpExamples("bchain-sign", {"-kn receive5 -in tx.bin",
                                  "-kn receive5 --sigtype schnorr --mode sha256 -in msg.bin"});
}

unsigned int JobBchainSignThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    Bytes hash;
    int rc = CheckJobCall("BchainHashData", client.BchainHashData(job->dwMode, *job->pData, &hash));
    if (rc != 0) return rc;
    Bytes sig;
    rc = CheckJobCall("BchainSignHash",
                      client.BchainSignHash(job->pszKeyName, job->dwType, job->dwMode, hash, &sig));
    if (rc == 0 && !WriteJobOutput(job->pszOutFile, sig.data(), sig.size())) rc = QL_ERR_FILE_IO;
    return rc;
  });
}

// ----- bchain-exp-pk

void ShowJobBchainExpPkHelp() {
  JobHelpHeader(false, {"Export a blockchain key. The private forms need an exportable key."});
  ShowKeyNameHelp();
  ScreenOutput("     --format [OPTIONAL] Form of the key. Default \"wif\".\r\n");
  ShortList({"raw - The 32-byte private key (hex on the console).",
             "wif - Wallet Import Format, compressed.", "xprv - BIP32 extended private key.",
             "xpub - BIP32 extended public key."});
  ShowNetHelp("the text (WIF or BIP32 version)");
  ShowOutHelp("the key");
  JobHelpExamples("bchain-exp-pk", {"-kn wallet --format xpub", "-kn wallet --out wallet.wif"});
}

unsigned int JobBchainExpPkThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    uint32_t version = 0;
    if (job->dwNet != 0) {
      const bool test = job->dwNet == 2;
      switch (job->dwType) {
        case QL_BCHAIN_FORMAT_WIF:
          version = test ? QL_BCHAIN_WIF_TESTNET : QL_BCHAIN_WIF_MAINNET;
          break;
        case QL_BCHAIN_FORMAT_XPRV:
          version = test ? QL_BCHAIN_XPRV_TEST : QL_BCHAIN_XPRV_MAIN;
          break;
        case QL_BCHAIN_FORMAT_XPUB:
          version = test ? QL_BCHAIN_XPUB_TEST : QL_BCHAIN_XPUB_MAIN;
          break;
        default:
          break;
      }
    }
    Bytes key;
    int rc = CheckJobCall("BchainExportPk",
                          client.BchainExportPk(job->pszKeyName, job->dwType, version, true, &key));
    if (rc != 0) return rc;
    const bool secret = job->dwType != QL_BCHAIN_FORMAT_XPUB;
    const bool ok = job->dwType == QL_BCHAIN_FORMAT_RAW
                        ? WriteJobOutput(job->pszOutFile, key.data(), key.size(), secret)
                        : WriteText(job->pszOutFile, std::string(key.begin(), key.end()), secret);
    std::fill(key.begin(), key.end(), 0);
    return ok ? 0 : QL_ERR_FILE_IO;
  });
}

// ----- bchain-imp-pk

void ShowJobBchainImpPkHelp() {
  JobHelpHeader(false, {"Import a blockchain key."});
  ShowKeyNameHelp();
  ScreenOutput("     --format [OPTIONAL] Form of the key. Default \"wif\".\r\n");
  ShortList({"raw - The 32-byte private key.", "wif - Wallet Import Format.",
             "xprv - BIP32 extended private key.",
             "xpub - BIP32 extended public key (a public-only key)."});
  ScreenOutput("     -in     The key: a file holding its bytes (raw) or its text, or with\r\n");
  ScreenOutput("             -inform hex the same in hex\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ShowHelpKeyAttributesParameters();
  JobHelpExamples("bchain-imp-pk",
                  {"-kn imported -in key.wif -exp 1", "-kn watch --format xpub -in account.xpub"});
}

unsigned int JobBchainImpPkThread(void *p) {
  auto *job = static_cast<BchainKeyJob *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    // A text read from a file may end with a line break.
    Bytes data = *job->pData;
    if (job->dwType != QL_BCHAIN_FORMAT_RAW) {
      while (!data.empty() && (data.back() == '\n' || data.back() == '\r')) data.pop_back();
    }
    const int rc = CheckJobCall(
        "BchainImportPk", client.BchainImportPk(job->pszKeyName, job->dwType, job->bExportable,
                                                job->bTemporary, data));
    std::fill(data.begin(), data.end(), 0);
    return rc;
  });
}

}  // namespace

int JobBchainCreateXprv(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  Bytes data = GetParameterHex(pTestParam, nParameters, "--seed");
  const char *mini = GetParameterStr(pTestParam, nParameters, "--minikey");
  bool ok = LoadNet(pTestParam, nParameters, &job.dwNet);
  if (IsGivenText(mini)) {
    ok = ok && data.empty() && job.dwNet == 0;
    data.assign(mini, mini + std::strlen(mini));
    job.dwType = QL_BCHAIN_XPRV_MINIKEY;
  } else {
    ok = ok && !data.empty();
    job.dwType = job.dwNet == 2 ? QL_BCHAIN_XPRV_BIP32_TESTNET : QL_BCHAIN_XPRV_BIP32;
  }
  job.pData = &data;
  return StartKeyJob(&job, &JobBchainCreateXprvThread, ok, &ShowJobBchainCreateXprvHelp);
}

int JobBchainCreateCkd(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  job.pszDst = GetParameterStr(pTestParam, nParameters, "--dst");
  const bool ok = IsGivenText(job.pszDst) && LoadIndex(pTestParam, nParameters, &job.dwIndex) &&
                  LoadNet(pTestParam, nParameters, &job.dwNet);
  return StartKeyJob(&job, &JobBchainCreateCkdThread, ok, &ShowJobBchainCreateCkdHelp);
}

int JobBchainGetKeyInfo(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  return StartKeyJob(&job, &JobBchainKeyInfoThread, true, &ShowJobBchainKeyInfoHelp);
}

int JobBchainGetPubKey(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  const bool ok = GetWordOption(pTestParam, nParameters, "--pbktype", kPbkTypes,
                                QL_BCHAIN_PBK_COMPRESSED, &job.dwType) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartKeyJob(&job, &JobBchainGetPbkThread, ok, &ShowJobBchainGetPbkHelp);
}

int JobBchainGetAddress(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  job.pszHrp = GetParameterStr(pTestParam, nParameters, "--hrp");
  const bool ok = GetWordOption(pTestParam, nParameters, "--type", kAddressTypes,
                                QL_BCHAIN_ADDR_P2WPKH, &job.dwType) &&
                  LoadNet(pTestParam, nParameters, &job.dwNet) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--hrp");
  return StartKeyJob(&job, &JobBchainGetAddrThread, ok, &ShowJobBchainGetAddrHelp);
}

int JobBchainSign(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  Bytes data;
  job.pData = &data;
  const bool ok = GetWordOption(pTestParam, nParameters, "--mode", kHashModes,
                                QL_BCHAIN_HASH_SHA256D, &job.dwMode) &&
                  GetWordOption(pTestParam, nParameters, "--sigtype", kSigTypes,
                                QL_BCHAIN_SIG_COMPACT, &job.dwType) &&
                  LoadData(pTestParam, nParameters, &data) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartKeyJob(&job, &JobBchainSignThread, ok, &ShowJobBchainSignHelp);
}

int JobBchainExportPk(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  const bool ok = GetWordOption(pTestParam, nParameters, "--format", kFormats, QL_BCHAIN_FORMAT_WIF,
                                &job.dwType) &&
                  LoadNet(pTestParam, nParameters, &job.dwNet) &&
                  IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartKeyJob(&job, &JobBchainExpPkThread, ok, &ShowJobBchainExpPkHelp);
}

int JobBchainImportPk(TEST_PARAMETER *pTestParam, int nParameters) {
  BchainKeyJob job{};
  LoadKeyJob(&job, pTestParam, nParameters);
  Bytes data;
  job.pData = &data;
  const bool ok = GetWordOption(pTestParam, nParameters, "--format", kFormats, QL_BCHAIN_FORMAT_WIF,
                                &job.dwType) &&
                  LoadData(pTestParam, nParameters, &data);
  return StartKeyJob(&job, &JobBchainImpPkThread, ok, &ShowJobBchainImpPkHelp);
}
