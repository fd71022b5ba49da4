// The engine's services through its public API: the order of checks, the access rules as the
// access-control sequences exercise them, sessions, backup and restore.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "engine/backup/backup.h"
#include "engine/data_dir.h"
#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;
using testing::FastKdf;
using testing::kMasterPassword;
using testing::TempDir;

constexpr const char *kUserPwd = "24681357";

// A test user whose mask the master sets before each check, as the access-control test does.
struct AclFixture : EngineFixture {
  AclFixture() {
    EXPECT_TRUE(engine->users().CreateUser(*master, "tested", kUserPwd, 0).ok());
    EXPECT_TRUE(
        engine->objects().CreateObject(*master, "mkey", 2, 1, 0, secure::Bytes(32, 1)).ok());
  }
  std::unique_ptr<sessions::Session> As(uint32_t mask) {
    EXPECT_TRUE(engine->users().SetUserMask(*master, "tested", mask).ok());
    return LoginAs("tested", kUserPwd);
  }
};

TEST(Engine, InitMakesMasterWithEveryRightAndRefusesASecondInit) {
  EngineFixture f;
  ASSERT_TRUE(f.engine);
  auto me = f.engine->users().GetUser(*f.master, kMasterUser);
  ASSERT_TRUE(me.ok());
  EXPECT_EQ(me->mask, access::kAllRights);
  EXPECT_EQ(Engine::Init(f.dir.path(), "x").code(), Code::kBadArgument);
  TempDir other;
  EXPECT_EQ(Engine::Init(other.path(), "").code(), Code::kBadArgument);
}

TEST(Engine, SessionIsCheckedFirst) {
  EngineFixture f;
  auto none = f.engine->NewSession();
  EXPECT_EQ(f.engine->system().GetRandom(*none, 16).status().code(), Code::kNotLoggedIn);
  // Even bad arguments lose to the missing session.
  EXPECT_EQ(f.engine->users().CreateUser(*none, "", "", 0).code(), Code::kNotLoggedIn);
}

TEST(Engine, ArgumentsThenRightThenExistence) {
  AclFixture f;
  auto none = f.As(0);
  // arguments before the right
  EXPECT_EQ(f.engine->users().RemoveUser(*none, "bad name").code(), Code::kBadName);
  EXPECT_EQ(f.engine->users().RemoveUser(*none, "a_name_of_17_char").code(),
            Code::kUserNameTooLong);
  EXPECT_EQ(f.engine->users().CreateUser(*none, "a_name_of_17_char", "pw", 0).code(),
            Code::kUserNameTooLong);
  EXPECT_EQ(f.engine->objects().OpenObject(*none, "a/b/c").status().code(), Code::kBadName);
  // the right before existence: nothing is learnt about what exists
  EXPECT_EQ(f.engine->users().RemoveUser(*none, "ghost").code(), Code::kAccessDenied);
  EXPECT_EQ(f.engine->objects().OpenObject(*none, "master/ghost").status().code(),
            Code::kAccessDenied);
  EXPECT_EQ(f.engine->objects().RemoveObject(*none, "master/ghost").code(), Code::kAccessDenied);
  EXPECT_EQ(f.engine->users().GetUser(*none, "ghost").status().code(), Code::kAccessDenied);
  // with the right, existence
  EXPECT_EQ(f.engine->users().RemoveUser(*f.master, "ghost").code(), Code::kUserNotFound);
  EXPECT_EQ(f.engine->objects().OpenObject(*f.master, "master/ghost").status().code(),
            Code::kObjectNotFound);
  EXPECT_EQ(f.engine->users().CreateUser(*f.master, "tested", "pw", 0).code(), Code::kUserExists);
  EXPECT_EQ(f.engine->users().GetUser(*f.master, "ghost").status().code(), Code::kUserNotFound);
}

