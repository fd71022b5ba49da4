// The HSM itself: the session's parameters, administration, information, statistics, random
// bytes, backup and update packages.
#include "server/handlers/handlers.h"
#include "server/tls_identity.h"

namespace qlhsm::server::handlers {

void GetSessionParam(const pb::Request &req, Call &c, pb::Response *r) {
  uint32_t param = req.get_session_param().param();
  // Whether the connection is TLS is the daemon's to know, not the engine's.
  Reply(c.engine.system().GetSessionParam(c.session, param, c.state.tls), r,
        [&](const ParamValue &v) {
          if (v.has_number)
            r->mutable_number()->set_value(v.number);
          else
            r->mutable_param()->set_text(v.text);
        });
}

void AdmOperation(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::AdmOperation &op = req.adm_operation();
  if (op.operation() == qlproto::kAdmSetTlsBundle) {
    TlsContexts *tls = c.config.tls;
    // The context is built before the bundle is stored, so one OpenSSL refuses is never kept.
    auto install = [tls](const TlsBundle &bundle) -> Result<std::function<void()>> {
      if (tls == nullptr) return Status::Error(Code::kNotSupported, "this daemon serves no TLS");
      Result<SslCtxPtr> ctx = BuildTlsContext(bundle);
      if (!ctx.ok()) return ctx.status();
      Result<std::vector<uint8_t>> der = LeafCertificateDer(bundle);
      if (!der.ok()) return der.status();
      return std::function<void()>(
          [tls, ctx = std::move(ctx.value()), der = std::move(der.value())]() mutable {
            tls->Install(std::move(ctx), std::move(der));
          });
    };
    return ReplyEmpty(c.engine.system().SetTlsBundle(c.session, ToBytes(op.input()), install), r);
  }
  if (op.operation() == qlproto::kAdmLogCache)
    return Reply(c.engine.logs().SetCache(c.session, op.input()), r,
                 [&](bool on) { r->mutable_number()->set_value(on ? 1 : 0); });
  Reply(c.engine.system().Administer(c.session, op.operation(), ToBytes(op.input())), r,
        [&](const std::optional<uint64_t> &v) {
          if (v)
            r->mutable_number()->set_value(*v);
          else
            r->mutable_empty();
        });
}

void GetHsmInfo(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.system().GetHsmInfo(c.session), r, [&](const HsmInfo &info) {
    auto *h = r->mutable_hsm_info();
    h->set_model(info.versions[0]);
    h->set_firmware_version(info.versions[1]);
    h->set_serial_number(info.versions[2]);
    h->set_hardware_version(info.versions[3]);
    h->set_hsm_name(info.versions[4]);
    std::string pending(8, '\0');
    for (int i = 0; i < 8; ++i)
      pending[i] = static_cast<char>(info.pending_transaction >> (56 - 8 * i));
    h->set_pending_transaction(pending);
  });
}

void GetNetInfo(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.system().GetNetInfo(c.session), r,
        [&](const std::string &text) { r->mutable_blob()->set_data(text); });
}

void ListModules(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.system().ListModules(c.session), r,
        [&](const std::vector<std::string> &names) { SetNames(names, r); });
}

void GetStatInfo(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.system().GetStatInfo(c.session), r, [&](const StatInfo &info) {
    auto *m = r->mutable_stat_info();
    m->set_session_count(info.session_count);
    m->set_cpu_usage(info.cpu_percent);
    m->set_mem_unit(info.unit);
    m->set_mem_total(info.mem_total);
    m->set_mem_used(info.mem_used);
    m->set_swap_total(info.swap_total);
    m->set_swap_used(info.swap_used);
  });
}

void GetStatLogSize(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.system().GetLogSize(c.session), r,
        [&](uint64_t size) { r->mutable_number()->set_value(size); });
}

void GetTlsCert(const pb::Request &, Call &c, pb::Response *r) {
  // The certificate is the daemon's; the engine only checks the session.
  Status st = c.engine.system().CheckSession(c.session);
  if (st.ok() && c.config.tls == nullptr)
    st = Status::Error(Code::kNotSupported, "this daemon serves no TLS");
  if (st.ok()) {
    const std::vector<uint8_t> der = c.config.tls->CertificateDer();
    r->mutable_blob()->set_data(std::string(der.begin(), der.end()));
  }
  SetStatus(st, r);
}

void GetRandom(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.system().GetRandom(c.session, req.get_random().length(), FramePayload(c)), r,
        [&](const secure::Bytes &bytes) { r->mutable_blob()->set_data(ToString(bytes)); });
}

void Backup(const pb::Request &req, Call &c, pb::Response *r) {
  Result<secure::Bytes> blob = c.engine.system().Backup(c.session, req.backup().pin());
  if (blob.ok() && blob->size() > FramePayload(c))
    return SetStatus(Status::Error(Code::kLimitReached, "backup larger than a frame"), r);
  Reply(blob, r, [&](const secure::Bytes &b) { r->mutable_blob()->set_data(ToString(b)); });
}

void IpFilter(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::IpFilter &f = req.ip_filter();
  Reply(c.engine.system().IpFilterOperation(c.session, f.operation(), f.rule()), r,
        [&](const std::vector<std::string> &rules) {
          if (f.operation() == qlproto::kIpFilterList)
            SetNames(rules, r);
          else
            r->mutable_empty();
        });
}

void PushUpdatePackage(const pb::Request &req, Call &c, pb::Response *r) {
  SetStatus(c.engine.system().PushUpdatePackage(c.session, ToBytes(req.upack_push().package())), r);
}

}  // namespace qlhsm::server::handlers
