// -f acl: gives a fresh test user each combination of rights of three sequences (user, object
// and system rights), logs in as that user for every row and checks that each guarded operation
// answers exactly the code its combination must give.
//
// What the checks act on (so that the HSM's rules yield the table's codes):
// - Read: the operator's exportable key, opened by the test user as "operator/key" and exported.
// - Del: a fresh operator key per row, removed by the test user by its reference; the keys of
//   rows without the right are removed at clean-up.
// - Create: one name in the test user's own space for the rows 0x0-0x7 and another for 0x8-0xF:
//   the first row of a half with the right makes it, the later ones find it taken.
// - Update: a handle built offline for an operator object that never exists, then key parameter
//   12: the right is checked before existence, so the right gives 5004 and its absence 5002.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ACLTests.h"
#include "ACLTests/acl_tables.h"
#include "Output.h"
#include "harness/harness.h"

namespace {

constexpr const char *kTestUserPassword = "24681357";
constexpr const char *kBackupFile = "bkp_verify_test";
constexpr const char *kBackupPin = "802468135792468013579246";
// Every login of the test asks for a new connection of its own, without load balancing.
constexpr uint32_t kAclExtraFlags = 0x19;
constexpr uint32_t kAclKeyAlg = QL_ALG_AES128;

typedef struct tag_ACL_TEST_INFO {
  THREAD_INFO ti;
  int nVerbose;  // -v: 1 prints every check, anything else only the errors
} ACL_TEST_INFO;

// State of one sequence: the operator's session, the test user and what was made for it.
struct AclContext {
  std::string address;
  std::string opUser;
  std::string opPassword;
  int port = 0;
  uint32_t flags = 0;
  int verbose = 0;
  SessionOwner op;
  char testUser[32] = {};
  // Object sequence.
  std::string readRef;                  // operator/key the test user reads
  std::string rowDelRef;                // this row's key for Del
  std::vector<std::string> opKeys;      // operator keys still to remove
  std::string createNames[2];           // the test user's own names, one per half
  std::string missingRef;               // an operator object that never exists
  std::vector<std::string> extraUsers;  // users a check made but could not remove
};

typedef int (*AclCheck)(AclContext &ctx, HSESSIONCTX hUser, int row);

struct AclSequence {
  const char *tag;  // "TestUsrACL", ...
  int rows;
  int ops;
  const uint32_t *masks;
  const char (*names)[kAclNameLen];
  const int *expected;  // rows x ops
  const char *const *operations;
  const AclCheck *checks;
  const char *connectFailure;  // format with the mask name and the code
  const char *closeFailure;
  int (*prepareRow)(AclContext &ctx, int row);  // may be null
};

int OpenSession(const AclContext &ctx, const char *user, const char *password,
                SessionOwner *session) {
  return Connect(session->Put(), ctx.address.c_str(), user, password, ctx.port, ctx.flags);
}

// "TMP<n>O" from 4 random bytes of the HSM.
int GetNewId(HSESSIONCTX hSession, std::string *id) {
  uint32_t number = 0;
  const int rc = QGetRandom(hSession, reinterpret_cast<unsigned char *>(&number), sizeof number);
  if (rc != 0) return rc;
  char name[32];
  FormatNewId(number, name, sizeof name);
  *id = name;
  return 0;
}

QL_USER_INFO UserRecord(const char *name, const char *password, uint32_t acl) {
  QL_USER_INFO record;
  memset(&record, 0, sizeof record);
  CopyFixedField(record.szUserId, sizeof record.szUserId, name);
  CopyFixedField(record.szPassword, sizeof record.szPassword, password);
  record.dwAcl = acl;
  return record;
}

// Creates the test user (mask 0) under a new name, as the operator.
int GetNewUser(AclContext &ctx) {
  std::string id;
  int rc = GetNewId(ctx.op.Get(), &id);
  if (rc != 0) return rc;
  const QL_USER_INFO record = UserRecord(id.c_str(), kTestUserPassword, 0);
  rc = QCreateUser(ctx.op.Get(), &record);
  if (rc == 0) CopyFixedField(ctx.testUser, sizeof ctx.testUser - 1, id.c_str());
  return rc;
}

// A stored, exportable key of the operator under a new name; *ref is "operator/name".
int GetNewKeyObj(AclContext &ctx, std::string *ref) {
  std::string id;
  int rc = GetNewId(ctx.op.Get(), &id);
  if (rc != 0) return rc;
  KeyOwner key;
  rc = QGenerateKey(ctx.op.Get(), id.c_str(), kAclKeyAlg, QL_KEY_EXPORTABLE, key.Put());
  if (rc != 0) return rc;
  *ref = ctx.opUser + "/" + id;
  ctx.opKeys.push_back(*ref);
  return 0;
}

int SetACL(AclContext &ctx, uint32_t mask) {
  const QL_USER_INFO record = UserRecord(ctx.testUser, nullptr, mask);
  return QSetUserParam(ctx.op.Get(), QL_UP_ACL, &record, sizeof record);
}

// Creates a user as hUser and removes it again; a user left behind is removed at clean-up.
int CreateAndRemoveUser(AclContext &ctx, HSESSIONCTX hUser, bool bSetParam) {
  std::string id;
  int rc = GetNewId(ctx.op.Get(), &id);
  if (rc != 0) return rc;
  const QL_USER_INFO record = UserRecord(id.c_str(), kTestUserPassword, 0);
  rc = QCreateUser(hUser, &record);
  if (rc != 0) return rc;
  if (bSetParam) rc = QSetUserParam(hUser, QL_UP_ACL, &record, sizeof record);
  const int removed = QRemoveUser(hUser, id.c_str());
  if (removed != 0) ctx.extraUsers.push_back(id);
  return rc != 0 ? rc : removed;
}

// ---------------------------------------------------------------------------------------------
// The checks

int VerifyUsrCreateDeleteACL(AclContext &ctx, HSESSIONCTX hUser, int) {
  return CreateAndRemoveUser(ctx, hUser, false);
}

int VerifyUsrRemoteLogACL(AclContext &, HSESSIONCTX hUser, int) {
  uint64_t size = 0;
  return QGetStatLogSize(hUser, &size);
}

int IgnoreName(void *, const char *, int) {
  return 0;
}

int VerifyUsrListACL(AclContext &, HSESSIONCTX hUser, int) {
  return QListUsers(hUser, IgnoreName, nullptr);
}

int VerifyObjCreateACL(AclContext &ctx, HSESSIONCTX hUser, int row) {
  const std::string &name = ctx.createNames[row < kAclObjRows / 2 ? 0 : 1];
  return QGenerateKey(hUser, name.c_str(), kAclKeyAlg, 0, nullptr);
}

int VerifyObjReadACL(AclContext &ctx, HSESSIONCTX hUser, int) {
  KeyOwner key;
  int rc = QGetUserKey(hUser, ctx.readRef.c_str(), 0, key.Put());
  if (rc != 0) return rc;
  unsigned char blob[256];
  uint32_t len = sizeof blob;
  return QExportKey(key.Get(), nullptr, QL_PLAINTEXTKEY_BLOB, 0, blob, &len);
}

int VerifyObjDelACL(AclContext &ctx, HSESSIONCTX hUser, int) {
  const int rc = QRemoveObj(hUser, ctx.rowDelRef.c_str());
  if (rc == 0) {
    for (auto it = ctx.opKeys.begin(); it != ctx.opKeys.end(); ++it) {
      if (*it == ctx.rowDelRef) {
        ctx.opKeys.erase(it);
        break;
      }
    }
  }
  return rc;
}

int VerifyObjUpdateWriteACL(AclContext &ctx, HSESSIONCTX hUser, int) {
  KeyOwner key;
  int rc = QGetUserKey(hUser, ctx.missingRef.c_str(), QL_GETKEY_OFFLINE, key.Put());
  if (rc != 0) return rc;
  const uint32_t unblocked = 0;
  return QSetKeyParam(key.Get(), QKP_BLOCKED, &unblocked, sizeof unblocked, 0);
}

int VerifySysBackupRestoreACL(AclContext &, HSESSIONCTX hUser, int) {
  return QBackupData(hUser, kBackupFile, kBackupPin, 0);
}

int VerifySysOperatorACL(AclContext &ctx, HSESSIONCTX hUser, int) {
  return CreateAndRemoveUser(ctx, hUser, true);
}

int VerifySysUdateACL(AclContext &, HSESSIONCTX hUser, int) {
  // A package that carries no valid signature: the HSM must refuse it (5034) or, without the
  // right, deny the request before looking at it (5002).
  static const unsigned char kPackage[] = "QLUTIL UPDATE PACKAGE WITHOUT SIGNATURE";
  return QUPackPush(hUser, kPackage, sizeof kPackage, 0);
}

const AclCheck kUsrChecks[kAclUsrOps] = {VerifyUsrCreateDeleteACL, VerifyUsrRemoteLogACL,
                                         VerifyUsrListACL};
const AclCheck kObjChecks[kAclObjOps] = {VerifyObjCreateACL, VerifyObjReadACL, VerifyObjDelACL,
                                         VerifyObjUpdateWriteACL};
const AclCheck kSysChecks[kAclSysOps] = {VerifySysBackupRestoreACL, VerifySysOperatorACL,
                                         VerifySysUdateACL};

int PrepareObjRow(AclContext &ctx, int) {
  return GetNewKeyObj(ctx, &ctx.rowDelRef);
}

const AclSequence kUsrSequence = {
    "TestUsrACL",
    kAclUsrRows,
    kAclUsrOps,
    ACL_USR_SEQUENCE_TEST,
    STR_USR_SEQUENCE_TEST,
    &ACL_USR_EXP_VALUES[0][0],
    ACL_USR_OPERATIONS,
    kUsrChecks,
    "[TestUsrACL][Connect User Tested] ACL: %s error: %d\r\n",
    "[TestUsrACL][QCloseSession of hUserTested] ACL: %s error: %d\r\n",
    nullptr,
};
const AclSequence kObjSequence = {
    "TestObjACL",
    kAclObjRows,
    kAclObjOps,
    ACL_OBJ_SEQUENCE_TEST,
    STR_OBJ_SEQUENCE_TEST,
    &ACL_OBJ_EXP_VALUES[0][0],
    ACL_OBJ_OPERATIONS,
    kObjChecks,
    "[TestObjACL][ConnectUserTested] ACL: %s error: %d\r\n",
    "[TestObjACL][QCloseSession of hUserTested] ACL: %s error: %d\r\n",
    PrepareObjRow,
};
const AclSequence kSysSequence = {
    "TestSysACL",
    kAclSysRows,
    kAclSysOps,
    ACL_SYS_SEQUENCE_TEST,
    STR_SYS_SEQUENCE_TEST,
    &ACL_SYS_EXP_VALUES[0][0],
    ACL_SYS_OPERATIONS,
    kSysChecks,
    "[TestSysACL][ConnectUserTested] ACL: %s error: %d\r\n",
    "[TestSysACL][QCloseSession of hUserTested] ACL: %s error: %d\r\n",
    nullptr,
};

// Runs every row of a sequence; the first code that differs from the table ends it.
int RunSequence(AclContext &ctx, const AclSequence &seq) {
  for (int row = 0; row < seq.rows; ++row) {
    const char *maskName = seq.names[row];
    int rc = 0;
    if (seq.prepareRow != nullptr) {
      rc = seq.prepareRow(ctx, row);
      if (rc != 0) {
        ScreenOutput("[TestObjACL][GetNewKeyObj] ACL: %s error: %d\r\n", maskName, rc);
        return rc;
      }
    }
    rc = SetACL(ctx, seq.masks[row]);
    if (rc != 0) {
      ScreenOutput("[%s][SetACL] ACL: %s error: %d\r\n", seq.tag, maskName, rc);
      return rc;
    }
    SessionOwner user;
    rc = OpenSession(ctx, ctx.testUser, kTestUserPassword, &user);
    if (rc != 0) {
      ScreenOutput(seq.connectFailure, maskName, rc);
      return rc;
    }
    for (int op = 0; op < seq.ops; ++op) {
      const int expected = seq.expected[row * seq.ops + op];
      PrintACLTestOutputFirst(ctx.verbose, seq.tag, maskName, seq.operations[op]);
      const int returned = seq.checks[op](ctx, user.Get(), row);
      PrintACLTestOutputRet(ctx.verbose, seq.tag, maskName, seq.operations[op], returned, expected);
      // A success where a refusal was due still fails the run.
      if (returned != expected) return returned != 0 ? returned : kResultCheckFailed;
    }
    rc = user.Free();
    if (rc != 0) {
      ScreenOutput(seq.closeFailure, maskName, rc);
      return rc;
    }
  }
  return 0;
}

// Removes, as the operator, everything the sequence made: the test user's keys, the operator's
// keys, the users a check left, and the test user.
void FinalTestACL(AclContext &ctx) {
  if (!ctx.op) return;
  if (ctx.testUser[0] != '\0') {
    for (const std::string &name : ctx.createNames) {
      if (!name.empty()) QRemoveObj(ctx.op.Get(), (std::string(ctx.testUser) + "/" + name).c_str());
    }
  }
  for (const std::string &ref : ctx.opKeys) QRemoveObj(ctx.op.Get(), ref.c_str());
  ctx.opKeys.clear();
  for (const std::string &user : ctx.extraUsers) QRemoveUser(ctx.op.Get(), user.c_str());
  ctx.extraUsers.clear();
  if (ctx.testUser[0] != '\0') QRemoveUser(ctx.op.Get(), ctx.testUser);
  ctx.testUser[0] = '\0';
}

void InitContext(AclContext &ctx, const ACL_TEST_INFO *info) {
  ctx.address = info->ti.GetAddress();
  ctx.opUser = info->ti.GetUserId();
  ctx.opPassword = info->ti.GetPassword();
  ctx.port = info->ti.GetPort();
  // "Adding" 0x19 is a bitwise OR: with -tls 0 the flags hold 1 and 4, which mean TLS.
  ctx.flags = GetConnectionFlags(&info->ti) | kAclExtraFlags;
  ctx.verbose = info->nVerbose;
}

int InitTestACL(AclContext &ctx) {
  int rc = OpenSession(ctx, ctx.opUser.c_str(), ctx.opPassword.c_str(), &ctx.op);
  if (rc == 0) rc = GetNewUser(ctx);
  return rc;
}

int TestUsrACL(const ACL_TEST_INFO *info) {
  AclContext ctx;
  InitContext(ctx, info);
  int rc = InitTestACL(ctx);
  if (rc != 0) {
    ScreenOutput("[TestUsrACL] [InitTestUsrACL] Error: %d\r\n", rc);
  } else {
    rc = RunSequence(ctx, kUsrSequence);
  }
  FinalTestACL(ctx);
  return rc;
}

int TestObjACL(const ACL_TEST_INFO *info) {
  AclContext ctx;
  InitContext(ctx, info);
  int rc = InitTestACL(ctx);
  if (rc != 0) {
    ScreenOutput("[TestObjACL][SetACL] - error: %d\r\n", rc);
    FinalTestACL(ctx);
    return rc;
  }
  std::string id;
  for (std::string *name : {&ctx.createNames[0], &ctx.createNames[1], &id}) {
    rc = GetNewId(ctx.op.Get(), name);
    if (rc != 0) break;
  }
  ctx.missingRef = ctx.opUser + "/" + id;
  if (rc == 0) rc = GetNewKeyObj(ctx, &ctx.readRef);
  if (rc != 0) {
    ScreenOutput("[TestObjACL][GetNewKeyObj] ACL: %s error: %d\r\n", STR_OBJ_SEQUENCE_TEST[0], rc);
  } else {
    rc = RunSequence(ctx, kObjSequence);
  }
  FinalTestACL(ctx);
  return rc;
}

int TestSysACL(const ACL_TEST_INFO *info) {
  AclContext ctx;
  InitContext(ctx, info);
  int rc = InitTestACL(ctx);
  if (rc != 0) {
    ScreenOutput("[TestSysACL][InitSysTestACL] Error: %d \r\n", rc);
  } else {
    rc = RunSequence(ctx, kSysSequence);
  }
  FinalTestACL(ctx);
  // The backup the check wrote holds the HSM's objects: it does not stay behind.
  remove(kBackupFile);
  return rc;
}

unsigned int FuncACLThread(void *pvInfo) {
  auto *info = static_cast<ACL_TEST_INFO *>(pvInfo);
  // One pass: the entry runs one thread and one iteration.
  return RunFuncLoop(&info->ti, [info](unsigned long) {
    int rc = TestUsrACL(info);
    if (rc == 0) rc = TestObjACL(info);
    if (rc == 0) rc = TestSysACL(info);
    return rc;
  });
}

}  // namespace

int FuncACL(TEST_PARAMETER *pTestParam, int nParameters) {
  ACL_TEST_INFO info;
  LoadFuncRecord(&info, pTestParam, nParameters);
  info.nVerbose = GetParameterInt(pTestParam, nParameters, "-v") == 1 ? 1 : 0;
  info.ti.Threads = 1;
  info.ti.Iterations = 1;
  if (!CheckConnectionFlags(&info.ti, false)) {
    FuncHelpDescription({"     User rights test. Perform several ACL tests\r\n"});
    ScreenOutput("     -v      [OPTIONAL] 0: Print only the errors (default)\r\n");
    ScreenOutput("                        1: Print every check\r\n");
    return FuncHelpExample("     qlutil -a 10.10.10.10 -u master -w 24681357 -f acl -v 1\r\n");
  }
  return ExecuteTestThreads(FuncACLThread, &info, sizeof info);
}
