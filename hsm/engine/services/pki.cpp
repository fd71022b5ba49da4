// Certificates and signing identities over the crypto library's PKI core. Certificates, chains
// and CRLs are objects like files, kept as DER; validation runs at the HSM's own time.
#include "engine/services/pki.h"

#include <openssl/crypto.h>

#include "crypto/algorithms.h"
#include "crypto/key.h"
#include "crypto/pki.h"
#include "engine/crypto_result.h"
#include "engine/services/objects.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using objects::ObjectType;
using sessions::Session;

namespace {

// The key's certificate, recorded beside the key (its full name); not one of the records a
// caller reads or writes by number.
constexpr uint32_t kRecordKeyCertificate = 0x10000;

crypto::ByteView View(const secure::Bytes &b) {
  return crypto::ByteView(b.data(), b.size());
}

int TypeOf(crypto::pki::PkiKind kind) {
  switch (kind) {
    case crypto::pki::PkiKind::kCertificate:
      return static_cast<int>(ObjectType::kCertificate);
    case crypto::pki::PkiKind::kChain:
      return static_cast<int>(ObjectType::kChain);
    case crypto::pki::PkiKind::kCrl:
      return static_cast<int>(ObjectType::kCrl);
  }
  return static_cast<int>(ObjectType::kFile);
}

Status BadCert(const char *what) {
  return Status::Error(Code::kBadCert, what);
}

// One certificate, DER or PEM, as DER.
Result<secure::Bytes> OneCertificate(const secure::Bytes &data) {
  crypto::Result<crypto::pki::PkiObject> obj = crypto::pki::ReadPkiObject(View(data));
  if (!obj.ok() || obj->kind != crypto::pki::PkiKind::kCertificate)
    return BadCert("not a certificate");
  return std::move(obj->der);
}

bool Pkcs12KeyKind(const crypto::Key &key) {
  return key.kind() == crypto::KeyKind::kRsa || key.kind() == crypto::KeyKind::kEc ||
         key.algorithm() == crypto::alg::kEd25519;
}

}  // namespace

Result<objects::ObjectInfo> PkiService::Usable(const objects::ObjectRef &ref) {
  Result<objects::ObjectInfo> info = core_.objects->Get(ref);
  if (info.ok() && info->blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
  return info;
}

Result<secure::Bytes> PkiService::CertificateOf(const crypto::Key &key,
                                                const objects::ObjectRef &cert_ref,
                                                bool blocked_ok) {
  Result<objects::ObjectInfo> cert = blocked_ok ? core_.objects->Get(cert_ref) : Usable(cert_ref);
  if (!cert.ok()) return cert.status();
  if (cert->type != static_cast<int>(ObjectType::kCertificate))
    return BadCert("not a certificate object");
  Result<secure::Bytes> der = core_.objects->ReadMaterial(cert_ref);
  if (!der.ok()) return der.status();
  if (!crypto::pki::KeyMatchesCertificate(key, View(der.value())))
    return Status::Error(Code::kKeyCertMismatch, "the key is not the certificate's");
  return der;
}

Result<secure::Bytes> PkiService::AssociatedCertificate(const Session &s,
                                                        const objects::ObjectRef &key_ref,
                                                        const crypto::Key &key) {
  Result<std::vector<objects::ObjectStore::Record>> records = core_.objects->GetRecords(key_ref);
  if (!records.ok()) return records.status();
  for (const objects::ObjectStore::Record &record : records.value()) {
    if (record.id != kRecordKeyCertificate) continue;
    objects::ObjectRef cert_ref;
    QL_RETURN_IF_ERROR(core_.Ref(
        s,
        std::string_view(reinterpret_cast<const char *>(record.value.data()), record.value.size()),
        &cert_ref));
    return CertificateOf(key, cert_ref);
  }
  return Status::Error(Code::kBadArgument, "the key has no associated certificate");
}

Status PkiService::WriteTyped(Session &s, std::string_view name, const secure::Bytes &data,
                              bool replace) {
  crypto::Result<crypto::pki::PkiObject> obj = crypto::pki::ReadPkiObject(View(data));
  if (!obj.ok()) return guard_.Refuse(s, BadCert("not a certificate, certificate chain or CRL"));
  return objects_.WriteFile(s, name, secure::Bytes(obj->der.begin(), obj->der.end()), replace,
                            TypeOf(obj->kind));
}

Result<secure::Bytes> PkiService::ExportCertificate(Session &s, const KeyArg &object) {
  KeysService::KeyTarget target;
  Op op{"export-certificate", object.name.empty() ? std::string_view("-") : object.name,
        Request::kUseObject};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(keys_.Target(s, object, &target));
        if (target.temp) return Status::Error(Code::kBadKeyUsage, "a key is no certificate");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<objects::ObjectInfo> info = Usable(target.ref);
        if (!info.ok()) return info.status();
        if (!objects::IsDataObject(info->type) || info->type == static_cast<int>(ObjectType::kFile))
          return Status::Error(Code::kBadKeyUsage, "not a certificate, chain or CRL");
        return core_.objects->ReadMaterial(target.ref);
      });
}