// The user sequence: create and remove a user, read the log size, list users.
TEST(Engine, UserRightsSequence) {
  struct Row {
    uint32_t mask;
    Code create_delete, list, remote_log;
  } rows[] = {
      {0x00, Code::kAccessDenied, Code::kAccessDenied, Code::kAccessDenied},
      {0x10, Code::kOk, Code::kAccessDenied, Code::kAccessDenied},
      {0x40, Code::kAccessDenied, Code::kOk, Code::kAccessDenied},
      {0x50, Code::kOk, Code::kOk, Code::kAccessDenied},
      {0x20, Code::kAccessDenied, Code::kAccessDenied, Code::kOk},
      {0x30, Code::kOk, Code::kAccessDenied, Code::kOk},
      {0x60, Code::kAccessDenied, Code::kOk, Code::kOk},
      {0x70, Code::kOk, Code::kOk, Code::kOk},
  };
  AclFixture f;
  for (const Row &r : rows) {
    SCOPED_TRACE(r.mask);
    auto s = f.As(r.mask);
    Status created = f.engine->users().CreateUser(*s, "newone", kUserPwd, 0);
    EXPECT_EQ(created.code(), r.create_delete);
    if (created.ok()) {
      EXPECT_TRUE(f.engine->users().RemoveUser(*s, "newone").ok());
    }
    EXPECT_EQ(f.engine->users().ListUsers(*s).status().code(), r.list);
    EXPECT_EQ(f.engine->system().GetLogSize(*s).status().code(), r.remote_log);
    EXPECT_EQ(f.engine->system().GetStatInfo(*s).status().code(), r.remote_log);
  }
}

// The system sequence: back up, administer users (operator), push an update package.
TEST(Engine, SystemRightsSequence) {
  struct Row {
    uint32_t mask;
    Code oper, update, backup;
  } rows[] = {
      {0x000, Code::kAccessDenied, Code::kAccessDenied, Code::kAccessDenied},
      {0x080, Code::kOk, Code::kUpdateRefused, Code::kOk},
      {0x200, Code::kAccessDenied, Code::kUpdateRefused, Code::kAccessDenied},
      {0x280, Code::kOk, Code::kUpdateRefused, Code::kOk},
      {0x100, Code::kAccessDenied, Code::kAccessDenied, Code::kOk},
      {0x180, Code::kOk, Code::kUpdateRefused, Code::kOk},
      {0x300, Code::kAccessDenied, Code::kUpdateRefused, Code::kOk},
      {0x380, Code::kOk, Code::kUpdateRefused, Code::kOk},
  };
  AclFixture f;
  for (const Row &r : rows) {
    SCOPED_TRACE(r.mask);
    auto s = f.As(r.mask);
    EXPECT_EQ(f.engine->system().Backup(*s, "802468135792468013579246").status().code(), r.backup);
    Status created = f.engine->users().CreateUser(*s, "opuser", kUserPwd, 0);
    Status set = f.engine->users().SetUserMask(*s, "opuser", 1);
    EXPECT_EQ(set.code(), created.ok() ? r.oper : Code::kAccessDenied);
    if (created.ok()) {
      EXPECT_TRUE(f.engine->users().RemoveUser(*s, "opuser").ok());
    }
    EXPECT_EQ(created.code(), r.oper);
    EXPECT_EQ(f.engine->system().PushUpdatePackage(*s, secure::Bytes(100, 0)).code(), r.update);
  }
}

// The object rights, masks 0x0 to 0xF against the master's object.
TEST(Engine, ObjectRightsForEveryMask) {
  AclFixture f;
  for (uint32_t mask = 0; mask <= 0xF; ++mask) {
    SCOPED_TRACE(mask);
    auto s = f.As(mask);
    bool del = mask & 1, use = mask & 7, create = mask & 4, update = mask & 8, open = mask & 0xF;
    EXPECT_EQ(f.engine->objects().CreateObject(*s, "own", 2, 1, 0, secure::Bytes(8, 2)).code(),
              create ? Code::kOk : Code::kAccessDenied);
    EXPECT_EQ(f.engine->objects().UseObject(*s, "master/mkey").status().code(),
              use ? Code::kOk : Code::kAccessDenied);
    EXPECT_EQ(f.engine->objects().OpenObject(*s, "master/mkey").status().code(),
              open ? Code::kOk : Code::kAccessDenied);
    EXPECT_EQ(f.engine->objects().SetObjectBlocked(*s, "master/missing", true).code(),
              update ? Code::kObjectNotFound : Code::kAccessDenied);
    EXPECT_EQ(f.engine->objects().RemoveObject(*s, create ? "own" : "master/missing").code(),
              del ? (create ? Code::kOk : Code::kObjectNotFound) : Code::kAccessDenied);
    if (create && !del) {
      ASSERT_TRUE(f.engine->objects().RemoveObject(*f.master, "tested/own").ok());
    }
  }
}

