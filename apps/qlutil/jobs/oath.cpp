// OATH jobs: tokens of users ("assign-token", "unassign-token", "oath-resync") and token blobs
// ("oath-check-blob", "oath-decrypt-blob").

#include <cstring>
#include <string>

#include "harness/harness.h"
#include "job.h"

namespace {

void PrintBlobInputHelp() {
  ScreenOutput("     -kn     Master key name (an AES key)\r\n");
  ScreenOutput("     -in     The token blob\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
}

bool LoadBlobInput(TEST_PARAMETER *pTestParam, int nParameters, const char **key, Bytes *blob) {
  *key = GetParameterStr(pTestParam, nParameters, "-kn");
  DataInform inform = kFile;
  return IsGivenText(*key) && LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
         ReadJobData(pTestParam, nParameters, "-in", inform, blob);
}

bool IsOtpText(const char *otp) {
  if (!IsGivenText(otp)) return false;
  const size_t n = strlen(otp);
  if (n < 6 || n > 8) return false;
  for (size_t i = 0; i < n; ++i)
    if (otp[i] < '0' || otp[i] > '9') return false;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// oath-check-blob

typedef struct _JOB_OATH_CHECK_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn: the master key
  const Bytes *pBlob;      // -in
  const char *pszOtp;      // -otp
  const char *pszOutFile;  // --out: the new blob; null: hex on the console
} JOB_OATH_CHECK_INFO;

namespace {

void ShowJobOathCheckBlobHelp() {
  JobHelpHeader(false, {"Check a one-time password against an OATH token blob. The blob comes back",
                        "with its new counter and must replace the old one."});
  PrintBlobInputHelp();
  ScreenOutput("     -otp    The one-time password (6 to 8 digits)\r\n");
  ScreenOutput(
      "     --out   [OPTIONAL] Output file of the new blob. If not defined, the blob is\r\n");
  ScreenOutput("             printed in hex.\r\n");
  JobHelpExamples("oath-check-blob", {"-kn mk -in token.bin -otp 755224 --out token.bin"});
}

int OathCheckBlobWork(JOB_OATH_CHECK_INFO *job, HSESSIONCTX session) {
  Bytes blob(job->pBlob->size());
  auto len = static_cast<uint32_t>(blob.size());
  const int rc =
      QOATHCheckHOTP(session, job->pszKeyName, job->pBlob->data(),
                     static_cast<uint32_t>(job->pBlob->size()), job->pszOtp, blob.data(), &len, 0);
  if (CheckJobCall("QOATHCheckHOTP", rc) != 0) return rc;
  ScreenOutput("One-time password accepted.\r\n");
  return WriteJobOutput(job->pszOutFile, blob.data(), len, true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobOATHCheckHotpThread(void *p) {
  auto *job = static_cast<JOB_OATH_CHECK_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return OathCheckBlobWork(job, session); });
}

int JobOATHCheckHotp(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_CHECK_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes blob;
  job.pszOtp = GetParameterStr(pTestParam, nParameters, "-otp");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = LoadBlobInput(pTestParam, nParameters, &job.pszKeyName, &blob) &&
                  IsOtpText(job.pszOtp) && IsOptionalTextGood(pTestParam, nParameters, "--out");
  job.pBlob = &blob;
  return StartJob(&JobOATHCheckHotpThread, &job.ti, sizeof job, false, ok,
                  &ShowJobOathCheckBlobHelp);
}

// ---------------------------------------------------------------------------------------------
// oath-decrypt-blob

typedef struct _JOB_OATH_INFO_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn: the master key
  const Bytes *pBlob;      // -in
  uint32_t dwInfo;         // -info: record or seed
} JOB_OATH_INFO_INFO;

namespace {

void ShowJobOathDecryptBlobHelp() {
  JobHelpHeader(false,
                {"Show what an OATH token blob holds: its record, or its seed (only under an",
                 "exportable master key)."});
  PrintBlobInputHelp();
  ScreenOutput("     -info   [OPTIONAL] What to show. Default \"record\".\r\n");
  ScreenOutput("             record seed\r\n");
  JobHelpExamples("oath-decrypt-blob", {"-kn mk -in token.bin", "-kn mk -in token.bin -info seed"});
}

int OathDecryptBlobWork(JOB_OATH_INFO_INFO *job, HSESSIONCTX session) {
  const auto blob_len = static_cast<uint32_t>(job->pBlob->size());
  if (job->dwInfo == QL_OATH_INFO_SEED) {
    unsigned char seed[QL_OATH_MAX_SEED];
    uint32_t len = sizeof seed;
    const int rc = QOATHGetBlobInfo(session, job->pszKeyName, job->pBlob->data(), blob_len,
                                    QL_OATH_INFO_SEED, seed, &len);
    if (CheckJobCall("QOATHGetBlobInfo", rc) != 0) return rc;
    ScreenOutput("%s\r\n", ToHex(seed, len).c_str());
    return 0;
  }
  QL_OATH_TOKEN_INFO info;
  uint32_t len = sizeof info;
  const int rc =
      QOATHGetBlobInfo(session, job->pszKeyName, job->pBlob->data(), blob_len, QL_OATH_INFO_RECORD,
                       reinterpret_cast<unsigned char *>(&info), &len);
  if (CheckJobCall("QOATHGetBlobInfo", rc) != 0) return rc;
  static const char *const kHashes[] = {"sha1", "sha256", "sha512"};
  ScreenOutput("Type: %s\r\n", info.dwType == 3 ? "time" : "event");
  ScreenOutput("Hash: %s\r\n", info.dwHash < 3 ? kHashes[info.dwHash] : "?");
  ScreenOutput("Digits: %u\r\n", info.dwDigits);
  ScreenOutput("Counter: %llu\r\n", static_cast<unsigned long long>(info.qwCounter));
  if (info.dwType == 3) {
    ScreenOutput("Time step: %u\r\n", info.dwTimeStep);
    ScreenOutput("T0: %llu\r\n", static_cast<unsigned long long>(info.qwT0));
    ScreenOutput("Drift: %d\r\n", info.nDrift);
  }
  ScreenOutput("Failures: %u\r\n", info.dwFailures);
  ScreenOutput("Seed length: %u\r\n", info.dwSeedLen);
  return 0;
}

}  // namespace

unsigned int JobOATHDecryptBlobThread(void *p) {
  auto *job = static_cast<JOB_OATH_INFO_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return OathDecryptBlobWork(job, session); });
}

