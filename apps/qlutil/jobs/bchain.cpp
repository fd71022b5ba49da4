// Blockchain jobs that need no key of the HSM: "bchain-hash", "bchain-verify" and
// "bchain-recover-pbk". The data given with -in is hashed with --mode (BchainHashData) before a
// signature over it is checked or its signer's key recovered.

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
