// Key jobs: "gen-key", "export-key", "import-key", "gen-ecdh", "import-pkcs8", "export-pkcs8".

#include <cstring>

#include "harness/harness.h"
#include "job.h"

namespace {

constexpr uint32_t kNoAlg = 0xFFFFFFFF;

bool IsBlobType(uint32_t type) {
  switch (type) {
    case QL_PRIVATEKEY_BLOB:
    case QL_PUBLICKEY_BLOB:
    case QL_SIMPLE_BLOB:
    case QL_PLAINTEXTKEY_BLOB:
    case QL_HOTP_BLOB:
    case QL_SIMPLE_BLOB_OAEP:
    case QL_SYM_WRAPPED_KEY_BLOB:
    case QL_PUBLICKEY_BLOB_HSM:
    case QL_PRIVATEKEY_BLOB_STRICT:
    case QL_WRAPPED_KEY_BLOB:
      return true;
    default:
      return false;
  }
}

// Opens the key-encryption key when one is named. 0, or the code after its error line.
int OpenKek(HSESSIONCTX session, const char *kek_name, KeyOwner *kek) {
  if (!IsGivenText(kek_name)) return 0;
  const int rc = QGetUserKey(session, kek_name, 0, kek->Put());
  if (rc != 0) PrintJobError("QGetUserKey", rc);
  return rc;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// gen-key

typedef struct _JOB_GEN_KEY_INFO {
  THREAD_INFO ti;
  uint32_t dwKeyFlags;
  uint32_t nAlgId;         // -k
  const char *pszKeyName;  // -kn
} JOB_GEN_KEY_INFO;

namespace {

void ShowJobGenKeyHelp() {
  JobHelpHeader(false, {"Generate a key in the HSM."});
  ScreenOutput("     -k      Key algorithm\r\n");
  ShowHelpSymmetricAlgorithms();
  ShowHelpAsymmetricAlgorithms();
  ScreenOutput("     -kn     Key name. Not needed for a temporary key (-tmp 1).\r\n");
  ShowHelpKeyAttributesParameters();
  ShowHelpGenKeyParamParameters();
  JobHelpExamples("gen-key", {"-k rsa1024 -kn myrsa -exp 0 -tmp 0"});
}

}  // namespace

unsigned int JobGenKeyThread(void *p) {
  auto *job = static_cast<JOB_GEN_KEY_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    int rc = 0;
    // A temporary key lives as long as this handle: it ends with the routine.
    KeyOwner key;
    rc = QGenerateKey(session, job->pszKeyName, job->nAlgId, job->dwKeyFlags, key.Put());
    if (rc != 0) PrintJobError("QGenerateKey", rc);
    return rc;
  });
}

int JobGenKey(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_GEN_KEY_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.nAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-k"));
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.dwKeyFlags = LoadGenericKeyFlagsParameters(pTestParam, nParameters);
  const bool ok = job.nAlgId != kNoAlg &&
                  (IsGivenText(job.pszKeyName) || (job.dwKeyFlags & QL_KEY_TEMPORARY) != 0);
  return StartJob(&JobGenKeyThread, &job.ti, sizeof job, false, ok, &ShowJobGenKeyHelp);
}

// ---------------------------------------------------------------------------------------------
// export-key

typedef struct _JOB_EXPORT_KEY_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  const char *pszKekName;  // -kek; may be null
  uint32_t dwBlobType;     // -bt
  const char *pszOutFile;  // --out; null: hex on the console
} JOB_EXPORT_KEY_INFO;

