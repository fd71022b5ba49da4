// libqlapi against a real qlhsmd: sessions with every flag combination, the cache, each
// authentication kind, many threads, and the user and object life cycles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "credential_store.h"
#include "hsm_fixture.h"
#include "password_record.h"
#include "qlapi.h"
#include "qlapi_credstore.h"
#include "session_cache.h"

namespace {

qltest::HsmProcess &Hsm() {
  return qltest::HsmEnvironment::hsm();
}

AUTH_PWD_EX PwdRecord(const std::string &user, const std::string &pwd) {
  return qltest::PasswordRecord(Hsm(), user, pwd);
}

int Open(HSESSIONCTX *s, const std::string &user, const std::string &pwd, uint32_t flags) {
  AUTH_PWD_EX r = PwdRecord(user, pwd);
  return QOpenSession(s, QL_AUTH_USER_PWD, &r, sizeof r, flags);
}

// A session as master, closed at the end of the scope.
class Master {
 public:
  explicit Master(uint32_t flags = QL_SESSION_ENCRYPTED) {
    EXPECT_EQ(Open(&s_, "master", Hsm().master_password(), flags), QL_OK);
  }
  ~Master() { QCloseSession(&s_, 0); }
  HSESSIONCTX get() const { return s_; }

 private:
  HSESSIONCTX s_ = nullptr;
};

QL_USER_INFO UserRecord(const std::string &name, const std::string &pwd, uint32_t acl) {
  QL_USER_INFO u;
  std::memset(&u, 0, sizeof u);
  std::memcpy(u.szUserId, name.data(), std::min(name.size(), sizeof u.szUserId));
  qltest::CopyField(u.szPassword, pwd);
  u.dwAcl = acl;
  return u;
}

// A unique user made for one test and removed after it.
class TempUser {
 public:
  TempUser(const std::string &prefix, uint32_t acl, const std::string &pwd = "pw123456")
      : name_(prefix + std::to_string(counter_++)), pwd_(pwd) {
    Master m;
    QL_USER_INFO u = UserRecord(name_, pwd_, acl);
    EXPECT_EQ(QCreateUser(m.get(), &u), QL_OK) << name_;
  }
  ~TempUser() {
    Master m;
    QRemoveUser(m.get(), name_.c_str());
  }
  const std::string &name() const { return name_; }
  const std::string &pwd() const { return pwd_; }

