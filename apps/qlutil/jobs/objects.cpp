// Object jobs: "remove", "list-obj", "obj-info", "block-obj", "unblock-obj", "rename-obj",
// "get-obj-meta", "get-metadata-json", "set-metadata-json".

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "jobs/obj_info.h"
#include "quelta_client.h"
#include "section_table.h"

// ---------------------------------------------------------------------------------------------
// remove

typedef struct _JOB_REMOVE_INFO {
  THREAD_INFO ti;
  const char *pszFilter;  // -ft; may be null
  const char *pszName;    // -name; may be null
  int32_t RemoveUser;     // -ru: 1 users, otherwise objects
  int32_t bolIsDryRun;    // -dryrun present
} JOB_REMOVE_INFO;

// Counters of the filtered removal.
typedef struct _REMOVE_INFO {
  HSESSIONCTX ctx;  // the removing session
  const char *pszFilter;
  uint32_t nTotalObjects;
  uint32_t nDeletedObjects;
  uint32_t nDeletionFailerues;
  bool bolIsDryRun;
} REMOVE_INFO;

namespace {

void ShowJobRemoveHelp() {
  JobHelpHeader(false, {"Remove the desired objects/user from HSM"});
  ScreenOutput("     -ft     Filter: a part of the names to remove.\r\n");
  ScreenOutput("             CAUTION: This function will remove all objects where\r\n");
  ScreenOutput("             the filter matches part of the object name.\r\n");
  ScreenOutput("     -name   Exact name to remove. Cannot be used with -ft.\r\n");
  ScreenOutput("             One of -ft and -name is required.\r\n");
  ScreenOutput("     -ru     [OPTIONAL] 1: Remove users\r\n");
  ScreenOutput("                        0: Remove objects (default)\r\n");
  ScreenOutput("     -dryrun [OPTIONAL] Only report what would be removed.\r\n");
  JobHelpExamples("remove", {"-ft tmp_ -dryrun", "-name mykey", "-ru 1 -ft test_"});
}

// A list callback that appends every name and ignores the final call.
int AppendName(void *param, const char *name, int last) {
  if (!last && name != nullptr) static_cast<std::vector<std::string> *>(param)->push_back(name);
  return 0;
}

int RemoveByName(JOB_REMOVE_INFO *job, HSESSIONCTX list_session, HSESSIONCTX remove_session) {
  const bool users = job->RemoveUser == 1;
  if (job->bolIsDryRun) {
    if (users) {
      uint32_t acl = 0;
      int rc = QGetUserAcl(list_session, job->pszName, &acl);
      if (rc == QL_ERR_USER_NOT_FOUND) return 0;
      if (rc != 0) {
        PrintJobError("QGetUserAcl", rc);
        return rc;
      }
      ScreenOutput("Would remove user %s\r\n", job->pszName);
      return 0;
    }
    KeyOwner key;
    int rc = QGetUserKey(list_session, job->pszName, 0, key.Put());
    if (rc == QL_ERR_OBJ_NOT_FOUND) return 0;
    if (rc != 0) {
      PrintJobError("QGetUserKey", rc);
      return rc;
    }
    ScreenOutput("Would remove obj %s\r\n", job->pszName);
    return 0;
  }
  const int rc =
      users ? QRemoveUser(remove_session, job->pszName) : QRemoveObj(remove_session, job->pszName);
  if (rc != 0) PrintJobError(users ? "QRemoveUser" : "QRemoveObj", rc);
  return rc;
}

int RemoveFiltered(JOB_REMOVE_INFO *job, HSESSIONCTX list_session, HSESSIONCTX remove_session) {
  const bool users = job->RemoveUser == 1;
  const char *kind = users ? "users" : "objects";
  std::vector<std::string> names;
  int rc = users ? QListUsers(list_session, &AppendName, &names)
                 : QListObjs(list_session, &AppendName, &names);
  if (rc != 0) {
    PrintJobError(users ? "QListUsers" : "QListObjs", rc);
    return rc;
  }
  REMOVE_INFO info{remove_session, job->pszFilter, 0, 0, 0, job->bolIsDryRun != 0};
  bool matched = false;
  for (const std::string &name : names) {
    ++info.nTotalObjects;
    if (name.find(info.pszFilter) == std::string::npos) continue;
    matched = true;
    if (info.bolIsDryRun) {
      ScreenOutput(users ? "Would remove user %s\r\n" : "Would remove obj %s\r\n", name.c_str());
      ++info.nDeletedObjects;
      continue;
    }
    const int one =
        users ? QRemoveUser(info.ctx, name.c_str()) : QRemoveObj(info.ctx, name.c_str());
    if (one == 0) {
      ++info.nDeletedObjects;
    } else {
      ++info.nDeletionFailerues;
    }
  }
  if (matched && info.bolIsDryRun) ScreenOutput("\r\n");
  ScreenOutput("Total %s    : %lu\r\n", kind, static_cast<unsigned long>(info.nTotalObjects));
  if (info.bolIsDryRun) {
    ScreenOutput("Removable %s: %lu\r\n", kind, static_cast<unsigned long>(info.nDeletedObjects));
  } else {
    ScreenOutput("Deleted %s  : %lu\r\n", kind, static_cast<unsigned long>(info.nDeletedObjects));
  }
  ScreenOutput("Failed           : %lu\r\n", static_cast<unsigned long>(info.nDeletionFailerues));
  return 0;
}

int JobRemoveWork(JOB_REMOVE_INFO *job, HSESSIONCTX list_session) {
  SessionOwner remove_session;
  const int rc = ConnectEx(remove_session.Put(), &job->ti);
  if (rc != 0) {
    PrintJobError("ConnectEx(2)", rc);
    return rc;
  }
  if (job->pszName != nullptr) return RemoveByName(job, list_session, remove_session.Get());
  return RemoveFiltered(job, list_session, remove_session.Get());
}

}  // namespace

