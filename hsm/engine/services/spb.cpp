// SPB secure messages over the crypto library's SPB core: the certificate registry by ISPB, keys,
// requests and certificates, and messages encoded and decoded in pieces.
#include "engine/services/spb.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <memory>

#include "crypto/algorithms.h"
#include "crypto/key.h"
#include "crypto/pki.h"
#include "crypto/spb.h"
#include "engine/crypto_result.h"
#include "wire_values.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using objects::ObjectType;
using sessions::Session;
namespace cspb = crypto::spb;

namespace {

// Records of a certificate object of the registry; not ones a caller reads or writes by number.
constexpr uint32_t kRecordSpbActive = 0x10100;  // "1" when active
constexpr uint32_t kRecordSpbDomain = 0x10101;  // the domain given at activation
constexpr uint32_t kRecordSpbKey = 0x10102;     // the linked key's full name

constexpr const char *kDefaultDomain = "SPB";
constexpr int64_t kSelfSignedDays = 365;
constexpr size_t kMaxSerialOctets = 20;

struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
struct BnFree {
  void operator()(BIGNUM *b) const { BN_free(b); }
};

crypto::ByteView View(const secure::Bytes &b) {
  return crypto::ByteView(b.data(), b.size());
}

secure::Bytes Text(std::string_view s) {
  return secure::Bytes(s.begin(), s.end());
}

Status BadCert(const char *why) {
  return Status::Error(Code::kSpbBadCert, why);
}

Status NoCert(const char *why) {
  return Status::Error(Code::kSpbNoCert, why);
}

bool ValidIspb(std::string_view ispb) {
  return ispb.size() == 8 &&
         std::all_of(ispb.begin(), ispb.end(), [](char c) { return c >= '0' && c <= '9'; });
}

Status CheckIspb(std::string_view ispb) {
  return ValidIspb(ispb) ? Status::Ok()
                         : Status::Error(Code::kBadArgument, "an ISPB is 8 decimal digits");
}

std::string Hex(const secure::Bytes &b) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (uint8_t c : b) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

// Hexadecimal digits (any case, an odd count allowed) as big-endian bytes without leading zeros.
Result<secure::Bytes> ParseSerialHex(std::string_view hex) {
  if (hex.empty() || hex.size() > 2 * kMaxSerialOctets + 2)
    return Status::Error(Code::kBadArgument, "a serial is 1 to 40 hexadecimal digits");
  std::string digits(hex);
  if (digits.size() % 2) digits.insert(digits.begin(), '0');
  secure::Bytes out;
  for (size_t i = 0; i < digits.size(); i += 2) {
    auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      return (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
    };
    const int hi = nibble(digits[i]), lo = nibble(digits[i + 1]);
    if (hi < 0 || lo < 0) return Status::Error(Code::kBadArgument, "a serial is hexadecimal");
    out.push_back(static_cast<uint8_t>(hi * 16 + lo));
  }
  while (out.size() > 1 && out.front() == 0) out.erase(out.begin());
  return out;
}

int64_t TimeOf(const ASN1_TIME *t) {
  struct tm tm {};
  if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) return 0;
  return static_cast<int64_t>(timegm(&tm));
}

std::string EntryText(X509_NAME *name, int nid) {
  const int at = X509_NAME_get_index_by_NID(name, nid, -1);
  if (at < 0) return "";
  ASN1_STRING *data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at));
  unsigned char *utf8 = nullptr;
  const int len = ASN1_STRING_to_UTF8(&utf8, data);
  if (len < 0) return "";
  std::string out(reinterpret_cast<char *>(utf8), static_cast<size_t>(len));
  OPENSSL_free(utf8);
  return out;
}

// The subject's serialNumber when it is an ISPB, or else the last run of exactly 8 digits in the
// CN; empty when neither names one.
std::string IspbOfSubject(X509_NAME *subject) {
  const std::string serial_number = EntryText(subject, NID_serialNumber);
  if (ValidIspb(serial_number)) return serial_number;
  const std::string cn = EntryText(subject, NID_commonName);
  std::string found;
  for (size_t i = 0; i < cn.size();) {
    if (!std::isdigit(static_cast<unsigned char>(cn[i]))) {
      ++i;
      continue;
    }
    size_t j = i;
    while (j < cn.size() && std::isdigit(static_cast<unsigned char>(cn[j]))) ++j;
    if (j - i == 8) found = cn.substr(i, 8);
    i = j;
  }
  return found;
}