int JobOATHDecryptBlob(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_INFO_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  Bytes blob;
  const char *info = GetParameterStr(pTestParam, nParameters, "-info");
  bool ok = LoadBlobInput(pTestParam, nParameters, &job.pszKeyName, &blob);
  if (info == nullptr || strcmp(info, "record") == 0) {
    job.dwInfo = QL_OATH_INFO_RECORD;
  } else if (strcmp(info, "seed") == 0) {
    job.dwInfo = QL_OATH_INFO_SEED;
  } else {
    ok = false;
  }
  job.pBlob = &blob;
  return StartJob(&JobOATHDecryptBlobThread, &job.ti, sizeof job, false, ok,
                  &ShowJobOathDecryptBlobHelp);
}

// ---------------------------------------------------------------------------------------------
// assign-token, unassign-token, oath-resync

namespace {

constexpr uint32_t kRandomSeedLen = 20;
constexpr uint32_t kOathTypeTime = 3;
constexpr uint32_t kOathTypeEvent = 2;

// RFC 4648 base32 with padding: what authenticator apps take as the seed.
std::string Base32(const unsigned char *data, size_t len) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
  std::string out;
  uint32_t buffer = 0;
  int bits = 0;
  for (size_t i = 0; i < len; ++i) {
    buffer = (buffer << 8) | data[i];
    bits += 8;
    while (bits >= 5) {
      out += kAlphabet[(buffer >> (bits - 5)) & 31];
      bits -= 5;
    }
  }
  if (bits > 0) out += kAlphabet[(buffer << (5 - bits)) & 31];
  while (out.size() % 8 != 0) out += '=';
  return out;
}