unsigned int JobRemoveThread(void *p) {
  auto *job = static_cast<JOB_REMOVE_INFO *>(p);
  return RunSessionJob(&job->ti,
                       [job](HSESSIONCTX session) { return JobRemoveWork(job, session); });
}

int JobRemove(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_REMOVE_INFO job{};
  LoadGenericParameters(&job.ti, pTestParam, nParameters);
  ForceSingleJobRun(&job.ti);
  job.pszFilter = GetParameterStr(pTestParam, nParameters, "-ft");
  job.pszName = GetParameterStr(pTestParam, nParameters, "-name");
  job.RemoveUser = GetParameterInt(pTestParam, nParameters, "-ru") == 1 ? 1 : 0;
  job.bolIsDryRun = IsParameterDefined(pTestParam, nParameters, "-dryrun") ? 1 : 0;
  // The two exclude each other, and a bare "remove" (or an empty filter, which matches every
  // name) is refused so that it can never empty an HSM.
  const bool has_filter = job.pszFilter != nullptr && *job.pszFilter != '\0';
  const bool has_name = job.pszName != nullptr && *job.pszName != '\0';
  const bool ok = has_filter != has_name && (job.pszFilter == nullptr || has_filter) &&
                  (job.pszName == nullptr || has_name);
  return StartJob(&JobRemoveThread, &job.ti, sizeof job, false, ok, &ShowJobRemoveHelp);
}

// ---------------------------------------------------------------------------------------------
// list-obj

typedef struct _JOB_LIST_OBJ_INFO {
  THREAD_INFO ti;
  const char *pszOutFile;  // --out; null: the console
  DataFileOutform eOutform;
  int32_t bAttr;  // --attr present
} JOB_LIST_OBJ_INFO;