// What the registry needs of a certificate (DER or PEM): kSpbBadCert unless it is an RSA-2048
// X.509 v3 certificate with a positive serial of at most 20 octets, naming an ISPB.
Result<SpbCertificate> ReadSpbCertificate(const secure::Bytes &data) {
  crypto::Result<crypto::pki::PkiObject> obj = crypto::pki::ReadPkiObject(View(data));
  if (!obj.ok() || obj->kind != crypto::pki::PkiKind::kCertificate)
    return BadCert("not one certificate");
  const unsigned char *p = obj->der.data();
  X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(obj->der.size())));
  if (!x) return BadCert("does not parse");
  if (X509_get_version(x.get()) != X509_VERSION_3) return BadCert("not an X.509 v3 certificate");
  EVP_PKEY *pub = X509_get0_pubkey(x.get());
  if (pub == nullptr || EVP_PKEY_get_base_id(pub) != EVP_PKEY_RSA || EVP_PKEY_get_bits(pub) != 2048)
    return BadCert("not an RSA-2048 key");
  std::unique_ptr<BIGNUM, BnFree> bn(ASN1_INTEGER_to_BN(X509_get0_serialNumber(x.get()), nullptr));
  if (!bn || BN_is_negative(bn.get()) ||
      BN_num_bytes(bn.get()) > static_cast<int>(kMaxSerialOctets))
    return BadCert("a serial of more than 20 octets");
  SpbCertificate c;
  c.serial.resize(std::max(1, BN_num_bytes(bn.get())));
  BN_bn2binpad(bn.get(), c.serial.data(), static_cast<int>(c.serial.size()));
  c.ispb = IspbOfSubject(X509_get_subject_name(x.get()));
  if (c.ispb.empty()) return BadCert("the subject names no ISPB");
  c.not_before = TimeOf(X509_get0_notBefore(x.get()));
  c.not_after = TimeOf(X509_get0_notAfter(x.get()));
  c.der.assign(obj->der.begin(), obj->der.end());
  return c;
}

// The certificate's public key as a key the SPB core takes.
Result<crypto::KeyPtr> PublicKeyOf(const secure::Bytes &der) {
  const unsigned char *p = der.data();
  X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  if (!x) return BadCert("does not parse");
  unsigned char *spki = nullptr;
  const int len = i2d_PUBKEY(X509_get0_pubkey(x.get()), &spki);
  if (len <= 0) return BadCert("no public key");
  crypto::Result<crypto::KeyPtr> key = crypto::Key::FromSpki(
      crypto::alg::kRsa2048, crypto::ByteView(spki, static_cast<size_t>(len)));
  OPENSSL_free(spki);
  if (!key.ok()) return FromCrypto(key.status());
  return std::move(key.value());
}

// A self-signed certificate of the key: CN and serialNumber the ISPB, a random 16-byte serial.
Result<secure::Bytes> SelfSigned(const crypto::Key &key, std::string_view ispb, int64_t now) {
  X509Ptr x(X509_new());
  if (!x) return Status::Error(Code::kInternal, "out of memory");
  crypto::Result<crypto::SecretBytes> random = crypto::RandomBytes(16);
  if (!random.ok()) return FromCrypto(random.status());
  (*random)[0] = static_cast<uint8_t>(((*random)[0] & 0x7F) | 0x40);  // positive, 16 octets
  std::unique_ptr<BIGNUM, BnFree> bn(BN_bin2bn(random->data(), 16, nullptr));
  const std::string text(ispb);
  time_t at = static_cast<time_t>(now);
  X509_NAME *name = X509_get_subject_name(x.get());
  auto add = [&](const char *field) {
    return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char *>(text.c_str()), -1, -1,
                                      0) == 1;
  };
  const bool ok =
      bn && X509_set_version(x.get(), X509_VERSION_3) == 1 &&
      BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(x.get())) != nullptr && add("CN") &&
      add("serialNumber") && X509_set_issuer_name(x.get(), name) == 1 &&
      X509_time_adj_ex(X509_getm_notBefore(x.get()), 0, 0, &at) &&
      X509_time_adj_ex(X509_getm_notAfter(x.get()), static_cast<int>(kSelfSignedDays), 0, &at) &&
      X509_set_pubkey(x.get(), key.pkey()) == 1 && X509_sign(x.get(), key.pkey(), EVP_sha256()) > 0;
  if (!ok) return Status::Error(Code::kInternal, "cannot issue the certificate");
  unsigned char *der = nullptr;
  const int len = i2d_X509(x.get(), &der);
  if (len <= 0) return Status::Error(Code::kInternal, "cannot encode the certificate");
  secure::Bytes out(der, der + len);
  OPENSSL_free(der);
  return out;
}

