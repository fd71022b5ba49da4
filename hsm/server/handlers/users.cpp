// Users, logins and access tokens.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void Login(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::Login &l = req.login();
  // The answer may be held back (c.state.answer_delay): the connection sends it by a timer.
  Result<uint32_t> mask = c.engine.users().LogIn(
      c.session, l.kind(), l.user(), l.password(), ToBytes(l.token_key()), c.state.peer,
      &c.state.answer_delay, l.strong_auth_type(), l.strong_auth(), c.state.peer_certificate);
  Reply(mask, r, [&](uint32_t m) {
    auto *reply = r->mutable_login();
    reply->set_session_id(c.session.id());
    reply->set_user(c.session.user());
    reply->set_acl(m);
  });
}

void Logout(const pb::Request &, Call &c, pb::Response *r) {
  c.engine.users().ResetSession(c.session);
  ReplyEmpty(Status::Ok(), r);
}

void CreateUser(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::CreateUser &u = req.create_user();
  SetStatus(c.engine.users().CreateUser(c.session, u.name(), u.password(), u.acl()), r);
}

void RemoveUser(const pb::Request &req, Call &c, pb::Response *r) {
  SetStatus(c.engine.users().RemoveUser(c.session, req.remove_user().name()), r);
}

void ListUsers(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.users().ListUsers(c.session), r, [&](const auto &names) { SetNames(names, r); });
}

void SetUserParam(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SetUserParam &p = req.set_user_param();
  SetStatus(c.engine.users().SetUserParam(c.session, p.param(), p.user(), p.password(), p.acl(),
                                          ToBytes(p.data())),
            r);
}

void GetUserParam(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GetUserParam &p = req.get_user_param();
  Reply(c.engine.users().GetUserParam(c.session, p.param(), p.user()), r,
        [&](uint64_t v) { r->mutable_number()->set_value(v); });
}

void GetUserAcl(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.users().GetUser(c.session, req.get_user_acl().user()), r,
        [&](const users::UserInfo &u) { r->mutable_number()->set_value(u.mask); });
}

void ManageToken(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ManageAToken &m = req.manage_atoken();
  TokenRequest t{m.operation(), m.user(), ToBytes(m.key()), m.expiration()};
  Reply(c.engine.users().ManageToken(c.session, t), r, [&](const TokenAnswer &a) {
    if (m.operation() == qlproto::kTokenRevoke) return;  // nothing to say but the code
    auto *reply = r->mutable_atoken();
    if (!a.key.empty()) {
      reply->set_user(c.session.user());
      reply->set_key(ToString(a.key));
    }
    for (const users::TokenInfo &t : a.tokens) {
      auto *info = reply->add_tokens();
      info->set_user(t.owner);
      info->set_key_id(ToString(t.key_id));
      info->set_issued(static_cast<uint64_t>(t.issued));
      info->set_expiration(static_cast<uint64_t>(t.expires));
    }
  });
}

void ManageTokenCache(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.users().ManageTokenCache(c.session, req.manage_atoken_cache().operation()), r,
        [&](int64_t n) { r->mutable_number()->set_value(static_cast<uint64_t>(n)); });
}

}  // namespace qlhsm::server::handlers
