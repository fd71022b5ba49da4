// SPB secure messages: keys, requests and certificates by ISPB, and messages in pieces.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

namespace {

void NameReply(const Result<std::string> &res, pb::Response *r) {
  Reply(res, r, [&](const std::string &name) { r->mutable_blob()->set_data(name); });
}

void BytesReply(const Result<secure::Bytes> &res, pb::Response *r) {
  Reply(res, r, [&](const secure::Bytes &b) { r->mutable_blob()->set_data(ToString(b)); });
}

void HandleReply(const Result<uint64_t> &res, pb::Response *r) {
  Reply(res, r, [&](uint64_t h) { r->mutable_number()->set_value(h); });
}

}  // namespace

void SpbGenerateKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbGenerateKey &m = req.spb_generate_key();
  NameReply(c.engine.spb().GenerateKey(c.session, m.ispb(), m.flags()), r);
}

void SpbGenerateCsr(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbGenerateCsr &m = req.spb_generate_csr();
  BytesReply(c.engine.spb().GenerateCsr(c.session, m.ispb(), m.key_name(), m.subject(), m.flags()),
             r);
}

void SpbImportCertificate(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbImportCertificate &m = req.spb_import_certificate();
  NameReply(c.engine.spb().ImportCertificate(c.session, ToBytes(m.certificate()), m.flags()), r);
}

void SpbImportPkcs12(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbImportPkcs12 &m = req.spb_import_pkcs12();
  NameReply(
      c.engine.spb().ImportPkcs12(c.session, ToBytes(m.pfx()), m.password(), m.ispb(), m.flags()),
      r);
}

void SpbActivateCertificate(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbActivateCertificate &m = req.spb_activate_certificate();
  ReplyEmpty(c.engine.spb().ActivateCertificate(c.session, m.ispb(), m.domain(), m.serial()), r);
}

void SpbEncodeInit(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbEncodeInit &m = req.spb_encode_init();
  SpbEncodeArgs a;
  a.local_ispb = m.local_ispb();
  a.counterpart_ispb = m.counterpart_ispb();
  a.message_len = m.message_len();
  a.c3 = static_cast<uint8_t>(m.c3());
  a.c4 = static_cast<uint8_t>(m.c4());
  a.flags = m.flags();
  HandleReply(c.engine.spb().EncodeInit(c.session, a), r);
}

void SpbEncodeCont(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbMessagePiece &m = req.spb_encode_cont();
  BytesReply(c.engine.spb().EncodeCont(c.session, m.handle(), ToBytes(m.data())), r);
}

void SpbEncodeEnd(const pb::Request &req, Call &c, pb::Response *r) {
  BytesReply(c.engine.spb().EncodeEnd(c.session, req.spb_encode_end().handle()), r);
}

void SpbDecodeInit(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbDecodeInit &m = req.spb_decode_init();
  SpbDecodeArgs a;
  a.local_ispb = m.local_ispb();
  a.counterpart_ispb = m.counterpart_ispb();
  a.header = ToBytes(m.header());
  a.message_len = m.message_len();
  a.accept_expired = m.accept_expired();
  a.auto_activate = m.auto_activate();
  a.flags = m.flags();
  HandleReply(c.engine.spb().DecodeInit(c.session, a), r);
}

void SpbDecodeCont(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SpbMessagePiece &m = req.spb_decode_cont();
  BytesReply(c.engine.spb().DecodeCont(c.session, m.handle(), ToBytes(m.data())), r);
}

void SpbDecodeEnd(const pb::Request &req, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.spb().DecodeEnd(c.session, req.spb_decode_end().handle()), r);
}

}  // namespace qlhsm::server::handlers
