// The daemon over its socket: framing and bad input, the order of Hello and Login, limits, TLS,
// clean stops, and acknowledged changes surviving kill -9.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "frame.h"
#include "hsm_fixture.h"
#include "qlapi.h"
#include "raw_client.h"

namespace {

using qlhsm::v1::Request;
using qlhsm::v1::Response;
using qltest::HsmOptions;
using qltest::HsmProcess;
using qltest::RawClient;

std::unique_ptr<RawClient> LoggedIn(const HsmProcess &hsm, bool tls = false,
                                    const std::string &user = "master", std::string pwd = "") {
  auto c = std::make_unique<RawClient>(hsm.address(), hsm.port(), tls);
  EXPECT_EQ(c->Hello(), 0);
  EXPECT_EQ(c->Login(user, pwd.empty() ? hsm.master_password() : pwd), 0);
  return c;
}

Request CreateUserReq(const std::string &name, const std::string &pwd, uint32_t acl) {
  Request r;
  r.mutable_create_user()->set_name(name);
  r.mutable_create_user()->set_password(pwd);
  r.mutable_create_user()->set_acl(acl);
  return r;
}

Request RandomReq(uint32_t n) {
  Request r;
  r.mutable_get_random()->set_length(n);
  return r;
}

// The daemon still answers a fresh client: what every bad-input test ends with.
void ExpectStillServing(const HsmProcess &hsm) {
  auto c = LoggedIn(hsm);
  auto r = c->Call(RandomReq(16));
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->code(), 0);
  EXPECT_EQ(r->blob().data().size(), 16u);
}

class Daemon : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { hsm_ = new HsmProcess(); }
  static void TearDownTestSuite() {
    delete hsm_;
    hsm_ = nullptr;
  }
  static HsmProcess *hsm_;
};
HsmProcess *Daemon::hsm_ = nullptr;

TEST_F(Daemon, HelloAnnouncesVersionAndFrameLimit) {
  RawClient c(hsm_->address(), hsm_->port());
  Request r;
  r.mutable_hello()->set_protocol_version(qlproto::kProtocolVersion);
  auto resp = c.Call(r);
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), 0);
  EXPECT_EQ(resp->id(), 1u);
  EXPECT_EQ(resp->hello().protocol_version(), qlproto::kProtocolVersion);
  EXPECT_EQ(resp->hello().max_frame(), qlproto::kDefaultMaxFrame);
  EXPECT_EQ(resp->hello().server_version().find('%'), std::string::npos);
}

TEST_F(Daemon, OtherMajorVersionIsRefusedAndClosed) {
  RawClient c(hsm_->address(), hsm_->port());
  Request r;
  r.mutable_hello()->set_protocol_version(qlproto::kProtocolVersion + 0x10000);
  auto resp = c.Call(r);
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), QL_ERR_VERSION_MISMATCH);
  EXPECT_TRUE(c.PeerClosed());
}

TEST_F(Daemon, RequestBeforeHelloIsAProtocolErrorAndCloses) {
  RawClient c(hsm_->address(), hsm_->port());
  auto resp = c.Call(RandomReq(8));
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), QL_ERR_PROTOCOL);
  EXPECT_TRUE(c.PeerClosed());
  ExpectStillServing(*hsm_);
}

TEST_F(Daemon, RequestsBeforeLoginAreRefusedButTheConnectionStays) {
  RawClient c(hsm_->address(), hsm_->port());
  ASSERT_EQ(c.Hello(), 0);
  Request list;
  list.mutable_list_users();
  for (const Request &r : {RandomReq(8), list, CreateUserReq("x", "y", 0)}) {
    auto resp = c.Call(r);
    ASSERT_TRUE(resp.has_value());
    EXPECT_EQ(resp->code(), QL_ERR_NOT_LOGGED_IN);
  }
  EXPECT_EQ(c.Login("master", hsm_->master_password()), 0);
  auto resp = c.Call(RandomReq(8));
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), 0);
}

