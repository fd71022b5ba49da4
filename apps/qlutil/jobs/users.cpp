// User jobs: "create-user", "remove-user", "block-user", "unblock-user", "set-pwd",
// "list-users", "set-user-sys-perm", "set-user-part-perm", "assign-x509", "unassign-x509".

#include <cstring>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "job.h"
#include "quelta_client.h"

namespace {

// Copies a name or password into a 17-byte field of QL_USER_INFO. A longer text fills the
// field without a terminator, which the HSM refuses with its own code.
void CopyUserField(char (&field)[17], const char *text) {
  const size_t len = strlen(text);
  memcpy(field, text, len < sizeof field ? len : sizeof field);
}

void PrintUserRightsHelp() {
  ScreenOutput("     -operator           [OPTIONAL] Grant operator permission (every other\r\n");
  ScreenOutput("                         switch is then ignored)\r\n");
  ScreenOutput("     -usr_create         [OPTIONAL] Grant create and remove users permission\r\n");
  ScreenOutput("     -usr_list           [OPTIONAL] Grant list users permission\r\n");
  ScreenOutput("     -remote_log         [OPTIONAL] Grant remote log permission\r\n");
  ScreenOutput("     -backup             [OPTIONAL] Grant backup and restore permission\r\n");
  ScreenOutput("     -firm_update        [OPTIONAL] Grant firmware update permission\r\n");
  ScreenOutput("     -ns_auth            [OPTIONAL] Require two-factor authentication\r\n");
  ScreenOutput("     -cold_partition     [OPTIONAL] Create the user in a cold partition\r\n");
  ScreenOutput(
      "     -acl                [OPTIONAL] Further access mask bits (decimal or 0x hex),\r\n");
  ScreenOutput("                         such as the object rights: 0x1 remove, 0x2 read,\r\n");
  ScreenOutput("                         0x4 create, 0x8 update.\r\n");
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// create-user, remove-user

typedef struct _JOB_USER_INFO {
  THREAD_INFO ti;
  const char *pszUserName;  // -un
  const char *pszPassword;  // -pwd (create-user, set-pwd)
  uint32_t dwAcl;           // create-user
  int32_t bBlock;           // block-user 1, unblock-user 0
} JOB_USER_INFO;

namespace {

void ShowJobCreateUserHelp() {
  JobHelpHeader(false, {"Create an HSM user."});
  ScreenOutput("     -un                 User name (at most 16 characters)\r\n");
  ScreenOutput("     -pwd                User password (at most 16 characters)\r\n");
  PrintUserRightsHelp();
  JobHelpExamples("create-user", {"-un alice -pwd 12345678 -usr_list -acl 0xF"});
}

void ShowJobRemoveUserHelp() {
  JobHelpPage("remove-user", {"Remove an HSM user and the objects it owns."}, {"-un     User name"},
              {"-un alice"});
}

}  // namespace

unsigned int JobCreateUserThread(void *p) {
  auto *job = static_cast<JOB_USER_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    QL_USER_INFO user{};
    CopyUserField(user.szUserId, job->pszUserName);
    CopyUserField(user.szPassword, job->pszPassword);
    user.dwAcl = job->dwAcl;
    const int rc = CheckJobCall("QCreateUser", QCreateUser(session, &user));
    if (rc == 0) {
      ScreenOutput("User %s created (access mask 0x%08X).\r\n", job->pszUserName, job->dwAcl);
    }
    return rc;
  });
}

int JobCreateUser(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_USER_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  char *password = nullptr;
  LoadUserCreationParams(&password, &job.dwAcl, pTestParam, nParameters);
  job.pszPassword = password;
  bool ok = IsGivenText(job.pszUserName) && IsGivenText(job.pszPassword);
  if (IsParameterDefined(pTestParam, nParameters, "-acl")) {
    uint32_t extra = 0;
    ok = ok && GetJobNumber(pTestParam, nParameters, "-acl", &extra);
    job.dwAcl |= extra;
  }
  return StartJob(&JobCreateUserThread, &job.ti, sizeof job, false, ok, &ShowJobCreateUserHelp);
}

unsigned int JobRemoveUserThread(void *p) {
  auto *job = static_cast<JOB_USER_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc = CheckJobCall("QRemoveUser", QRemoveUser(session, job->pszUserName));
    if (rc == 0) ScreenOutput("User %s removed.\r\n", job->pszUserName);
    return rc;
  });
}