namespace {

void ShowJobListObjectsHelp() {
  JobHelpHeader(false, {"List the objects of the HSM user."});
  ScreenOutput("     --out      [OPTIONAL] Output file. If not defined, the list is printed.\r\n");
  ScreenOutput("     --outform  [OPTIONAL] Output file format. Default \"original\".\r\n");
  ShowHelpFileOutformParameters();
  ScreenOutput("     --attr     [OPTIONAL] Add the type, algorithm, flags and owner of each\r\n");
  ScreenOutput("                object.\r\n");
  JobHelpExamples("list-obj", {"", "--attr --out objs.csv --outform csv"});
}

int AppendObjInfo(void *param, const char *name, int last) {
  if (!last && name != nullptr) static_cast<std::vector<ObjInfo> *>(param)->emplace_back(name);
  return 0;
}

void DumpObjs(HSESSIONCTX session, std::vector<ObjInfo> &objects, const char *out_file,
              DataFileOutform outform, bool attr) {
  std::unique_ptr<FILE, int (*)(FILE *)> file(nullptr, &fclose);
  if (out_file != nullptr) {
    file.reset(fopen(out_file, "w"));
    if (!file) {
      ScreenOutput("Error opening file %s\r\n", out_file);
      return;
    }
  }
  auto put = [&](const std::string &line) {
    if (file) {
      fprintf(file.get(), "%s\n", line.c_str());
    } else {
      ScreenOutput("%s\n", line.c_str());
    }
  };
  const bool csv = outform == kCsv;
  put(ObjInfo::GetStringHeader(csv, attr));
  for (ObjInfo &obj : objects) {
    if (attr) obj.UpdateObjAttributes(session);
    put(obj.GetString(csv, attr));
  }
}

}  // namespace

unsigned int JobListObjectsThread(void *p) {
  auto *job = static_cast<JOB_LIST_OBJ_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    std::vector<ObjInfo> objects;
    const int rc = QListObjs(session, &AppendObjInfo, &objects);
    if (rc != 0) {
      // This job's own message style; the listing failure is reported, not stored in the record.
      ScreenOutput("[JobListObjectsThread] Fail in QListObjs. rc = %d\r\n", rc);
      return 0;
    }
    DumpObjs(session, objects, job->pszOutFile, job->eOutform, job->bAttr != 0);
    return 0;
  });
}

int JobListObjects(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_LIST_OBJ_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  job.eOutform = GetParameterFileOutform(pTestParam, nParameters, "--outform", kOriginal);
  job.bAttr = IsParameterDefined(pTestParam, nParameters, "--attr") ? 1 : 0;
  // A given but unknown --outform word is refused rather than silently taken as the default.
  const char *outform = GetParameterStr(pTestParam, nParameters, "--outform");
  const bool ok =
      (job.pszOutFile == nullptr || *job.pszOutFile != '\0') &&
      (outform == nullptr || strcmp(outform, "original") == 0 || strcmp(outform, "csv") == 0);
  return StartJob(&JobListObjectsThread, &job.ti, sizeof job, false, ok, &ShowJobListObjectsHelp);
}

// ---------------------------------------------------------------------------------------------
// obj-info

typedef struct _JOB_OBJ_INFO_INFO {
  THREAD_INFO ti;
  const char *pszObjName;  // -kn
} JOB_OBJ_INFO_INFO;

namespace {

void ShowJobObjInfoHelp() {
  JobHelpHeader(false, {"Show the information the HSM keeps about one object: its attributes, a",
                        "certificate's fields, the names a map holds, and its metadata records."});
  ScreenOutput("     -kn     Object name (another user's object: owner/object)\r\n");
  JobHelpExamples("obj-info", {"-kn mykey"});
}

std::string TimeText(uint64_t seconds) {
  if (seconds == 0) return "-";
  time_t t = static_cast<time_t>(seconds);
  struct tm tm_utc {};
#ifdef _WIN32
  gmtime_s(&tm_utc, &t);
#else
  gmtime_r(&t, &tm_utc);
#endif
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &tm_utc);
  return text;
}

}  // namespace

