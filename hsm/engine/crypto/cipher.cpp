#include "crypto/cipher.h"

#include <openssl/core_names.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <string>

namespace qlhsm::crypto {
namespace {

constexpr size_t kGcmIvLen = 12;
constexpr size_t kMaxGcmIvLen = 64;
constexpr size_t kOaepOverhead = 42;  // 2 * SHA-1 length + 2
constexpr size_t kPkcs1Overhead = 11;

bool IsAes(AlgId a) {
  return a == alg::kAes128 || a == alg::kAes192 || a == alg::kAes256;
}
bool IsDesOr3Des(AlgId a) {
  return a == alg::kDes || a == alg::k3Des112 || a == alg::k3Des168;
}

bool IsModeValue(uint32_t m) {
  switch (m) {
    case mode::kNone:
    case mode::kEcb:
    case mode::kCbc:
    case mode::kKwp:
    case mode::kOfb:
    case mode::kCtr:
    case mode::kGcm:
    case mode::kKw:
      return true;
    default:
      return false;
  }
}

bool ModeAllowed(AlgId a, uint32_t m) {
  if (IsAes(a)) return m != mode::kNone;
  if (IsDesOr3Des(a)) return m == mode::kEcb || m == mode::kCbc || m == mode::kOfb;
  if (a == alg::kDesX) return m == mode::kCbc;
  if (a == alg::kArc4) return m == mode::kNone;
  return false;
}

uint32_t DefaultMode(AlgId a) {
  return a == alg::kArc4 ? mode::kNone : mode::kCbc;
}

// The OpenSSL cipher of a key algorithm in a mode (both already checked).
std::string CipherName(const AlgInfo &info, uint32_t m) {
  if (info.id == alg::kArc4) return "RC4";
  std::string base = info.ossl_name;
  switch (m) {
    case mode::kEcb:
      return base + "-ECB";
    case mode::kCbc:
      return base + "-CBC";
    case mode::kOfb:
      return base + "-OFB";
    case mode::kCtr:
      return base + "-CTR";
    case mode::kGcm:
      return base + "-GCM";
    case mode::kKw:
      return base + "-WRAP";
    case mode::kKwp:
      return base + "-WRAP-PAD";
    default:
      return base;
  }
}

size_t RoundUp(size_t n, size_t b) {
  return (n + b - 1) / b * b;
}

int OsslRsaPadding(RsaPadding p) {
  switch (p) {
    case RsaPadding::kPkcs1:
      return RSA_PKCS1_PADDING;
    case RsaPadding::kNone:
      return RSA_NO_PADDING;
    case RsaPadding::kOaep:
      return RSA_PKCS1_OAEP_PADDING;
  }
  return RSA_PKCS1_PADDING;
}

// Makes a cipher context for `name` keyed with `key` (RC4 takes the key's own length).
Result<ossl::CipherCtxPtr> InitCipher(const std::string &name, ByteView key, ByteView iv,
                                      bool encrypt, size_t gcm_iv_len) {
  const EVP_CIPHER *cipher = ossl::Cipher(name);
  if (cipher == nullptr) return Status(Code::kNotSupported, name + " is not available");
  ossl::CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return ossl::Fail("EVP_CIPHER_CTX_new");
  EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  int enc = encrypt ? 1 : 0;
  if (EVP_CipherInit_ex2(ctx.get(), cipher, nullptr, nullptr, enc, nullptr) != 1) {
    return ossl::Fail("EVP_CipherInit_ex2");
  }
  if (static_cast<size_t>(EVP_CIPHER_CTX_get_key_length(ctx.get())) != key.size() &&
      EVP_CIPHER_CTX_set_key_length(ctx.get(), static_cast<int>(key.size())) != 1) {
    return Status(Code::kBadLength, "key length for " + name);
  }
  if (gcm_iv_len != 0 && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_IVLEN,
                                             static_cast<int>(gcm_iv_len), nullptr) != 1) {
    return ossl::Fail("GCM IV length");
  }
  if (EVP_CipherInit_ex2(ctx.get(), nullptr, key.data(), iv.empty() ? nullptr : iv.data(), enc,
                         nullptr) != 1) {
    return ossl::Fail("EVP_CipherInit_ex2 key");
  }
  return ctx;
}

}  // namespace

