// cipher.h: encryption and decryption, symmetric and RSA, in pieces; key wrap.
#ifndef QLHSM_CRYPTO_CIPHER_H_
#define QLHSM_CRYPTO_CIPHER_H_

#include <cstdint>
#include <limits>

#include "crypto/algorithms.h"
#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/ossl.h"
#include "crypto/status.h"

namespace qlhsm::crypto {

// RSA encryption schemes. OAEP uses SHA-1 with MGF1-SHA-1 and no label (OpenSSL's and most
// toolkits' default, so `openssl pkeyutl -pkeyopt rsa_padding_mode:oaep` reads it).
enum class RsaPadding { kPkcs1, kNone, kOaep };

// One-shot RSA. Encrypt: kPkcs1 takes at most k-11 bytes, kOaep at most k-42, kNone exactly k
// (a value below the modulus, else kBadData); kBadLength otherwise. Decrypt takes exactly k bytes
// and needs the private key (kKeyCannotDo); a padding that does not check answers kBadPadding.
Result<Bytes> RsaEncrypt(const Key &key, RsaPadding padding, ByteView in);
Result<SecretBytes> RsaDecrypt(const Key &key, RsaPadding padding, ByteView in);
// RSAES-OAEP with SHA-256 and MGF1-SHA-256 under `label` (RFC 8017 section 7.1), as cloud key
// imports take it: at most k-66 bytes (kBadLength otherwise); a public key suffices.
Result<Bytes> RsaOaepSha256Encrypt(const Key &key, ByteView label, ByteView in);

// AES key wrap under `kek` (an AES key): RFC 3394 (pad false: input a multiple of 8, at least
// 16 bytes) or RFC 5649 (pad true: any length from 1). Unwrapping answers kBadTag when the
// integrity check fails, kBadLength for an impossible length.
Result<Bytes> KeyWrap(const KeyPtr &kek, bool pad, ByteView in);
Result<SecretBytes> KeyUnwrap(const KeyPtr &kek, bool pad, ByteView in);

// The encryption state of one key handle: its mode, padding and IV parameters and the chaining
// state of the message in progress.
//
// A message is one or more pieces, the last with `final` set. The chaining state lives here
// between pieces and starts afresh after the final piece (or after any refusal, which abandons
// the message), so the same ciphertext decrypts again on every pass. Starting a message in the
// other direction, or changing any parameter (mode, padding, IV, AAD, tag length), abandons the
// unfinished one.
//
// Modes by key algorithm (anything else: kNotSupported):
//   AES 128/192/256   ecb cbc ofb ctr gcm kw kwp     (default cbc)
//   DES, 3DES         ecb cbc ofb                    (default cbc)
//   DESX              cbc                            (default cbc)
//   RC4               none (a stream)
//   RSA               the mode is ignored; the message is encrypted at the final piece
// Paddings (ECB and CBC only; the stream modes, GCM and the key wraps ignore it): none (the
// message must fill whole blocks: kBadLength), PKCS#5 (the default), zero (zeros up to the
// block; cannot be undone, so decryption returns the padded length). For RSA keys the padding
// parameter picks the scheme: rsa_no_padding (3) is raw RSA, OAEP (5) is OAEP with SHA-1, every
// other value PKCS#1 v1.5.
// IV: ECB, KW, KWP and RC4 take none. CBC, OFB and CTR use the IV parameter (the block's length;
// all zeros when never set) for every message. GCM: an IV set with SetIv (1 to 64 bytes) serves
// the next encrypted message only; every other message gets a fresh random 12-byte IV, which iv()
// then returns so that it can be sent along. The tag (16 bytes unless SetTagLength says otherwise)
// follows the ciphertext of the final piece; decryption uses the IV as it stands, takes the tag
// from the last bytes of the message and answers kBadTag when it does not match. The AAD, when
// set, covers every message until it is changed. KW and KWP take one whole message in one call with
// final set (kWholeMessageOnly otherwise).
//
// Not thread-safe: one CipherState per key handle, used by one request at a time.
class CipherState {
 public:
  explicit CipherState(KeyPtr key);

  // kBadAlgorithm for a value that is no mode; kNotSupported for a mode the key lacks.
  Status SetMode(uint32_t mode);
  // kBadAlgorithm for an unknown value; kNotSupported for an RSA padding on a symmetric key.
  Status SetPadding(uint32_t padding);
  // kBadLength for an empty IV or one longer than 64 bytes; a length the mode cannot use is
  // refused when a message starts.
  Status SetIv(ByteView iv);
  // GCM: the additional authenticated data of every following message (empty: none).
  Status SetAad(ByteView aad);
  // GCM: the tag length, 4, 8 or 12 to 16 bytes (default 16); kBadLength otherwise.
  Status SetTagLength(size_t len);

  uint32_t mode() const { return mode_; }
  uint32_t padding() const { return padding_; }
  ByteView iv() const { return iv_; }
  size_t tag_length() const { return tag_len_; }
  const Key &key() const { return *key_; }

  // The most output the next piece of `in_len` bytes can give: what a caller must provide.
  size_t MaxOutput(bool encrypt, size_t in_len, bool final) const;

  // One piece (at most 1 GiB: kBadLength). When MaxOutput exceeds `capacity` the answer is
  // kBufferTooSmall with the needed length and the state is untouched (the piece can be sent again
  // with a larger buffer).
  Result<Bytes> Encrypt(ByteView in, bool final,
                        size_t capacity = std::numeric_limits<size_t>::max());
  Result<Bytes> Decrypt(ByteView in, bool final,
                        size_t capacity = std::numeric_limits<size_t>::max());

  // Abandons the message in progress.
  void Reset();

 private:
  Result<Bytes> Run(bool encrypt, ByteView in, bool final, size_t capacity);
  Status Begin(bool encrypt);
  Result<Bytes> RunRsa(bool encrypt, bool final, ByteView in);
  Result<Bytes> RunWrap(bool encrypt, ByteView in);
  Result<Bytes> RunGcm(bool encrypt, ByteView in, bool final);
  Result<Bytes> RunBlock(bool encrypt, ByteView in, bool final);
  bool IsBlockMode() const;
  size_t BlockSize() const;

  KeyPtr key_;
  uint32_t mode_ = mode::kCbc;
  uint32_t padding_ = padding::kPkcs5;
  Bytes iv_;
  bool iv_from_caller_ = false;  // GCM: the caller's IV has not served a message yet
  Bytes aad_;
  size_t tag_len_ = 16;
  ossl::CipherCtxPtr ctx_;  // keyed for ctx_encrypt_ and an IV of ctx_iv_len_ bytes
  bool ctx_encrypt_ = false;
  size_t ctx_iv_len_ = 0;
  bool in_progress_ = false;
  bool encrypting_ = false;
  size_t buffered_ = 0;  // bytes the cipher holds between pieces (block modes)
  SecretBytes held_;     // GCM decryption: the trailing bytes that may be the tag; RSA: input
};

}  // namespace qlhsm::crypto

#endif  // QLHSM_CRYPTO_CIPHER_H_