TEST(Engine, BlockedObjectsAndOwnerNames) {
  AclFixture f;
  auto s = f.As(access::kObjRead | access::kObjUpdate);
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*s, "master/mkey", true).ok());
  EXPECT_EQ(f.engine->objects().UseObject(*s, "master/mkey").status().code(), Code::kObjectBlocked);
  EXPECT_EQ(f.engine->objects().UseObject(*f.master, "mkey").status().code(), Code::kObjectBlocked);
  // Opening still works, so that the key can be unblocked through its handle.
  EXPECT_TRUE(f.engine->objects().OpenObject(*s, "master/mkey")->blocked);
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*s, "master/mkey", false).ok());
  EXPECT_EQ(f.engine->objects().UseObject(*s, "master/mkey").value(), secure::Bytes(32, 1));
  // A plain name is the caller's own.
  EXPECT_EQ(f.engine->objects().UseObject(*s, "mkey").status().code(), Code::kObjectNotFound);
}

TEST(Engine, FilesInChunksAndMetadata) {
  EngineFixture f;
  secure::Bytes data(1000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
  ASSERT_TRUE(f.engine->objects().WriteFile(*f.master, "file1", data).ok());
  EXPECT_EQ(f.engine->objects().WriteFile(*f.master, "file1", data).code(), Code::kObjectExists);
  secure::Bytes back;
  for (uint64_t off = 0;;) {
    auto chunk = f.engine->objects().ReadFile(*f.master, "file1", off, 300);
    ASSERT_TRUE(chunk.ok());
    EXPECT_EQ(chunk->total_size, 1000u);
    if (chunk->data.empty()) break;
    back.insert(back.end(), chunk->data.begin(), chunk->data.end());
    off += chunk->data.size();
  }
  EXPECT_EQ(back, data);
  EXPECT_EQ(f.engine->objects().ReadFile(*f.master, "nofile", 0, 10).status().code(),
            Code::kObjectNotFound);
  EXPECT_EQ(f.engine->objects().ReadFile(*f.master, "file1", 0, 0).status().code(),
            Code::kBadArgument);

  ASSERT_TRUE(f.engine->objects().SetObjectMetadata(*f.master, "file1", R"({"a":1})").ok());
  EXPECT_EQ(f.engine->objects().GetObjectMetadata(*f.master, "file1").value(), R"({"a":1})");
  // Replacing needs the update right and keeps one object.
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "writer", "pw", access::kObjCreate).ok());
  auto writer = f.LoginAs("writer", "pw");
  EXPECT_EQ(f.engine->objects().WriteFile(*writer, "master/file1", {1}, true).code(),
            Code::kAccessDenied);
  ASSERT_TRUE(f.engine->objects().WriteFile(*f.master, "file1", {1, 2, 3}, true).ok());
  EXPECT_EQ(f.engine->objects().ReadFile(*f.master, "file1", 0, 10)->data,
            (secure::Bytes{1, 2, 3}));
  EXPECT_EQ(f.engine->objects().OpenObject(*f.master, "file1")->size, 3u);
  EXPECT_EQ(f.engine->objects().CountOwnObjects(*f.master).value(), 1);
  ASSERT_TRUE(f.engine->objects().RenameObject(*f.master, "file1", "file2").ok());
  EXPECT_EQ(f.engine->objects().ListObjects(*f.master).value(),
            (std::vector<std::string>{"file2"}));
}

TEST(Engine, MaskChangeAppliesFromTheNextRequest) {
  AclFixture f;
  auto s = f.As(0);
  EXPECT_EQ(f.engine->users().ListUsers(*s).status().code(), Code::kAccessDenied);
  ASSERT_TRUE(f.engine->users().SetUserMask(*f.master, "tested", access::kUsrList).ok());
  EXPECT_TRUE(f.engine->users().ListUsers(*s).ok());
}