 private:
  static inline std::atomic<int> counter_{0};
  std::string name_, pwd_;
};

uint32_t SessionCount() {
  Master m(QL_SESSION_ENCRYPTED | QL_SESSION_BYPASS_CACHE);
  uint32_t count = 0;
  EXPECT_EQ(QGetStatInfo(m.get(), &count, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            QL_OK);
  return count - 1;  // not counting the session that asks
}

uint32_t TlsOf(HSESSIONCTX s) {
  uint32_t tls = 99, len = sizeof tls;
  EXPECT_EQ(QGetSessionParam(s, QL_SP_TLS, &tls, &len, 0), QL_OK);
  return tls;
}

TEST(E2eSessions, EveryFlagCombination) {
  for (uint32_t flags = 0; flags < 64; ++flags) {
    HSESSIONCTX s = nullptr;
    const int rc = Open(&s, "master", Hsm().master_password(), flags);
    if (flags & ~uint32_t{29}) {
      EXPECT_EQ(rc, QL_ERR_BAD_FLAGS) << flags;
      EXPECT_EQ(s, nullptr);
      continue;
    }
    ASSERT_EQ(rc, QL_OK) << flags;
    const bool plain = (flags & 4) && !(flags & 1);
    EXPECT_EQ(TlsOf(s), plain ? 0u : 1u) << flags;
    unsigned char r[16];
    EXPECT_EQ(QGetRandom(s, r, sizeof r), QL_OK) << flags;
    EXPECT_EQ(QCloseSession(&s, (flags & 2) ? QL_CLOSE_PHYSICAL : 0), QL_OK) << flags;
    EXPECT_EQ(s, nullptr);
  }
  QFinalize();
}

TEST(E2eSessions, TlsSessionsShowTheHsmCertificate) {
  Master m;
  unsigned char fp[32];
  uint32_t len = sizeof fp;
  ASSERT_EQ(QGetSessionParam(m.get(), QL_SP_TLS_PEER_SHA256, fp, &len, 0), QL_OK);
  EXPECT_EQ(len, 32u);
  Master plain(QL_SESSION_UNENCRYPTED);
  len = sizeof fp;
  EXPECT_EQ(QGetSessionParam(plain.get(), QL_SP_TLS_PEER_SHA256, fp, &len, 0),
            QL_ERR_NOT_SUPPORTED);
}

TEST(E2eSessions, RefusedLogins) {
  TempUser alice("alice", ACL_OBJ_READ);
  struct Case {
    const char *what;
    std::string user, pwd;
    int code;
  } cases[] = {
      {"wrong password", "master", "not-the-password", QL_ERR_AUTH_FAILED},
      {"unknown user", "nobody-here", "x", QL_ERR_AUTH_FAILED},
      {"empty password", alice.name(), "", QL_ERR_AUTH_FAILED},
  };
  for (const Case &k : cases) {
    for (uint32_t flags : {1u, 4u, 17u}) {
      HSESSIONCTX s = nullptr;
      EXPECT_EQ(Open(&s, k.user, k.pwd, flags), k.code) << k.what << " flags " << flags;
      EXPECT_EQ(s, nullptr);
    }
  }
}

TEST(E2eSessions, AnonymousMayOnlyDoWhatNeedsNoRight) {
  AUTH_PWD_EX r = PwdRecord("master", Hsm().master_password());  // ignored for kind 1
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(QOpenSession(&s, QL_AUTH_ANONYMOUS, &r, sizeof r, 0), QL_OK);
  unsigned char buf[16];
  EXPECT_EQ(QGetRandom(s, buf, sizeof buf), QL_OK);
  EXPECT_EQ(QAdmOperation(s, QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0), QL_OK);
  auto ignore = [](void *, const char *, int) { return 0; };
  EXPECT_EQ(QListUsers(s, ignore, nullptr), QL_ERR_ACCESS_DENIED);
  QL_USER_INFO u = UserRecord("anon-made", "pw", 0);
  EXPECT_EQ(QCreateUser(s, &u), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(QCloseSession(&s, 0), QL_OK);
}

TEST(E2eUsers, AUserCreatorCannotRemoveTheMaster) {
  TempUser creator("creator", ACL_USR_CREATE);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(Open(&s, creator.name(), creator.pwd(), QL_SESSION_BYPASS_CACHE), QL_OK);
  EXPECT_EQ(QRemoveUser(s, "master"), QL_ERR_ACCESS_DENIED);
  QCloseSession(&s, QL_CLOSE_PHYSICAL);
  Master m;  // still there
}

TEST(E2eSessions, ASessionEndsWhenItsPasswordChanges) {
  TempUser bob("bob", ACL_OBJ_READ);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(Open(&s, bob.name(), bob.pwd(), 0), QL_OK);
  {
    Master m;
    QL_USER_INFO u = UserRecord(bob.name(), "newpass1", 0);
    ASSERT_EQ(QSetUserParam(m.get(), QL_UP_USER_PASSWORD, &u, sizeof u), QL_OK);
  }
  EXPECT_EQ(QAdmOperation(s, QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0),
            QL_ERR_SESSION_REVOKED);
  EXPECT_STREQ(QGetReturnCodeString(QL_ERR_SESSION_REVOKED, QL_RC_STR_NAME),
               "QL_ERR_SESSION_REVOKED");
  QCloseSession(&s, 0);
  EXPECT_EQ(Open(&s, bob.name(), "newpass1", 0), QL_OK);
  EXPECT_EQ(QAdmOperation(s, QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0), QL_OK);
  QCloseSession(&s, 0);
}

TEST(E2eSessions, AccessTokenLoginAndRevocation) {
  QL_A_TOKEN token;
  {
    Master m;
    ASSERT_EQ(QManageAToken(m.get(), QL_ATOKEN_ISSUE, &token, 0, nullptr, nullptr), QL_OK);
  }
  EXPECT_STREQ(std::string(token.pcUserName, strnlen(token.pcUserName, 16)).c_str(), "master");
  AUTH_ATOKEN r;
  std::memset(&r, 0, sizeof r);
  std::strcpy(r.szAddr, Hsm().address().c_str());
  r.nPort = Hsm().port();
  r.stAToken = token;
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(QOpenSession(&s, QL_AUTH_ATOKEN, &r, sizeof r, 1), QL_OK);
  unsigned char buf[8];
  EXPECT_EQ(QGetRandom(s, buf, sizeof buf), QL_OK);
  EXPECT_EQ(QManageAToken(s, QL_ATOKEN_REVOKE, &token, 0, nullptr, nullptr), QL_OK);
  EXPECT_EQ(QCloseSession(&s, 0), QL_OK);
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_ATOKEN, &r, sizeof r, 1), QL_ERR_AUTH_FAILED);
  AUTH_ATOKEN forged = r;
  forged.stAToken.pbKey[0] ^= 1;
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_ATOKEN, &forged, sizeof forged, 1), QL_ERR_AUTH_FAILED);
}