// The -hash word: sha1 (0), sha256 or sha512, as bits 8 to 11 of the token's type.
bool LoadOathHash(TEST_PARAMETER *pTestParam, int nParameters, uint32_t *type_bits) {
  const char *hash = GetParameterStr(pTestParam, nParameters, "-hash");
  *type_bits = 0;
  if (hash == nullptr) return true;
  if (strcmp(hash, "sha1") == 0) return true;
  if (strcmp(hash, "sha256") == 0) *type_bits = QL_OATH_SHA256;
  if (strcmp(hash, "sha512") == 0) *type_bits = QL_OATH_SHA512;
  return *type_bits != 0;
}

// An optional number switch: absent keeps *value; present must be a good number.
bool LoadOptionalNumber(TEST_PARAMETER *pTestParam, int nParameters, const char *name,
                        uint32_t *value) {
  if (!IsParameterDefined(pTestParam, nParameters, name)) return true;
  return GetJobNumber(pTestParam, nParameters, name, value);
}

void ShowJobAssignTokenHelp() {
  JobHelpHeader(false, {"Assign an OATH token to an HSM user: from then on the user logs in with",
                        "its password and a one-time password."});
  ScreenOutput("     -un        User name\r\n");
  ScreenOutput("     -oathtype  [OPTIONAL] Token type. event (default):\r\n");
  ShowHelpOathTypes();
  ScreenOutput("     -seed      [OPTIONAL] The seed in hex (16 to 64 bytes). If not defined,\r\n");
  ScreenOutput("                20 random bytes from the HSM, printed once in hex and base32.\r\n");
  ScreenOutput(
      "     -digits    [OPTIONAL] Digits of the one-time passwords, 6 to 8. 6 (default).\r\n");
  ScreenOutput("     -hash      [OPTIONAL] HMAC hash. sha1 (default), sha256 or sha512.\r\n");
  ScreenOutput(
      "     -t0        [OPTIONAL] Time tokens: T0 in seconds since 1970. 0 (default).\r\n");
  ScreenOutput("     -timestep  [OPTIONAL] Time tokens: time step in seconds. 30 (default).\r\n");
  JobHelpExamples(
      "assign-token",
      {"-un alice", "-un alice -oathtype time -seed 3132333435363738393031323334353637383930"});
}

void ShowJobUnassignTokenHelp() {
  JobHelpPage("unassign-token",
              {"Remove an HSM user's OATH token: it logs in with its password alone."},
              {"-un     User name"}, {"-un alice"});
}

void ShowJobOathResyncHelp() {
  JobHelpPage(
      "oath-resync",
      {"Resynchronise an HSM user's OATH token with two consecutive one-time",
       "passwords; this also lifts a block that failed one-time passwords set."},
      {"-un     User name", "-otp1   A one-time password", "-otp2   The one that follows it"},
      {"-un alice -otp1 287922 -otp2 162583"});
}

}  // namespace

typedef struct _JOB_OATH_TOKEN_INFO {
  THREAD_INFO ti;
  const char *pszUserName;  // -un
  uint32_t dwType;          // -oathtype and -hash
  const Bytes *pSeed;       // -seed; empty: random
  uint32_t dwDigits;        // -digits
  uint32_t dwT0;            // -t0
  uint32_t dwTimeStep;      // -timestep
  const char *pszOtp1;      // -otp1
  const char *pszOtp2;      // -otp2
} JOB_OATH_TOKEN_INFO;