TEST(Engine, OwnPasswordNeedsNoRightOthersNeedOperator) {
  AclFixture f;
  auto s = f.As(access::kUsrCreate);
  EXPECT_TRUE(f.engine->users().SetUserPassword(*s, "tested", "newpass").ok());
  EXPECT_EQ(f.engine->users().SetUserPassword(*s, kMasterUser, "hijack").code(),
            Code::kAccessDenied);
  EXPECT_EQ(f.engine->users().SetUserMask(*s, "tested", access::kAllRights).code(),
            Code::kAccessDenied);
  // A creator without the operator right grants only what it holds.
  EXPECT_EQ(f.engine->users().CreateUser(*s, "sub", "pw", access::kSysOperator).code(),
            Code::kAccessDenied);
  EXPECT_TRUE(f.engine->users().CreateUser(*s, "sub", "pw", access::kUsrCreate).ok());
  auto again = f.engine->NewSession();
  EXPECT_EQ(f.engine->users().Login(*again, "tested", kUserPwd).code(), Code::kAuthFailed);
  EXPECT_TRUE(f.engine->users().Login(*again, "tested", "newpass").ok());
}

TEST(Engine, SessionsAreCountedAndLimited) {
  EngineOptions opts;
  opts.max_sessions = 3;
  EngineFixture f(opts);  // the master session is one
  EXPECT_EQ(f.engine->registry().OpenCount(), 1u);
  auto a = f.LoginAs(kMasterUser, kMasterPassword);
  auto b = f.LoginAs(kMasterUser, kMasterPassword);
  EXPECT_EQ(f.engine->system().GetStatInfo(*f.master)->session_count, 3u);
  auto c = f.engine->NewSession();
  EXPECT_EQ(f.engine->users().Login(*c, kMasterUser, kMasterPassword).code(), Code::kLimitReached);
  // Logging in again on an open session does not take a second place.
  EXPECT_TRUE(f.engine->users().Login(*a, kMasterUser, kMasterPassword).ok());
  f.engine->users().ResetSession(*b);
  EXPECT_EQ(f.engine->registry().OpenCount(), 2u);
  EXPECT_TRUE(f.engine->users().Login(*c, kMasterUser, kMasterPassword).ok());
  c.reset();
  EXPECT_EQ(f.engine->registry().OpenCount(), 2u);
}

TEST(Engine, TemporaryKeysDieWithTheSession) {
  EngineFixture f;
  auto k = f.engine->keys().GenerateKey(*f.master, "", QL_ALG_AES128, 0, true);
  ASSERT_TRUE(k.ok()) << k.status().ToString();
  ASSERT_NE(f.master->FindTemp(k->handle), nullptr);
  EXPECT_EQ(f.master->TempCount(), 1u);
  // No object was stored for it.
  EXPECT_TRUE(f.engine->objects().ListObjects(*f.master)->empty());
  f.engine->users().ResetSession(*f.master);
  EXPECT_EQ(f.master->FindTemp(k->handle), nullptr);
  EXPECT_EQ(f.master->TempCount(), 0u);
}