// Kind 128 reads the store in the caller's home; the test keeps whatever entry was there.
TEST(E2eSessions, CredentialTargetFromTheStore) {
  auto path = qlapi::credstore::DefaultPath();
  ASSERT_TRUE(path.ok());
  const std::string target = Hsm().address();
  auto saved = qlapi::credstore::Read(path.value(), target);
  if (!saved.ok() && saved.status().code() == QL_ERR_CREDENTIAL_STORE) {
    GTEST_SKIP() << "the credential store in this home is not private; not touching it";
  }
  ASSERT_EQ(QLCredWrite(target.c_str(), "master", Hsm().master_password().c_str()), QL_OK);
  AUTH_WIN_CREDENTIAL r;
  std::memset(&r, 0, sizeof r);
  std::strcpy(r.szAddr, target.c_str());
  r.nPort = Hsm().port();
  HSESSIONCTX s = nullptr;
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_WIN_CREDENTIAL, &r, sizeof r, 1), QL_OK);
  char user[17] = {};
  uint32_t len = sizeof user;
  EXPECT_EQ(QGetSessionParam(s, QL_SP_USER_NAME, user, &len, 0), QL_OK);
  EXPECT_STREQ(user, "master");
  EXPECT_EQ(QCloseSession(&s, 0), QL_OK);
  ASSERT_EQ(QLCredWrite(target.c_str(), "master", "wrong-password"), QL_OK);
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_WIN_CREDENTIAL, &r, sizeof r, 1), QL_ERR_AUTH_FAILED);
  if (saved.ok()) {
    QLCredWrite(target.c_str(), saved.value().user.c_str(), saved.value().password.c_str());
  } else {
    QLCredDelete(target.c_str());
  }
  EXPECT_EQ(QOpenSession(&s, QL_AUTH_WIN_CREDENTIAL, &r, sizeof r, 1),
            saved.ok() ? QL_OK : QL_ERR_CREDENTIAL_NOT_FOUND);
  QCloseSession(&s, QL_CLOSE_PHYSICAL);
}

TEST(E2eCache, CachedConnectionIsReusedAndBypassIsNot) {
  QFinalize();
  ASSERT_EQ(qlapi::CacheSize(), 0u);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 1), QL_OK);
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);
  EXPECT_EQ(qlapi::CacheSize(), 1u) << "a closed session goes back to the cache";
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 1), QL_OK);
  EXPECT_EQ(qlapi::CacheSize(), 0u) << "and the next open takes it";
  ASSERT_EQ(QCloseSession(&s, QL_CLOSE_PHYSICAL), QL_OK);
  EXPECT_EQ(qlapi::CacheSize(), 0u) << "flag 8 closes the connection";
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 1 | QL_SESSION_BYPASS_CACHE), QL_OK);
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);
  EXPECT_EQ(qlapi::CacheSize(), 0u) << "a session opened past the cache is never cached";
  // Plain and TLS connections are different entries.
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 4), QL_OK);
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 1), QL_OK);
  EXPECT_EQ(qlapi::CacheSize(), 1u) << "the plain connection stays for a plain open";
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);
  QFinalize();
  EXPECT_EQ(qlapi::CacheSize(), 0u) << "QFinalize empties the cache";
}

