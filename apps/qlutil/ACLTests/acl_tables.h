#pragma once
// The three sequences of -f acl as parallel tables: the masks given to the test user, their
// printable names and the code each checked operation must give, in the order the operations
// run (which is also the order of the -v 1 lines).

#include <cstddef>
#include <cstdint>

constexpr int kAclUsrRows = 8;
constexpr int kAclObjRows = 16;
constexpr int kAclSysRows = 8;
constexpr int kAclUsrOps = 3;  // Create Delete, Remote Log, Usr List
constexpr int kAclObjOps = 4;  // Create, Read, Del, Update
constexpr int kAclSysOps = 3;  // Backup Restore, Operator, Update
constexpr size_t kAclNameLen = 128;

extern const uint32_t ACL_USR_SEQUENCE_TEST[kAclUsrRows];
extern const char STR_USR_SEQUENCE_TEST[kAclUsrRows][kAclNameLen];
extern const int ACL_USR_EXP_VALUES[kAclUsrRows][kAclUsrOps];
extern const char *const ACL_USR_OPERATIONS[kAclUsrOps];

extern const uint32_t ACL_OBJ_SEQUENCE_TEST[kAclObjRows];
extern const char STR_OBJ_SEQUENCE_TEST[kAclObjRows][kAclNameLen];
extern const int ACL_OBJ_EXP_VALUES[kAclObjRows][kAclObjOps];
extern const char *const ACL_OBJ_OPERATIONS[kAclObjOps];

extern const uint32_t ACL_SYS_SEQUENCE_TEST[kAclSysRows];
extern const char STR_SYS_SEQUENCE_TEST[kAclSysRows][kAclNameLen];
extern const int ACL_SYS_EXP_VALUES[kAclSysRows][kAclSysOps];
extern const char *const ACL_SYS_OPERATIONS[kAclSysOps];

// "TMP%luO" with the number: every such name fits a user name (16 characters). out holds at
// least 17 bytes.
void FormatNewId(uint32_t number, char *out, size_t out_len);

// The lines of the checks. With verbose 1 the head ("[seq] ACL: <mask name> <operation> ") is
// printed before the operation runs and the outcome after it; with 0 only a differing outcome
// is printed, as one whole line.
void PrintACLTestOutputFirst(int verbose, const char *sequence, const char *mask_name,
                             const char *operation);
void PrintACLTestOutputRet(int verbose, const char *sequence, const char *mask_name,
                           const char *operation, int returned, int expected);
