// Payment: card verification values, PINs and PIN blocks, DUKPT, key blocks, the EFT daemon.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

namespace {

template <typename M>
CardData Card(const M &m) {
  return CardData{m.pan(), m.expiry(), m.service_code()};
}

}  // namespace

void GenerateCvv(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GenerateCvv &m = req.generate_cvv();
  Reply(c.engine.payment().GenerateCvv(c.session, ToKeyArg(m.key()), Card(m)), r,
        [&](const std::string &cvv) { r->mutable_blob()->set_data(cvv); });
}

void VerifyCvv(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::VerifyCvv &m = req.verify_cvv();
  ReplyEmpty(c.engine.payment().VerifyCvv(c.session, ToKeyArg(m.key()), Card(m), m.cvv()), r);
}

void GeneratePin(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GeneratePin &m = req.generate_pin();
  Reply(
      c.engine.payment().GeneratePin(c.session, ToKeyArg(m.key()), m.pan(), m.length(), m.flags()),
      r, [&](const std::string &pin) { r->mutable_blob()->set_data(pin); });
}

void VerifyPinBlock(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::VerifyPinBlock &m = req.verify_pin_block();
  ReplyEmpty(c.engine.payment().VerifyPinBlock(c.session, ToKeyArg(m.ptk()), ToKeyArg(m.pgk()),
                                               m.format(), m.pan(), ToBytes(m.block()), m.flags()),
             r);
}

void TranslatePinBlock(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::TranslatePinBlock &m = req.translate_pin_block();
  Reply(c.engine.payment().TranslatePinBlock(c.session, ToKeyArg(m.src()), ToKeyArg(m.dst()),
                                             m.format(), m.pan(), ToBytes(m.block()), m.flags()),
        r, [&](const secure::Bytes &out) { r->mutable_blob()->set_data(ToString(out)); });
}

void GenerateDukpt(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GenerateDukpt &m = req.generate_dukpt();
  ReplyEmpty(c.engine.payment().GenerateDukpt(c.session, KeyArg{0, m.bdk()}, ToBytes(m.ksn()),
                                              m.name(), m.flags()),
             r);
}

void ExportKeyBlock(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ExportKeyBlock &m = req.export_key_block();
  Reply(c.engine.payment().ExportKeyBlock(c.session, ToKeyArg(m.kbpk()), ToKeyArg(m.key()),
                                          m.usage(), m.mode(), m.exportability(), m.flags()),
        r, [&](const std::string &block) { r->mutable_blob()->set_data(block); });
}

void ImportKeyBlock(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ImportKeyBlock &m = req.import_key_block();
  ReplyEmpty(c.engine.payment().ImportKeyBlock(c.session, ToKeyArg(m.kbpk()), m.name(), m.block(),
                                               m.flags()),
             r);
}

namespace {

eftd::Config FromWire(const pb::EftdConf &m) {
  eftd::Config c;
  c.decimalisation = m.decimalisation();
  c.pin_min = m.pin_min();
  c.pin_max = m.pin_max();
  c.formats = m.formats();
  c.auth_required = m.auth_required();
  return c;
}

void ToWire(const eftd::Config &c, pb::EftdConf *m) {
  m->set_decimalisation(c.decimalisation);
  m->set_pin_min(c.pin_min);
  m->set_pin_max(c.pin_max);
  m->set_formats(c.formats);
  m->set_auth_required(c.auth_required);
}

}  // namespace

void EftdAuthorize(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::EftdAuthorize &m = req.eftd_authorize();
  ReplyEmpty(
      c.engine.payment().EftdAuthorize(c.session, m.activities(), m.minutes(), m.deauthorize()), r);
}

void EftdInfo(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.payment().EftdInfo(c.session), r, [&](const eftd::Info &info) {
    pb::EftdInfoReply *out = r->mutable_eftd_info();
    ToWire(info.config, out->mutable_conf());
    out->set_activities(info.auth.activities);
    out->set_user(info.auth.user);
    out->set_until(info.auth.until);
    for (const eftd::Counter &counter : info.counters) {
      pb::EftdCounter *one = out->add_counters();
      one->set_successes(counter.successes);
      one->set_failures(counter.failures);
    }
  });
}

void EftdReset(const pb::Request &, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.payment().EftdReset(c.session), r);
}

void EftdSetConf(const pb::Request &req, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.payment().EftdSetConf(c.session, FromWire(req.eftd_set_conf().conf())), r);
}

}  // namespace qlhsm::server::handlers