TEST_F(Daemon, WrongPasswordsAndUnknownUsersAndLoginKinds) {
  RawClient c(hsm_->address(), hsm_->port());
  ASSERT_EQ(c.Hello(), 0);
  EXPECT_EQ(c.Login("master", "wrong"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(c.Login("nobody", "x"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(c.Login("a_name_far_too_long_for_a_user", "x"), QL_ERR_AUTH_FAILED);
  Request r;
  r.mutable_login()->set_kind(7);
  auto resp = c.Call(r);
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), QL_ERR_BAD_AUTH_KIND);
  // Still the same connection, and a good login works on it.
  EXPECT_EQ(c.Login("master", hsm_->master_password()), 0);
}

TEST_F(Daemon, BlockedUserIsRefusedAlsoOnReuseAfterLogout) {
  auto admin = LoggedIn(*hsm_);
  auto resp = admin->Call(CreateUserReq("blocky", "pw123456", 0x40));
  ASSERT_TRUE(resp && resp->code() == 0);
  auto user = LoggedIn(*hsm_, false, "blocky", "pw123456");
  Request logout;
  logout.mutable_logout();
  ASSERT_EQ(user->Call(logout)->code(), 0);  // back in the library's cache, say

  Request block;
  block.mutable_set_user_param()->set_param(QL_UP_BLOCK);
  block.mutable_set_user_param()->set_user("blocky");
  ASSERT_EQ(admin->Call(block)->code(), 0);
  EXPECT_EQ(user->Login("blocky", "pw123456"), QL_ERR_USER_BLOCKED);

  Request unblock = block;
  unblock.mutable_set_user_param()->set_param(QL_UP_UNBLOCK);
  ASSERT_EQ(admin->Call(unblock)->code(), 0);
  EXPECT_EQ(user->Login("blocky", "pw123456"), 0);
  // A password changed while the connection sat idle is checked on reuse too.
  ASSERT_EQ(user->Call(logout)->code(), 0);
  Request pwd;
  pwd.mutable_set_user_param()->set_param(QL_UP_USER_PASSWORD);
  pwd.mutable_set_user_param()->set_user("blocky");
  pwd.mutable_set_user_param()->set_password("newpw789");
  ASSERT_EQ(admin->Call(pwd)->code(), 0);
  EXPECT_EQ(user->Login("blocky", "pw123456"), QL_ERR_AUTH_FAILED);
  EXPECT_EQ(user->Login("blocky", "newpw789"), 0);
}

TEST_F(Daemon, GarbageClosesTheConnectionAndServingGoesOn) {
  for (const std::string &garbage :
       {std::string("\x00\x00\x00\x05hello", 9), std::string("\x00\x00\x00\x00", 4),
        std::string("GET / HTTP/1.1\r\n\r\n"), std::string(64, '\xff')}) {
    RawClient c(hsm_->address(), hsm_->port());
    ASSERT_TRUE(c.SendRaw(garbage));
    EXPECT_TRUE(c.PeerClosed());
  }
  ExpectStillServing(*hsm_);
}

TEST_F(Daemon, OversizedFrameIsRefusedBeforeItsBodyArrives) {
  RawClient c(hsm_->address(), hsm_->port());
  ASSERT_EQ(c.Hello(), 0);
  // Announce one byte more than the limit and send no body: the answer cannot wait for it.
  uint32_t n = qlproto::kDefaultMaxFrame + 1;
  std::string header = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                        static_cast<char>(n >> 8), static_cast<char>(n)};
  ASSERT_TRUE(c.SendRaw(header));
  auto resp = c.Receive();
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), QL_ERR_PROTOCOL);
  EXPECT_TRUE(c.PeerClosed());
  ExpectStillServing(*hsm_);
}

TEST_F(Daemon, TruncatedFrameThenHangUpLeavesTheDaemonServing) {
  {
    RawClient c(hsm_->address(), hsm_->port());
    ASSERT_EQ(c.Hello(), 0);
    ASSERT_TRUE(c.SendRaw(std::string("\x00\x00\x01\x00", 4) + std::string(10, 'x')));
  }  // closed mid-frame
  ExpectStillServing(*hsm_);
}