Result<std::vector<secure::Bytes>> PkiService::LoadChain(const objects::ObjectRef &ref) {
  Result<objects::ObjectInfo> info = Usable(ref);
  if (!info.ok()) return info.status();
  Result<secure::Bytes> material = core_.objects->ReadMaterial(ref);
  if (!material.ok()) return material.status();
  if (info->type == static_cast<int>(ObjectType::kCertificate))
    return std::vector<secure::Bytes>{std::move(material.value())};
  if (info->type != static_cast<int>(ObjectType::kChain) &&
      info->type != static_cast<int>(ObjectType::kFile))
    return BadCert("the chain object holds no certificates");
  crypto::Result<std::vector<crypto::Bytes>> certs =
      crypto::pki::ReadCertificates(View(material.value()));
  if (!certs.ok()) return BadCert("the chain object holds no certificates");
  return std::vector<secure::Bytes>(certs->begin(), certs->end());
}

Result<secure::Bytes> PkiService::LoadCrl(const objects::ObjectRef &ref) {
  Result<objects::ObjectInfo> info = Usable(ref);
  if (!info.ok()) return info.status();
  Result<secure::Bytes> material = core_.objects->ReadMaterial(ref);
  if (!material.ok()) return material.status();
  if (info->type == static_cast<int>(ObjectType::kCrl)) return material;
  if (info->type != static_cast<int>(ObjectType::kFile)) return BadCert("not a CRL object");
  crypto::Result<crypto::Bytes> crl = crypto::pki::ReadCrl(View(material.value()));
  if (!crl.ok()) return BadCert("the file holds no CRL");
  return secure::Bytes(crl->begin(), crl->end());
}

Status PkiService::CheckCertificate(const secure::Bytes &leaf, const objects::ObjectRef &chain,
                                    const std::optional<objects::ObjectRef> &crl) {
  Result<secure::Bytes> leaf_der = OneCertificate(leaf);
  if (!leaf_der.ok()) return leaf_der.status();
  Result<std::vector<secure::Bytes>> anchors = LoadChain(chain);
  if (!anchors.ok()) return anchors.status();
  std::optional<crypto::Bytes> crl_der;
  if (crl) {
    Result<secure::Bytes> c = LoadCrl(*crl);
    if (!c.ok()) return c.status();
    crl_der = crypto::Bytes(c->begin(), c->end());
  }
  crypto::Result<crypto::pki::PathCheck> check = crypto::pki::ValidatePath(
      View(leaf_der.value()), anchors.value(), crl_der, static_cast<time_t>(core_.clock.Now()));
  if (!check.ok()) {
    if (check.status().code() == crypto::Code::kBadData) return BadCert("does not parse");
    return FromCrypto(check.status());
  }
  const std::string why = "verify error " + std::to_string(check->verify_error);
  switch (check->problem) {
    case crypto::pki::PathProblem::kNone:
      return Status::Ok();
    case crypto::pki::PathProblem::kExpired:
      return Status::Error(Code::kCertExpired, why);
    case crypto::pki::PathProblem::kRevoked:
      return Status::Error(Code::kCertRevoked, why);
    case crypto::pki::PathProblem::kUntrusted:
      break;
  }
  return Status::Error(Code::kCertUntrusted, why);
}

Status PkiService::ValidateCertificate(Session &s, const secure::Bytes &leaf,
                                       std::string_view chain_name, std::string_view crl_name) {
  objects::ObjectRef chain;
  std::optional<objects::ObjectRef> crl;
  Op op{"validate-certificate", chain_name, Request::kUseObject};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, chain_name, &chain));
        if (!crl_name.empty()) {
          crl.emplace();
          QL_RETURN_IF_ERROR(core_.Ref(s, crl_name, &*crl));
        }
        return Status::Ok();
      },
      [&](const users::UserInfo &) { return CheckCertificate(leaf, chain, crl); });
}