unsigned int JobAssignTokenThread(void *p) {
  auto *job = static_cast<JOB_OATH_TOKEN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    Bytes seed = *job->pSeed;
    const bool random = seed.empty();
    if (random) {
      seed.resize(kRandomSeedLen);
      const int rc = CheckJobCall("QGetRandom", QGetRandom(session, seed.data(), kRandomSeedLen));
      if (rc != 0) return rc;
    }
    const int rc =
        CheckJobCall("QAssignToken", QAssignToken(session, job->pszUserName, job->dwType,
                                                  seed.data(), static_cast<uint32_t>(seed.size()),
                                                  job->dwTimeStep, job->dwT0, job->dwDigits));
    if (rc != 0) return rc;
    ScreenOutput("Token assigned to user %s.\r\n", job->pszUserName);
    if (random) {
      ScreenOutput("Seed (hex): %s\r\n", ToHex(seed.data(), seed.size()).c_str());
      ScreenOutput("Seed (base32): %s\r\n", Base32(seed.data(), seed.size()).c_str());
    }
    return 0;
  });
}

int JobAssignToken(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_TOKEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  bool ok = IsGivenText(job.pszUserName);
  job.dwType = kOathTypeEvent;
  if (IsParameterDefined(pTestParam, nParameters, "-oathtype")) {
    const int type = GetParameterOathType(pTestParam, nParameters, "-oathtype");
    ok =
        ok && (type == static_cast<int>(kOathTypeEvent) || type == static_cast<int>(kOathTypeTime));
    job.dwType = static_cast<uint32_t>(type);
  }
  uint32_t hash_bits = 0;
  ok = ok && LoadOathHash(pTestParam, nParameters, &hash_bits);
  job.dwType |= hash_bits;
  Bytes seed;
  if (IsParameterDefined(pTestParam, nParameters, "-seed"))
    ok = ok && ReadJobData(pTestParam, nParameters, "-seed", kHexData, &seed);
  job.pSeed = &seed;
  ok = ok && LoadOptionalNumber(pTestParam, nParameters, "-digits", &job.dwDigits) &&
       LoadOptionalNumber(pTestParam, nParameters, "-t0", &job.dwT0) &&
       LoadOptionalNumber(pTestParam, nParameters, "-timestep", &job.dwTimeStep);
  return StartJob(&JobAssignTokenThread, &job.ti, sizeof job, false, ok, &ShowJobAssignTokenHelp);
}

unsigned int JobUnassignTokenThread(void *p) {
  auto *job = static_cast<JOB_OATH_TOKEN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc = CheckJobCall("QUnassignToken", QUnassignToken(session, job->pszUserName));
    if (rc == 0) ScreenOutput("Token removed from user %s.\r\n", job->pszUserName);
    return rc;
  });
}

int JobUnassignToken(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_TOKEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  return StartJob(&JobUnassignTokenThread, &job.ti, sizeof job, false, IsGivenText(job.pszUserName),
                  &ShowJobUnassignTokenHelp);
}

unsigned int JobOathResyncThread(void *p) {
  auto *job = static_cast<JOB_OATH_TOKEN_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc = CheckJobCall("QOATHResync",
                                QOATHResync(session, job->pszUserName, job->pszOtp1, job->pszOtp2));
    if (rc == 0) ScreenOutput("Token of user %s resynchronised.\r\n", job->pszUserName);
    return rc;
  });
}

int JobOathResync(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OATH_TOKEN_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  job.pszOtp1 = GetParameterStr(pTestParam, nParameters, "-otp1");
  job.pszOtp2 = GetParameterStr(pTestParam, nParameters, "-otp2");
  const bool ok = IsGivenText(job.pszUserName) && IsOtpText(job.pszOtp1) && IsOtpText(job.pszOtp2);
  return StartJob(&JobOathResyncThread, &job.ti, sizeof job, false, ok, &ShowJobOathResyncHelp);
}