std::string RecordText(const std::vector<objects::ObjectStore::Record> &records, uint32_t id) {
  for (const auto &r : records)
    if (r.id == id) return std::string(r.value.begin(), r.value.end());
  return "";
}

// "/C=BR/O=Bank/CN=name" as RFC 4514 ("CN=name,O=Bank,C=BR"); empty when malformed.
std::string Rfc4514FromSlashed(std::string_view dn) {
  if (dn.size() < 2 || dn.front() != '/') return "";
  std::vector<std::string> rdns;
  std::string current;
  for (size_t i = 1; i <= dn.size(); ++i) {
    if (i == dn.size() || (dn[i] == '/' && dn[i - 1] != '\\')) {
      if (current.find('=') == std::string::npos || current.front() == '=') return "";
      rdns.push_back(current);
      current.clear();
      continue;
    }
    if (dn[i] == '\\' && i + 1 < dn.size() && dn[i + 1] == '/') continue;
    const char c = dn[i];
    // Characters RFC 4514 escapes in a value; the first '=' is the type's.
    if ((c == ',' || c == '+' || c == '"' || c == ';' || c == '<' || c == '>') ||
        (c == '=' && current.find('=') != std::string::npos))
      current += '\\';
    current += c;
  }
  std::string out;
  for (auto it = rdns.rbegin(); it != rdns.rend(); ++it) {
    if (!out.empty()) out += ',';
    out += *it;
  }
  return out;
}

std::string Pem(const crypto::Bytes &der, const char *label) {
  std::string b64;
  b64.resize(4 * ((der.size() + 2) / 3) + 1);
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(b64.data()), der.data(),
                                static_cast<int>(der.size()));
  b64.resize(static_cast<size_t>(n));
  std::string out = std::string("-----BEGIN ") + label + "-----\n";
  for (size_t i = 0; i < b64.size(); i += 64) out += b64.substr(i, 64) + "\n";
  out += std::string("-----END ") + label + "-----\n";
  return out;
}

// A message in progress in the session.
class SpbMessage : public sessions::SessionContext {
 public:
  std::unique_ptr<cspb::Encoder> encoder;
  std::unique_ptr<cspb::Decoder> decoder;
  bool failed = false;
};

Result<SpbMessage *> MessageOf(Session &s, uint64_t handle, bool encoding) {
  auto *m = dynamic_cast<SpbMessage *>(s.FindContext(handle));
  if (m == nullptr || (encoding ? !m->encoder : !m->decoder))
    return Status::Error(Code::kBadHandle, "no such SPB message in the session");
  return m;
}

std::string AuditIspbs(std::string_view a, std::string_view b) {
  return std::string(a) + ">" + std::string(b);
}

}  // namespace

Result<std::vector<SpbCertificate>> SpbService::Certificates(std::string_view ispb) {
  Result<std::vector<objects::ObjectRef>> refs =
      core_.objects->ListAllWithPrefix("SPB_" + std::string(ispb) + "_");
  if (!refs.ok()) return refs.status();
  std::vector<SpbCertificate> out;
  for (const objects::ObjectRef &ref : refs.value()) {
    Result<objects::ObjectInfo> info = core_.objects->Get(ref);
    if (!info.ok() || info->blocked || info->type != static_cast<int>(ObjectType::kCertificate))
      continue;
    Result<secure::Bytes> der = core_.objects->ReadMaterial(ref);
    if (!der.ok()) return der.status();
    Result<SpbCertificate> cert = ReadSpbCertificate(der.value());
    if (!cert.ok() || cert->ispb != ispb) continue;
    Result<std::vector<objects::ObjectStore::Record>> records = core_.objects->GetRecords(ref);
    if (!records.ok()) return records.status();
    cert->ref = ref;
    cert->active = RecordText(records.value(), kRecordSpbActive) == "1";
    cert->domain = RecordText(records.value(), kRecordSpbDomain);
    cert->key = RecordText(records.value(), kRecordSpbKey);
    out.push_back(std::move(cert.value()));
  }
  return out;
}