TEST(Engine, StoredKeysSignExportAndFollowTheirBlockState) {
  AclFixture f;
  auto k =
      f.engine->keys().GenerateKey(*f.master, "signer", QL_ALG_RSA1024, QL_KEY_EXPORTABLE, true);
  ASSERT_TRUE(k.ok()) << k.status().ToString();
  EXPECT_EQ(k->key_length, 128u);
  EXPECT_EQ(
      f.engine->keys().GenerateKey(*f.master, "signer", QL_ALG_RSA1024, 0, false).status().code(),
      Code::kObjectExists);
  EXPECT_EQ(f.engine->objects().OpenObject(*f.master, "signer")->type, QL_ALG_RSA1024);

  secure::Bytes digest(32, 0x5a);
  KeyArg by_handle{k->handle, ""};
  auto sig = f.engine->keys().SignHash(*f.master, by_handle, QL_ALG_SHA256, digest, 0);
  ASSERT_TRUE(sig.ok()) << sig.status().ToString();
  EXPECT_EQ(sig->size(), 128u);
  // Another user signs with it by name, with the read right only.
  auto reader = f.As(access::kObjRead);
  KeyArg by_name{0, "master/signer"};
  EXPECT_TRUE(f.engine->keys().VerifySignature(*reader, by_name, QL_ALG_SHA256, digest, *sig).ok());
  secure::Bytes bad = *sig;
  bad[5] ^= 1;
  EXPECT_EQ(f.engine->keys().VerifySignature(*reader, by_name, QL_ALG_SHA256, digest, bad).code(),
            Code::kBadSignature);

  // Blocking reaches a key already parsed and cached.
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*f.master, "signer", true).ok());
  EXPECT_EQ(f.engine->keys().SignHash(*reader, by_name, QL_ALG_SHA256, digest, 0).status().code(),
            Code::kObjectBlocked);
  ASSERT_TRUE(f.engine->objects().SetObjectBlocked(*f.master, "signer", false).ok());

  EXPECT_TRUE(f.engine->keys().ExportKey(*reader, by_name, {}, 1).ok());  // private key blob
  auto plain = f.engine->keys().GenerateKey(*f.master, "plain", QL_ALG_RSA1024, 0, false);
  ASSERT_TRUE(plain.ok());
  EXPECT_EQ(f.engine->keys().ExportKey(*reader, {0, "master/plain"}, {}, 1).status().code(),
            Code::kNotExportable);
  EXPECT_TRUE(f.engine->keys().ExportKey(*reader, {0, "master/plain"}, {}, 2).ok());  // public blob

  auto none = f.As(0);
  EXPECT_EQ(f.engine->keys().SignHash(*none, by_name, QL_ALG_SHA256, digest, 0).status().code(),
            Code::kAccessDenied);
  EXPECT_EQ(f.engine->keys().GenerateKey(*none, "mine", QL_ALG_AES128, 0, false).status().code(),
            Code::kAccessDenied);
  // A session key needs no right.
  EXPECT_TRUE(f.engine->keys().GenerateKey(*none, "", QL_ALG_AES128, 0, true).ok());

  // Removing through the handle forgets the cached key.
  ASSERT_TRUE(f.engine->keys().DestroyKey(*f.master, k->handle, true, "").ok());
  EXPECT_EQ(
      f.engine->keys().SignHash(*f.master, {0, "signer"}, QL_ALG_SHA256, digest, 0).status().code(),
      Code::kObjectNotFound);
}

// One signing call also answers the key's longest signature (the size a caller must provide):
// the modulus for RSA, the longest DER encoding for ECDSA; a refused signature reports nothing.
TEST(Engine, SigningAnswersTheKeysLongestSignature) {
  EngineFixture f;
  const struct {
    uint32_t algorithm;
    size_t longest;
  } cases[] = {{QL_ALG_RSA1024, 128}, {QL_ALG_RSA2048, 256}, {QL_ALG_ECC_SECP256R1, 72}};
  secure::Bytes digest(32, 0x3c);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.algorithm);
    auto k = f.engine->keys().GenerateKey(*f.master, "", c.algorithm, 0, true);
    ASSERT_TRUE(k.ok()) << k.status().ToString();
    // ECDSA lengths vary: every one of several signatures fits the answer.
    for (int i = 0; i < 8; ++i) {
      size_t longest = 0;
      auto sig = f.engine->keys().SignHash(*f.master, {k->handle, ""}, QL_ALG_SHA256, digest, 0, 0,
                                           &longest);
      ASSERT_TRUE(sig.ok()) << sig.status().ToString();
      EXPECT_EQ(longest, c.longest);
      EXPECT_LE(sig->size(), longest);
      EXPECT_TRUE(f.engine->keys()
                      .VerifySignature(*f.master, {k->handle, ""}, QL_ALG_SHA256, digest, *sig)
                      .ok());
    }
  }
  auto aes = f.engine->keys().GenerateKey(*f.master, "", QL_ALG_AES128, 0, true);
  ASSERT_TRUE(aes.ok());
  size_t longest = 99;
  EXPECT_EQ(f.engine->keys()
                .SignHash(*f.master, {aes->handle, ""}, QL_ALG_SHA256, digest, 0, 0, &longest)
                .status()
                .code(),
            Code::kBadKeyUsage);
  EXPECT_EQ(longest, 99u);
}

