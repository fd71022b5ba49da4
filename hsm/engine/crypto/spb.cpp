#include "crypto/spb.h"

#include <openssl/evp.h>

#include <algorithm>

#include "crypto/cipher.h"

namespace qlhsm::crypto::spb {
namespace {

constexpr uint8_t kRsa2048 = 2;

Status CheckRsa2048(const Key &key) {
  EVP_PKEY *pkey = key.pkey();
  if (pkey == nullptr || EVP_PKEY_get_base_id(pkey) != EVP_PKEY_RSA ||
      EVP_PKEY_get_bits(pkey) != 2048) {
    return Status(Code::kKeyCannotDo, "secure messages use RSA-2048 keys");
  }
  return {};
}

const char *CipherName(uint8_t cipher) {
  return cipher == 1 ? "DES-EDE3-CBC" : cipher == 2 ? "AES-256-CBC" : nullptr;
}

size_t KeyLen(uint8_t cipher) {
  return cipher == 1 ? 24 : 32;
}

size_t BlockLen(uint8_t cipher) {
  return cipher == 1 ? 8 : 16;
}

const char *HashName(uint8_t hash) {
  return hash == 2 ? "SHA1" : "SHA256";
}

Status StartCipher(ossl::CipherCtxPtr *ctx, uint8_t cipher, ByteView key, bool encrypt) {
  const EVP_CIPHER *c = ossl::Cipher(CipherName(cipher));
  if (c == nullptr) return Status(Code::kNotSupported, "cipher not available");
  const uint8_t iv[16] = {};
  ctx->reset(EVP_CIPHER_CTX_new());
  if (!*ctx || EVP_CipherInit_ex2(ctx->get(), c, key.data(), iv, encrypt ? 1 : 0, nullptr) != 1) {
    return ossl::Fail("EVP_CipherInit_ex2");
  }
  // Encryption pads with PKCS#7; decryption takes the padding off itself, so that a bad
  // padding is no different from a bad signature.
  EVP_CIPHER_CTX_set_padding(ctx->get(), encrypt ? 1 : 0);
  return {};
}

}  // namespace

std::array<uint8_t, kHeaderLen> SerializeHeader(const Header &h) {
  std::array<uint8_t, kHeaderLen> out{};
  out[0] = static_cast<uint8_t>(kHeaderLen >> 8);
  out[1] = static_cast<uint8_t>(kHeaderLen & 0xFF);
  out[2] = h.version;
  out[3] = h.error_code;
  out[4] = h.special;
  out[5] = 0;
  out[6] = kRsa2048;
  out[7] = h.cipher;
  out[8] = kRsa2048;
  out[9] = h.hash;
  out[10] = 0;
  std::copy(h.destination_serial.begin(), h.destination_serial.end(), out.begin() + 11);
  out[43] = 0;
  std::copy(h.sender_serial.begin(), h.sender_serial.end(), out.begin() + 44);
  std::copy(h.session_key.begin(), h.session_key.end(), out.begin() + 76);
  std::copy(h.signature.begin(), h.signature.end(), out.begin() + 332);
  return out;
}

Result<Header> ParseHeader(ByteView b, bool refuse_v2) {
  if (b.size() != kHeaderLen) return Status(Code::kBadData, "a header is 588 bytes");
  Header h;
  h.version = b[2];
  h.error_code = b[3];
  h.special = b[4];
  h.cipher = b[7];
  h.hash = b[9];
  const bool versions_fit = (h.version == 2 && (h.cipher == 1 || h.cipher == 0) && h.hash == 2) ||
                            (h.version == 3 && (h.cipher == 2 || h.cipher == 0) && h.hash == 3);
  if ((static_cast<size_t>(b[0]) << 8 | b[1]) != kHeaderLen || !versions_fit || b[5] != 0 ||
      b[6] != kRsa2048 || b[8] != kRsa2048 || (refuse_v2 && h.version == 2)) {
    return Status(Code::kBadData, "not a header this HSM reads");
  }
  std::copy(b.begin() + 11, b.begin() + 43, h.destination_serial.begin());
  std::copy(b.begin() + 44, b.begin() + 76, h.sender_serial.begin());
  std::copy(b.begin() + 76, b.begin() + 332, h.session_key.begin());
  std::copy(b.begin() + 332, b.begin() + 588, h.signature.begin());
  return h;
}

Result<std::array<uint8_t, 32>> SerialField(ByteView serial) {
  if (serial.size() > 32) return Status(Code::kBadLength, "a serial of at most 32 octets");
  std::array<uint8_t, 32> field{};
  std::copy(serial.begin(), serial.end(), field.end() - static_cast<std::ptrdiff_t>(serial.size()));
  return field;
}

Result<std::unique_ptr<Encoder>> Encoder::Start(const Key &sender, const Key &destination,
                                                const EncodeParams &params) {
  if (params.version != 2 && params.version != 3) {
    return Status(Code::kBadArgument, "versions 2 and 3");
  }
  Status st = CheckRsa2048(sender);
  if (st.ok()) st = CheckRsa2048(destination);
  if (!st.ok()) return st;
  std::unique_ptr<Encoder> e(new Encoder());
  e->params_ = params;
  Header &h = e->header_;
  h.version = params.version;
  h.error_code = params.error_code;
  h.special = params.special;
  h.hash = params.version == 2 ? 2 : 3;
  h.cipher = params.sign_only ? 0 : (params.version == 2 ? 1 : 2);
  Result<std::array<uint8_t, 32>> dest = SerialField(params.destination_serial);
  Result<std::array<uint8_t, 32>> from = SerialField(params.sender_serial);
  if (!dest.ok()) return dest.status();
  if (!from.ok()) return from.status();
  h.destination_serial = *dest;
  h.sender_serial = *from;
  if (h.cipher != 0) {
    SecretBytes key(KeyLen(h.cipher));
    st = ossl::RandomBytes(key);
    if (!st.ok()) return st;
    Result<Bytes> wrapped = RsaEncrypt(destination, RsaPadding::kPkcs1, key);
    if (!wrapped.ok()) return wrapped.status();
    std::copy(wrapped->begin(), wrapped->end(), h.session_key.begin());
    st = StartCipher(&e->cipher_, h.cipher, key, true);
    if (!st.ok()) return st;
  }
  e->signer_.reset(EVP_MD_CTX_new());
  if (!e->signer_ || EVP_DigestSignInit_ex(e->signer_.get(), nullptr, HashName(h.hash),
                                           ossl::LibCtx(), nullptr, sender.pkey(), nullptr) != 1) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the sender's key cannot sign");
  }
  return e;
}