std::vector<objects::ObjectStore::RecordSet> SpbService::ActivationRecords(
    const std::vector<SpbCertificate> &of_ispb, const objects::ObjectRef &which,
    std::string_view domain) {
  std::vector<objects::ObjectStore::RecordSet> sets;
  for (const SpbCertificate &c : of_ispb) {
    if (c.ref.owner == which.owner && c.ref.name == which.name) continue;
    if (c.active) sets.push_back({c.ref, {{kRecordSpbActive, Text("0")}}});
  }
  sets.push_back({which, {{kRecordSpbActive, Text("1")}, {kRecordSpbDomain, Text(domain)}}});
  return sets;
}

Status SpbService::Activate(std::string_view ispb, const objects::ObjectRef &which,
                            std::string_view domain) {
  std::lock_guard<std::mutex> lock(activation_);
  Result<std::vector<SpbCertificate>> of_ispb = Certificates(ispb);
  if (!of_ispb.ok()) return of_ispb.status();
  return core_.objects->SetRecords(ActivationRecords(of_ispb.value(), which, domain));
}

Status SpbService::CreateRegistered(
    std::vector<std::pair<objects::ObjectInfo, secure::Bytes>> &rows,
    std::vector<objects::ObjectStore::RecordSet> records, std::string_view ispb,
    const objects::ObjectRef &cert, bool activate) {
  QL_RETURN_IF_ERROR(core_.RoomForObjects(rows.size()));
  std::unique_lock<std::mutex> lock(activation_, std::defer_lock);
  if (activate) {
    lock.lock();
    Result<std::vector<SpbCertificate>> of_ispb = Certificates(ispb);
    if (!of_ispb.ok()) return of_ispb.status();
    for (auto &set : ActivationRecords(of_ispb.value(), cert, kDefaultDomain))
      records.push_back(std::move(set));
  }
  return core_.objects->CreateMany(rows, records);
}

std::string SpbService::FindKeyFor(std::string_view ispb, const secure::Bytes &der) {
  Result<std::vector<objects::ObjectRef>> refs =
      core_.objects->ListAllWithPrefix("SPB_" + std::string(ispb) + "_");
  if (!refs.ok()) return "";
  for (const objects::ObjectRef &ref : refs.value()) {
    Result<objects::ObjectInfo> info = core_.objects->Get(ref);
    if (!info.ok() || info->type != static_cast<int>(crypto::alg::kRsa2048)) continue;
    Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, ref);
    if (key.ok() && crypto::pki::KeyMatchesCertificate(*key->key, View(der))) return ref.Full();
  }
  return "";
}

Result<std::string> SpbService::GenerateKey(Session &s, std::string_view ispb, uint32_t flags) {
  Op op{"spb-generate-key", ispb, Request::kCreateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckIspb(ispb));
        if (flags & ~(spbflags::kKeyExportable | spbflags::kKeySelfSigned))
          return Status::Error(Code::kBadFlags, "unknown flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<std::string> {
        crypto::Result<crypto::KeyPtr> key = crypto::Key::Generate(crypto::alg::kRsa2048, 0);
        if (!key.ok()) return FromCrypto(key.status());
        crypto::Result<crypto::SecretBytes> random = crypto::RandomBytes(8);
        if (!random.ok()) return FromCrypto(random.status());
        const std::string name =
            "SPB_" + std::string(ispb) + "_" + Hex(secure::Bytes(random->begin(), random->end()));
        objects::ObjectRef key_ref;
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &key_ref));
        crypto::Result<crypto::SecretBytes> stored = (*key)->Serialize();
        if (!stored.ok()) return FromCrypto(stored.status());

        std::vector<std::pair<objects::ObjectInfo, secure::Bytes>> rows;
        objects::ObjectInfo key_info;
        key_info.ref = key_ref;
        key_info.type = key_info.algorithm = static_cast<int>(crypto::alg::kRsa2048);
        key_info.flags = (flags & spbflags::kKeyExportable) ? qlproto::kKeyExportable : 0;
        rows.emplace_back(key_info, secure::Bytes(stored->begin(), stored->end()));
        OPENSSL_cleanse(stored->data(), stored->size());
        objects::ObjectInfo cert_info;
        if (flags & spbflags::kKeySelfSigned) {
          Result<secure::Bytes> cert = SelfSigned(**key, ispb, core_.clock.Now());
          if (!cert.ok()) return cert.status();
          cert_info.ref = objects::ObjectRef{key_ref.owner, key_ref.name + ".crt"};
          cert_info.type = static_cast<int>(ObjectType::kCertificate);
          rows.emplace_back(cert_info, std::move(cert.value()));
        }
        const bool self_signed = (flags & spbflags::kKeySelfSigned) != 0;
        std::vector<objects::ObjectStore::RecordSet> records;
        if (self_signed)
          records.push_back({cert_info.ref, {{kRecordSpbKey, Text(key_ref.Full())}}});
        Status st = CreateRegistered(rows, std::move(records), ispb, cert_info.ref, self_signed);
        OPENSSL_cleanse(rows.front().second.data(), rows.front().second.size());
        QL_RETURN_IF_ERROR(st);
        return name;
      });
}