// ---- RSA ----

Result<Bytes> RsaEncrypt(const Key &key, RsaPadding padding, ByteView in) {
  if (key.kind() != KeyKind::kRsa) return Status(Code::kKeyCannotDo, "not an RSA key");
  size_t k = key.length_bytes();
  bool fits = padding == RsaPadding::kNone    ? in.size() == k
              : padding == RsaPadding::kPkcs1 ? in.size() + kPkcs1Overhead <= k
                                              : in.size() + kOaepOverhead <= k;
  if (!fits) return Status(Code::kBadLength, "data length for this RSA key and padding");
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(ossl::LibCtx(), key.pkey(), nullptr));
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), OsslRsaPadding(padding)) <= 0) {
    return ossl::Fail("RSA encrypt init");
  }
  size_t len = k;
  Bytes out(k);
  if (EVP_PKEY_encrypt(ctx.get(), out.data(), &len, in.data(), in.size()) <= 0) {
    if (padding == RsaPadding::kNone) {
      ossl::ClearErrors();
      return Status(Code::kBadData, "value not below the modulus");
    }
    return ossl::Fail("EVP_PKEY_encrypt");
  }
  out.resize(len);
  return out;
}

Result<Bytes> RsaOaepSha256Encrypt(const Key &key, ByteView label, ByteView in) {
  if (key.kind() != KeyKind::kRsa) return Status(Code::kKeyCannotDo, "not an RSA key");
  const size_t k = key.length_bytes();
  constexpr size_t kOverhead = 2 * 32 + 2;
  if (in.empty() || in.size() + kOverhead > k)
    return Status(Code::kBadLength, "data length for this RSA key and OAEP-SHA256");
  const EVP_MD *sha256 = ossl::Digest("SHA256");
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(ossl::LibCtx(), key.pkey(), nullptr));
  if (!ctx || sha256 == nullptr || EVP_PKEY_encrypt_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), sha256) <= 0 ||
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), sha256) <= 0) {
    return ossl::Fail("RSA-OAEP-SHA256 init");
  }
  if (!label.empty()) {
    // The context takes ownership of a copy made with OpenSSL's allocator.
    void *copy = OPENSSL_memdup(label.data(), label.size());
    if (copy == nullptr) return ossl::Fail("OPENSSL_memdup");
    if (EVP_PKEY_CTX_set0_rsa_oaep_label(ctx.get(), copy, static_cast<int>(label.size())) <= 0) {
      OPENSSL_free(copy);
      return ossl::Fail("EVP_PKEY_CTX_set0_rsa_oaep_label");
    }
  }
  size_t len = k;
  Bytes out(k);
  if (EVP_PKEY_encrypt(ctx.get(), out.data(), &len, in.data(), in.size()) <= 0)
    return ossl::Fail("EVP_PKEY_encrypt");
  out.resize(len);
  return out;
}

Result<SecretBytes> RsaDecrypt(const Key &key, RsaPadding padding, ByteView in) {
  if (key.kind() != KeyKind::kRsa) return Status(Code::kKeyCannotDo, "not an RSA key");
  if (!key.has_private()) return Status(Code::kKeyCannotDo, "a public key cannot decrypt");
  size_t k = key.length_bytes();
  if (in.size() != k) return Status(Code::kBadLength, "ciphertext length");
  ossl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(ossl::LibCtx(), key.pkey(), nullptr));
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), OsslRsaPadding(padding)) <= 0) {
    return ossl::Fail("RSA decrypt init");
  }
  SecretBytes out(k);
  size_t len = k;
  if (EVP_PKEY_decrypt(ctx.get(), out.data(), &len, in.data(), in.size()) <= 0) {
    ossl::ClearErrors();
    return Status(Code::kBadPadding, "RSA decryption failed");
  }
  out.resize(len);
  return out;
}