namespace {

int DestroyMetadata(HOBJMETACTX *meta) {
  return QDestroyObjMetadata(meta, 0);
}
using MetadataOwner = QLUniquePtr<HOBJMETACTX, &DestroyMetadata>;

int CollectMetaType(void *param, const char *line, int last) {
  if (!last && line != nullptr) static_cast<std::vector<std::string> *>(param)->push_back(line);
  return 0;
}

std::string UpperHex(const unsigned char *data, size_t len) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < len; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 0xF];
  }
  return out;
}

// A certificate's fields, read through its DER.
int AddCertificateRows(HSESSIONCTX session, const char *name, SectionTable *table) {
  KeyOwner cert;
  int rc = CheckJobCall("QGetUserKey", QGetUserKey(session, name, 0, cert.Put()));
  if (rc != 0) return rc;
  uint32_t len = 0;
  rc = QExportKey(cert.Get(), nullptr, QL_CERT_BLOB, 0, nullptr, &len);
  if (rc != QL_ERR_BUFFER_TOO_SMALL && rc != 0) return CheckJobCall("QExportKey", rc);
  std::vector<unsigned char> der(len);
  rc = CheckJobCall("QExportKey",
                    QExportKey(cert.Get(), nullptr, QL_CERT_BLOB, 0, der.data(), &len));
  if (rc != 0) return rc;
  QL_CERT_INFO info{};
  rc = CheckJobCall("QCert2CertInfo", QCert2CertInfo(der.data(), len, &info));
  if (rc != 0) return rc;
  table->AddRow("Subject", "%s", info.szSubject);
  table->AddRow("Issuer", "%s", info.szIssuer);
  table->AddRow("Serial", "%s", info.szSerial);
  table->AddRow("Not before", "%s", TimeText(info.qwNotBefore).c_str());
  table->AddRow("Not after", "%s", TimeText(info.qwNotAfter).c_str());
  table->AddRow("Key", "%s", ObjInfo::AlgorithmWord(info.dwKeyAlgId).c_str());
  return 0;
}

int AddMapRows(HSESSIONCTX session, const char *name, SectionTable *table) {
  QL_PKCS11_MAP map{};
  const int rc = CheckJobCall("QGetPkcs11Map", QGetPkcs11Map(session, name, &map));
  if (rc != 0) return rc;
  table->AddRow("Private key", "%s", map.szPrivateKey[0] ? map.szPrivateKey : "-");
  table->AddRow("Public key", "%s", map.szPublicKey[0] ? map.szPublicKey : "-");
  table->AddRow("Certificate", "%s", map.szCertificate[0] ? map.szCertificate : "-");
  return 0;
}

// The object's metadata records, one row each: texts and dates as they are, bytes in hex.
int AddMetadataRows(HSESSIONCTX session, const char *name, SectionTable *table) {
  MetadataOwner meta;
  int rc = CheckJobCall("QCreateObjMetadata", QCreateObjMetadata(meta.Put(), 0));
  if (rc != 0) return rc;
  rc = CheckJobCall("QManageObjMetadata",
                    QManageObjMetadata(session, 1, name, nullptr, meta.Get(), 0));
  if (rc != 0) return rc;
  std::vector<std::string> types;
  rc = CheckJobCall("QGetObjMetadataTypeInfoList",
                    QGetObjMetadataTypeInfoList(session, &CollectMetaType, &types));
  if (rc != 0) return rc;
  for (const std::string &line : types) {
    unsigned id = 0;
    char type_name[64] = {}, kind[16] = {};
    if (sscanf(line.c_str(), "%u %63s %15s", &id, type_name, kind) != 3) continue;
    uint32_t len = 0;
    rc = QGetObjMetadata(meta.Get(), id, nullptr, &len, 0);
    if (rc == QL_ERR_OBJ_NOT_FOUND) continue;
    if (rc != QL_ERR_BUFFER_TOO_SMALL && rc != 0) return CheckJobCall("QGetObjMetadata", rc);
    std::vector<unsigned char> value(len);
    rc = CheckJobCall("QGetObjMetadata", QGetObjMetadata(meta.Get(), id, value.data(), &len, 0));
    if (rc != 0) return rc;
    const std::string row = std::string("Meta ") + type_name;
    if (strcmp(kind, "text") == 0 || strcmp(kind, "date") == 0)
      table->AddRow(row, "%.*s", static_cast<int>(len),
                    reinterpret_cast<const char *>(value.data()));
    else
      table->AddRow(row, "%s", UpperHex(value.data(), len).c_str());
  }
  return 0;
}

}  // namespace

