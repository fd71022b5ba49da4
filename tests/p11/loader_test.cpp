// The dynamic loader and the PKCS#11 entry-point table: a module that cannot be loaded, one
// that exports only some names, a complete one, and the release rules of DL_Close.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "dloadlib.h"
#include "loadpkcs11.h"

namespace {

// The table's members in their order, written out here on their own so that a change of order
// in the table shows as a failure.
const char *const kEntryPointOrder[] = {
    "C_Initialize",
    "C_Finalize",
    "C_GetSlotList",
    "C_GetSlotInfo",
    "C_GetInfo",
    "C_OpenSession",
    "C_Login",
    "C_DigestInit",
    "C_Digest",
    "C_DigestUpdate",
    "C_DigestFinal",
    "C_EncryptInit",
    "C_EncryptUpdate",
    "C_Encrypt",
    "C_EncryptFinal",
    "C_DecryptInit",
    "C_DecryptUpdate",
    "C_Decrypt",
    "C_DecryptFinal",
    "C_GenerateKey",
    "C_GenerateKeyPair",
    "C_DeriveKey",
    "C_SignInit",
    "C_Sign",
    "C_SignUpdate",
    "C_SignFinal",
    "C_VerifyInit",
    "C_Verify",
    "C_VerifyUpdate",
    "C_VerifyFinal",
    "C_WrapKey",
    "C_UnwrapKey",
    "C_SeedRandom",
    "C_GenerateRandom",
    "C_InitToken",
    "C_InitPIN",
    "C_SetPIN",
    "C_FindObjectsInit",
    "C_FindObjects",
    "C_FindObjectsFinal",
    "C_DestroyObject",
    "C_GetSessionInfo",
    "C_GetFunctionStatus",
    "C_CancelFunction",
    "C_GetTokenInfo",
    "C_SignRecoverInit",
    "C_SignRecover",
    "C_VerifyRecoverInit",
    "C_VerifyRecover",
    "C_Logout",
    "C_CloseSession",
    "C_CloseAllSessions",
    "C_DigestKey",
    "C_WaitForSlotEvent",
    "C_GetAttributeValue",
    "C_SetAttributeValue",
    "C_CopyObject",
    "C_GetObjectSize",
    "C_GetOperationState",
    "C_SetOperationState",
    "C_GetFunctionList",
    "C_DecryptVerifyUpdate",
    "C_SignEncryptUpdate",
    "C_DecryptDigestUpdate",
    "C_DigestEncryptUpdate",
    "C_CreateObject",
    "C_GetMechanismInfo",
    "C_GetMechanismList",
};
static_assert(std::size(kEntryPointOrder) == kP11EntryPointCount);

// The table as its 68 slots, in declaration order.
struct Slots {
  void *p[kP11EntryPointCount];
};
Slots AsSlots(const DL_PKCS11_FUNCTIONS &table) {
  Slots slots;
  std::memcpy(&slots, &table, sizeof(slots));
  return slots;
}

DL_PKCS11_FUNCTIONS FilledWith(unsigned char byte) {
  DL_PKCS11_FUNCTIONS table;
  std::memset(&table, byte, sizeof(table));
  return table;
}

bool SameBytes(const DL_PKCS11_FUNCTIONS &a, const DL_PKCS11_FUNCTIONS &b) {
  return std::memcmp(&a, &b, sizeof(a)) == 0;
}

std::string TempFile(const char *name, const char *content) {
  auto path = std::filesystem::temp_directory_path() / name;
  std::ofstream(path) << content;
  return path.string();
}

}  // namespace

TEST(P11Loader, ModuleThatCannotBeLoadedGivesNullAndLeavesTheTable) {
  const std::string not_a_library = TempFile("p11_loader_not_a_library.so", "plain text\n");
  const std::string paths[] = {"/nonexistent/folder/libnothing.so", not_a_library, ""};
  for (const std::string &path : paths) {
    SCOPED_TRACE(path);
    DL_PKCS11_FUNCTIONS table = FilledWith(0xA5);
    const DL_PKCS11_FUNCTIONS before = table;
    EXPECT_EQ(P11_LoadSymbols(path.c_str(), &table), nullptr);
    EXPECT_TRUE(SameBytes(table, before));
  }
  std::remove(not_a_library.c_str());
}