TEST(E2eCache, CachedCloseEndsTheSessionInTheHsm) {
  QFinalize();
  const uint32_t before = SessionCount();
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 1), QL_OK);
  HKEYCTX k = nullptr;
  const int gen = QGenerateKey(s, "cached-close-tmp", QL_ALG_AES128, QL_KEY_TEMPORARY, &k);
  EXPECT_EQ(SessionCount(), before + 1);
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);
  EXPECT_EQ(qlapi::CacheSize(), 1u);
  EXPECT_EQ(SessionCount(), before) << "a cached connection is no open session";
  // The temporary key died with the session, even though its connection lives on.
  ASSERT_EQ(Open(&s, "master", Hsm().master_password(), 1), QL_OK);
  HKEYCTX again = nullptr;
  if (gen == QL_OK) {
    EXPECT_EQ(QGetUserKey(s, "cached-close-tmp", 0, &again), QL_ERR_OBJ_NOT_FOUND);
    EXPECT_EQ(QDestroyKey(&k, 0), QL_OK) << "a handle outliving its session is released cleanly";
  }
  QCloseSession(&s, 0);
  QFinalize();
}

TEST(E2eCache, ReuseChecksTheUserAgain) {
  TempUser bob("bob", ACL_OBJ_READ);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(Open(&s, bob.name(), bob.pwd(), 1), QL_OK);
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);  // cached
  {
    Master m;
    QL_USER_INFO u = UserRecord(bob.name(), "", 0);
    ASSERT_EQ(QSetUserParam(m.get(), QL_UP_BLOCK, &u, sizeof u), QL_OK);
  }
  EXPECT_EQ(Open(&s, bob.name(), bob.pwd(), 1), QL_ERR_USER_BLOCKED);
  {
    Master m;
    QL_USER_INFO u = UserRecord(bob.name(), "", 0);
    ASSERT_EQ(QSetUserParam(m.get(), QL_UP_UNBLOCK, &u, sizeof u), QL_OK);
  }
  ASSERT_EQ(Open(&s, bob.name(), bob.pwd(), 1), QL_OK);
  ASSERT_EQ(QCloseSession(&s, 0), QL_OK);  // cached again
  {
    Master m;
    QL_USER_INFO u = UserRecord(bob.name(), "newpass1", 0);
    ASSERT_EQ(QSetUserParam(m.get(), QL_UP_USER_PASSWORD, &u, sizeof u), QL_OK);
  }
  EXPECT_EQ(Open(&s, bob.name(), bob.pwd(), 1), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(Open(&s, bob.name(), "newpass1", 1), QL_OK);
  QCloseSession(&s, 0);
  {
    Master m;
    ASSERT_EQ(QRemoveUser(m.get(), bob.name().c_str()), QL_OK);
  }
  EXPECT_EQ(Open(&s, bob.name(), "newpass1", 1), QL_ERR_AUTH_FAILED);
}

TEST(E2eSessions, FinalizeClosesWhatIsLeftOpen) {
  QFinalize();
  const uint32_t before = SessionCount();
  HSESSIONCTX s[3] = {};
  for (auto &h : s) ASSERT_EQ(Open(&h, "master", Hsm().master_password(), 1), QL_OK);
  HKEYCTX k = nullptr;
  QGetUserKey(s[0], "anything", QL_GETKEY_OFFLINE, &k);  // a handle left for QFinalize too
  EXPECT_EQ(SessionCount(), before + 3);
  EXPECT_EQ(QFinalize(), QL_OK);
  // The HSM sees the connections close; give it a moment to count them out.
  for (int i = 0; i < 100 && SessionCount() != before; ++i) usleep(10000);
  EXPECT_EQ(SessionCount(), before);
  QFinalize();
}