// A connection may carry several requests at once and a frame may arrive in any pieces, larger
// than the daemon's receive buffer included: every request is answered, in order, whole.
TEST_F(Daemon, PipelinedFramesInAnyPiecesAreAnsweredInOrder) {
  for (bool tls : {false, true}) {
    SCOPED_TRACE(tls ? "TLS" : "plain");
    auto c = LoggedIn(*hsm_, tls);
    const std::string big(200 * 1024, 'z');
    std::vector<Request> reqs(5);
    reqs[0] = RandomReq(16);
    reqs[1].mutable_write_file()->set_name("pipelined_file");
    reqs[1].mutable_write_file()->set_data(big);
    reqs[2].mutable_read_file()->set_name("pipelined_file");
    reqs[2].mutable_read_file()->set_max_length(60000);
    reqs[3] = RandomReq(32);
    reqs[4].mutable_remove_obj()->set_name("pipelined_file");
    std::string all;
    for (size_t i = 0; i < reqs.size(); ++i) {
      reqs[i].set_id(500 + i);
      ASSERT_EQ(qlproto::EncodeFrame(reqs[i], qlproto::kAbsoluteMaxFrame, &all),
                qlproto::FrameStatus::kOk);
    }
    // A lone byte, a header split in two, a body cut anywhere, then everything else at once.
    const size_t cuts[] = {1, 3, 6, 5000, 70000, all.size()};
    size_t sent = 0;
    for (size_t cut : cuts) {
      ASSERT_TRUE(c->SendRaw(all.substr(sent, cut - sent)));
      sent = cut;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (size_t i = 0; i < reqs.size(); ++i) {
      auto r = c->Receive();
      ASSERT_TRUE(r.has_value()) << "answer " << i;
      EXPECT_EQ(r->id(), 500 + i);
      EXPECT_EQ(r->code(), 0) << "answer " << i << ": " << r->detail();
      if (i == 0) {
        EXPECT_EQ(r->blob().data().size(), 16u);
      } else if (i == 2) {
        EXPECT_EQ(r->file_chunk().data(), big.substr(0, 60000));
      } else if (i == 3) {
        EXPECT_EQ(r->blob().data().size(), 32u);
      }
    }
  }
  ExpectStillServing(*hsm_);
}

// Clients that hang up while their answers are being written (over TLS, whose records the daemon
// writes with write(2)) cost only their own connections.
TEST_F(Daemon, ClientsHangingUpMidAnswerLeaveTheDaemonServing) {
  for (bool tls : {true, false}) {
    for (int round = 0; round < 5; ++round) {
      auto c = LoggedIn(*hsm_, tls);
      for (int i = 0; i < 16; ++i) ASSERT_TRUE(c->Send(RandomReq(1 << 16)));
    }  // closed with a megabyte of answers on their way
  }
  ExpectStillServing(*hsm_);
}

TEST_F(Daemon, UnknownRequestIsNotSupportedAndTheConnectionStays) {
  auto c = LoggedIn(*hsm_);
  Request empty;  // no body: a request this server does not know
  empty.set_id(77);
  auto resp = c->Call(empty);
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->id(), 77u);
  EXPECT_EQ(resp->code(), QL_ERR_NOT_SUPPORTED);
  // A field number from a future version is skipped by the parser: the body is still unknown.
  std::string future = std::string("\x08\x05", 2) + std::string("\xfa\x3e\x00", 3);
  std::string frame = {0, 0, 0, static_cast<char>(future.size())};
  ASSERT_TRUE(c->SendRaw(frame + future));
  resp = c->Receive();
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), QL_ERR_NOT_SUPPORTED);
  EXPECT_EQ(c->Call(RandomReq(4))->code(), 0);
}

TEST_F(Daemon, TlsServesTheSameProtocol) {
  auto c = LoggedIn(*hsm_, true);
  auto resp = c->Call(RandomReq(32));
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), 0);
  EXPECT_EQ(resp->blob().data().size(), 32u);
  Request p;
  p.mutable_get_session_param()->set_param(QL_SP_TLS);
  EXPECT_EQ(c->Call(p)->number().value(), 1u);
  auto plain = LoggedIn(*hsm_, false);
  EXPECT_EQ(plain->Call(p)->number().value(), 0u);
}