Result<secure::Bytes> SpbService::GenerateCsr(Session &s, std::string_view ispb,
                                              std::string_view key_name, std::string_view subject,
                                              uint32_t flags) {
  objects::ObjectRef ref;
  const std::string rfc4514 = Rfc4514FromSlashed(subject);
  Op op{"spb-generate-csr", key_name, Request::kUseObject};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckIspb(ispb));
        if (flags & ~(spbflags::kCsrSha1 | spbflags::kCsrDer))
          return Status::Error(Code::kBadFlags, "unknown flags");
        if (rfc4514.empty())
          return Status::Error(Code::kBadArgument, "a subject in the /C=BR/O=../CN=.. form");
        return core_.Ref(s, key_name, &ref);
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, ref);
        if (!key.ok()) return key.status();
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        if (key->key->algorithm() != crypto::alg::kRsa2048)
          return Status::Error(Code::kBadKeyUsage, "SPB keys are RSA-2048");
        crypto::Result<crypto::Bytes> req = crypto::pki::MakeRequest(
            *key->key, rfc4514, (flags & spbflags::kCsrSha1) ? "SHA1" : "SHA256");
        if (!req.ok()) {
          if (req.status().code() == crypto::Code::kBadData ||
              req.status().code() == crypto::Code::kBadArgument)
            return Status::Error(Code::kBadArgument, "the subject does not parse");
          return FromCrypto(req.status());
        }
        if (flags & spbflags::kCsrDer) return secure::Bytes(req->begin(), req->end());
        return Text(Pem(req.value(), "CERTIFICATE REQUEST"));
      });
}

Result<std::string> SpbService::ImportCertificate(Session &s, const secure::Bytes &data,
                                                  uint32_t flags) {
  Op op{"spb-import-certificate", "-", Request::kCreateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (data.empty()) return Status::Error(Code::kBadArgument, "no certificate");
        if (flags & ~spbflags::kCertActivate)
          return Status::Error(Code::kBadFlags, "unknown flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<std::string> {
        Result<SpbCertificate> cert = ReadSpbCertificate(data);
        if (!cert.ok()) return cert.status();
        const std::string name = "SPB_" + cert->ispb + "_" + Hex(cert->serial) + ".crt";
        objects::ObjectRef ref;
        QL_RETURN_IF_ERROR(core_.Ref(s, name, &ref));
        std::vector<std::pair<objects::ObjectInfo, secure::Bytes>> rows(1);
        rows[0].first.ref = ref;
        rows[0].first.type = static_cast<int>(ObjectType::kCertificate);
        rows[0].second = cert->der;
        std::vector<objects::ObjectStore::RecordSet> records;
        const std::string key = FindKeyFor(cert->ispb, cert->der);
        if (!key.empty()) records.push_back({ref, {{kRecordSpbKey, Text(key)}}});
        QL_RETURN_IF_ERROR(CreateRegistered(rows, std::move(records), cert->ispb, ref,
                                            (flags & spbflags::kCertActivate) != 0));
        return name;
      });
}