Status PkiService::ImportPkcs12(Session &s, const Pkcs12Import &in) {
  objects::ObjectRef key_ref, cert_ref;
  const bool keep_cert = !in.cert_name.empty();
  Op op{"import-pkcs12", in.key_name, Request::kCreateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (in.pfx.empty()) return Status::Error(Code::kBadArgument, "no PKCS#12 file");
        QL_RETURN_IF_ERROR(core_.Ref(s, in.key_name, &key_ref));
        if (keep_cert) {
          QL_RETURN_IF_ERROR(core_.Ref(s, in.cert_name, &cert_ref));
          if (cert_ref.owner == key_ref.owner && cert_ref.name == key_ref.name)
            return Status::Error(Code::kObjectExists, "the key and its certificate share a name");
        }
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        crypto::Result<crypto::pki::Pkcs12Contents> p12 =
            crypto::pki::ReadPkcs12(View(in.pfx), in.password);
        if (!p12.ok()) {
          if (p12.status().code() == crypto::Code::kBadTag)
            return Status::Error(Code::kBadPassword, "the password does not open the file");
          return FromCrypto(p12.status());
        }
        crypto::Result<crypto::KeyPtr> key = crypto::Key::FromPkcs8(
            0, crypto::ByteView(p12->private_key_pkcs8.data(), p12->private_key_pkcs8.size()),
            false);
        if (!key.ok()) return FromCrypto(key.status());
        if (!Pkcs12KeyKind(**key))
          return Status::Error(Code::kNotSupported, "only RSA, EC and Ed25519 keys");
        if (keep_cert) {
          if (p12->certificate.empty()) return BadCert("the file holds no certificate");
          if (!crypto::pki::KeyMatchesCertificate(**key, p12->certificate))
            return Status::Error(Code::kKeyCertMismatch, "the key is not the certificate's");
        }
        QL_RETURN_IF_ERROR(core_.RoomForObjects(keep_cert ? 2 : 1));
        crypto::Result<crypto::SecretBytes> stored = (*key)->Serialize();
        if (!stored.ok()) return FromCrypto(stored.status());
        std::vector<std::pair<objects::ObjectInfo, secure::Bytes>> rows;
        objects::ObjectInfo key_info;
        key_info.ref = key_ref;
        key_info.type = key_info.algorithm = static_cast<int>((*key)->algorithm());
        key_info.flags = in.flags & ~qlproto::kKeyTemporary;
        rows.emplace_back(key_info, secure::Bytes(stored->begin(), stored->end()));
        if (keep_cert) {
          objects::ObjectInfo cert_info;
          cert_info.ref = cert_ref;
          cert_info.type = static_cast<int>(ObjectType::kCertificate);
          rows.emplace_back(cert_info,
                            secure::Bytes(p12->certificate.begin(), p12->certificate.end()));
        }
        Status st = core_.objects->CreateMany(rows);
        for (auto &row : rows) OPENSSL_cleanse(row.second.data(), row.second.size());
        return st;
      });
}

Result<secure::Bytes> PkiService::ExportPkcs12(Session &s, std::string_view key_name,
                                               std::string_view cert_name,
                                               std::string_view password) {
  objects::ObjectRef key_ref, cert_ref;
  Op op{"export-pkcs12", key_name, Request::kUseObject};
  return guard_.Run(
      s, op,
      [&] {
        if (password.empty())
          return Status::Error(Code::kBadArgument, "a PKCS#12 file needs a password");
        QL_RETURN_IF_ERROR(core_.Ref(s, key_name, &key_ref));
        return core_.Ref(s, cert_name, &cert_ref);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref);
        if (!key.ok()) return key.status();
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        if (!(key->info.flags & qlproto::kKeyExportable))
          return Status::Error(Code::kNotExportable,
                               "the key was made without the exportable flag");
        Result<secure::Bytes> der = CertificateOf(*key->key, cert_ref);
        if (!der.ok()) return der.status();
        crypto::Result<crypto::Bytes> p12 =
            crypto::pki::MakePkcs12(*key->key, View(der.value()), password);
        if (!p12.ok()) return FromCrypto(p12.status());
        return secure::Bytes(p12->begin(), p12->end());
      });
}

Status PkiService::AssociateKey(Session &s, std::string_view key_name, std::string_view cert_name) {
  objects::ObjectRef key_ref, cert_ref;
  Op op{"associate-key", key_name, Request::kUpdateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(core_.Ref(s, key_name, &key_ref));
        return core_.Ref(s, cert_name, &cert_ref);
      },
      [&](const users::UserInfo &) -> Status {
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref);
        if (!key.ok()) return key.status();
        Result<secure::Bytes> der = CertificateOf(*key->key, cert_ref, /*blocked_ok=*/true);
        if (!der.ok()) return der.status();
        crypto::Result<crypto::Bytes> id = crypto::pki::PublicKeyId(View(der.value()));
        if (!id.ok()) return FromCrypto(id.status());
        const secure::Bytes id_value(id->begin(), id->end());
        const secure::Bytes label(key_ref.name.begin(), key_ref.name.end());
        std::vector<objects::ObjectStore::Record> shared = {{qlproto::kMetaId, id_value},
                                                            {qlproto::kMetaLabel, label}};
        QL_RETURN_IF_ERROR(core_.objects->SetRecords(cert_ref, shared));
        const std::string cert_full = cert_ref.Full();
        shared.push_back(
            {kRecordKeyCertificate, secure::Bytes(cert_full.begin(), cert_full.end())});
        return core_.objects->SetRecords(key_ref, shared);
      });
}