namespace {

// The front of the jobs whose one option is the user's name (-un).
int StartUserNameJob(TEST_PARAMETER *pTestParam, int nParameters, pfn_TestThread routine,
                     int32_t block, void (*show_help)()) {
  JOB_USER_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  job.bBlock = block;
  return StartJob(routine, &job.ti, sizeof job, false, IsGivenText(job.pszUserName), show_help);
}

}  // namespace

int JobRemoveUser(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartUserNameJob(pTestParam, nParameters, &JobRemoveUserThread, 0, &ShowJobRemoveUserHelp);
}

// ---------------------------------------------------------------------------------------------
// block-user, unblock-user: one routine.

namespace {

void ShowJobBlockUserHelp() {
  JobHelpPage("block-user", {"Block an HSM user: its logins are refused until it is unblocked."},
              {"-un     User name"}, {"-un alice"});
}

void ShowJobUnblockUserHelp() {
  JobHelpPage("unblock-user", {"Unblock an HSM user."}, {"-un     User name"}, {"-un alice"});
}

}  // namespace

unsigned int JobBlockUserThread(void *p) {
  auto *job = static_cast<JOB_USER_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    const int rc = job->bBlock ? CheckJobCall("BlockUser", client.BlockUser(job->pszUserName))
                               : CheckJobCall("UnblockUser", client.UnblockUser(job->pszUserName));
    if (rc == 0) {
      ScreenOutput("User %s %s.\r\n", job->pszUserName, job->bBlock ? "blocked" : "unblocked");
    }
    return rc;
  });
}

int JobBlockUser(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartUserNameJob(pTestParam, nParameters, &JobBlockUserThread, 1, &ShowJobBlockUserHelp);
}

int JobUnblockUser(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartUserNameJob(pTestParam, nParameters, &JobBlockUserThread, 0, &ShowJobUnblockUserHelp);
}

// ---------------------------------------------------------------------------------------------
// set-pwd

namespace {

void ShowJobSetPasswordHelp() {
  JobHelpPage("set-pwd",
              {"Change the password of the logged-in user, or (operators) of another", "user."},
              {"-newpwd New password (at most 16 characters)",
               "-un     [OPTIONAL] The user whose password changes. If not defined,",
               "        the logged-in user's."},
              {"-newpwd 87654321", "-un alice -newpwd 87654321"});
}

}  // namespace

unsigned int JobSetPasswordThread(void *p) {
  auto *job = static_cast<JOB_USER_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    if (job->pszUserName == nullptr) {
      const int rc = CheckJobCall("SetUserPassword", client.SetUserPassword(job->pszPassword));
      if (rc == 0) ScreenOutput("Password changed.\r\n");
      return rc;
    }
    QL_USER_INFO user{};
    CopyUserField(user.szUserId, job->pszUserName);
    CopyUserField(user.szPassword, job->pszPassword);
    const int rc =
        CheckJobCall("SetUserParam", client.SetUserParam(QL_UP_USER_PASSWORD, &user, sizeof user));
    if (rc == 0) ScreenOutput("Password of %s changed.\r\n", job->pszUserName);
    return rc;
  });
}

int JobSetPassword(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_USER_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-newpwd");
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  const bool ok =
      IsGivenText(job.pszPassword) &&
      (!IsParameterDefined(pTestParam, nParameters, "-un") || IsGivenText(job.pszUserName));
  return StartJob(&JobSetPasswordThread, &job.ti, sizeof job, false, ok, &ShowJobSetPasswordHelp);
}

// ---------------------------------------------------------------------------------------------
// list-users

namespace {

void ShowJobListUsersHelp() {
  JobHelpPage("list-users", {"List the HSM users."}, {}, {""});
}

}  // namespace

unsigned int JobListUsersThread(void *p) {
  auto *job = static_cast<JOB_USER_INFO *>(p);
  return RunClientJob(&job->ti, [](QueltaClient &client) {
    std::vector<std::string> users;
    const int rc = CheckJobCall("ListUsers", client.ListUsers(&users));
    if (rc == 0) {
      for (const std::string &user : users) ScreenOutput("%s\r\n", user.c_str());
    }
    return rc;
  });
}

