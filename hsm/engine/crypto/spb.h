// spb.h: secure messages of the Brazilian financial network: the 588-byte security header and
// the body it protects.
//
// The header, fields C01 to C15:
//   C01 (2, big-endian) the header's length, 588     C02 version: 2, or 3
//   C03, C04 the caller's bytes (an error code and a special-treatment mark; outside the
//            signature, as in the network's manual)   C05 reserved, 0
//   C06, C08 the destination's and the sender's key: 2 (RSA-2048)
//   C07 the body's cipher: 1 3DES-168 (version 2), 2 AES-256 (version 3), 0 none (sign only)
//   C09 the hash: 2 SHA-1 (version 2), 3 SHA-256 (version 3)
//   C10, C12 certificate authority marks: 0, ignored when read
//   C11, C13 (32 each) the serials of the destination's and the sender's certificates,
//            big-endian, right-aligned, zero-filled
//   C14 (256) the session key under the destination's key, RSAES-PKCS1-v1_5
//   C15 (256) the sender's RSASSA-PKCS1-v1_5 signature over the plain body
// The body is CBC with a zero IV (a session key serves one message) and PKCS#7 padding.
//
// Decoding is no padding or key oracle: a C14 that does not decrypt gives a random key, a bad
// padding is remembered, and every such fault, like a changed body or signature, answers one
// kBadSignature at Finish.
#ifndef QLHSM_CRYPTO_SPB_H_
#define QLHSM_CRYPTO_SPB_H_

#include <array>
#include <cstdint>
#include <memory>

#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/ossl.h"
#include "crypto/status.h"

namespace qlhsm::crypto::spb {

constexpr size_t kHeaderLen = 588;

struct Header {
  uint8_t version = 3;                           // C02
  uint8_t error_code = 0;                        // C03
  uint8_t special = 0;                           // C04
  uint8_t cipher = 2;                            // C07
  uint8_t hash = 3;                              // C09
  std::array<uint8_t, 32> destination_serial{};  // C11
  std::array<uint8_t, 32> sender_serial{};       // C13
  std::array<uint8_t, 256> session_key{};        // C14
  std::array<uint8_t, 256> signature{};          // C15
};

std::array<uint8_t, kHeaderLen> SerializeHeader(const Header &header);
// kBadData for a wrong length, C01, C02, C05, C06 or C08, or a C07/C09 that does not fit the
// version (C10 and C12 are ignored). With `refuse_v2` a version 2 header is refused too.
Result<Header> ParseHeader(ByteView bytes, bool refuse_v2 = false);
// A certificate serial (big-endian, at most 32 octets) as C11/C13 hold it; kBadLength if longer.
Result<std::array<uint8_t, 32>> SerialField(ByteView serial);

struct EncodeParams {
  uint8_t version = 3;     // 2 or 3
  bool sign_only = false;  // the body passes in the clear, C07 0, C14 zeros
  uint8_t error_code = 0;
  uint8_t special = 0;
  ByteView destination_serial;
  ByteView sender_serial;
  uint64_t message_len = 0;
};

class Encoder {
 public:
  // The sender's private key and the destination's public key: RSA-2048 (kKeyCannotDo else).
  static Result<std::unique_ptr<Encoder>> Start(const Key &sender, const Key &destination,
                                                const EncodeParams &params);
  // Encrypts a piece: whole blocks out, the last piece (the one reaching message_len) padded.
  // More bytes than message_len: kBadLength.
  Result<Bytes> Update(ByteView piece);
  // The header, once every byte of the body went through Update (kBadLength before).
  Result<Header> Finish();

 private:
  Encoder() = default;
  Header header_;
  EncodeParams params_;
  uint64_t seen_ = 0;
  ossl::CipherCtxPtr cipher_;
  ossl::MdCtxPtr signer_;
};

struct DecodeParams {
  bool keep_padding = false;  // the output keeps the padding (the signature is over the text)
  uint64_t message_len = 0;   // the body's length
};

class Decoder {
 public:
  // The local private key (C14's destination) and the sender's public key: RSA-2048.
  // kBadLength when the body is not whole blocks (unless C07 is 0).
  static Result<std::unique_ptr<Decoder>> Start(const Header &header, const Key &local,
                                                const Key &sender, const DecodeParams &params);
  Result<Bytes> Update(ByteView piece);
  // Ok when the body was whole and the signature verifies; kBadSignature for any fault of key,
  // padding, body or signature; kBadLength for a body shorter than announced.
  Status Finish();

 private:
  Decoder() = default;
  Header header_;
  DecodeParams params_;
  uint64_t seen_ = 0;
  bool fault_ = false;
  ossl::CipherCtxPtr cipher_;
  ossl::MdCtxPtr verifier_;
  Bytes held_;  // the last block, until the end shows whether it holds the padding
};

}  // namespace qlhsm::crypto::spb

#endif  // QLHSM_CRYPTO_SPB_H_