unsigned int JobObjInfoThread(void *p) {
  auto *job = static_cast<JOB_OBJ_INFO_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    QL_OBJ_INFO info{};
    int rc = CheckJobCall("QGetObjInfo", QGetObjInfo(session, job->pszObjName, &info));
    if (rc != 0) return rc;
    SectionTable table("Object", 10);
    table.AddRow("Name", "%s", info.szName);
    table.AddRow("Owner", "%s", info.szOwner);
    table.AddRow("Type", "%s", ObjInfo::TypeWord(info.dwType).c_str());
    table.AddRow("Algorithm", "%s", ObjInfo::AlgorithmWord(info.dwType).c_str());
    table.AddRow("Flags", "0x%08X", info.dwFlags);
    table.AddRow("Blocked", "%s", info.dwBlocked ? "yes" : "no");
    table.AddRow("Created", "%s", TimeText(info.stStats.qwCreated).c_str());
    table.AddRow("Modified", "%s", TimeText(info.stStats.qwModified).c_str());
    table.AddRow("Size", "%u", info.stStats.dwSize);
    table.AddRow("Use count", "%u", info.stStats.dwUseCount);
    if (info.dwType == QL_OBJ_X509) rc = AddCertificateRows(session, job->pszObjName, &table);
    if (rc == 0 && info.dwType == QL_OBJ_MAP) rc = AddMapRows(session, job->pszObjName, &table);
    if (rc == 0) rc = AddMetadataRows(session, job->pszObjName, &table);
    if (rc == 0) table.Print();
    return rc;
  });
}

int JobObjInfo(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_OBJ_INFO_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszObjName = GetParameterStr(pTestParam, nParameters, "-kn");
  const bool ok = job.pszObjName != nullptr && *job.pszObjName != '\0';
  return StartJob(&JobObjInfoThread, &job.ti, sizeof job, false, ok, &ShowJobObjInfoHelp);
}

// ---------------------------------------------------------------------------------------------
// block-obj, unblock-obj: one routine, the record says which.

typedef struct _JOB_BLOCK_OBJ_INFO {
  THREAD_INFO ti;
  const char *pszObjName;  // -kn
  int32_t bBlock;          // 1 block, 0 unblock
} JOB_BLOCK_OBJ_INFO;

unsigned int JobBlockObjThread(void *p);

namespace {

void ShowJobBlockObjHelp() {
  JobHelpHeader(false, {"Block an object: it stays in the HSM but cannot be used."});
  ScreenOutput("     -kn     Object name\r\n");
  JobHelpExamples("block-obj", {"-kn mykey"});
}

void ShowJobUnblockObjHelp() {
  JobHelpHeader(false, {"Unblock an object blocked with block-obj."});
  ScreenOutput("     -kn     Object name\r\n");
  JobHelpExamples("unblock-obj", {"-kn mykey"});
}

int StartBlockObj(TEST_PARAMETER *pTestParam, int nParameters, bool block) {
  JOB_BLOCK_OBJ_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszObjName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.bBlock = block ? 1 : 0;
  const bool ok = job.pszObjName != nullptr && *job.pszObjName != '\0';
  return StartJob(&JobBlockObjThread, &job.ti, sizeof job, false, ok,
                  block ? &ShowJobBlockObjHelp : &ShowJobUnblockObjHelp);
}

}  // namespace