// ---- key wrap ----

Result<Bytes> KeyWrap(const KeyPtr &kek, bool pad, ByteView in) {
  if (!kek || !IsAes(kek->algorithm())) return Status(Code::kKeyCannotDo, "key wrap needs AES");
  CipherState state(kek);
  if (Status s = state.SetMode(pad ? mode::kKwp : mode::kKw); !s.ok()) return s;
  return state.Encrypt(in, true);
}

Result<SecretBytes> KeyUnwrap(const KeyPtr &kek, bool pad, ByteView in) {
  if (!kek || !IsAes(kek->algorithm())) return Status(Code::kKeyCannotDo, "key wrap needs AES");
  CipherState state(kek);
  if (Status s = state.SetMode(pad ? mode::kKwp : mode::kKw); !s.ok()) return s;
  auto out = state.Decrypt(in, true);
  if (!out.ok()) return out.status();
  SecretBytes secret(out->begin(), out->end());
  WipeMemory(out->data(), out->size());
  return secret;
}

// ---- CipherState ----

CipherState::CipherState(KeyPtr key) : key_(std::move(key)) {
  mode_ = DefaultMode(key_->algorithm());
}

void CipherState::Reset() {
  in_progress_ = false;
  buffered_ = 0;
  held_.clear();
}

Status CipherState::SetMode(uint32_t m) {
  if (!IsModeValue(m)) return Status(Code::kBadAlgorithm, "unknown mode");
  if (key_->kind() == KeyKind::kRsa) {
    mode_ = m;  // RSA ignores the mode
    return {};
  }
  if (!ModeAllowed(key_->algorithm(), m)) {
    return Status(Code::kNotSupported, "mode not offered for this algorithm");
  }
  Reset();
  ctx_.reset();  // another cipher
  mode_ = m;
  return {};
}

Status CipherState::SetPadding(uint32_t p) {
  if (p > padding::kRsaOaep) return Status(Code::kBadAlgorithm, "unknown padding");
  if (key_->kind() != KeyKind::kRsa && p >= padding::kRsaNoPadding) {
    return Status(Code::kNotSupported, "an RSA padding on a symmetric key");
  }
  Reset();
  padding_ = p;
  return {};
}

Status CipherState::SetAad(ByteView aad) {
  Reset();
  aad_.assign(aad.begin(), aad.end());
  return {};
}

Status CipherState::SetTagLength(size_t len) {
  if (len != 4 && len != 8 && (len < 12 || len > 16)) return Status(Code::kBadLength, "tag length");
  Reset();
  tag_len_ = len;
  return {};
}

Status CipherState::SetIv(ByteView iv) {
  if (iv.empty() || iv.size() > kMaxGcmIvLen) return Status(Code::kBadLength, "IV length");
  Reset();
  iv_.assign(iv.begin(), iv.end());
  iv_from_caller_ = true;
  return {};
}

bool CipherState::IsBlockMode() const {
  return mode_ == mode::kEcb || mode_ == mode::kCbc;
}

size_t CipherState::BlockSize() const {
  return IsAes(key_->algorithm()) ? 16 : 8;
}