namespace {

// The digest a request or a CMS signature uses: SHA-256 unless another of the allowed ones.
const char *SignatureDigest(uint32_t hash_algorithm, bool cms) {
  switch (hash_algorithm) {
    case 0:
    case crypto::hash::kSha256:
      return "SHA256";
    case crypto::hash::kSha1:
      return "SHA1";
    case crypto::hash::kSha384:
      return "SHA384";
    case crypto::hash::kSha512:
      return "SHA512";
    case crypto::hash::kSha224:
      return cms ? nullptr : "SHA224";
    default:
      return nullptr;
  }
}

}  // namespace

Result<secure::Bytes> PkiService::GeneratePkcs10(Session &s, std::string_view key_name,
                                                 std::string_view subject, uint32_t version,
                                                 uint32_t hash_algorithm) {
  objects::ObjectRef ref;
  const char *digest = SignatureDigest(hash_algorithm, false);
  Op op{"generate-pkcs10", key_name, Request::kUseObject};
  return guard_.Run(
      s, op,
      [&] {
        if (version != 0) return Status::Error(Code::kBadArgument, "only version 1 requests");
        if (digest == nullptr && hash_algorithm != crypto::hash::kIdFunc)
          return Status::Error(Code::kBadAlgorithm, "no such request digest");
        if (subject.empty()) return Status::Error(Code::kBadArgument, "no subject");
        return core_.Ref(s, key_name, &ref);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, ref);
        if (!key.ok()) return key.status();
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        crypto::Result<crypto::Bytes> req =
            crypto::pki::MakeRequest(*key->key, subject, digest ? digest : "SHA256");
        if (!req.ok()) return FromCrypto(req.status());
        return secure::Bytes(req->begin(), req->end());
      });
}

Result<secure::Bytes> PkiService::Pkcs7Sign(Session &s, std::string_view key_name,
                                            std::string_view cert_name, std::string_view chain_name,
                                            uint32_t attributes, uint32_t hash_algorithm,
                                            const secure::Bytes &data) {
  objects::ObjectRef key_ref, cert_ref, chain_ref;
  const char *digest = SignatureDigest(hash_algorithm, true);
  Op op{"pkcs7-sign", key_name, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (digest == nullptr) return Status::Error(Code::kBadAlgorithm, "no such CMS digest");
        QL_RETURN_IF_ERROR(core_.Ref(s, key_name, &key_ref));
        QL_RETURN_IF_ERROR(core_.Ref(s, cert_name, &cert_ref));
        return chain_name.empty() ? Status::Ok() : core_.Ref(s, chain_name, &chain_ref);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref);
        if (!key.ok()) return key.status();
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        Result<secure::Bytes> der = CertificateOf(*key->key, cert_ref);
        if (!der.ok()) return der.status();
        std::vector<crypto::Bytes> chain;
        if (!chain_name.empty()) {
          Result<std::vector<secure::Bytes>> certs = LoadChain(chain_ref);
          if (!certs.ok()) return certs.status();
          chain.assign(certs->begin(), certs->end());
        }
        crypto::Result<crypto::Bytes> signed_data = crypto::pki::CmsSign(
            *key->key, View(der.value()), chain, View(data), attributes, digest);
        if (!signed_data.ok()) return FromCrypto(signed_data.status());
        return secure::Bytes(signed_data->begin(), signed_data->end());
      });
}

Result<std::vector<objects::ObjectStore::Record>> PkiService::ReadRecords(Session &s,
                                                                          std::string_view name) {
  objects::ObjectRef ref;
  return guard_.Run(
      s, Op{"read-records", name, Request::kUseObject}, [&] { return core_.Ref(s, name, &ref); },
      [&](const users::UserInfo &) -> Result<std::vector<objects::ObjectStore::Record>> {
        Result<objects::ObjectInfo> info = core_.objects->Get(ref);
        if (!info.ok()) return info.status();
        return core_.objects->GetRecords(ref);
      });
}

}  // namespace qlhsm