unsigned int JobBlockObjThread(void *p) {
  auto *job = static_cast<JOB_BLOCK_OBJ_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    const int rc = CheckJobCall("SetKeyBlockStatus",
                                client.SetKeyBlockStatus(job->pszObjName, job->bBlock != 0));
    if (rc == 0) {
      ScreenOutput("Object %s %s.\r\n", job->pszObjName, job->bBlock ? "blocked" : "unblocked");
    }
    return rc;
  });
}

int JobBlockObj(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartBlockObj(pTestParam, nParameters, true);
}

int JobUnblockObj(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartBlockObj(pTestParam, nParameters, false);
}

// ---------------------------------------------------------------------------------------------
// rename-obj

typedef struct _JOB_RENAME_OBJ_INFO {
  THREAD_INFO ti;
  const char *pszObjName;  // -kn
  const char *pszNewName;  // -newkn
} JOB_RENAME_OBJ_INFO;

namespace {

void ShowJobRenameObjHelp() {
  JobHelpHeader(false, {"Rename an object."});
  ScreenOutput("     -kn     Object name\r\n");
  ScreenOutput("     -newkn  New object name\r\n");
  JobHelpExamples("rename-obj", {"-kn mykey -newkn mynewkey"});
}

}  // namespace

unsigned int JobRenameObjThread(void *p) {
  auto *job = static_cast<JOB_RENAME_OBJ_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    int rc = 0;
    rc = QRenameObj(session, job->pszObjName, job->pszNewName);
    if (rc != 0) {
      PrintJobError("QRenameObj", rc);
    } else {
      ScreenOutput("Object %s renamed to %s.\r\n", job->pszObjName, job->pszNewName);
    }
    return rc;
  });
}

int JobRenameObj(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_RENAME_OBJ_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszObjName = GetParameterStr(pTestParam, nParameters, "-kn");
  job.pszNewName = GetParameterStr(pTestParam, nParameters, "-newkn");
  const bool ok = job.pszObjName != nullptr && *job.pszObjName != '\0' &&
                  job.pszNewName != nullptr && *job.pszNewName != '\0';
  return StartJob(&JobRenameObjThread, &job.ti, sizeof job, false, ok, &ShowJobRenameObjHelp);
}

// ---------------------------------------------------------------------------------------------
// get-obj-meta, get-metadata-json, set-metadata-json: the object's metadata as JSON text.

typedef struct _JOB_METADATA_JSON_INFO {
  THREAD_INFO ti;
  const char *pszObjName;  // -kn
  uint32_t dwType;         // -type: which metadata set (0: the object's own)
  const char *pszOutFile;  // --out (get); null: the console
  const char *pszJson;     // -json (set): the text, or the file that holds it
  TextInform eInform;      // -inform (set)
} JOB_METADATA_JSON_INFO;

namespace {

void ShowJobGetObjMetadataHelp() {
  JobHelpHeader(false, {"Show the metadata of an object as JSON."});
  ScreenOutput("     -kn     Object name\r\n");
  ScreenOutput("     -type   [OPTIONAL] Metadata type. 0 (default): the object's own.\r\n");
  JobHelpExamples("get-obj-meta", {"-kn mykey"});
}

void ShowJobGetMetadataJsonHelp() {
  JobHelpHeader(false, {"Read the metadata of an object as JSON."});
  ScreenOutput("     -kn     Object name\r\n");
  ScreenOutput("     -type   [OPTIONAL] Metadata type. 0 (default): the object's own.\r\n");
  ScreenOutput("     --out   [OPTIONAL] Output file. If not defined, the JSON is printed.\r\n");
  JobHelpExamples("get-metadata-json", {"-kn mykey --out mykey.json"});
}

void ShowJobSetMetadataJsonHelp() {
  JobHelpHeader(false, {"Write the metadata of an object from JSON."});
  ScreenOutput("     -kn     Object name\r\n");
  ScreenOutput("     -json   The JSON text, or the name of the file that holds it.\r\n");
  ScreenOutput("     -inform [OPTIONAL] Format of -json. Default \"file\".\r\n");
  ShowHelpDataTextInformParameters();
  JobHelpExamples("set-metadata-json",
                  {"-kn mykey -json mykey.json", "-kn mykey -inform text -json {\"label\":\"a\"}"});
}

bool LoadMetadataJob(JOB_METADATA_JSON_INFO *job, TEST_PARAMETER *pTestParam, int nParameters) {
  LoadJobParameters(&job->ti, pTestParam, nParameters, false);
  job->pszObjName = GetParameterStr(pTestParam, nParameters, "-kn");
  job->dwType = 0;
  if (IsParameterDefined(pTestParam, nParameters, "-type") &&
      !GetJobNumber(pTestParam, nParameters, "-type", &job->dwType)) {
    return false;
  }
  return job->pszObjName != nullptr && *job->pszObjName != '\0';
}

}  // namespace