Result<std::string> SpbService::ImportPkcs12(Session &s, const secure::Bytes &pfx,
                                             std::string_view password, std::string_view ispb,
                                             uint32_t flags) {
  Op op{"spb-import-pkcs12", ispb.empty() ? std::string_view("-") : ispb, Request::kCreateObject,
        AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (pfx.empty()) return Status::Error(Code::kBadArgument, "no PKCS#12 file");
        if (!ispb.empty()) QL_RETURN_IF_ERROR(CheckIspb(ispb));
        if (flags & ~spbflags::kCertActivate)
          return Status::Error(Code::kBadFlags, "unknown flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<std::string> {
        crypto::Result<crypto::pki::Pkcs12Contents> p12 =
            crypto::pki::ReadPkcs12(View(pfx), password);
        if (!p12.ok()) {
          if (p12.status().code() == crypto::Code::kBadTag)
            return Status::Error(Code::kBadPassword, "the password does not open the file");
          return FromCrypto(p12.status());
        }
        if (p12->certificate.empty()) return BadCert("the file holds no certificate");
        Result<SpbCertificate> cert =
            ReadSpbCertificate(secure::Bytes(p12->certificate.begin(), p12->certificate.end()));
        if (!cert.ok()) return cert.status();
        if (!ispb.empty() && cert->ispb != ispb)
          return BadCert("the certificate names another ISPB");
        crypto::Result<crypto::KeyPtr> key = crypto::Key::FromPkcs8(
            crypto::alg::kRsa2048,
            crypto::ByteView(p12->private_key_pkcs8.data(), p12->private_key_pkcs8.size()), false);
        if (!key.ok()) return BadCert("the key is not RSA-2048");
        if (!crypto::pki::KeyMatchesCertificate(**key, View(cert->der)))
          return Status::Error(Code::kKeyCertMismatch, "the key is not the certificate's");
        crypto::Result<crypto::SecretBytes> random = crypto::RandomBytes(8);
        if (!random.ok()) return FromCrypto(random.status());
        objects::ObjectRef key_ref, cert_ref;
        QL_RETURN_IF_ERROR(core_.Ref(
            s, "SPB_" + cert->ispb + "_" + Hex(secure::Bytes(random->begin(), random->end())),
            &key_ref));
        QL_RETURN_IF_ERROR(
            core_.Ref(s, "SPB_" + cert->ispb + "_" + Hex(cert->serial) + ".crt", &cert_ref));
        crypto::Result<crypto::SecretBytes> stored = (*key)->Serialize();
        if (!stored.ok()) return FromCrypto(stored.status());
        std::vector<std::pair<objects::ObjectInfo, secure::Bytes>> rows(2);
        rows[0].first.ref = key_ref;
        rows[0].first.type = rows[0].first.algorithm = static_cast<int>(crypto::alg::kRsa2048);
        rows[0].first.flags = 0;
        rows[0].second.assign(stored->begin(), stored->end());
        rows[1].first.ref = cert_ref;
        rows[1].first.type = static_cast<int>(ObjectType::kCertificate);
        rows[1].second = cert->der;
        Status st = CreateRegistered(rows, {{cert_ref, {{kRecordSpbKey, Text(key_ref.Full())}}}},
                                     cert->ispb, cert_ref, (flags & spbflags::kCertActivate) != 0);
        OPENSSL_cleanse(rows[0].second.data(), rows[0].second.size());
        QL_RETURN_IF_ERROR(st);
        return cert_ref.name;
      });
}

Status SpbService::ActivateCertificate(Session &s, std::string_view ispb, std::string_view domain,
                                       std::string_view serial_hex) {
  secure::Bytes serial;
  const std::string_view use_domain = domain.empty() ? std::string_view(kDefaultDomain) : domain;
  Op op{"spb-activate-certificate", ispb, Request::kUpdateObject, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckIspb(ispb));
        if (use_domain.size() > 16 || !std::all_of(use_domain.begin(), use_domain.end(),
                                                   [](char c) { return c > ' ' && c < 0x7f; }))
          return Status::Error(Code::kBadArgument, "a domain is 1 to 16 printable characters");
        Result<secure::Bytes> parsed = ParseSerialHex(serial_hex);
        if (!parsed.ok()) return parsed.status();
        serial = std::move(parsed.value());
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        Result<std::vector<SpbCertificate>> of_ispb = Certificates(ispb);
        if (!of_ispb.ok()) return of_ispb.status();
        for (const SpbCertificate &c : of_ispb.value())
          if (c.serial == serial) return Activate(ispb, c.ref, use_domain);
        return NoCert("no certificate of that ISPB and serial");
      });
}