Result<Bytes> Encoder::Update(ByteView piece) {
  if (seen_ + piece.size() > params_.message_len || !signer_) {
    return Status(Code::kBadLength, "more body than announced");
  }
  const bool last = seen_ + piece.size() == params_.message_len;
  seen_ += piece.size();
  if (EVP_DigestSignUpdate(signer_.get(), piece.data(), piece.size()) != 1) {
    return ossl::Fail("EVP_DigestSignUpdate");
  }
  if (!cipher_) return Bytes(piece.begin(), piece.end());
  Bytes out(piece.size() + 32);
  int len = 0;
  int fin = 0;
  if (EVP_EncryptUpdate(cipher_.get(), out.data(), &len, piece.data(),
                        static_cast<int>(piece.size())) != 1 ||
      (last && EVP_EncryptFinal_ex(cipher_.get(), out.data() + len, &fin) != 1)) {
    return ossl::Fail("EVP_EncryptUpdate");
  }
  out.resize(static_cast<size_t>(len + fin));
  if (last) cipher_.reset();
  return out;
}

Result<Header> Encoder::Finish() {
  if (seen_ != params_.message_len || cipher_ || !signer_) {
    return Status(Code::kBadLength, "the body is not complete");
  }
  size_t len = header_.signature.size();
  if (EVP_DigestSignFinal(signer_.get(), header_.signature.data(), &len) != 1 || len != 256) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the sender's key cannot sign");
  }
  signer_.reset();
  return header_;
}