size_t CipherState::MaxOutput(bool encrypt, size_t in_len, bool final) const {
  if (key_->kind() == KeyKind::kRsa) return final ? key_->length_bytes() : 0;
  bool continuing = in_progress_ && encrypting_ == encrypt;
  size_t buffered = continuing ? buffered_ : 0;
  size_t held = continuing ? held_.size() : 0;
  switch (mode_) {
    case mode::kKw:
      return encrypt ? in_len + 8 : (in_len >= 8 ? in_len - 8 : 0);
    case mode::kKwp:
      return encrypt ? (in_len <= 8 ? 16 : RoundUp(in_len, 8) + 8) : (in_len >= 8 ? in_len - 8 : 0);
    case mode::kGcm:
      if (encrypt) return in_len + (final ? tag_len_ : 0);
      return held + in_len > tag_len_ ? held + in_len - tag_len_ : 0;
    case mode::kEcb:
    case mode::kCbc: {
      size_t total = buffered + in_len;
      size_t bs = BlockSize();
      if (!final || !encrypt) return final ? total : total / bs * bs;
      if (padding_ == padding::kPkcs5) return total / bs * bs + bs;
      if (padding_ == padding::kZero) return RoundUp(total, bs);
      return total;
    }
    default:
      return in_len;  // streams: OFB, CTR, RC4
  }
}

Result<Bytes> CipherState::Encrypt(ByteView in, bool final, size_t capacity) {
  return Run(true, in, final, capacity);
}

Result<Bytes> CipherState::Decrypt(ByteView in, bool final, size_t capacity) {
  return Run(false, in, final, capacity);
}

Result<Bytes> CipherState::Run(bool encrypt, ByteView in, bool final, size_t capacity) {
  if (key_->kind() != KeyKind::kSymmetric && key_->kind() != KeyKind::kRsa) {
    return Status(Code::kKeyCannotDo, "this key does not encrypt");
  }
  // OpenSSL counts in int; the engine's frames are far smaller than this anyway.
  constexpr size_t kMaxPiece = size_t{1} << 30;
  if (in.size() > kMaxPiece) return Status(Code::kBadLength, "piece larger than 1 GiB");
  if (in_progress_ && encrypting_ != encrypt) Reset();
  size_t needed = MaxOutput(encrypt, in.size(), final);
  if (needed > capacity) return Status::TooSmall(needed);
  Result<Bytes> out = Status(Code::kInternal);
  if (key_->kind() == KeyKind::kRsa) {
    out = RunRsa(encrypt, final, in);
  } else if (mode_ == mode::kKw || mode_ == mode::kKwp) {
    if (!final || in_progress_) {
      Reset();
      return Status(Code::kWholeMessageOnly, "key wrap takes one whole message");
    }
    out = RunWrap(encrypt, in);
  } else if (mode_ == mode::kGcm) {
    out = RunGcm(encrypt, in, final);
  } else {
    out = RunBlock(encrypt, in, final);
  }
  if (!out.ok()) ctx_.reset();  // whatever the failure left behind is not reused
  if (!out.ok() || final) Reset();
  return out;
}