namespace {

void ShowJobExportKeyHelp() {
  JobHelpHeader(false, {"Export a key from the HSM as a blob."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -kek    [OPTIONAL] Key-encryption key name, for the blob types that\r\n");
  ScreenOutput("             need one.\r\n");
  ScreenOutput("     -bt     Blob type\r\n");
  ShowHelpExportBlobTypeParameters();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the blob is printed in\r\n");
  ScreenOutput("             hex.\r\n");
  JobHelpExamples("export-key", {"-kn myrsa -bt publickey_blob --out myrsa_pub.der"});
}

int ExportKeyWork(JOB_EXPORT_KEY_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  KeyOwner key;
  rc = QGetUserKey(session, job->pszKeyName, 0, key.Put());
  if (rc != 0) {
    PrintJobError("QGetUserKey", rc);
    return rc;
  }
  KeyOwner kek;
  rc = OpenKek(session, job->pszKekName, &kek);
  if (rc != 0) return rc;
  uint32_t len = 0;
  rc = QExportKey(key.Get(), kek.Get(), job->dwBlobType, 0, nullptr, &len);
  Bytes blob;
  if (rc == QL_ERR_BUFFER_TOO_SMALL) {
    blob.resize(len);
    rc = QExportKey(key.Get(), kek.Get(), job->dwBlobType, 0, blob.data(), &len);
  }
  if (rc != 0) {
    PrintJobError("QExportKey", rc);
    return rc;
  }
  blob.resize(len);
  return WriteJobOutput(job->pszOutFile, blob.data(), blob.size(), true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobExportKeyThread(void *p) {
  auto *job = static_cast<JOB_EXPORT_KEY_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ExportKeyWork(job, session); });
}

int JobExportKey(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_EXPORT_KEY_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszKekName = GetParameterStr(pTestParam, nParameters, "-kek");
  job.dwBlobType = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-bt"));
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok = IsGivenText(job.pszKeyName) && IsBlobType(job.dwBlobType) &&
                  IsOptionalTextGood(pTestParam, nParameters, "-kek") &&
                  (job.pszOutFile == nullptr || *job.pszOutFile != '\0');
  return StartJob(&JobExportKeyThread, &job.ti, sizeof job, false, ok, &ShowJobExportKeyHelp);
}

// ---------------------------------------------------------------------------------------------
// import-key

typedef struct _JOB_IMPORT_KEY_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  const char *pszKekName;  // -kek; may be null
  uint32_t dwBlobType;     // -bt
  uint32_t nAlgId;         // -k, with the public-key bit for -pubobj
  uint32_t dwKeyFlags;
  const Bytes *pBlob;  // -in, read by the front function, which outlives the run
} JOB_IMPORT_KEY_INFO;

namespace {

void ShowJobImportKeyHelp() {
  JobHelpHeader(false, {"Import a key blob into the HSM."});
  ScreenOutput("     -kn     Key name. Not needed for a temporary key (-tmp 1).\r\n");
  ScreenOutput("     -kek    [OPTIONAL] Key-encryption key name, for the blob types that\r\n");
  ScreenOutput("             need one.\r\n");
  ScreenOutput("     -bt     Blob type\r\n");
  ShowHelpExportBlobTypeParameters();
  ScreenOutput("     -k      Key algorithm\r\n");
  ShowHelpSymmetricAlgorithms();
  ShowHelpAsymmetricAlgorithms();
  ScreenOutput("     -in     The blob\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     -pubobj [OPTIONAL] The blob is a public key: make a public-key object.\r\n");
  ShowHelpKeyAttributesParameters();
  ShowHelpImpKeyParamParameters();
  JobHelpExamples("import-key", {"-kn myaes -bt plaintextkey_blob -k aes256 -in aes.bin -exp 1",
                                 "-kn peer -bt publickey_blob -k rsa2048 -pubobj -in pub.der"});
}

int ImportKeyWork(JOB_IMPORT_KEY_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  KeyOwner kek;
  rc = OpenKek(session, job->pszKekName, &kek);
  if (rc != 0) return rc;
  KeyOwner key;
  rc = QImportKey(session, job->pszKeyName, kek.Get(), job->pBlob->data(),
                  static_cast<uint32_t>(job->pBlob->size()), job->dwBlobType, job->nAlgId,
                  job->dwKeyFlags, key.Put());
  if (rc != 0) PrintJobError("QImportKey", rc);
  return rc;
}

}  // namespace

unsigned int JobImportKeyThread(void *p) {
  auto *job = static_cast<JOB_IMPORT_KEY_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ImportKeyWork(job, session); });
}

int JobImportKey(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_IMPORT_KEY_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszKekName = GetParameterStr(pTestParam, nParameters, "-kek");
  job.dwBlobType = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-bt"));
  job.nAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-k"));
  job.dwKeyFlags = LoadGenericKeyFlagsParameters(pTestParam, nParameters);
  DataInform inform = kFile;
  Bytes blob;
  bool ok = LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
            ReadJobData(pTestParam, nParameters, "-in", inform, &blob) &&
            (IsGivenText(job.pszKeyName) || (job.dwKeyFlags & QL_KEY_TEMPORARY) != 0) &&
            IsBlobType(job.dwBlobType) && job.nAlgId != kNoAlg &&
            IsOptionalTextGood(pTestParam, nParameters, "-kek");
  if (IsParameterDefined(pTestParam, nParameters, "-pubobj")) job.nAlgId |= QL_ALG_PUBLIC_KEY_BIT;
  job.pBlob = &blob;
  return StartJob(&JobImportKeyThread, &job.ti, sizeof job, false, ok, &ShowJobImportKeyHelp);
}

