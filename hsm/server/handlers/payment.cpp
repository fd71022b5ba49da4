// Payment: card verification values, PINs and PIN blocks, DUKPT.
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

}  // namespace qlhsm::server::handlers