Result<std::unique_ptr<Decoder>> Decoder::Start(const Header &header, const Key &local,
                                                const Key &sender, const DecodeParams &params) {
  Status st = CheckRsa2048(local);
  if (st.ok()) st = CheckRsa2048(sender);
  if (!st.ok()) return st;
  if (header.cipher != 0 &&
      (params.message_len == 0 || params.message_len % BlockLen(header.cipher) != 0)) {
    return Status(Code::kBadLength, "an enciphered body is whole blocks");
  }
  std::unique_ptr<Decoder> d(new Decoder());
  d->header_ = header;
  d->params_ = params;
  if (header.cipher != 0) {
    Result<SecretBytes> key = RsaDecrypt(local, RsaPadding::kPkcs1, header.session_key);
    SecretBytes session(KeyLen(header.cipher));
    if (key.ok() && key->size() == session.size()) {
      std::copy(key->begin(), key->end(), session.begin());
    } else {
      // Go on with a random key: the answer comes at Finish, as for any other fault.
      d->fault_ = true;
      st = ossl::RandomBytes(session);
      if (!st.ok()) return st;
    }
    st = StartCipher(&d->cipher_, header.cipher, session, false);
    if (!st.ok()) return st;
  }
  d->verifier_.reset(EVP_MD_CTX_new());
  if (!d->verifier_ ||
      EVP_DigestVerifyInit_ex(d->verifier_.get(), nullptr, HashName(header.hash), ossl::LibCtx(),
                              nullptr, sender.pkey(), nullptr) != 1) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the sender's key cannot verify");
  }
  return d;
}

Result<Bytes> Decoder::Update(ByteView piece) {
  if (seen_ + piece.size() > params_.message_len || !verifier_) {
    return Status(Code::kBadLength, "more body than announced");
  }
  seen_ += piece.size();
  const bool last = seen_ == params_.message_len;
  if (!cipher_) {
    EVP_DigestVerifyUpdate(verifier_.get(), piece.data(), piece.size());
    return Bytes(piece.begin(), piece.end());
  }
  Bytes plain(piece.size() + 32);
  int len = 0;
  if (EVP_DecryptUpdate(cipher_.get(), plain.data(), &len, piece.data(),
                        static_cast<int>(piece.size())) != 1) {
    return ossl::Fail("EVP_DecryptUpdate");
  }
  plain.resize(static_cast<size_t>(len));
  held_.insert(held_.end(), plain.begin(), plain.end());
  const size_t block = BlockLen(header_.cipher);
  Bytes out;
  if (!last) {
    // Keep the newest whole block back: it may turn out to be the last.
    const size_t keep = std::min(held_.size(), block);
    out.assign(held_.begin(), held_.end() - static_cast<std::ptrdiff_t>(keep));
    held_.erase(held_.begin(), held_.end() - static_cast<std::ptrdiff_t>(keep));
    EVP_DigestVerifyUpdate(verifier_.get(), out.data(), out.size());
    return out;
  }
  size_t pad = held_.empty() ? 0 : held_.back();
  bool pad_ok = pad >= 1 && pad <= block && pad <= held_.size();
  for (size_t i = 0; pad_ok && i < pad; ++i) pad_ok = held_[held_.size() - 1 - i] == pad;
  if (!pad_ok) {
    fault_ = true;
    pad = 0;
  }
  const size_t text = held_.size() - pad;
  EVP_DigestVerifyUpdate(verifier_.get(), held_.data(), text);
  out.assign(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(
                                                params_.keep_padding ? held_.size() : text));
  held_.clear();
  cipher_.reset();
  return out;
}

Status Decoder::Finish() {
  if (seen_ != params_.message_len || !verifier_) {
    return Status(Code::kBadLength, "the body is not complete");
  }
  const bool verified = EVP_DigestVerifyFinal(verifier_.get(), header_.signature.data(),
                                              header_.signature.size()) == 1;
  ossl::ClearErrors();
  verifier_.reset();
  if (fault_ || !verified) return Status(Code::kBadSignature, "the message does not verify");
  return {};
}

}  // namespace qlhsm::crypto::spb