// ---------------------------------------------------------------------------------------------
// gen-ecdh

typedef struct _JOB_GEN_ECDH_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;     // -kn: our private key
  const Bytes *pPeerPub;      // -pub: the peer's public key (SubjectPublicKeyInfo, DER)
  const Bytes *pSharedInfo;   // -si: hex, may be empty
  uint32_t dwKdf;             // -kdf
  const char *pszTargetName;  // -tkn: store the derived bytes as this key; may be null
  uint32_t nTargetAlgId;      // -k: the stored key's algorithm
  uint32_t dwKeyFlags;
  uint32_t dwOutLen;       // -len: bytes to derive (x9.63)
  const char *pszOutFile;  // --out; null: hex on the console
} JOB_GEN_ECDH_INFO;

namespace {

void ShowJobGenEcdhHelp() {
  JobHelpHeader(false, {"Derive a shared secret (ECDH) from a private key of the HSM and a peer",
                        "public key; hand it out, or keep it in the HSM as a new key."});
  ScreenOutput("     -kn     Private key name\r\n");
  ScreenOutput("     -pub    Peer public key (SubjectPublicKeyInfo, DER)\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -pub. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     -kdf    Key derivation\r\n");
  ShowHelpEcdhOpAlgorithms();
  ScreenOutput("     -si     [OPTIONAL] Shared info (hex), for ql_gen_key_x9_63_sha256\r\n");
  ScreenOutput("     -len    Bytes to derive, for ql_gen_key_x9_63_sha256\r\n");
  ScreenOutput("     -tkn    [OPTIONAL] Keep the derived bytes as this key (with -k)\r\n");
  ScreenOutput("     -k      [OPTIONAL] Algorithm of the key kept\r\n");
  ShowHelpSymmetricAlgorithms();
  ShowHelpKeyAttributesParameters();
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the secret is printed in\r\n");
  ScreenOutput("             hex.\r\n");
  JobHelpExamples("gen-ecdh",
                  {"-kn myec -pub peer.der -kdf ql_gen_key_kdf_raw_secret",
                   "-kn myec -pub peer.der -kdf ql_gen_key_x9_63_sha256 -len 32 -tkn myaes -k "
                   "aes256"});
}

int GenEcdhWork(JOB_GEN_ECDH_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  const bool keep = IsGivenText(job->pszTargetName);
  Bytes out(keep ? 0 : (job->dwOutLen > 1024 ? job->dwOutLen : 1024));
  uint32_t out_len = keep ? job->dwOutLen : static_cast<uint32_t>(out.size());
  auto call = [&] {
    return QGenEcdhKey(session, job->dwKdf, job->pszKeyName, job->pPeerPub->data(),
                       static_cast<uint32_t>(job->pPeerPub->size()),
                       job->pSharedInfo->empty() ? nullptr : job->pSharedInfo->data(),
                       static_cast<uint32_t>(job->pSharedInfo->size()), job->pszTargetName,
                       job->nTargetAlgId, job->dwKeyFlags, out.empty() ? nullptr : out.data(),
                       &out_len);
  };
  rc = call();
  if (rc == QL_ERR_BUFFER_TOO_SMALL && !keep) {
    out.resize(out_len);
    rc = call();
  }
  if (rc != 0) {
    PrintJobError("QGenEcdhKey", rc);
    return rc;
  }
  if (keep) {
    ScreenOutput("Key %s created.\r\n", job->pszTargetName);
    return 0;
  }
  return WriteJobOutput(job->pszOutFile, out.data(), out_len, true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobGenEcdhThread(void *p) {
  auto *job = static_cast<JOB_GEN_ECDH_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) { return GenEcdhWork(job, session); });
}

int JobGenEcdh(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_GEN_ECDH_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.dwKdf = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-kdf"));
  job.pszTargetName = GetParameterStr(pTestParam, nParameters, "-tkn");
  job.nTargetAlgId = static_cast<uint32_t>(GetParameterAlg(pTestParam, nParameters, "-k"));
  job.dwKeyFlags = LoadGenericKeyFlagsParameters(pTestParam, nParameters);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool has_len = IsParameterDefined(pTestParam, nParameters, "-len");
  DataInform inform = kFile;
  Bytes peer;
  Bytes shared_info = GetParameterHex(pTestParam, nParameters, "-si");
  bool ok = IsGivenText(job.pszKeyName) &&
            LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
            ReadJobData(pTestParam, nParameters, "-pub", inform, &peer) &&
            (job.dwKdf == QL_GEN_KEY_KDF_RAW_SECRET || job.dwKdf == QL_GEN_KEY_X9_63_SHA256) &&
            (!has_len || GetJobNumber(pTestParam, nParameters, "-len", &job.dwOutLen)) &&
            (!IsParameterDefined(pTestParam, nParameters, "-si") || !shared_info.empty()) &&
            (job.pszOutFile == nullptr || *job.pszOutFile != '\0');
  if (job.dwKdf == QL_GEN_KEY_X9_63_SHA256) {
    ok = ok && job.dwOutLen > 0;
    if (IsGivenText(job.pszTargetName)) ok = ok && job.nTargetAlgId != kNoAlg;
  } else {
    // The raw secret is handed out, never kept.
    ok = ok && job.pszTargetName == nullptr;
  }
  job.pPeerPub = &peer;
  job.pSharedInfo = &shared_info;
  return StartJob(&JobGenEcdhThread, &job.ti, sizeof job, false, ok, &ShowJobGenEcdhHelp);
}

// ---------------------------------------------------------------------------------------------
// import-pkcs8, export-pkcs8

typedef struct _JOB_PKCS8_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;   // -kn
  const char *pszPassword;  // -pwd; null or empty: not encrypted
  uint32_t dwKeyFlags;      // import
  const Bytes *pData;       // import: -in
  const char *pszOutFile;   // export: --out; null: hex on the console
} JOB_PKCS8_INFO;