TEST(E2eThreads, ManyThreadsEachWithItsOwnSessions) {
  for (uint32_t flags : {1u, 1u | 16u, 4u}) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 25; ++i) {
          HSESSIONCTX s = nullptr;
          if (Open(&s, "master", Hsm().master_password(), flags) != QL_OK) {
            ++failures;
            continue;
          }
          unsigned char r[16];
          if (QGetRandom(s, r, sizeof r) != QL_OK) ++failures;
          if (QCloseSession(&s, 0) != QL_OK) ++failures;
        }
      });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(failures.load(), 0) << "flags " << flags;
  }
  QFinalize();
}

TEST(E2eThreads, ThreadsSharingOneSession) {
  Master m;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        unsigned char r[32];
        if (QGetRandom(m.get(), r, sizeof r) != QL_OK) ++failures;
      }
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}

int CollectNames(void *param, const char *name, int last) {
  auto *names = static_cast<std::vector<std::string> *>(param);
  if (last) {
    EXPECT_EQ(name, nullptr);
    names->push_back("<end>");
  } else {
    names->push_back(name);
  }
  return 0;
}

bool Contains(const std::vector<std::string> &v, const std::string &s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

TEST(E2eUsers, LifeCycle) {
  Master m;
  const std::string name = "cycle" + std::to_string(getpid() % 100000);
  QL_USER_INFO u = UserRecord(name, "pw123456", ACL_OBJ_READ | ACL_USR_LIST);
  ASSERT_EQ(QCreateUser(m.get(), &u), QL_OK);
  EXPECT_EQ(QCreateUser(m.get(), &u), QL_ERR_USER_EXISTS);

  std::vector<std::string> names;
  ASSERT_EQ(QListUsers(m.get(), CollectNames, &names), QL_OK);
  EXPECT_TRUE(Contains(names, name));
  EXPECT_TRUE(Contains(names, "master"));
  EXPECT_EQ(names.back(), "<end>");

  uint32_t acl = 0;
  ASSERT_EQ(QGetUserAcl(m.get(), name.c_str(), &acl), QL_OK);
  EXPECT_EQ(acl, uint32_t{ACL_OBJ_READ | ACL_USR_LIST});
  QL_USER_INFO set = UserRecord(name, "", ACL_OBJ_CREATE);
  ASSERT_EQ(QSetUserParam(m.get(), QL_UP_ACL, &set, sizeof set), QL_OK);
  QL_USER_INFO get = UserRecord(name, "", 0);
  uint32_t len = sizeof get;
  ASSERT_EQ(QGetUserParam(m.get(), QL_UP_ACL, &get, &len), QL_OK);
  const uint32_t got_acl = get.dwAcl;  // by value: the member sits at an unaligned offset
  EXPECT_EQ(got_acl, uint32_t{ACL_OBJ_CREATE});
  EXPECT_STREQ(get.szUserId, name.c_str());

  HSESSIONCTX self = nullptr;
  ASSERT_EQ(Open(&self, name, "pw123456", 1), QL_OK);
  EXPECT_EQ(QSetUserParam(self, QL_UP_PASSWORD, "pw654321", 9), QL_OK);
  QCloseSession(&self, QL_CLOSE_PHYSICAL);
  EXPECT_EQ(Open(&self, name, "pw654321", 1), QL_OK);
  QCloseSession(&self, QL_CLOSE_PHYSICAL);

  ASSERT_EQ(QRemoveUser(m.get(), name.c_str()), QL_OK);
  EXPECT_EQ(QRemoveUser(m.get(), name.c_str()), QL_ERR_USER_NOT_FOUND);
  EXPECT_EQ(QGetUserAcl(m.get(), name.c_str(), &acl), QL_ERR_USER_NOT_FOUND);
}

TEST(E2eUsers, NameRefusals) {
  Master m;
  QL_USER_INFO seventeen = UserRecord(std::string(17, 'n'), "pw", 0);  // no NUL in 17 bytes
  EXPECT_EQ(QCreateUser(m.get(), &seventeen), QL_ERR_USER_NAME_TOO_LONG);
  // The stress test copies 38 bytes of a long name, then the password over the tail.
  QL_USER_INFO stress;
  std::memset(&stress, 0, sizeof stress);
  const std::string long_name = "1234USER567891011";
  std::memcpy(&stress, long_name.c_str(), long_name.size() + 1);
  std::strcpy(stress.szPassword, "864209");
  EXPECT_EQ(QCreateUser(m.get(), &stress), QL_ERR_USER_NAME_TOO_LONG);
  EXPECT_EQ(QRemoveUser(m.get(), std::string(17, 'n').c_str()), QL_ERR_USER_NAME_TOO_LONG);
  EXPECT_EQ(QCreateUser(m.get(), nullptr), QL_ERR_BAD_ARGUMENT);
}

struct Chunks {
  std::string data;
  int calls = 0;
  bool ended = false;
};

int Collect(void *param, const unsigned char *chunk, uint32_t len) {
  auto *c = static_cast<Chunks *>(param);
  ++c->calls;
  if (chunk == nullptr) {
    EXPECT_EQ(len, 0u);
    c->ended = true;
  } else {
    c->data.append(reinterpret_cast<const char *>(chunk), len);
  }
  return 0;
}

TEST(E2eObjects, FileLifeCycle) {
  Master m;
  const std::string name = "file" + std::to_string(getpid() % 100000);
  std::string content(150000, '\0');  // more than two read chunks
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31);
  const auto *bytes = reinterpret_cast<const unsigned char *>(content.data());
  ASSERT_EQ(
      QWriteFileBuffer(m.get(), name.c_str(), bytes, static_cast<uint32_t>(content.size()), 0),
      QL_OK);
  EXPECT_EQ(QWriteFileBuffer(m.get(), name.c_str(), bytes, 10, 0), QL_ERR_OBJ_EXISTS);

  Chunks got;
  ASSERT_EQ(QReadFile(m.get(), name.c_str(), Collect, &got), QL_OK);
  EXPECT_TRUE(got.ended);
  EXPECT_GE(got.calls, 4);  // three chunks and the end
  EXPECT_EQ(got.data, content);

  std::vector<std::string> names;
  ASSERT_EQ(QListObjs(m.get(), CollectNames, &names), QL_OK);
  EXPECT_TRUE(Contains(names, name));

  HKEYCTX h = nullptr;
  EXPECT_EQ(QGetUserKey(m.get(), name.c_str(), 0, &h), QL_OK) << "0 means the object exists";
  EXPECT_EQ(QDestroyKey(&h, 0), QL_OK);

  const std::string renamed = name + "r";
  ASSERT_EQ(QRenameObj(m.get(), name.c_str(), renamed.c_str()), QL_OK);
  EXPECT_EQ(QRemoveObj(m.get(), name.c_str()), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QGetUserKey(m.get(), name.c_str(), 0, &h), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(h, nullptr);
  ASSERT_EQ(QRemoveObj(m.get(), renamed.c_str()), QL_OK);
  EXPECT_EQ(QRemoveObj(m.get(), renamed.c_str()), QL_ERR_OBJ_NOT_FOUND);
  Chunks none;
  EXPECT_EQ(QReadFile(m.get(), renamed.c_str(), Collect, &none), QL_ERR_OBJ_NOT_FOUND);
}

TEST(E2eObjects, OfflineHandleFailsAtFirstUse) {
  Master m;
  HKEYCTX h = nullptr;
  ASSERT_EQ(QGetUserKey(m.get(), "no-such-object", QL_GETKEY_OFFLINE, &h), QL_OK);
  uint32_t blocked = 0, len = sizeof blocked;
  EXPECT_EQ(QGetKeyParam(h, QKP_BLOCKED, &blocked, &len, 0), QL_ERR_OBJ_NOT_FOUND);
  EXPECT_EQ(QDestroyKey(&h, 0), QL_OK);
}

TEST(E2eObjects, BlockAndUnblockThroughKeyParameter12) {
  Master m;
  const std::string name = "blk" + std::to_string(getpid() % 100000);
  const unsigned char data[4] = {1, 2, 3, 4};
  ASSERT_EQ(QWriteFileBuffer(m.get(), name.c_str(), data, 4, 0), QL_OK);
  HKEYCTX h = nullptr;
  ASSERT_EQ(QGetUserKey(m.get(), name.c_str(), 0, &h), QL_OK);
  uint32_t one = 1, zero = 0, value = 7, len = sizeof value;
  ASSERT_EQ(QSetKeyParam(h, QKP_BLOCKED, &one, 4, 0), QL_OK);
  ASSERT_EQ(QGetKeyParam(h, QKP_BLOCKED, &value, &len, 0), QL_OK);
  EXPECT_EQ(value, 1u);
  Chunks got;
  EXPECT_EQ(QReadFile(m.get(), name.c_str(), Collect, &got), QL_ERR_OBJ_BLOCKED);
  ASSERT_EQ(QSetKeyParam(h, QKP_BLOCKED, &zero, 4, 0), QL_OK);
  EXPECT_EQ(QReadFile(m.get(), name.c_str(), Collect, &got), QL_OK);
  EXPECT_EQ(QDestroyKey(&h, QL_DESTROY_REMOVE), QL_OK);
  EXPECT_EQ(QRemoveObj(m.get(), name.c_str()), QL_ERR_OBJ_NOT_FOUND);
}

TEST(E2eInfo, HsmInfoStatsAndAdministration) {
  Master m;
  QL_HSM_INFO info;
  ASSERT_EQ(QGetHsmInfo(m.get(), &info), QL_OK);
  for (const char *text : {info.szModel, info.szFirmwareVersion, info.szSerialNumber,
                           info.szHardwareVersion, info.szHsmName, info.szLibraryVersion}) {
    EXPECT_NE(text[0], '\0');
    EXPECT_EQ(std::strchr(text, '%'), nullptr);
  }
  uint32_t sessions = 0, cpu = 0, unit = 0, total = 0, used = 0, st = 0, su = 0;
  ASSERT_EQ(QGetStatInfo(m.get(), &sessions, &cpu, &unit, &total, &used, &st, &su), QL_OK);
  EXPECT_GE(sessions, 1u);
  EXPECT_LE(cpu, 100u);
  EXPECT_EQ(unit, uint32_t{QL_MEM_UNIT_MIB});
  EXPECT_GT(total, 0u);
  EXPECT_LE(used, total);
  uint64_t log_size = 0;
  EXPECT_EQ(QGetStatLogSize(m.get(), &log_size), QL_OK);
  uint32_t mode = 0, len = sizeof mode;
  EXPECT_EQ(QGetSessionParam(m.get(), QL_SP_OPERATING_MODE, &mode, &len, 0), QL_OK);
  EXPECT_EQ(QAdmOperation(m.get(), QL_ADM_KEEPALIVE, nullptr, 0, nullptr, nullptr, 0), QL_OK);
  char version[64];
  len = sizeof version;
  EXPECT_EQ(QVersion(m.get(), QL_VERSION_HSM, version, &len), QL_OK);
  EXPECT_EQ(std::strlen(version), len);
}

TEST(E2eInfo, UpdatePackagesAreRefusedAfterTheRightsCheck) {
  Master m;
  const unsigned char package[] = "not a signed package";
  EXPECT_EQ(QUPackPush(m.get(), package, sizeof package, 0), QL_ERR_UPACK_REFUSED);
  TempUser carol("carol", ACL_OBJ_READ);
  HSESSIONCTX s = nullptr;
  ASSERT_EQ(Open(&s, carol.name(), carol.pwd(), 1), QL_OK);
  EXPECT_EQ(QUPackPush(s, package, sizeof package, 0), QL_ERR_ACCESS_DENIED);
  uint32_t count = 0;
  EXPECT_EQ(QGetStatInfo(s, &count, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            QL_ERR_ACCESS_DENIED);
  QCloseSession(&s, 0);
}

TEST(E2eInfo, BackupWritesALocalFile) {
  Master m;
  char path[] = "/tmp/qlapi_backup_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  ASSERT_EQ(QBackupData(m.get(), path, "802468135792468013579246", 0), QL_OK);
  FILE *f = std::fopen(path, "rb");
  ASSERT_NE(f, nullptr);
  std::fseek(f, 0, SEEK_END);
  EXPECT_GT(std::ftell(f), 0);
  std::fclose(f);
  unlink(path);
}

}  // namespace