int JobListUsers(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_USER_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  return StartJob(&JobListUsersThread, &job.ti, sizeof job, false, true, &ShowJobListUsersHelp);
}

// ---------------------------------------------------------------------------------------------
// set-user-sys-perm, set-user-part-perm: read the user's access mask, change it, write it back.

typedef struct _JOB_USER_PERM_INFO {
  THREAD_INFO ti;
  const char *pszUserName;  // -un
  uint32_t dwGrant;         // bits whose switch said 1
  uint32_t dwRevoke;        // bits whose switch said 0
} JOB_USER_PERM_INFO;

unsigned int JobSetUserSysPermissionsThread(void *p);

namespace {

struct PermSwitch {
  const char *name;
  uint32_t bit;
  const char *text;
};

constexpr PermSwitch kSysPerms[] = {
    {"-operator", ACL_SYS_OPERATOR, "Operator: every administrative request"},
    {"-usr_create", ACL_USR_CREATE, "Create and remove users"},
    {"-usr_list", ACL_USR_LIST, "List users"},
    {"-remote_log", ACL_USR_REMOTE_LOG, "Remote log and statistics"},
    {"-backup", ACL_SYS_BACKUP, "Backup and restore"},
    {"-firm_update", ACL_SYS_UDATE_HSM, "Firmware update"},
    {"-ns_auth", ACL_NS_AUTHORIZATION, "Two-factor authentication"},
    {"-cold_partition", ACL_CHANGE_COLD_PARTITION, "Cold partition"},
};

constexpr PermSwitch kPartPerms[] = {
    {"-obj_del", ACL_OBJ_DEL, "Remove and rename objects"},
    {"-obj_read", ACL_OBJ_READ, "Read and use objects"},
    {"-obj_create", ACL_OBJ_CREATE, "Create objects"},
    {"-obj_update", ACL_OBJ_UPDATE, "Update objects (block, metadata)"},
};

template <size_t N>
void PrintPermSwitches(const PermSwitch (&perms)[N]) {
  for (const PermSwitch &perm : perms) {
    ScreenOutput("     %-20s[OPTIONAL] %s\r\n", perm.name, perm.text);
  }
  ScreenOutput("                         1: grant, 0: revoke. At least one is required.\r\n");
}

void ShowJobSetUserSysPermHelp() {
  JobHelpHeader(false, {"Grant or revoke system permissions of an HSM user."});
  ScreenOutput("     -un                 User name\r\n");
  PrintPermSwitches(kSysPerms);
  JobHelpExamples("set-user-sys-perm", {"-un alice -usr_list 1 -backup 0"});
}

void ShowJobSetUserPartPermHelp() {
  JobHelpHeader(false, {"Grant or revoke the object permissions of an HSM user."});
  ScreenOutput("     -un                 User name\r\n");
  PrintPermSwitches(kPartPerms);
  JobHelpExamples("set-user-part-perm", {"-un alice -obj_create 1 -obj_del 0"});
}

// Reads the 1/0 switches into the grant and revoke masks. False when a switch holds another
// value or none was given.
template <size_t N>
bool LoadPermSwitches(const PermSwitch (&perms)[N], TEST_PARAMETER *pTestParam, int nParameters,
                      JOB_USER_PERM_INFO *job) {
  bool any = false;
  for (const PermSwitch &perm : perms) {
    if (!IsParameterDefined(pTestParam, nParameters, perm.name)) continue;
    const char *value = GetParameterStr(pTestParam, nParameters, perm.name);
    if (value != nullptr && strcmp(value, "1") == 0) {
      job->dwGrant |= perm.bit;
    } else if (value != nullptr && strcmp(value, "0") == 0) {
      job->dwRevoke |= perm.bit;
    } else {
      return false;
    }
    any = true;
  }
  return any;
}

template <size_t N>
int StartUserPerm(const PermSwitch (&perms)[N], TEST_PARAMETER *pTestParam, int nParameters,
                  void (*show_help)()) {
  JOB_USER_PERM_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  const bool ok =
      IsGivenText(job.pszUserName) && LoadPermSwitches(perms, pTestParam, nParameters, &job);
  return StartJob(&JobSetUserSysPermissionsThread, &job.ti, sizeof job, false, ok, show_help);
}

}  // namespace