TEST(Engine, HmacUnderASessionKeyMatchesTheKnownAnswer) {
  EngineFixture f;
  // RFC 4231 test case 2: key "Jefe", data "what do ya want for nothing?".
  auto key =
      f.engine->keys().ImportKey(*f.master, "", {}, secure::Bytes{'J', 'e', 'f', 'e'},
                                 4 /* plaintext key blob */, 170 /* generic HMAC key */, 0, true);
  ASSERT_TRUE(key.ok()) << key.status().ToString();
  auto h = f.engine->hashes().CreateHash(*f.master, QL_ALG_HMAC_SHA2_256, {key->handle, ""});
  ASSERT_TRUE(h.ok()) << h.status().ToString();
  std::string msg = "what do ya want for nothing?";
  ASSERT_TRUE(
      f.engine->hashes().HashData(*f.master, *h, secure::Bytes(msg.begin(), msg.end())).ok());
  auto v = f.engine->hashes().GetHashValue(*f.master, *h);
  ASSERT_TRUE(v.ok());
  EXPECT_EQ(secure::Hex(*v), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_TRUE(f.engine->hashes().DestroyHash(*f.master, *h).ok());
  EXPECT_EQ(f.engine->hashes().GetHashValue(*f.master, *h).status().code(), Code::kBadArgument);
}

TEST(Engine, CipherStateStaysWithTheHandleAcrossPieces) {
  EngineFixture f;
  auto k = f.engine->keys().GenerateKey(*f.master, "aeskey", QL_ALG_AES256, 0, true);
  ASSERT_TRUE(k.ok());
  secure::Bytes msg(40, 'm');  // two pieces, not block aligned
  secure::Bytes first(msg.begin(), msg.begin() + 20), second(msg.begin() + 20, msg.end());
  KeyArg h{k->handle, ""};
  auto c1 = f.engine->keys().Cipher(*f.master, h, true, false, first, 0, nullptr, nullptr);
  auto c2 = f.engine->keys().Cipher(*f.master, h, true, true, second, 0, nullptr, nullptr);
  ASSERT_TRUE(c1.ok() && c2.ok()) << c2.status().ToString();
  secure::Bytes ct = *c1;
  ct.insert(ct.end(), c2->begin(), c2->end());
  EXPECT_EQ(ct.size(), 48u);  // CBC with PKCS#5 padding by default
  // A named key decrypts the whole message in one piece, with the same (default) parameters.
  auto pt = f.engine->keys().Cipher(*f.master, {0, "aeskey"}, false, true, ct, 0, nullptr, nullptr);
  ASSERT_TRUE(pt.ok()) << pt.status().ToString();
  EXPECT_EQ(*pt, msg);
  uint64_t needed = 0;
  auto small = f.engine->keys().Cipher(*f.master, h, true, true, msg, 8, &needed, nullptr);
  EXPECT_EQ(small.status().code(), Code::kBufferTooSmall);
  EXPECT_EQ(needed, 48u);
  EXPECT_EQ(f.engine->keys().SetCipherParam(*f.master, k->handle, QKP_MODE, QL_MODE_ECB, {}).code(),
            Code::kOk);
  secure::Bytes unused;
  EXPECT_EQ(f.engine->keys().GetCipherParam(*f.master, k->handle, QKP_MODE, &unused).value(),
            uint64_t{QL_MODE_ECB});
  auto nocrypt = f.engine->keys().GenerateKey(*f.master, "", QL_ALG_AES128, QL_KEY_NO_CRYPT, true);
  EXPECT_EQ(f.engine->keys()
                .Cipher(*f.master, {nocrypt->handle, ""}, true, true, msg, 0, nullptr, nullptr)
                .status()
                .code(),
            Code::kBadKeyUsage);
}

TEST(Engine, Pkcs8RoundTripAndBatchSigning) {
  EngineFixture f;
  ASSERT_TRUE(f.engine->keys()
                  .GenerateKey(*f.master, "rsa", QL_ALG_RSA1024, QL_KEY_EXPORTABLE, false)
                  .ok());
  auto der = f.engine->keys().Pkcs8Export(*f.master, "rsa", "pkcs8pass");
  ASSERT_TRUE(der.ok()) << der.status().ToString();
  EXPECT_FALSE(f.engine->keys().Pkcs8Import(*f.master, "copy", "wrongpass", *der, 0).ok());
  ASSERT_TRUE(f.engine->keys().Pkcs8Import(*f.master, "copy", "pkcs8pass", *der, 0).ok());
  // The copy is the same key: a signature of one verifies with the other.
  secure::Bytes digest(32, 7);
  auto sig = f.engine->keys().SignHash(*f.master, {0, "rsa"}, QL_ALG_SHA256, digest, 0);
  ASSERT_TRUE(sig.ok());
  EXPECT_TRUE(
      f.engine->keys().VerifySignature(*f.master, {0, "copy"}, QL_ALG_SHA256, digest, *sig).ok());
  EXPECT_EQ(f.engine->keys().Pkcs8Export(*f.master, "copy", "x").status().code(),
            Code::kNotExportable);

  // Two raw blocks below the modulus (leading zero byte), signed in order.
  secure::Bytes blocks(256, 0x11);
  blocks[0] = 0;
  blocks[128] = 0;
  auto out = f.engine->keys().BatchSign(*f.master, {0, "rsa"}, 2, blocks);
  ASSERT_TRUE(out.ok()) << out.status().ToString();
  EXPECT_EQ(out->size(), 256u);
  EXPECT_EQ(f.engine->keys().BatchSign(*f.master, {0, "rsa"}, 3, blocks).status().code(),
            Code::kBadLength);
}

TEST(Engine, StatInfoReportsMiB) {
  EngineFixture f;
  auto info = f.engine->system().GetStatInfo(*f.master);
  ASSERT_TRUE(info.ok());
  EXPECT_EQ(info->unit, kStatUnitMiB);
  EXPECT_EQ(info->mem_total, stats::ReadMemory()->total_mib);
  EXPECT_LE(info->cpu_percent, 100u);
}

TEST(Engine, HsmInfoHasSixVersionTextsWithoutPercent) {
  EngineFixture f;
  auto info = f.engine->system().GetHsmInfo(*f.master);
  ASSERT_TRUE(info.ok());
  ASSERT_EQ(info->versions.size(), 6u);
  EXPECT_EQ(info->versions[1], "4.10.0.0");
  EXPECT_EQ(info->versions[2].rfind("QL-", 0), 0u);
  for (const auto &v : info->versions) EXPECT_EQ(v.find('%'), std::string::npos) << v;
  EXPECT_EQ(info->pending_transaction, 0u);
}

TEST(Engine, AuditLogRecordsChangesWithoutSecrets) {
  EngineFixture f;
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "logged", "TopSecretPw", 0).ok());
  auto size = f.engine->system().GetLogSize(*f.master);
  ASSERT_TRUE(size.ok());
  EXPECT_GT(*size, 0u);
  auto page = f.engine->system().ReadLogPage(*f.master, 1);
  ASSERT_TRUE(page.ok());
  std::string text(page->data.begin(), page->data.end());
  EXPECT_NE(text.find("master create-user logged 0"), std::string::npos) << text;
  EXPECT_EQ(text.find("TopSecretPw"), std::string::npos);
}