Result<uint64_t> SpbService::EncodeInit(Session &s, const SpbEncodeArgs &a) {
  const std::string target = AuditIspbs(a.local_ispb, a.counterpart_ispb);
  Op op{"spb-encode", target, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckIspb(a.local_ispb));
        QL_RETURN_IF_ERROR(CheckIspb(a.counterpart_ispb));
        if (a.flags & ~(spbflags::kMessageGen01 | spbflags::kMessageV3))
          return Status::Error(Code::kBadFlags, "unknown flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<uint64_t> {
        const int64_t now = core_.clock.Now();
        auto active = [&](std::string_view ispb, bool need_key) -> Result<SpbCertificate> {
          Result<std::vector<SpbCertificate>> all = Certificates(ispb);
          if (!all.ok()) return all.status();
          for (SpbCertificate &c : all.value()) {
            if (!c.active) continue;
            if (need_key && c.key.empty()) return NoCert("the active certificate has no key");
            if (now > c.not_after || now < c.not_before)
              return Status::Error(Code::kCertExpired, "the active certificate is not valid now");
            return std::move(c);
          }
          return NoCert("no active certificate");
        };
        Result<SpbCertificate> local = active(a.local_ispb, true);
        if (!local.ok()) return local.status();
        Result<SpbCertificate> remote = active(a.counterpart_ispb, false);
        if (!remote.ok()) return remote.status();
        Result<objects::ObjectRef> key_ref = objects::ParseObjectName(local->key, "-");
        if (!key_ref.ok()) return NoCert("the certificate's key is gone");
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref.value());
        if (!key.ok()) {
          if (key.status().code() == Code::kObjectNotFound) return NoCert("the key is gone");
          return key.status();
        }
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        Result<crypto::KeyPtr> dest = PublicKeyOf(remote->der);
        if (!dest.ok()) return dest.status();
        cspb::EncodeParams params;
        params.version = (a.flags & spbflags::kMessageV3) ? 3 : 2;
        params.sign_only = (a.flags & spbflags::kMessageGen01) != 0;
        params.error_code = a.c3;
        params.special = a.c4;
        params.destination_serial = View(remote->serial);
        params.sender_serial = View(local->serial);
        params.message_len = a.message_len;
        crypto::Result<std::unique_ptr<cspb::Encoder>> enc =
            cspb::Encoder::Start(*key->key, **dest, params);
        if (!enc.ok()) return FromCrypto(enc.status());
        auto message = std::make_unique<SpbMessage>();
        message->encoder = std::move(enc.value());
        return s.AddContext(std::move(message));
      });
}

Result<secure::Bytes> SpbService::Piece(Session &s, uint64_t handle, const secure::Bytes &piece,
                                        bool encoding) {
  Op op{encoding ? "spb-encode-piece" : "spb-decode-piece", "-", Request::kUseObject,
        AuditMode::kRefusal};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Result<secure::Bytes> {
    Result<SpbMessage *> m = MessageOf(s, handle, encoding);
    if (!m.ok()) return m.status();
    if ((*m)->failed) return Status::Error(Code::kBadState, "the message already failed");
    crypto::Result<crypto::Bytes> out =
        encoding ? (*m)->encoder->Update(View(piece)) : (*m)->decoder->Update(View(piece));
    if (!out.ok()) {
      (*m)->failed = true;
      return FromCrypto(out.status());
    }
    return secure::Bytes(out->begin(), out->end());
  });
}

Result<secure::Bytes> SpbService::EncodeCont(Session &s, uint64_t handle,
                                             const secure::Bytes &piece) {
  return Piece(s, handle, piece, true);
}

Result<secure::Bytes> SpbService::EncodeEnd(Session &s, uint64_t handle) {
  Op op{"spb-encode-end", "-", Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Result<secure::Bytes> {
    Result<SpbMessage *> m = MessageOf(s, handle, true);
    if (!m.ok()) return m.status();
    const bool failed = (*m)->failed;
    crypto::Result<cspb::Header> header =
        failed ? crypto::Result<cspb::Header>(crypto::Code::kBadLength) : (*m)->encoder->Finish();
    s.RemoveContext(handle);
    if (failed) return Status::Error(Code::kBadState, "the message already failed");
    if (!header.ok()) return FromCrypto(header.status());
    const std::array<uint8_t, cspb::kHeaderLen> bytes = cspb::SerializeHeader(header.value());
    return secure::Bytes(bytes.begin(), bytes.end());
  });
}