unsigned int JobGetMetadataJsonThread(void *p) {
  auto *job = static_cast<JOB_METADATA_JSON_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    std::string json;
    const int rc = CheckJobCall("GetObjMetadataJson",
                                client.GetObjMetadataJson(job->pszObjName, job->dwType, &json));
    if (rc != 0) return rc;
    if (job->pszOutFile != nullptr) {
      return WriteLocalFile(job->pszOutFile, reinterpret_cast<const unsigned char *>(json.data()),
                            json.size())
                 ? 0
                 : QL_ERR_FILE_IO;
    }
    ScreenOutput("%s\r\n", json.c_str());
    return 0;
  });
}

unsigned int JobSetMetadataJsonThread(void *p) {
  auto *job = static_cast<JOB_METADATA_JSON_INFO *>(p);
  std::string json;
  if (job->eInform == kTextString) {
    json = job->pszJson;
  } else {
    Bytes data;
    if (!ReadLocalFile(job->pszJson, &data)) {
      ScreenOutput("Error opening file %s\r\n", job->pszJson);
      PublishJobError(&job->ti, QL_ERR_FILE_IO);
      return 1;
    }
    json.assign(data.begin(), data.end());
  }
  return RunClientJob(&job->ti, [job, &json](QueltaClient &client) {
    const int rc =
        CheckJobCall("SetObjMetadataJson", client.SetObjMetadataJson(job->pszObjName, json));
    if (rc == 0) ScreenOutput("Metadata of %s written.\r\n", job->pszObjName);
    return rc;
  });
}

int JobGetObjMetadata(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_METADATA_JSON_INFO job{};
  const bool ok = LoadMetadataJob(&job, pTestParam, nParameters);
  return StartJob(&JobGetMetadataJsonThread, &job.ti, sizeof job, false, ok,
                  &ShowJobGetObjMetadataHelp);
}

int JobGetMetadataJson(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_METADATA_JSON_INFO job{};
  bool ok = LoadMetadataJob(&job, pTestParam, nParameters);
  job.pszOutFile = GetParameterStr(pTestParam, nParameters, "--out");
  ok = ok && (job.pszOutFile == nullptr || *job.pszOutFile != '\0');
  return StartJob(&JobGetMetadataJsonThread, &job.ti, sizeof job, false, ok,
                  &ShowJobGetMetadataJsonHelp);
}

int JobSetMetadataJson(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_METADATA_JSON_INFO job{};
  bool ok = LoadMetadataJob(&job, pTestParam, nParameters);
  job.pszJson = GetParameterStr(pTestParam, nParameters, "-json");
  job.eInform = GetParameterTextInform(pTestParam, nParameters, "-inform", kTextFile);
  const char *inform = GetParameterStr(pTestParam, nParameters, "-inform");
  ok = ok && job.pszJson != nullptr && *job.pszJson != '\0' &&
       (inform == nullptr || strcmp(inform, "file") == 0 || strcmp(inform, "text") == 0);
  return StartJob(&JobSetMetadataJsonThread, &job.ti, sizeof job, false, ok,
                  &ShowJobSetMetadataJsonHelp);
}