// Read-only traffic alone fills pages; the log's writer stores them without any request waiting
// for it (so the test waits for the writer, up to a generous deadline).
TEST(Engine, FilledLogPagesReachTheStoreWithoutAnyChange) {
  EngineOptions opts;
  opts.audit_page_size = 256;
  EngineFixture f(opts);
  for (int i = 0; i < 30; ++i) f.LoginAs(kMasterUser, kMasterPassword);  // read-only traffic
  auto store = store::Store::Open(f.dir.path(), false);  // a second connection sees commits
  ASSERT_TRUE(store.ok());
  auto count = [&] {
    return (*store)->Locked([](store::Connection &c) -> int64_t {
      auto st = c.Prepare("SELECT COUNT(*) FROM audit_pages");
      return st.ok() && st->Step().ok() ? st->Int(0) : -1;
    });
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (count() < 3 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_GE(count(), 3);
}

TEST(Engine, BackupRestoresIntoAFreshDataDir) {
  EngineFixture f;
  ASSERT_TRUE(f.engine->users().CreateUser(*f.master, "kept", "pw", 0x2).ok());
  ASSERT_TRUE(
      f.engine->objects().CreateObject(*f.master, "kept/k", 2, 1, 0, secure::Bytes(24, 5)).ok());
  auto blob = f.engine->system().Backup(*f.master, "802468135792468013579246");
  ASSERT_TRUE(blob.ok()) << blob.status().ToString();
  EXPECT_EQ(f.engine->system().Backup(*f.master, "1234567").status().code(), Code::kBadArgument);

  TempDir fresh;
  EXPECT_EQ(backup::RestoreBackup(*blob, "wrong pin", fresh.path()).code(), Code::kBadPin);
  secure::Bytes damaged = *blob;
  damaged[damaged.size() / 2] ^= 1;
  EXPECT_EQ(backup::RestoreBackup(damaged, "802468135792468013579246", fresh.path()).code(),
            Code::kBadPin);
  ASSERT_TRUE(backup::RestoreBackup(*blob, "802468135792468013579246", fresh.path()).ok());
  EXPECT_EQ(backup::RestoreBackup(*blob, "802468135792468013579246", fresh.path()).code(),
            Code::kBadArgument);

  auto restored = Engine::Open(fresh.path());
  ASSERT_TRUE(restored.ok()) << restored.status().ToString();
  auto s = (*restored)->NewSession();
  ASSERT_TRUE((*restored)->users().Login(*s, "kept", "pw").ok());
  EXPECT_EQ((*restored)->objects().UseObject(*s, "k").value(), secure::Bytes(24, 5));
}

TEST(Engine, OpensOnlyWithTheUnlockSecret) {
  TempDir dir;
  InitOptions init;
  init.kdf = FastKdf();
  init.unlock_kdf = FastKdf();
  init.unlock_secret = "open sesame";
  ASSERT_TRUE(Engine::Init(dir.path(), kMasterPassword, init).ok());
  EngineOptions options;
  options.unlock_secret = "open sesame!";
  EXPECT_EQ(Engine::Open(dir.path(), options).status().code(), Code::kBadPin);
  options.unlock_secret = "open sesame";
  EXPECT_TRUE(Engine::Open(dir.path(), options).ok());
}

TEST(Engine, MasterKeyFileMustBePrivate) {
  EngineFixture f;
  f.master.reset();  // a session ends before its engine
  f.engine.reset();
  std::filesystem::permissions(DataPath(f.dir.path(), kMasterKeyFile),
                               std::filesystem::perms::group_read,
                               std::filesystem::perm_options::add);
  EXPECT_EQ(Engine::Open(f.dir.path()).status().code(), Code::kBadArgument);
}

TEST(Engine, TokensLogInAndCanBeRevoked) {
  EngineFixture f;
  auto key = f.engine->users().IssueToken(*f.master, 0);
  ASSERT_TRUE(key.ok());
  auto s = f.engine->NewSession();
  ASSERT_TRUE(f.engine->users().LoginToken(*s, kMasterUser, *key).ok());
  EXPECT_TRUE(f.engine->users().ListUsers(*s).ok());
  EXPECT_EQ(f.engine->users().TokenCount(*f.master).value(), 1);
  EXPECT_EQ(f.engine->users().ListTokens(*f.master)->size(), 1u);
  ASSERT_TRUE(f.engine->users().RevokeToken(*f.master, "", *key).ok());
  EXPECT_EQ(f.engine->users().LoginToken(*s, kMasterUser, *key).code(), Code::kAuthFailed);
  EXPECT_EQ(f.engine->users().LoginToken(*s, "ghost", *key).code(), Code::kAuthFailed);
}

TEST(Engine, AdministrativeRequestsNotBuiltSaySoAfterTheRight) {
  AclFixture f;
  auto s = f.As(0);
  EXPECT_EQ(f.engine->system().Administer(*s, "set-tls-bundle").code(), Code::kAccessDenied);
  EXPECT_EQ(f.engine->system().Administer(*f.master, "set-tls-bundle").code(), Code::kNotSupported);
}

}  // namespace
}  // namespace qlhsm