unsigned int JobSetUserSysPermissionsThread(void *p) {
  auto *job = static_cast<JOB_USER_PERM_INFO *>(p);
  return RunClientJob(&job->ti, [job](QueltaClient &client) {
    uint32_t acl = 0;
    int rc = CheckJobCall("GetUserAcl", client.GetUserAcl(job->pszUserName, &acl));
    if (rc != 0) return rc;
    const uint32_t new_acl = (acl | job->dwGrant) & ~job->dwRevoke;
    rc = CheckJobCall("SetUserAcl", client.SetUserAcl(job->pszUserName, new_acl));
    if (rc == 0) {
      ScreenOutput("Access mask of %s: 0x%08X -> 0x%08X\r\n", job->pszUserName, acl, new_acl);
    }
    return rc;
  });
}

int JobSetUserSysPermissions(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartUserPerm(kSysPerms, pTestParam, nParameters, &ShowJobSetUserSysPermHelp);
}

int JobSetUserPartitionPermissions(TEST_PARAMETER *pTestParam, int nParameters) {
  return StartUserPerm(kPartPerms, pTestParam, nParameters, &ShowJobSetUserPartPermHelp);
}

// ---------------------------------------------------------------------------------------------
// assign-x509, unassign-x509

typedef struct _JOB_USER_CERT_INFO {
  THREAD_INFO ti;
  const Bytes *pCert;       // assign: -in, read by the front function, which outlives the run
  const char *pszUserName;  // unassign: -un, optional
} JOB_USER_CERT_INFO;

namespace {

void ShowJobAssignX509Help() {
  JobHelpPage("assign-x509",
              {"Bind an X.509 certificate to the logged-in user as the second factor of",
               "its logins: from then on the user logs in with its password over a TLS",
               "session that presents this certificate and its key (library: dwAuthType",
               "QL_STRONG_AUTH_X509), and a login without it is refused. qlutil itself",
               "logs in with the password alone. A user holds one second factor: one",
               "with an OATH token is refused."},
              {"-in     Certificate file (DER or PEM), valid now"}, {"-in alice.pem"});
}

void ShowJobUnassignX509Help() {
  JobHelpPage(
      "unassign-x509",
      {"Remove a login certificate: the user logs in with its password alone",
       "again. Removing one that is not there succeeds."},
      {"-un     [OPTIONAL] The user (operators). If not defined, the logged-in", "        user."},
      {"", "-un alice"});
}

}  // namespace

unsigned int JobAssignX509Thread(void *p) {
  auto *job = static_cast<JOB_USER_CERT_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc =
        CheckJobCall("QSetUserParam", QSetUserParam(session, QL_UP_X509_ASSIGN, job->pCert->data(),
                                                    static_cast<uint32_t>(job->pCert->size())));
    if (rc == 0) ScreenOutput("Certificate assigned.\r\n");
    return rc;
  });
}

int JobAssignX509(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_USER_CERT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  const char *in = GetParameterStr(pTestParam, nParameters, "-in");
  Bytes cert;
  const bool ok = IsGivenText(in) && ReadLocalFile(in, &cert) && !cert.empty();
  job.pCert = &cert;
  return StartJob(&JobAssignX509Thread, &job.ti, sizeof job, false, ok, &ShowJobAssignX509Help);
}

unsigned int JobUnassignX509Thread(void *p) {
  auto *job = static_cast<JOB_USER_CERT_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    QL_USER_INFO user{};
    if (job->pszUserName != nullptr) CopyUserField(user.szUserId, job->pszUserName);
    const int rc = CheckJobCall(
        "QSetUserParam", job->pszUserName == nullptr
                             ? QSetUserParam(session, QL_UP_X509_UNASSIGN, nullptr, 0)
                             : QSetUserParam(session, QL_UP_X509_UNASSIGN, &user, sizeof user));
    if (rc == 0) ScreenOutput("Certificate removed.\r\n");
    return rc;
  });
}

int JobUnassignX509(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_USER_CERT_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUserName = GetParameterStr(pTestParam, nParameters, "-un");
  const bool ok =
      !IsParameterDefined(pTestParam, nParameters, "-un") || IsGivenText(job.pszUserName);
  return StartJob(&JobUnassignX509Thread, &job.ti, sizeof job, false, ok, &ShowJobUnassignX509Help);
}
