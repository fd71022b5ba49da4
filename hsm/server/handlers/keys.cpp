// Keys: generate, open, import, export, destroy, parameters, PKCS#8, key material, ECDH.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void GenerateKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GenerateKey &g = req.generate_key();
  // Blockchain keys carry BIP32 data besides the key: their own service makes them.
  if (g.flags() & qlproto::kKeyBlockchain) {
    Reply(c.engine.bchain().GenerateKey(c.session, g.name(), g.algorithm(), g.flags(),
                                        g.want_handle()),
          r, [&](const KeyDesc &k) { SetKeyHandle(k, r); });
    return;
  }
  // OATH token objects travel as keys do; the OATH service keeps them.
  Reply(g.algorithm() == qlproto::kObjHotp
            ? c.engine.oath().GenerateTokenObject(c.session, g.name(), g.flags(), g.want_handle())
            : c.engine.keys().GenerateKey(c.session, g.name(), g.algorithm(), g.flags(),
                                          g.want_handle()),
        r, [&](const KeyDesc &k) { SetKeyHandle(k, r); });
}

void OpenKey(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.keys().OpenKey(c.session, req.open_key().name()), r,
        [&](const KeyDesc &k) { SetKeyHandle(k, r); });
}

void ImportKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ImportKey &i = req.import_key();
  if (i.blob_type() == qlproto::kHotpBlob) {
    Reply(c.engine.oath().ImportTokenObject(c.session, i.name(), ToKeyArg(i.kek()),
                                            ToBytes(i.blob()), i.flags(), i.want_handle()),
          r, [&](const KeyDesc &k) { SetKeyHandle(k, r); });
    return;
  }
  Reply(c.engine.keys().ImportKey(c.session, i.name(), ToKeyArg(i.kek()), ToBytes(i.blob()),
                                  i.blob_type(), i.algorithm(), i.flags(), i.want_handle()),
        r, [&](const KeyDesc &k) { SetKeyHandle(k, r); });
}

void ExportKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ExportKey &x = req.export_key();
  // A certificate, chain or CRL object's DER comes from the PKI service.
  if (x.blob_type() == qlproto::kCertBlob && !x.has_kek()) {
    Reply(c.engine.pki().ExportCertificate(c.session, ToKeyArg(x.key())), r,
          [&](const secure::Bytes &der) { r->mutable_blob()->set_data(ToString(der)); });
    return;
  }
  if (x.blob_type() == qlproto::kHotpBlob) {
    Reply(c.engine.oath().ExportTokenObject(c.session, ToKeyArg(x.key()), ToKeyArg(x.kek())), r,
          [&](const secure::Bytes &blob) { r->mutable_blob()->set_data(ToString(blob)); });
    return;
  }
  Reply(c.engine.keys().ExportKey(c.session, ToKeyArg(x.key()), ToKeyArg(x.kek()), x.blob_type()),
        r, [&](const secure::Bytes &blob) { r->mutable_blob()->set_data(ToString(blob)); });
}

void DestroyKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::DestroyKey &d = req.destroy_key();
  SetStatus(c.engine.keys().DestroyKey(c.session, d.handle(), d.remove(), d.remove_name()), r);
}

void SetKeyParam(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::SetKeyParam &p = req.set_key_param();
  ParamValue v;
  v.has_number = p.value().has_number();
  v.number = p.value().number();
  v.data = ToBytes(p.value().data());
  SetStatus(c.engine.keys().SetKeyParam(c.session, ToKeyArg(p.key()), p.param(), v), r);
}

void GetKeyParam(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GetKeyParam &p = req.get_key_param();
  Reply(c.engine.keys().GetKeyParam(c.session, ToKeyArg(p.key()), p.param()), r,
        [&](const ParamValue &v) {
          if (v.has_number)
            r->mutable_param()->set_number(v.number);
          else if (!v.text.empty())
            r->mutable_param()->set_text(v.text);
          else
            r->mutable_param()->set_data(ToString(v.data));
        });
}

void Pkcs8Export(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::Pkcs8Export &x = req.pkcs8_export();
  Reply(c.engine.keys().Pkcs8Export(c.session, x.name(), x.password()), r,
        [&](const secure::Bytes &der) { r->mutable_blob()->set_data(ToString(der)); });
}

void Pkcs8Import(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::Pkcs8Import &i = req.pkcs8_import();
  Reply(
      c.engine.keys().Pkcs8Import(c.session, i.name(), i.password(), ToBytes(i.data()), i.flags()),
      r, [&](const KeyDesc &) { r->mutable_empty(); });
}

void GenerateKeyMaterial(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GenerateKeyMaterial &g = req.generate_key_material();
  Reply(c.engine.keys().GenerateKeyMaterial(c.session, g.algorithm(), g.flags()), r,
        [&](const secure::Bytes &m) { r->mutable_blob()->set_data(ToString(m)); });
}

void GenEcdhKey(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GenEcdhKey &g = req.gen_ecdh_key();
  EcdhArgs args;
  args.kdf = g.kdf();
  args.private_key = g.private_key();
  args.peer_public_key = ToBytes(g.peer_public_key());
  args.shared_info = ToBytes(g.shared_info());
  args.target_name = g.target_name();
  args.target_algorithm = g.target_algorithm();
  args.flags = g.flags();
  args.out_length = g.out_length();
  uint64_t needed = 0;
  Result<secure::Bytes> secret = c.engine.keys().GenEcdhKey(c.session, args, &needed);
  if (!secret.ok() && secret.status().code() == Code::kBufferTooSmall) r->set_needed_length(needed);
  // A kept key answers an empty blob: the secret never leaves the HSM.
  Reply(secret, r, [&](const secure::Bytes &s) { r->mutable_blob()->set_data(ToString(s)); });
}

}  // namespace qlhsm::server::handlers