Status CipherState::Begin(bool encrypt) {
  if (in_progress_) return {};
  const AlgInfo &info = key_->info();
  if (!ModeAllowed(info.id, mode_)) return Status(Code::kNotSupported, "mode");
  Bytes iv;
  size_t gcm_iv_len = 0;
  if (mode_ == mode::kGcm) {
    if (encrypt && !iv_from_caller_) {
      iv_.resize(kGcmIvLen);
      if (Status s = ossl::RandomBytes(iv_); !s.ok()) return s;
    }
    if (iv_.empty()) return Status(Code::kBadArgument, "GCM decryption needs the IV");
    iv_from_caller_ = false;
    iv = iv_;
    gcm_iv_len = iv.size();
  } else if (mode_ == mode::kCbc || mode_ == mode::kOfb || mode_ == mode::kCtr) {
    size_t len = BlockSize();
    if (iv_.empty()) {
      iv.assign(len, 0);
    } else if (iv_.size() != len) {
      return Status(Code::kBadLength, "IV length for this mode");
    } else {
      iv = iv_;
    }
  }
  // The key schedule is kept from message to message: a new message only sets its IV, unless the
  // direction or the IV length changed. RC4 always starts again from its key, since its only
  // state is the key stream.
  bool reuse = ctx_ && ctx_encrypt_ == encrypt && ctx_iv_len_ == iv.size() && info.id != alg::kArc4;
  if (reuse) {
    if (EVP_CipherInit_ex2(ctx_.get(), nullptr, nullptr, iv.empty() ? nullptr : iv.data(),
                           encrypt ? 1 : 0, nullptr) != 1) {
      ctx_.reset();
      return ossl::Fail("cipher restart");
    }
  } else {
    auto ctx = InitCipher(CipherName(info, mode_), key_->secret(), iv, encrypt, gcm_iv_len);
    if (!ctx.ok()) return ctx.status();
    ctx_ = std::move(*ctx);
    ctx_encrypt_ = encrypt;
    ctx_iv_len_ = iv.size();
  }
  if (mode_ == mode::kGcm && !aad_.empty()) {
    int len = 0;
    if (EVP_CipherUpdate(ctx_.get(), nullptr, &len, aad_.data(), static_cast<int>(aad_.size())) !=
        1) {
      return ossl::Fail("GCM AAD");
    }
  }
  // Decryption strips PKCS#5 padding itself (RunBlock): OpenSSL's own would hold the last block
  // of every piece back, so a piece decrypted in place could come out longer than it went in.
  EVP_CIPHER_CTX_set_padding(ctx_.get(),
                             encrypt && IsBlockMode() && padding_ == padding::kPkcs5 ? 1 : 0);
  in_progress_ = true;
  encrypting_ = encrypt;
  buffered_ = 0;
  held_.clear();
  return {};
}

Result<Bytes> CipherState::RunRsa(bool encrypt, bool final, ByteView in) {
  if (!in_progress_) {
    in_progress_ = true;
    encrypting_ = encrypt;
    held_.clear();
  }
  held_.insert(held_.end(), in.begin(), in.end());
  if (!final) return Bytes{};
  RsaPadding p = padding_ == padding::kRsaNoPadding ? RsaPadding::kNone
                 : padding_ == padding::kRsaOaep    ? RsaPadding::kOaep
                                                    : RsaPadding::kPkcs1;
  if (encrypt) return RsaEncrypt(*key_, p, held_);
  auto plain = RsaDecrypt(*key_, p, held_);
  if (!plain.ok()) return plain.status();
  return Bytes(plain->begin(), plain->end());
}

Result<Bytes> CipherState::RunWrap(bool encrypt, ByteView in) {
  bool pad = mode_ == mode::kKwp;
  if (encrypt) {
    if (pad ? in.empty() : (in.size() < 16 || in.size() % 8 != 0)) {
      return Status(Code::kBadLength, "key wrap input length");
    }
  } else if (in.size() % 8 != 0 || in.size() < (pad ? 16u : 24u)) {
    return Status(Code::kBadLength, "wrapped data length");
  }
  if (Status s = Begin(encrypt); !s.ok()) return s;
  Bytes out(in.size() + 16);
  int len = 0;
  if (EVP_CipherUpdate(ctx_.get(), out.data(), &len, in.data(), static_cast<int>(in.size())) != 1 ||
      len <= 0) {
    if (!encrypt) {
      ossl::ClearErrors();
      return Status(Code::kBadTag, "key wrap integrity check failed");
    }
    return ossl::Fail("key wrap");
  }
  out.resize(static_cast<size_t>(len));
  return out;
}

