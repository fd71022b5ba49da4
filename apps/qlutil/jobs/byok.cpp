// "byok-export": a key of the HSM exported for a cloud's key import. The cloud's RSA public key
// (--pub, SubjectPublicKeyInfo in PEM or DER) goes into the HSM under a temporary name for the
// export, and is always removed afterwards.

#include <string>
#include <string_view>

#include "harness/harness.h"
#include "job.h"

typedef struct _JOB_BYOK_EXPORT_INFO {
  THREAD_INFO ti;
  const char *pszKeyName;  // -kn
  const Bytes *pPubKey;    // --pub, as DER
  uint32_t dwType;         // --type
  const char *pszLabel;    // --label (may be null)
  const char *pszOutFile;  // --out
} JOB_BYOK_EXPORT_INFO;

unsigned int JobByokExportThread(void *p);

namespace {

// The DER of a PEM public key, or the bytes as they are when they are no PEM. False when a PEM
// body does not decode.
bool PublicKeyDer(const Bytes &in, Bytes *der) {
  const std::string_view text(reinterpret_cast<const char *>(in.data()), in.size());
  const size_t begin = text.find("-----BEGIN ");
  if (begin == std::string_view::npos) {
    *der = in;
    return !der->empty();
  }
  const size_t body = text.find('\n', begin);
  const size_t end = text.find("-----END ", begin);
  if (body == std::string_view::npos || end == std::string_view::npos || end < body) return false;
  std::string base64;
  for (char c : text.substr(body + 1, end - body - 1)) {
    if (c != '\r' && c != '\n' && c != ' ' && c != '\t') base64 += c;
  }
  der->assign(base64.size(), 0);
  uint32_t len = static_cast<uint32_t>(der->size());
  if (base64.empty() || QBase642ByteArray(base64.c_str(), static_cast<uint32_t>(base64.size()),
                                          der->data(), &len) != 0) {
    return false;
  }
  der->resize(len);
  return len > 0;
}

void ShowJobByokExportHelp() {
  JobHelpHeader(false, {"Export a key for a cloud's key import (bring your own key), wrapped",
                        "under the cloud's RSA public key."});
  ScreenOutput("     -kn          Name of the key to export (made exportable)\r\n");
  ScreenOutput("     --pub        The cloud's RSA public key (2048 bits or more), PEM or DER\r\n");
  ScreenOutput("     --type       [OPTIONAL] Form of the export. Default 1.\r\n");
  ScreenOutput(
      "                  1 - RSA-AES key wrap: an AES-256 key under RSA-OAEP (SHA-256),\r\n");
  ScreenOutput(
      "                      then the key (raw or PKCS#8) wrapped with it (RFC 5649).\r\n");
  ScreenOutput("                  2 - RSA-OAEP (SHA-256) of a symmetric key alone.\r\n");
  ScreenOutput("     --label      [OPTIONAL] RSA-OAEP label (text). Default empty.\r\n");
  ScreenOutput(
      "     --out        [OPTIONAL] Output file. If not defined, the export is printed\r\n");
  ScreenOutput("                  in hex.\r\n");
  JobHelpExamples("byok-export", {"-kn myrsa --pub cloud_kek.pem --out myrsa.byok"});
}

int ByokExportWork(JOB_BYOK_EXPORT_INFO *job, QueltaClient &client) {
  char temp_name[kTempKeyNameSize] = {};
  GetTempKeyNameOffline(temp_name);
  KeyOwner kek;
  int rc = CheckJobCall(
      "ImportHSMPublicKey",
      client.ImportHSMPublicKey(*job->pPubKey, temp_name, QL_ALG_PUBLIC_KEY_BIT, 0, kek.Put()));
  if (rc != 0) return rc;
  std::string kek_id;
  rc = CheckJobCall("GetObjId", client.GetObjId(kek.Get(), &kek_id));
  Bytes out;
  if (rc == 0) {
    const std::string_view label = job->pszLabel ? job->pszLabel : "";
    rc = CheckJobCall("ByokExport", client.ByokExport(job->pszKeyName, kek_id.c_str(), job->dwType,
                                                      Bytes(label.begin(), label.end()), &out));
  }
  // The temporary KEK goes whatever happened.
  const int removed = CheckJobCall("RemoveObject", client.RemoveObject(temp_name));
  if (rc != 0) return rc;
  if (removed != 0) return removed;
  return WriteJobOutput(job->pszOutFile, out.data(), out.size()) ? 0 : QL_ERR_FILE_IO;
}

}  // namespace

unsigned int JobByokExportThread(void *p) {
  auto *job = static_cast<JOB_BYOK_EXPORT_INFO *>(p);
  return RunClientJob(&job->ti,
                      [job](QueltaClient &client) { return ByokExportWork(job, client); });
}

int JobByokExport(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_BYOK_EXPORT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszKeyName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszLabel = GetParameterStr(pTestParam, nParameters, "--label");
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.dwType = QL_BYOK_RSA_AES_KEY_WRAP;
  Bytes file, der;
  job.pPubKey = &der;
  const bool type_ok = !IsParameterDefined(pTestParam, nParameters, "--type") ||
                       (GetJobNumber(pTestParam, nParameters, "--type", &job.dwType) &&
                        (job.dwType == QL_BYOK_RSA_AES_KEY_WRAP || job.dwType == QL_BYOK_RSA_OAEP));
  const bool ok = IsGivenText(job.pszKeyName) && type_ok &&
                  ReadJobData(pTestParam, nParameters, "--pub", kFile, &file) &&
                  PublicKeyDer(file, &der) && IsOptionalTextGood(pTestParam, nParameters, "--out");
  return StartJob(&JobByokExportThread, &job.ti, sizeof job, false, ok, &ShowJobByokExportHelp);
}
