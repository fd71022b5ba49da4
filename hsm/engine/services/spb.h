// Secure messages of the Brazilian financial network: keys, certificate requests and the
// certificates of institutions known by their 8-digit ISPB, and messages encoded and decoded
// behind the 588-byte security header.
//
// The certificate registry is HSM-wide and kept in the objects themselves: every certificate
// object named "SPB_<ISPB>_..." (any owner) is a row; its state (active or not), its domain and
// the key it is linked to are records of the object. Removing the object therefore drops its
// row. At most one certificate per ISPB is active; no chain is built: activating is the
// operator's trust decision.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/guard.h"
#include "engine/services/keys.h"
#include "wire_values.h"

namespace qlhsm {

class ObjectsService;

// The QSPB* flags, as the wire carries them.
namespace spbflags {
inline constexpr uint32_t kCertActivate = qlproto::kSpbCertActivate;  // import: made active
inline constexpr uint32_t kMessageGen01 = qlproto::kSpbGen01;  // encode: sign only, clear body
inline constexpr uint32_t kMessageV3 = qlproto::kSpbV3;    // encode: version 3; decode: refuse v2
inline constexpr uint32_t kMessagePad = qlproto::kSpbPad;  // decode: the output keeps its padding
inline constexpr uint32_t kKeyExportable = qlproto::kKeyExportable;
inline constexpr uint32_t kKeySelfSigned = qlproto::kSpbKeySelfSigned;  // and an active cert
inline constexpr uint32_t kCsrSha1 = qlproto::kSpbCsrSha1;              // SHA-1 (else SHA-256)
inline constexpr uint32_t kCsrDer = qlproto::kSpbCsrDer;                // DER (else PEM)
}  // namespace spbflags

// One certificate of the registry.
struct SpbCertificate {
  objects::ObjectRef ref;
  std::string ispb;
  secure::Bytes serial;  // big-endian, without leading zeros
  int64_t not_before = 0;
  int64_t not_after = 0;
  bool active = false;
  std::string domain;
  std::string key;  // the linked key's full name ("owner/object"), or empty
  secure::Bytes der;
};

struct SpbDecodeArgs {
  std::string local_ispb;
  std::string counterpart_ispb;
  secure::Bytes header;
  uint64_t message_len = 0;
  bool accept_expired = false;
  bool auto_activate = false;
  uint32_t flags = 0;
};

struct SpbEncodeArgs {
  std::string local_ispb;
  std::string counterpart_ispb;
  uint64_t message_len = 0;
  uint8_t c3 = 0;
  uint8_t c4 = 0;
  uint32_t flags = 0;
};

class SpbService {
 public:
  SpbService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  // An RSA-2048 key named SPB_<ISPB>_<16 hex>: the create right. With kKeySelfSigned the HSM
  // also issues a self-signed certificate for it (CN and serialNumber the ISPB, a random serial,
  // one year), stored as "<key>.crt" and active. Answers the key's name.
  Result<std::string> GenerateKey(sessions::Session &s, std::string_view ispb, uint32_t flags);
  // A PKCS#10 request of a stored key for a subject in the "/C=BR/O=../CN=.." form: the use
  // right; DER or PEM, SHA-256 or SHA-1 (spbflags::kCsr*).
  Result<secure::Bytes> GenerateCsr(sessions::Session &s, std::string_view ispb,
                                    std::string_view key_name, std::string_view subject,
                                    uint32_t flags);
  // A certificate (PEM or DER) stored as SPB_<ISPB>_<serial hex>.crt, linked to a matching SPB
  // key of the ISPB: the create right; kSpbBadCert for anything but an RSA-2048 X.509 v3
  // certificate naming an ISPB. Answers the object's name.
  Result<std::string> ImportCertificate(sessions::Session &s, const secure::Bytes &cert,
                                        uint32_t flags);
  // A PKCS#12 file's key and certificate, in one transaction: the create right. `ispb`, when
  // given, must be the certificate's.
  Result<std::string> ImportPkcs12(sessions::Session &s, const secure::Bytes &pfx,
                                   std::string_view password, std::string_view ispb,
                                   uint32_t flags);
  // Makes the certificate of that ISPB and serial (hex) the active one: the update right;
  // kSpbNoCert when there is none.
  Status ActivateCertificate(sessions::Session &s, std::string_view ispb, std::string_view domain,
                             std::string_view serial_hex);

  // Messages: the first ISPB is the local institution (its private key), the second the
  // counterpart. Init answers a handle of the session; End always drops it.
  Result<uint64_t> EncodeInit(sessions::Session &s, const SpbEncodeArgs &args);
  Result<secure::Bytes> EncodeCont(sessions::Session &s, uint64_t handle,
                                   const secure::Bytes &piece);
  Result<secure::Bytes> EncodeEnd(sessions::Session &s, uint64_t handle);
  Result<uint64_t> DecodeInit(sessions::Session &s, const SpbDecodeArgs &args);
  Result<secure::Bytes> DecodeCont(sessions::Session &s, uint64_t handle,
                                   const secure::Bytes &piece);
  Status DecodeEnd(sessions::Session &s, uint64_t handle);

  // The registry's certificates of an ISPB (exposed for the tests of the service).
  Result<std::vector<SpbCertificate>> Certificates(std::string_view ispb);

 private:
  // A piece of a message through its encoder or decoder; a failed piece fails the message.
  Result<secure::Bytes> Piece(sessions::Session &s, uint64_t handle, const secure::Bytes &piece,
                              bool encoding);

  // Makes `which` the one active certificate of its ISPB. Activations hold `activation_` from
  // reading the registry to writing it, and write in one transaction, so that two of them never
  // leave two active certificates.
  Status Activate(std::string_view ispb, const objects::ObjectRef &which, std::string_view domain);
  // The records that leave `which` (in `of_ispb`, or about to be created) the only active one.
  static std::vector<objects::ObjectStore::RecordSet> ActivationRecords(
      const std::vector<SpbCertificate> &of_ispb, const objects::ObjectRef &which,
      std::string_view domain);
  // Creates `rows`, with `records` and, when `activate` is set, the activation of `cert` among
  // the certificates of `ispb`, in one transaction.
  Status CreateRegistered(std::vector<std::pair<objects::ObjectInfo, secure::Bytes>> &rows,
                          std::vector<objects::ObjectStore::RecordSet> records,
                          std::string_view ispb, const objects::ObjectRef &cert, bool activate);
  // A key of the ISPB in the store that the certificate carries, or empty.
  std::string FindKeyFor(std::string_view ispb, const secure::Bytes &der);

  Core &core_;
  Guard &guard_;
  std::mutex activation_;
};

}  // namespace qlhsm