TEST_F(Daemon, StatInfoCountsSessionsAndReportsMiB) {
  auto admin = LoggedIn(*hsm_);
  Request stat;
  stat.mutable_get_stat_info();
  Request logout;
  logout.mutable_logout();
  // Connections that earlier tests closed may still be leaving the daemon (the binary shares one
  // daemon when run whole) and change the count between two reads: a few attempts, each whole.
  uint32_t before = 0, during = 0, after = 0;
  for (int attempt = 0; attempt < 20; ++attempt) {
    auto b = admin->Call(stat);
    ASSERT_TRUE(b && b->code() == 0);
    auto other = LoggedIn(*hsm_);
    auto d = admin->Call(stat);
    ASSERT_EQ(other->Call(logout)->code(), 0);
    auto a = admin->Call(stat);
    ASSERT_TRUE(d && a);
    before = b->stat_info().session_count();
    during = d->stat_info().session_count();
    after = a->stat_info().session_count();
    if (during == before + 1 && after == before) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(during, before + 1);
  EXPECT_EQ(after, before);
  auto figures = admin->Call(stat);
  ASSERT_TRUE(figures && figures->code() == 0);

  std::ifstream in("/proc/meminfo");
  std::string key, unit;
  uint64_t kib = 0;
  in >> key >> kib >> unit;
  EXPECT_EQ(figures->stat_info().mem_unit(), static_cast<uint32_t>(QL_MEM_UNIT_MIB));
  EXPECT_EQ(figures->stat_info().mem_total(), kib / 1024);
  EXPECT_LE(figures->stat_info().cpu_usage(), 100u);
}

TEST_F(Daemon, AccessDeniedBeforeExistenceOverTheWire) {
  auto admin = LoggedIn(*hsm_);
  ASSERT_EQ(admin->Call(CreateUserReq("norights", "pw123456", 0))->code(), 0);
  auto c = LoggedIn(*hsm_, false, "norights", "pw123456");
  Request rm;
  rm.mutable_remove_user()->set_name("ghost");
  EXPECT_EQ(c->Call(rm)->code(), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(admin->Call(rm)->code(), QL_ERR_USER_NOT_FOUND);
  Request open;
  open.mutable_open_key()->set_name("master/ghost");
  EXPECT_EQ(c->Call(open)->code(), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(admin->Call(open)->code(), QL_ERR_OBJ_NOT_FOUND);
  Request upack;
  upack.mutable_upack_push()->set_package("package");
  EXPECT_EQ(c->Call(upack)->code(), QL_ERR_ACCESS_DENIED);
  EXPECT_EQ(admin->Call(upack)->code(), QL_ERR_UPACK_REFUSED);
}

TEST_F(Daemon, KeysThroughHandlesOverTheWire) {
  auto c = LoggedIn(*hsm_);
  Request gen;
  gen.mutable_generate_key()->set_name("wirekey");
  gen.mutable_generate_key()->set_algorithm(QL_ALG_RSA1024);
  gen.mutable_generate_key()->set_want_handle(true);
  auto g = c->Call(gen);
  ASSERT_TRUE(g && g->code() == 0) << (g ? g->detail() : "no answer");
  uint64_t handle = g->key_handle().handle();
  EXPECT_NE(handle, 0u);
  EXPECT_EQ(g->key_handle().key_length(), 128u);

  Request len;
  len.mutable_get_key_param()->mutable_key()->set_handle(handle);
  len.mutable_get_key_param()->set_param(QKP_KEYLEN);
  EXPECT_EQ(c->Call(len)->param().number(), 128u);

  Request sign;
  sign.mutable_sign_hash()->mutable_key()->set_handle(handle);
  sign.mutable_sign_hash()->set_hash_algorithm(QL_ALG_SHA256);
  sign.mutable_sign_hash()->set_digest(std::string(32, 'd'));
  auto sig = c->Call(sign);
  ASSERT_EQ(sig->code(), 0);
  EXPECT_EQ(sig->signature().signature().size(), 128u);
  Request small = sign;
  small.mutable_sign_hash()->set_out_capacity(10);
  auto too_small = c->Call(small);
  EXPECT_EQ(too_small->code(), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(too_small->needed_length(), 128u);

  Request block;
  block.mutable_set_key_param()->mutable_key()->set_handle(handle);
  block.mutable_set_key_param()->set_param(QKP_BLOCKED);
  block.mutable_set_key_param()->mutable_value()->set_number(1);
  ASSERT_EQ(c->Call(block)->code(), 0);
  EXPECT_EQ(c->Call(sign)->code(), QL_ERR_OBJ_BLOCKED);
  block.mutable_set_key_param()->mutable_value()->set_number(0);
  ASSERT_EQ(c->Call(block)->code(), 0);
  EXPECT_EQ(c->Call(sign)->code(), 0);

  Request destroy;
  destroy.mutable_destroy_key()->set_handle(handle);
  destroy.mutable_destroy_key()->set_remove(true);
  EXPECT_EQ(c->Call(destroy)->code(), 0);
  Request open;
  open.mutable_open_key()->set_name("wirekey");
  EXPECT_EQ(c->Call(open)->code(), QL_ERR_OBJ_NOT_FOUND);
  // The handle is gone with it.
  EXPECT_EQ(c->Call(sign)->code(), QL_ERR_BAD_ARGUMENT);
}

TEST_F(Daemon, TokenAndAnonymousLogins) {
  auto c = LoggedIn(*hsm_);
  Request issue;
  issue.mutable_manage_atoken()->set_operation(QL_ATOKEN_ISSUE);
  auto tok = c->Call(issue);
  ASSERT_TRUE(tok && tok->code() == 0);
  ASSERT_EQ(tok->atoken().key().size(), 16u);

  RawClient t(hsm_->address(), hsm_->port());
  ASSERT_EQ(t.Hello(), 0);
  Request login;
  login.mutable_login()->set_kind(QL_AUTH_ATOKEN);
  login.mutable_login()->set_user("master");
  login.mutable_login()->set_token_key(tok->atoken().key());
  auto ok = t.Call(login);
  ASSERT_EQ(ok->code(), 0);
  EXPECT_EQ(ok->login().acl(), static_cast<uint32_t>(ACL_ALL_RIGHTS));
  std::string wrong = tok->atoken().key();
  wrong[0] ^= 1;
  login.mutable_login()->set_token_key(wrong);
  EXPECT_EQ(t.Call(login)->code(), QL_ERR_AUTH_FAILED);

  RawClient anon(hsm_->address(), hsm_->port());
  ASSERT_EQ(anon.Hello(), 0);
  Request a;
  a.mutable_login()->set_kind(QL_AUTH_ANONYMOUS);
  ASSERT_EQ(anon.Call(a)->code(), 0);
  EXPECT_EQ(anon.Call(RandomReq(8))->code(), 0);
  Request list;
  list.mutable_list_users();
  EXPECT_EQ(anon.Call(list)->code(), QL_ERR_ACCESS_DENIED);
}

TEST(DaemonBackup, BackupOverTheWireRestoresIntoAFreshDataDir) {
  HsmProcess hsm;
  auto c = LoggedIn(hsm);
  ASSERT_EQ(c->Call(CreateUserReq("survivor", "pw123456", 0x4))->code(), 0);
  Request backup;
  backup.mutable_backup()->set_pin("802468135792468013579246");
  auto b = c->Call(backup);
  ASSERT_TRUE(b && b->code() == 0);
  ASSERT_FALSE(b->blob().data().empty());
  backup.mutable_backup()->set_pin("short");
  EXPECT_EQ(c->Call(backup)->code(), QL_ERR_BAD_ARGUMENT);

  std::string file = hsm.data_dir() + "/../bkp_verify_test";
  std::string fresh = hsm.data_dir() + "/../restored";
  {
    std::ofstream out(file, std::ios::binary);
    out << b->blob().data();
  }
  std::string log = hsm.log_path();
  EXPECT_NE(
      qltest::RunQlhsmd({"restore", "--data-dir", fresh, "--backup", file, "--pin", "wrong"}, log),
      0);
  ASSERT_EQ(qltest::RunQlhsmd({"restore", "--data-dir", fresh, "--backup", file, "--pin",
                               "802468135792468013579246"},
                              log),
            0);
  HsmOptions opts;
  opts.existing_data_dir = fresh;
  HsmProcess restored(opts);
  auto r = LoggedIn(restored, false, "survivor", "pw123456");
  auto m = LoggedIn(restored);  // the master password came back too
}

TEST(DaemonLimits, SessionAndFrameLimitsAnswerClearCodes) {
  HsmOptions opts;
  opts.serve_args = {"--max-sessions", "2", "--max-frame", "4096"};
  HsmProcess hsm(opts);
  auto a = LoggedIn(hsm);
  auto b = LoggedIn(hsm);
  RawClient c(hsm.address(), hsm.port());
  ASSERT_EQ(c.Hello(), 0);
  EXPECT_EQ(c.Login("master", hsm.master_password()), QL_ERR_LIMIT_REACHED);
  Request logout;
  logout.mutable_logout();
  ASSERT_EQ(b->Call(logout)->code(), 0);
  EXPECT_EQ(c.Login("master", hsm.master_password()), 0);

  // An answer larger than a frame is refused with the limit code, and the connection stays.
  EXPECT_EQ(a->Call(RandomReq(8192))->code(), QL_ERR_LIMIT_REACHED);
  EXPECT_EQ(a->Call(RandomReq(16))->code(), 0);
  // A request larger than a frame closes the connection.
  Request big;
  big.mutable_write_file()->set_name("big");
  big.mutable_write_file()->set_data(std::string(5000, 'b'));
  ASSERT_TRUE(a->Send(big));
  auto resp = a->Receive();
  ASSERT_TRUE(resp.has_value());
  EXPECT_EQ(resp->code(), QL_ERR_PROTOCOL);
  EXPECT_TRUE(a->PeerClosed());
}

TEST(DaemonLifecycle, SigtermStopsCleanly) {
  HsmProcess hsm;
  auto c = LoggedIn(hsm);  // an open connection must not hold the stop up
  int status = hsm.Stop();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(DaemonLifecycle, AcknowledgedUsersSurviveKill9) {
  HsmProcess hsm;
  std::mutex mu;
  std::set<std::string> acknowledged;
  std::atomic<bool> stop{false};
  std::atomic<int> count{0}, writers_done{0};
  auto writer = [&](int t) {
    struct Done {
      std::atomic<int> &n;
      ~Done() { ++n; }
    } done{writers_done};
    auto c = LoggedIn(hsm);
    for (int i = 0; !stop; ++i) {
      std::string name = "k" + std::to_string(t) + "_" + std::to_string(i);
      auto resp = c->Call(CreateUserReq(name, "pw123456", 0));
      if (!resp) return;  // the daemon died under us
      if (resp->code() == 0) {
        std::lock_guard<std::mutex> lock(mu);
        acknowledged.insert(name);
        ++count;
      }
    }
  };
  std::thread t1(writer, 1), t2(writer, 2);
  // Writers that stop early (a failed login) end the wait too, and the count check below fails.
  while (count < 60 && writers_done < 2) std::this_thread::yield();
  hsm.Kill();  // requests are in flight on both connections
  stop = true;
  t1.join();
  t2.join();

  hsm.Restart();
  auto c = LoggedIn(hsm);
  Request list;
  list.mutable_list_users();
  auto resp = c->Call(list);
  ASSERT_TRUE(resp && resp->code() == 0);
  std::set<std::string> present(resp->names().names().begin(), resp->names().names().end());
  std::lock_guard<std::mutex> lock(mu);
  ASSERT_GE(acknowledged.size(), 60u);
  for (const std::string &name : acknowledged) EXPECT_TRUE(present.count(name)) << name;
}

}  // namespace