TEST(P11Loader, ModuleWithSomeNamesFillsThoseAndNullsTheRest) {
  DL_PKCS11_FUNCTIONS table = FilledWith(0xA5);
  void *module = P11_LoadSymbols(P11_PARTIAL_MODULE, &table);
  ASSERT_NE(module, nullptr);

  const std::set<std::string> exported = {"C_Initialize", "C_Sign", "C_CloseAllSessions",
                                          "C_GetMechanismList"};
  const Slots slots = AsSlots(table);
  for (int i = 0; i < kP11EntryPointCount; ++i) {
    SCOPED_TRACE(kEntryPointOrder[i]);
    if (exported.count(kEntryPointOrder[i]) != 0) {
      EXPECT_NE(slots.p[i], nullptr);
    } else {
      EXPECT_EQ(slots.p[i], nullptr);
    }
  }
  // Each found member reaches the function of its own name.
  ASSERT_NE(table.C_Initialize, nullptr);
  EXPECT_EQ(table.C_Initialize(nullptr), 0x101u);
  ASSERT_NE(table.C_Sign, nullptr);
  EXPECT_EQ(table.C_Sign(0, nullptr, 0, nullptr, nullptr), 0x124u);
  ASSERT_NE(table.C_CloseAllSessions, nullptr);
  EXPECT_EQ(table.C_CloseAllSessions(0), 0x152u);
  ASSERT_NE(table.C_GetMechanismList, nullptr);
  EXPECT_EQ(table.C_GetMechanismList(0, nullptr, nullptr), 0x168u);

  EXPECT_EQ(P11_UnloadSymbols(module), 0);
}

TEST(P11Loader, CompleteModuleFillsEveryMember) {
  const std::string softhsm = P11_SOFTHSM_MODULE;
  if (softhsm.empty()) GTEST_SKIP() << "no SoftHSM2 module installed";
  DL_PKCS11_FUNCTIONS table = FilledWith(0);
  void *module = P11_LoadSymbols(softhsm.c_str(), &table);
  ASSERT_NE(module, nullptr);
  const Slots slots = AsSlots(table);
  for (int i = 0; i < kP11EntryPointCount; ++i) {
    EXPECT_EQ(slots.p[i], DL_GetSymbol(module, kEntryPointOrder[i])) << kEntryPointOrder[i];
    EXPECT_NE(slots.p[i], nullptr) << kEntryPointOrder[i];
  }
  // The loader leaves the module uninitialised: finalising it now is refused.
  ASSERT_NE(table.C_Finalize, nullptr);
  EXPECT_EQ(table.C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(P11_UnloadSymbols(module), 0);
}

TEST(DynamicLoader, CloseAnswersOneForNullUnknownAndReleasedHandles) {
  EXPECT_EQ(DL_Close(nullptr), 1);
  int not_a_handle = 0;
  EXPECT_EQ(DL_Close(&not_a_handle), 1);

  void *module = DL_OpenLazy(P11_PARTIAL_MODULE);
  ASSERT_NE(module, nullptr);
  EXPECT_NE(DL_GetSymbol(module, "C_Initialize"), nullptr);
  EXPECT_EQ(DL_GetSymbol(module, "C_Finalize"), nullptr);
  EXPECT_EQ(DL_Close(module), 0);
  EXPECT_EQ(DL_Close(module), 1);
  EXPECT_EQ(P11_UnloadSymbols(module), 1);
  EXPECT_EQ(P11_UnloadSymbols(nullptr), 1);
  // A released handle is not looked into.
  EXPECT_EQ(DL_GetSymbol(module, "C_Initialize"), nullptr);
}

TEST(DynamicLoader, EachLoadNeedsItsOwnClose) {
  void *first = DL_OpenLazy(P11_PARTIAL_MODULE);
  void *second = DL_OpenLazy(P11_PARTIAL_MODULE);
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(first, second);
  EXPECT_EQ(DL_Close(first), 0);
  // Still loaded once: its names are still there.
  EXPECT_NE(DL_GetSymbol(second, "C_Sign"), nullptr);
  EXPECT_EQ(DL_Close(second), 0);
  EXPECT_EQ(DL_Close(second), 1);
}

TEST(DynamicLoader, NullHandleNeverSearchesTheProcess) {
  // With the system's own call a null handle would find the name anywhere in the process.
  EXPECT_EQ(DL_GetSymbol(nullptr, "malloc"), nullptr);
  EXPECT_EQ(DL_GetSymbol(nullptr, "DL_Close"), nullptr);
  EXPECT_EQ(DL_OpenLazy(nullptr), nullptr);
}
