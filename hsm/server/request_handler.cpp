#include "server/request_handler.h"

#include <algorithm>

#include "frame.h"
#include "server/caller_text.h"

namespace qlhsm::server {

namespace pb = qlhsm::v1;
using sessions::Session;

namespace {

// Largest chunk of a file sent in one response; the library asks for at most this much.
constexpr uint32_t kMaxFileChunk = 64 * 1024;

void SetStatus(const Status &st, pb::Response *r) {
  r->set_code(ToWire(st.code()));
  if (!st.ok() && !st.message().empty()) r->set_detail(st.message());
}

template <typename T>
bool Failed(const Result<T> &res, pb::Response *r) {
  if (res.ok()) return false;
  SetStatus(res.status(), r);
  return true;
}

secure::Bytes ToBytes(const std::string &s) {
  return secure::Bytes(s.begin(), s.end());
}
std::string ToString(const secure::Bytes &b) {
  return std::string(b.begin(), b.end());
}

void SetNames(const std::vector<std::string> &names, pb::Response *r) {
  auto *list = r->mutable_names();
  for (const auto &n : names) list->add_names(n);
}

KeyArg ToKeyArg(const pb::KeyRef &ref) {
  KeyArg a;
  if (ref.has_handle()) a.handle = ref.handle();
  if (ref.has_name()) a.name = ref.name();
  return a;
}

void SetKeyHandle(const KeyDesc &k, pb::Response *r) {
  auto *h = r->mutable_key_handle();
  h->set_handle(k.handle);
  h->set_algorithm(k.algorithm);
  h->set_flags(k.flags);
  h->set_key_length(k.key_length);
}

// The object a KeyRef names: a handle opened in this session or a name.
Result<std::string> KeyName(const pb::KeyRef &ref, Session &s) {
  if (ref.has_handle()) {
    const std::string *name = s.FindOpened(ref.handle());
    if (!name) return Status::Error(Code::kBadArgument, "unknown key handle");
    return *name;
  }
  if (ref.has_name()) return ref.name();
  return Status::Error(Code::kBadArgument, "no key given");
}

}  // namespace

RequestHandler::RequestHandler(Engine &engine, HandlerConfig config)
    : engine_(engine), config_(std::move(config)) {
  if (config_.max_frame == 0) config_.max_frame = qlproto::kDefaultMaxFrame;
}

void RequestHandler::Refusal(Code code, std::string_view detail, pb::Response *response) {
  response->Clear();
  response->set_code(ToWire(code));
  response->set_detail(std::string(detail));
}

void RequestHandler::HandleFrame(std::string_view body, ConnectionState &state,
                                 pb::Response *response) {
  pb::Request request;
  if (qlproto::DecodeFrameBody(body, &request) != qlproto::FrameStatus::kOk) {
    Refusal(Code::kProtocol, "a frame that is not a request", response);
    state.close_after = true;
    return;
  }
  Handle(request, state, response);
}

void RequestHandler::Handle(const pb::Request &request, ConnectionState &state,
                            pb::Response *response) {
  response->Clear();
  response->set_id(request.id());
  if (!state.session) state.session = engine_.NewSession();
  Dispatch(request, state, response);
}

void RequestHandler::Dispatch(const pb::Request &req, ConnectionState &state, pb::Response *r) {
  Session &s = *state.session;
  Engine &e = engine_;

  if (req.body_case() == pb::Request::kHello) {
    const pb::Hello &h = req.hello();
    auto *reply = r->mutable_hello();
    reply->set_protocol_version(qlproto::kProtocolVersion);
    reply->set_max_frame(config_.max_frame);
    reply->set_server_version(std::string("qlhsmd ") + kHsmVersion);
    if (qlproto::ProtocolMajor(h.protocol_version()) !=
        qlproto::ProtocolMajor(qlproto::kProtocolVersion)) {
      SetStatus(Status::Error(Code::kVersionMismatch, "protocol major version differs"), r);
      state.close_after = true;
      return;
    }
    state.hello_done = true;
    r->set_code(0);
    return;
  }
  if (!state.hello_done) {
    Refusal(Code::kProtocol, "the first request must be Hello", r);
    r->set_id(req.id());
    state.close_after = true;
    return;
  }

  if (Status text = CheckCallerText(req); !text.ok()) {
    SetStatus(text, r);
    return;
  }
  if (req.body_case() == pb::Request::kLogin) {
    const pb::Login &l = req.login();
    Status st;
    switch (l.kind()) {
      case QL_AUTH_ANONYMOUS:
        st = e.LoginAnonymous(s);
        break;
      case QL_AUTH_USER_PWD:
        st = e.Login(s, l.user(), l.password());
        break;
      case QL_AUTH_ATOKEN:
        st = e.LoginToken(s, l.user(), ToBytes(l.token_key()));
        break;
      default:
        st = Status::Error(Code::kBadAuthKind, "unknown login kind");
    }
    SetStatus(st, r);
    if (st.ok()) {
      auto *reply = r->mutable_login();
      reply->set_session_id(s.id());
      reply->set_user(s.user());
      Result<users::UserInfo> me = e.GetUser(s, s.user());
      reply->set_acl(me.ok() ? me->mask : 0);
    }
    return;
  }
  if (req.body_case() == pb::Request::kLogout) {
    e.ResetSession(s);
    r->set_code(0);
    r->mutable_empty();
    return;
  }
  if (s.auth() == sessions::AuthKind::kNone) {
    SetStatus(Status::Error(Code::kNotLoggedIn, "log in first"), r);
    return;
  }

  switch (req.body_case()) {
    case pb::Request::kGetSessionParam: {
      Status st = e.CheckSession(s);
      if (!st.ok()) return SetStatus(st, r);
      switch (req.get_session_param().param()) {
        case QL_SP_OPERATING_MODE:
          r->mutable_number()->set_value(QL_OP_MODE_NORMAL);
          break;
        case QL_SP_ACL: {
          Result<users::UserInfo> me = e.GetUser(s, s.user());
          r->mutable_number()->set_value(me.ok() ? me->mask : 0);
          break;
        }
        case QL_SP_SESSION_ID:
          r->mutable_number()->set_value(s.id());
          break;
        case QL_SP_USER_NAME:
          r->mutable_param()->set_text(s.user());
          break;
        case QL_SP_TLS:
          r->mutable_number()->set_value(state.tls ? 1 : 0);
          break;
        default:
          return SetStatus(Status::Error(Code::kBadArgument, "unknown session parameter"), r);
      }
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kAdmOperation: {
      const pb::AdmOperation &op = req.adm_operation();
      if (op.operation() == QL_ADM_KEEPALIVE) {
        Status st = e.KeepAlive(s);
        if (st.ok()) r->mutable_empty();
        return SetStatus(st, r);
      }
      if (op.operation() == QL_ADM_PROBE) {
        Status st = e.KeepAlive(s);
        if (st.ok()) r->mutable_number()->set_value(1);  // up
        return SetStatus(st, r);
      }
      if (op.operation() == QL_ADM_SET_DATE_TIME) {
        Status st = e.SetDateTime(s, ToBytes(op.input()));
        if (st.ok()) r->mutable_empty();
        return SetStatus(st, r);
      }
      return SetStatus(e.Administer(s, "adm-" + std::to_string(op.operation())), r);
    }
    case pb::Request::kGetHsmInfo: {
      Result<HsmInfo> info = e.GetHsmInfo(s);
      if (Failed(info, r)) return;
      auto *h = r->mutable_hsm_info();
      h->set_model(info->versions[0]);
      h->set_firmware_version(info->versions[1]);
      h->set_serial_number(info->versions[2]);
      h->set_hardware_version(info->versions[3]);
      h->set_hsm_name(info->versions[4]);
      std::string pending(8, '\0');
      for (int i = 0; i < 8; ++i)
        pending[i] = static_cast<char>(info->pending_transaction >> (56 - 8 * i));
      h->set_pending_transaction(pending);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kGetStatInfo: {
      Result<StatInfo> info = e.GetStatInfo(s);
      if (Failed(info, r)) return;
      auto *m = r->mutable_stat_info();
      m->set_session_count(info->session_count);
      m->set_cpu_usage(info->cpu_percent);
      m->set_mem_unit(info->unit);
      m->set_mem_total(info->mem_total);
      m->set_mem_used(info->mem_used);
      m->set_swap_total(info->swap_total);
      m->set_swap_used(info->swap_used);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kGetStatLogSize: {
      Result<uint64_t> size = e.GetLogSize(s);
      if (Failed(size, r)) return;
      r->mutable_number()->set_value(*size);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kGetTlsCert: {
      Status st = e.CheckSession(s);
      if (st.ok())
        r->mutable_blob()->set_data(
            std::string(config_.tls_cert_der.begin(), config_.tls_cert_der.end()));
      return SetStatus(st, r);
    }
    case pb::Request::kGetRandom: {
      uint32_t len = req.get_random().length();
      // The reply must fit in one frame.
      if (len > config_.max_frame - 64)
        return SetStatus(Status::Error(Code::kLimitReached, "more than a frame holds"), r);
      Result<secure::Bytes> bytes = e.GetRandom(s, len);
      if (Failed(bytes, r)) return;
      r->mutable_blob()->set_data(ToString(*bytes));
      return SetStatus(Status::Ok(), r);
    }

    case pb::Request::kCreateUser: {
      const pb::CreateUser &c = req.create_user();
      return SetStatus(e.CreateUser(s, c.name(), c.password(), c.acl()), r);
    }
    case pb::Request::kRemoveUser:
      return SetStatus(e.RemoveUser(s, req.remove_user().name()), r);
    case pb::Request::kListUsers: {
      auto names = e.ListUsers(s);
      if (Failed(names, r)) return;
      SetNames(*names, r);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kSetUserParam: {
      const pb::SetUserParam &p = req.set_user_param();
      switch (p.param()) {
        case QL_UP_PASSWORD:
          return SetStatus(e.SetUserPassword(s, s.user(), p.password()), r);
        case QL_UP_USER_PASSWORD:
          return SetStatus(e.SetUserPassword(s, p.user(), p.password()), r);
        case QL_UP_ACL:
          return SetStatus(e.SetUserMask(s, p.user(), p.acl()), r);
        case QL_UP_BLOCK:
        case QL_UP_UNBLOCK:
          return SetStatus(e.SetUserBlocked(s, p.user(), p.param() == QL_UP_BLOCK), r);
        case QL_UP_X509_ASSIGN:
        case QL_UP_X509_UNASSIGN: {
          Status st = e.CheckSession(s);
          return SetStatus(
              st.ok() ? Status::Error(Code::kNotSupported, "certificate login is not built yet")
                      : st,
              r);
        }
        default:
          return SetStatus(Status::Error(Code::kBadArgument, "unknown user parameter"), r);
      }
    }
    case pb::Request::kGetUserParam: {
      const pb::GetUserParam &p = req.get_user_param();
      if (p.param() == QL_UP_OBJ_COUNT) {
        Result<int64_t> n = e.CountOwnObjects(s);
        if (Failed(n, r)) return;
        r->mutable_number()->set_value(static_cast<uint64_t>(*n));
        return SetStatus(Status::Ok(), r);
      }
      if (p.param() != QL_UP_ACL && p.param() != QL_UP_BLOCKED)
        return SetStatus(Status::Error(Code::kBadArgument, "unknown user parameter"), r);
      Result<users::UserInfo> u = e.GetUser(s, p.user());
      if (Failed(u, r)) return;
      r->mutable_number()->set_value(p.param() == QL_UP_ACL ? u->mask : (u->blocked ? 1 : 0));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kGetUserAcl: {
      Result<users::UserInfo> u = e.GetUser(s, req.get_user_acl().user());
      if (Failed(u, r)) return;
      r->mutable_number()->set_value(u->mask);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kManageAtoken: {
      const pb::ManageAToken &m = req.manage_atoken();
      if (m.operation() == QL_ATOKEN_ISSUE) {
        if (m.expiration() > static_cast<uint64_t>(INT64_MAX))
          return SetStatus(Status::Error(Code::kBadArgument, "expiry out of range"), r);
        Result<secure::Bytes> key = e.IssueToken(s, static_cast<int64_t>(m.expiration()));
        if (Failed(key, r)) return;
        r->mutable_atoken()->set_user(s.user());
        r->mutable_atoken()->set_key(ToString(*key));
        return SetStatus(Status::Ok(), r);
      }
      if (m.operation() == QL_ATOKEN_REVOKE)
        return SetStatus(e.RevokeToken(s, m.user(), ToBytes(m.key())), r);
      if (m.operation() == QL_ATOKEN_LIST) {
        auto tokens = e.ListTokens(s);
        if (Failed(tokens, r)) return;
        auto *reply = r->mutable_atoken();
        for (const users::TokenInfo &t : *tokens) {
          auto *info = reply->add_tokens();
          info->set_user(t.owner);
          info->set_key_id(ToString(t.key_id));
          info->set_issued(static_cast<uint64_t>(t.issued));
          info->set_expiration(static_cast<uint64_t>(t.expires));
        }
        return SetStatus(Status::Ok(), r);
      }
      return SetStatus(Status::Error(Code::kBadArgument, "unknown token operation"), r);
    }
    case pb::Request::kManageAtokenCache: {
      uint32_t op = req.manage_atoken_cache().operation();
      Result<int64_t> n =
          op == QL_ATOKEN_CACHE_COUNT ? e.TokenCount(s)
          : op == QL_ATOKEN_CACHE_GC
              ? e.CollectTokenGarbage(s)
              : Result<int64_t>(Status::Error(Code::kBadArgument, "unknown token cache operation"));
      if (Failed(n, r)) return;
      r->mutable_number()->set_value(static_cast<uint64_t>(*n));
      return SetStatus(Status::Ok(), r);
    }

    case pb::Request::kListObjs: {
      auto names = e.ListObjects(s);
      if (Failed(names, r)) return;
      SetNames(*names, r);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kRemoveObj:
      return SetStatus(e.RemoveObject(s, req.remove_obj().name()), r);
    case pb::Request::kRenameObj:
      return SetStatus(e.RenameObject(s, req.rename_obj().name(), req.rename_obj().new_name()), r);
    case pb::Request::kGetObjInfo: {
      Result<objects::ObjectInfo> info = e.OpenObject(s, req.get_obj_info().name());
      if (Failed(info, r)) return;
      auto *o = r->mutable_obj_info();
      o->set_name(info->ref.name);
      o->set_owner(info->ref.owner);
      o->set_type(static_cast<uint32_t>(info->type));
      o->set_flags(info->flags);
      o->set_blocked(info->blocked);
      o->set_created(static_cast<uint64_t>(info->created));
      o->set_modified(static_cast<uint64_t>(info->created));
      o->set_size(info->size);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kReadFile: {
      const pb::ReadFile &f = req.read_file();
      uint32_t max = std::min({f.max_length(), kMaxFileChunk, config_.max_frame - 64});
      Result<FileChunk> chunk = e.ReadFile(s, f.name(), f.offset(), max);
      if (Failed(chunk, r)) return;
      r->mutable_file_chunk()->set_data(ToString(chunk->data));
      r->mutable_file_chunk()->set_total_size(chunk->total_size);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kWriteFile: {
      const pb::WriteFile &f = req.write_file();
      return SetStatus(
          e.WriteFile(s, f.name(), ToBytes(f.data()), (f.flags() & QL_WRITE_FILE_REPLACE) != 0), r);
    }
    case pb::Request::kGetObjMetadataJson: {
      const pb::GetObjMetadataJson &g = req.get_obj_metadata_json();
      Result<std::string> json = e.GetObjectMetadata(s, g.name(), g.type());
      if (Failed(json, r)) return;
      r->mutable_blob()->set_data(*json);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kSetObjMetadataJson: {
      const pb::SetObjMetadataJson &m = req.set_obj_metadata_json();
      Status st = e.SetObjectMetadata(s, m.name(), m.json());
      if (st.ok()) r->mutable_empty();
      return SetStatus(st, r);
    }
    case pb::Request::kBackup: {
      Result<secure::Bytes> blob = e.Backup(s, req.backup().pin());
      if (Failed(blob, r)) return;
      if (blob->size() > config_.max_frame - 64)
        return SetStatus(Status::Error(Code::kLimitReached, "backup larger than a frame"), r);
      r->mutable_blob()->set_data(ToString(*blob));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kUpackPush:
      return SetStatus(e.PushUpdatePackage(s, ToBytes(req.upack_push().package())), r);

    // Keys.
    case pb::Request::kGenerateKey: {
      const pb::GenerateKey &g = req.generate_key();
      Result<KeyDesc> k = e.GenerateKey(s, g.name(), g.algorithm(), g.flags(), g.want_handle());
      if (Failed(k, r)) return;
      SetKeyHandle(*k, r);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kOpenKey: {
      Result<KeyDesc> k = e.OpenKey(s, req.open_key().name());
      if (Failed(k, r)) return;
      SetKeyHandle(*k, r);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kImportKey: {
      const pb::ImportKey &i = req.import_key();
      Result<KeyDesc> k = e.ImportKey(s, i.name(), ToKeyArg(i.kek()), ToBytes(i.blob()),
                                      i.blob_type(), i.algorithm(), i.flags(), i.want_handle());
      if (Failed(k, r)) return;
      SetKeyHandle(*k, r);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kExportKey: {
      const pb::ExportKey &x = req.export_key();
      Result<secure::Bytes> blob =
          e.ExportKey(s, ToKeyArg(x.key()), ToKeyArg(x.kek()), x.blob_type());
      if (Failed(blob, r)) return;
      r->mutable_blob()->set_data(ToString(*blob));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kSignHash: {
      const pb::SignHash &h = req.sign_hash();
      // The key's longest signature goes with every answer: ECDSA signatures vary in length,
      // so a size query must learn the longest, not the length this one happened to have. The
      // engine finds it with the same key lookup as the signature.
      size_t most = 0;
      Result<secure::Bytes> sig = e.SignHash(s, ToKeyArg(h.key()), h.hash_algorithm(),
                                             ToBytes(h.digest()), h.flags(), &most);
      if (Failed(sig, r)) return;
      r->set_needed_length(std::max(most, sig->size()));
      if (h.out_capacity() != 0 && sig->size() > h.out_capacity()) {
        return SetStatus(Status::Error(Code::kBufferTooSmall, "signature longer than the buffer"),
                         r);
      }
      r->mutable_signature()->set_signature(sig->data(), sig->size());
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kVerifySignature: {
      const pb::VerifySignature &v = req.verify_signature();
      return SetStatus(e.VerifySignature(s, ToKeyArg(v.key()), v.hash_algorithm(),
                                         ToBytes(v.digest()), ToBytes(v.signature())),
                       r);
    }
    case pb::Request::kSetKeyParam: {
      const pb::SetKeyParam &p = req.set_key_param();
      Status st = e.CheckSession(s);
      if (!st.ok()) return SetStatus(st, r);
      if (p.param() == QKP_BLOCKED) {
        Result<std::string> name = KeyName(p.key(), s);
        if (Failed(name, r)) return;
        if (!p.value().has_number())
          return SetStatus(Status::Error(Code::kBadArgument, "the block state is a number"), r);
        return SetStatus(e.SetObjectBlocked(s, *name, p.value().number() != 0), r);
      }
      if (!p.key().has_handle())
        return SetStatus(Status::Error(Code::kBadArgument, "cipher parameters need a handle"), r);
      return SetStatus(e.SetCipherParam(s, p.key().handle(), p.param(), p.value().number(),
                                        ToBytes(p.value().data())),
                       r);
    }
    case pb::Request::kGetKeyParam: {
      const pb::GetKeyParam &p = req.get_key_param();
      if (p.param() == QKP_IV || p.param() == QKP_MODE || p.param() == QKP_PADDING ||
          p.param() == QKP_TAG_LEN) {
        if (!p.key().has_handle())
          return SetStatus(Status::Error(Code::kBadArgument, "cipher parameters need a handle"), r);
        secure::Bytes data;
        Result<uint64_t> v = e.GetCipherParam(s, p.key().handle(), p.param(), &data);
        if (Failed(v, r)) return;
        if (p.param() == QKP_IV)
          r->mutable_param()->set_data(ToString(data));
        else
          r->mutable_param()->set_number(*v);
        return SetStatus(Status::Ok(), r);
      }
      Result<Engine::KeyFacts> f = e.DescribeKey(s, ToKeyArg(p.key()));
      if (Failed(f, r)) return;
      switch (p.param()) {
        case QKP_BLOCKED:
          r->mutable_param()->set_number(f->blocked ? 1 : 0);
          break;
        case QKP_ALGID:
          r->mutable_param()->set_number(f->desc.algorithm);
          break;
        case QKP_FLAGS:
          r->mutable_param()->set_number(f->desc.flags);
          break;
        case QKP_KEYLEN:
          r->mutable_param()->set_number(f->desc.key_length);
          break;
        case QKP_KEYBITS:
          r->mutable_param()->set_number(f->bits);
          break;
        case QKP_OBJ_TYPE:
          r->mutable_param()->set_number(static_cast<uint32_t>(f->type));
          break;
        case QKP_OBJ_ID:
          r->mutable_param()->set_text(f->full_name);
          break;
        default:
          return SetStatus(Status::Error(Code::kNotSupported, "key parameter not built yet"), r);
      }
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kEncrypt:
    case pb::Request::kDecrypt: {
      bool enc = req.body_case() == pb::Request::kEncrypt;
      const pb::KeyRef &key = enc ? req.encrypt().key() : req.decrypt().key();
      bool final = enc ? req.encrypt().final() : req.decrypt().final();
      const std::string &data = enc ? req.encrypt().data() : req.decrypt().data();
      uint32_t cap = enc ? req.encrypt().out_capacity() : req.decrypt().out_capacity();
      uint64_t needed = 0;
      secure::Bytes iv;
      Result<secure::Bytes> out =
          e.Cipher(s, ToKeyArg(key), enc, final, ToBytes(data), cap, &needed, &iv);
      if (!out.ok()) {
        if (out.status().code() == Code::kBufferTooSmall) r->set_needed_length(needed);
        return SetStatus(out.status(), r);
      }
      r->mutable_cipher()->set_data(out->data(), out->size());
      if (!iv.empty()) r->mutable_cipher()->set_iv(iv.data(), iv.size());
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kBatchSign: {
      const pb::BatchSign &b = req.batch_sign();
      Result<secure::Bytes> out = e.BatchSign(s, ToKeyArg(b.key()), b.count(), ToBytes(b.blocks()));
      if (Failed(out, r)) return;
      r->mutable_blob()->set_data(ToString(*out));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kPkcs8Export: {
      // Without a password the key travels in the clear, as a PrivateKeyInfo: the strict private
      // key blob, under the same exportable rule.
      Result<secure::Bytes> der =
          req.pkcs8_export().password().empty()
              ? e.ExportKey(s, KeyArg{0, req.pkcs8_export().name()}, KeyArg{},
                            QL_PRIVATEKEY_BLOB_STRICT)
              : e.Pkcs8Export(s, req.pkcs8_export().name(), req.pkcs8_export().password());
      if (Failed(der, r)) return;
      r->mutable_blob()->set_data(ToString(*der));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kPkcs8Import: {
      const pb::Pkcs8Import &i = req.pkcs8_import();
      // Without a password: a PrivateKeyInfo in the clear (the strict private key blob, so a key
      // pair that does not check out is refused). The key is always stored, never temporary.
      const uint32_t flags = i.flags() & ~static_cast<uint32_t>(QL_KEY_TEMPORARY);
      if (i.password().empty() && i.name().empty()) {
        Status st = e.CheckSession(s);
        return SetStatus(st.ok() ? Status::Error(Code::kBadName, "no key name") : st, r);
      }
      Result<KeyDesc> k =
          i.password().empty()
              ? e.ImportKey(s, i.name(), KeyArg{}, ToBytes(i.data()), QL_PRIVATEKEY_BLOB_STRICT, 0,
                            flags, false)
              : e.Pkcs8Import(s, i.name(), i.password(), ToBytes(i.data()), i.flags());
      if (Failed(k, r)) return;
      r->mutable_empty();
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kGenerateKeyMaterial: {
      const pb::GenerateKeyMaterial &g = req.generate_key_material();
      Result<secure::Bytes> material = e.GenerateKeyMaterial(s, g.algorithm(), g.flags());
      if (Failed(material, r)) return;
      r->mutable_blob()->set_data(ToString(*material));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kGenEcdhKey: {
      const pb::GenEcdhKey &g = req.gen_ecdh_key();
      Engine::EcdhArgs args;
      args.kdf = g.kdf();
      args.private_key = g.private_key();
      args.peer_public_key = ToBytes(g.peer_public_key());
      args.shared_info = ToBytes(g.shared_info());
      args.target_name = g.target_name();
      args.target_algorithm = g.target_algorithm();
      args.flags = g.flags();
      args.out_length = g.out_length();
      uint64_t needed = 0;
      Result<secure::Bytes> secret = e.GenEcdhKey(s, args, &needed);
      if (!secret.ok()) {
        if (secret.status().code() == Code::kBufferTooSmall) r->set_needed_length(needed);
        return SetStatus(secret.status(), r);
      }
      // A kept key answers an empty blob: the secret never leaves the HSM.
      r->mutable_blob()->set_data(ToString(*secret));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kCreateHash: {
      const pb::CreateHash &c = req.create_hash();
      Result<uint64_t> h = e.CreateHash(s, c.algorithm(), ToKeyArg(c.key()));
      if (Failed(h, r)) return;
      r->mutable_number()->set_value(*h);
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kHashData:
      return SetStatus(e.HashData(s, req.hash_data().hash(), ToBytes(req.hash_data().data())), r);
    case pb::Request::kGetHashValue: {
      Result<secure::Bytes> v = e.GetHashValue(s, req.get_hash_value().hash());
      if (Failed(v, r)) return;
      r->mutable_blob()->set_data(ToString(*v));
      return SetStatus(Status::Ok(), r);
    }
    case pb::Request::kDestroyHash:
      return SetStatus(e.DestroyHash(s, req.destroy_hash().hash()), r);
    case pb::Request::kDestroyKey: {
      const pb::DestroyKey &d = req.destroy_key();
      return SetStatus(e.DestroyKey(s, d.handle(), d.remove(), d.remove_name()), r);
    }

    case pb::Request::BODY_NOT_SET:
      return SetStatus(Status::Error(Code::kNotSupported, "unknown request"), r);
    default: {
      // Key, hash, signature and cipher services come with the crypto services.
      Status st = e.CheckSession(s);
      return SetStatus(
          st.ok() ? Status::Error(Code::kNotSupported, "this service is not built yet") : st, r);
    }
  }
}

}  // namespace qlhsm::server