Result<Bytes> CipherState::RunGcm(bool encrypt, ByteView in, bool final) {
  if (Status s = Begin(encrypt); !s.ok()) return s;
  // Decryption holds back the last 16 bytes seen, which may be the tag.
  SecretBytes work;
  ByteView data = in;
  if (!encrypt) {
    work.assign(held_.begin(), held_.end());
    work.insert(work.end(), in.begin(), in.end());
    size_t keep = std::min(work.size(), tag_len_);
    held_.assign(work.end() - static_cast<std::ptrdiff_t>(keep), work.end());
    data = ByteView(work.data(), work.size() - keep);
  }
  Bytes out(data.size() + tag_len_);
  int len = 0;
  if (!data.empty() && EVP_CipherUpdate(ctx_.get(), out.data(), &len, data.data(),
                                        static_cast<int>(data.size())) != 1) {
    return ossl::Fail("GCM update");
  }
  size_t n = static_cast<size_t>(len);
  if (final) {
    if (!encrypt) {
      if (held_.size() != tag_len_) return Status(Code::kBadLength, "message shorter than the tag");
      if (EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag_len_),
                              held_.data()) != 1) {
        return ossl::Fail("GCM set tag");
      }
    }
    int tail = 0;
    if (EVP_CipherFinal_ex(ctx_.get(), out.data() + n, &tail) != 1) {
      if (!encrypt) {
        ossl::ClearErrors();
        WipeMemory(out.data(), out.size());
        return Status(Code::kBadTag, "GCM tag does not match");
      }
      return ossl::Fail("GCM final");
    }
    n += static_cast<size_t>(tail);
    if (encrypt) {
      if (EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag_len_),
                              out.data() + n) != 1) {
        return ossl::Fail("GCM get tag");
      }
      n += tag_len_;
    }
  }
  out.resize(n);
  return out;
}

Result<Bytes> CipherState::RunBlock(bool encrypt, ByteView in, bool final) {
  size_t bs = BlockSize();
  bool block_mode = IsBlockMode();
  size_t pending = in_progress_ ? buffered_ : 0;
  if (block_mode && final && padding_ != padding::kPkcs5 && (pending + in.size()) % bs != 0 &&
      !(encrypt && padding_ == padding::kZero)) {
    Reset();
    return Status(Code::kBadLength, "data is not a whole number of blocks");
  }
  if (block_mode && !encrypt && final && padding_ == padding::kPkcs5 &&
      (pending + in.size()) % bs != 0) {
    Reset();
    return Status(Code::kBadLength, "ciphertext is not a whole number of blocks");
  }
  if (Status s = Begin(encrypt); !s.ok()) return s;
  SecretBytes padded;
  ByteView data = in;
  if (block_mode && encrypt && final && padding_ == padding::kZero) {
    size_t total = buffered_ + in.size();
    padded.assign(in.begin(), in.end());
    padded.resize(in.size() + (RoundUp(total, bs) - total), 0);
    data = padded;
  }
  Bytes out(data.size() + 2 * bs);
  int len = 0;
  if (!data.empty() && EVP_CipherUpdate(ctx_.get(), out.data(), &len, data.data(),
                                        static_cast<int>(data.size())) != 1) {
    return ossl::Fail("cipher update");
  }
  size_t n = static_cast<size_t>(len);
  buffered_ = buffered_ + data.size() - n;
  if (final) {
    int tail = 0;
    if (EVP_CipherFinal_ex(ctx_.get(), out.data() + n, &tail) != 1) {
      ossl::ClearErrors();
      WipeMemory(out.data(), out.size());
      return Status(Code::kBadPadding, "bad padding");
    }
    n += static_cast<size_t>(tail);
    if (block_mode && !encrypt && padding_ == padding::kPkcs5) {
      // The padding sits in the last block of the final piece, which must therefore hold one.
      size_t pad = n >= bs ? out[n - 1] : 0;
      bool good = pad >= 1 && pad <= bs;
      for (size_t i = 0; good && i < pad; ++i) good = out[n - 1 - i] == pad;
      if (!good) {
        WipeMemory(out.data(), out.size());
        return Status(Code::kBadPadding,
                      n >= bs ? "bad padding" : "the final piece must hold the last block");
      }
      n -= pad;
    }
  }
  out.resize(n);
  return out;
}

}  // namespace qlhsm::crypto
