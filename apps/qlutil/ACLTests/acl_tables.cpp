#include "acl_tables.h"

#include <cstdio>

#include "Output.h"
#include "qlapi.h"

namespace {
constexpr int OK = 0;
constexpr int DENIED = QL_ERR_ACCESS_DENIED;   // 5002
constexpr int MISSING = QL_ERR_OBJ_NOT_FOUND;  // 5004
constexpr int TAKEN = QL_ERR_OBJ_EXISTS;       // 5022
constexpr int REFUSED = QL_ERR_UPACK_REFUSED;  // 5034
}  // namespace

const uint32_t ACL_USR_SEQUENCE_TEST[kAclUsrRows] = {0x00, 0x10, 0x40, 0x50,
                                                     0x20, 0x30, 0x60, 0x70};
const char STR_USR_SEQUENCE_TEST[kAclUsrRows][kAclNameLen] = {
    "ACL_NOP",
    "ACL_USR_CREATE |ACL_USR_DELETE",
    "ACL_USR_LIST",
    "ACL_USR_CREATE |ACL_USR_DELETE |ACL_USR_LIST",
    "ACL_USR_REMOTE_LOG",
    "ACL_USR_CREATE |ACL_USR_DELETE |ACL_USR_REMOTE_LOG",
    "ACL_USR_REMOTE_LOG |ACL_USR_LIST",
    "ACL_USR_CREATE |ACL_USR_DELETE |ACL_USR_REMOTE_LOG |ACL_USR_LIST",
};
// Create Delete, Remote Log, Usr List.
const int ACL_USR_EXP_VALUES[kAclUsrRows][kAclUsrOps] = {
    {DENIED, DENIED, DENIED},  // 0x00
    {OK, DENIED, DENIED},      // 0x10
    {DENIED, DENIED, OK},      // 0x40
    {OK, DENIED, OK},          // 0x50
    {DENIED, OK, DENIED},      // 0x20
    {OK, OK, DENIED},          // 0x30
    {DENIED, OK, OK},          // 0x60
    {OK, OK, OK},              // 0x70
};
const char *const ACL_USR_OPERATIONS[kAclUsrOps] = {"Create Delete", "Remote Log", "Usr List"};

const uint32_t ACL_OBJ_SEQUENCE_TEST[kAclObjRows] = {0x0, 0x1, 0x2, 0x3, 0x4, 0x5, 0x6, 0x7,
                                                     0x8, 0x9, 0xA, 0xB, 0xC, 0xD, 0xE, 0xF};
const char STR_OBJ_SEQUENCE_TEST[kAclObjRows][kAclNameLen] = {
    "ACL_NOP",
    "ACL_OBJ_DEL",
    "ACL_OBJ_READ",
    "ACL_OBJ_DEL |ACL_OBJ_READ",
    "ACL_OBJ_CREATE",
    "ACL_OBJ_DEL |ACL_OBJ_CREATE",
    "ACL_OBJ_READ |ACL_OBJ_CREATE",
    "ACL_OBJ_DEL |ACL_OBJ_READ |ACL_OBJ_CREATE",
    "ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_DEL |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_READ |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_DEL |ACL_OBJ_READ |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_CREATE |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_DEL |ACL_OBJ_CREATE |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_READ |ACL_OBJ_CREATE |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
    "ACL_OBJ_DEL |ACL_OBJ_READ |ACL_OBJ_CREATE |ACL_OBJ_UPDATE |ACL_OBJ_WRITE",
};
// Create, Read, Del, Update. Create gives 5022 where the name was taken by an earlier row of the
// same half; Update gives 5004 with the right, since its target never exists.
const int ACL_OBJ_EXP_VALUES[kAclObjRows][kAclObjOps] = {
    {DENIED, DENIED, DENIED, DENIED},   // 0x0
    {DENIED, OK, OK, DENIED},           // 0x1
    {DENIED, OK, DENIED, DENIED},       // 0x2
    {DENIED, OK, OK, DENIED},           // 0x3
    {OK, OK, DENIED, DENIED},           // 0x4
    {TAKEN, OK, OK, DENIED},            // 0x5
    {TAKEN, OK, DENIED, DENIED},        // 0x6
    {TAKEN, OK, OK, DENIED},            // 0x7
    {DENIED, DENIED, DENIED, MISSING},  // 0x8
    {DENIED, OK, OK, MISSING},          // 0x9
    {DENIED, OK, DENIED, MISSING},      // 0xA
    {DENIED, OK, OK, MISSING},          // 0xB
    {OK, OK, DENIED, MISSING},          // 0xC
    {TAKEN, OK, OK, MISSING},           // 0xD
    {TAKEN, OK, DENIED, MISSING},       // 0xE
    {TAKEN, OK, OK, MISSING},           // 0xF
};
const char *const ACL_OBJ_OPERATIONS[kAclObjOps] = {"Create", "Read", "Del", "Update"};

const uint32_t ACL_SYS_SEQUENCE_TEST[kAclSysRows] = {0x000, 0x080, 0x200, 0x280,
                                                     0x100, 0x180, 0x300, 0x380};
const char STR_SYS_SEQUENCE_TEST[kAclSysRows][kAclNameLen] = {
    "ACL_NOP",
    "ACL_SYS_OPERATOR",
    "ACL_SYS_UDATE_HSM",
    "ACL_SYS_OPERATOR |ACL_SYS_UDATE_HSM",
    "ACL_SYS_BACKUP |ACL_SYS_RESTORE",
    "ACL_SYS_OPERATOR |ACL_SYS_BACKUP |ACL_SYS_RESTORE",
    "ACL_SYS_BACKUP |ACL_SYS_RESTORE |ACL_SYS_UDATE_HSM",
    "ACL_SYS_OPERATOR |ACL_SYS_BACKUP |ACL_SYS_RESTORE |ACL_SYS_UDATE_HSM",
};
// Backup Restore, Operator, Update.
const int ACL_SYS_EXP_VALUES[kAclSysRows][kAclSysOps] = {
    {DENIED, DENIED, DENIED},   // 0x000
    {OK, OK, REFUSED},          // 0x080
    {DENIED, DENIED, REFUSED},  // 0x200
    {OK, OK, REFUSED},          // 0x280
    {OK, DENIED, DENIED},       // 0x100
    {OK, OK, REFUSED},          // 0x180
    {OK, DENIED, REFUSED},      // 0x300
    {OK, OK, REFUSED},          // 0x380
};
const char *const ACL_SYS_OPERATIONS[kAclSysOps] = {"Backup Restore", "Operator", "Update"};

void FormatNewId(uint32_t number, char *out, size_t out_len) {
  snprintf(out, out_len, "TMP%luO", static_cast<unsigned long>(number));
}

void PrintACLTestOutputFirst(int verbose, const char *sequence, const char *mask_name,
                             const char *operation) {
  if (verbose == 1) ScreenOutput("[%s] ACL: %-75s %-16s ", sequence, mask_name, operation);
}

void PrintACLTestOutputRet(int verbose, const char *sequence, const char *mask_name,
                           const char *operation, int returned, int expected) {
  if (returned == expected) {
    if (verbose == 1) ScreenOutput("Returned: %-5d   Expected: %-5d  OK\r\n", returned, expected);
  } else if (verbose == 1) {
    ScreenOutput("Returned: %-5d   Expected: %-5d  *ERROR*\r\n", returned, expected);
  } else {
    ScreenOutput("[%s] ACL: %-75s %-16s Returned: %-5d   Expected: %-5d  *ERROR*\r\n", sequence,
                 mask_name, operation, returned, expected);
  }
}