Result<uint64_t> SpbService::DecodeInit(Session &s, const SpbDecodeArgs &a) {
  const std::string target = AuditIspbs(a.counterpart_ispb, a.local_ispb);
  Op op{"spb-decode", target, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckIspb(a.local_ispb));
        QL_RETURN_IF_ERROR(CheckIspb(a.counterpart_ispb));
        if (a.flags & ~(spbflags::kMessageV3 | spbflags::kMessagePad))
          return Status::Error(Code::kBadFlags, "unknown flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<uint64_t> {
        crypto::Result<cspb::Header> header =
            cspb::ParseHeader(View(a.header), (a.flags & spbflags::kMessageV3) != 0);
        if (!header.ok()) return Status::Error(Code::kSpbBadHeader, "malformed security header");
        const int64_t now = core_.clock.Now();
        auto expired = [&](const SpbCertificate &c) {
          return !a.accept_expired && (now > c.not_after || now < c.not_before);
        };
        auto field_of = [](const SpbCertificate &c) {
          crypto::Result<std::array<uint8_t, 32>> f = cspb::SerialField(View(c.serial));
          return f.ok() ? f.value() : std::array<uint8_t, 32>{};
        };
        // C11: any of our certificates with a key (a rollover leaves the old one inactive).
        Result<std::vector<SpbCertificate>> ours = Certificates(a.local_ispb);
        if (!ours.ok()) return ours.status();
        const SpbCertificate *local = nullptr;
        for (const SpbCertificate &c : ours.value())
          if (!c.key.empty() && field_of(c) == header->destination_serial) local = &c;
        if (local == nullptr) return NoCert("C11 names none of our certificates with a key");
        // C13: the counterpart's active certificate, or a known one activated on the way.
        Result<std::vector<SpbCertificate>> theirs = Certificates(a.counterpart_ispb);
        if (!theirs.ok()) return theirs.status();
        const SpbCertificate *remote = nullptr;
        for (const SpbCertificate &c : theirs.value())
          if (field_of(c) == header->sender_serial) remote = &c;
        if (remote == nullptr || (!remote->active && !a.auto_activate))
          return NoCert("C13 names no active certificate of the counterpart");
        if (expired(*local) || expired(*remote))
          return Status::Error(Code::kCertExpired, "a certificate is not valid now");
        if (!remote->active) {
          const std::string domain = remote->domain.empty() ? kDefaultDomain : remote->domain;
          QL_RETURN_IF_ERROR(Activate(a.counterpart_ispb, remote->ref, domain));
        }
        Result<objects::ObjectRef> key_ref = objects::ParseObjectName(local->key, "-");
        if (!key_ref.ok()) return NoCert("the certificate's key is gone");
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref.value());
        if (!key.ok()) {
          if (key.status().code() == Code::kObjectNotFound) return NoCert("the key is gone");
          return key.status();
        }
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        Result<crypto::KeyPtr> sender = PublicKeyOf(remote->der);
        if (!sender.ok()) return sender.status();
        cspb::DecodeParams params;
        params.keep_padding = (a.flags & spbflags::kMessagePad) != 0;
        params.message_len = a.message_len;
        crypto::Result<std::unique_ptr<cspb::Decoder>> dec =
            cspb::Decoder::Start(header.value(), *key->key, **sender, params);
        if (!dec.ok()) return FromCrypto(dec.status());
        auto message = std::make_unique<SpbMessage>();
        message->decoder = std::move(dec.value());
        return s.AddContext(std::move(message));
      });
}

Result<secure::Bytes> SpbService::DecodeCont(Session &s, uint64_t handle,
                                             const secure::Bytes &piece) {
  return Piece(s, handle, piece, false);
}

Status SpbService::DecodeEnd(Session &s, uint64_t handle) {
  Op op{"spb-decode-end", "-", Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(s, op, NoArgs, [&](const users::UserInfo &) -> Status {
    Result<SpbMessage *> m = MessageOf(s, handle, false);
    if (!m.ok()) return m.status();
    const bool failed = (*m)->failed;
    crypto::Status st = failed ? crypto::Status() : (*m)->decoder->Finish();
    s.RemoveContext(handle);
    if (failed) return Status::Error(Code::kBadState, "the message already failed");
    return FromCrypto(st);
  });
}

}  // namespace qlhsm