namespace {

void ShowJobImportPkcs8Help() {
  JobHelpHeader(false, {"Import a private key in PKCS#8 (DER), encrypted or not."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -in     The PKCS#8 key\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -in. Default \"file\".\r\n");
  ShowHelpDataInformParameters();
  ScreenOutput("     -pwd    [OPTIONAL] Password of an encrypted PKCS#8 key\r\n");
  ShowHelpKeyAttributesParameters();
  JobHelpExamples("import-pkcs8", {"-kn myrsa -in myrsa.p8 -pwd 12345678 -exp 1"});
}

void ShowJobExportPkcs8Help() {
  JobHelpHeader(false, {"Export a private key in PKCS#8 (DER), encrypted under a password",
                        "(PBES2, AES-256-CBC, PBKDF2 with SHA-256) or in the clear."});
  ScreenOutput("     -kn     Key name\r\n");
  ScreenOutput("     -pwd    [OPTIONAL] Password. If not defined, the key is not encrypted.\r\n");
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the key is printed in\r\n");
  ScreenOutput("             hex.\r\n");
  JobHelpExamples("export-pkcs8", {"-kn myrsa -pwd 12345678 --out myrsa.p8"});
}

int ImportPkcs8Work(JOB_PKCS8_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  rc = QPKCS8ImportKey(session, job->pszKeyName, job->pszPassword, job->pData->data(),
                       static_cast<uint32_t>(job->pData->size()), job->dwKeyFlags);
  if (rc != 0) PrintJobError("QPKCS8ImportKey", rc);
  return rc;
}

int ExportPkcs8Work(JOB_PKCS8_INFO *job, HSESSIONCTX session) {
  int rc = 0;
  LibBuffer data;
  uint32_t len = 0;
  rc = QPKCS8ExportKey(session, job->pszKeyName, job->pszPassword, data.Put(), &len);
  if (rc != 0) {
    PrintJobError("QPKCS8ExportKey", rc);
    return rc;
  }
  return WriteJobOutput(job->pszOutFile, data.Get(), len, true) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobImportPkcs8Thread(void *p) {
  auto *job = static_cast<JOB_PKCS8_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ImportPkcs8Work(job, session); });
}

unsigned int JobExportPkcs8Thread(void *p) {
  auto *job = static_cast<JOB_PKCS8_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return ExportPkcs8Work(job, session); });
}

int JobImportPkcs8(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PKCS8_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-pwd");
  job.dwKeyFlags = LoadGenericKeyFlagsParameters(pTestParam, nParameters);
  DataInform inform = kFile;
  Bytes data;
  const bool ok = IsGivenText(job.pszKeyName) &&
                  LoadDataInform(pTestParam, nParameters, "-inform", &inform) &&
                  ReadJobData(pTestParam, nParameters, "-in", inform, &data);
  job.pData = &data;
  return StartJob(&JobImportPkcs8Thread, &job.ti, sizeof job, false, ok, &ShowJobImportPkcs8Help);
}

int JobExportPkcs8(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_PKCS8_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-pwd");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  const bool ok =
      IsGivenText(job.pszKeyName) && (job.pszOutFile == nullptr || *job.pszOutFile != '\0');
  return StartJob(&JobExportPkcs8Thread, &job.ti, sizeof job, false, ok, &ShowJobExportPkcs8Help);
}
