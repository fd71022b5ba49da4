#include "crypto/vault.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <cctype>
#include <vector>

#include "crypto/ossl.h"

namespace qlhsm::crypto::vault {
namespace {

constexpr size_t kNonceLen = 12;
constexpr size_t kTagLen = 16;
constexpr size_t kHeaderLen = 1 + kNonceLen;
constexpr size_t kMaxSecret = 4096;
constexpr uint8_t kBlobVersion = 1;

bool IsDigits(std::string_view s) {
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

int Digit(char c) {
  return c - '0';
}

// The mod-11 check digit of the weighted sum: 0 for remainders 0 and 1, else 11 - remainder.
char Mod11Digit(std::string_view digits, const int *weights) {
  int sum = 0;
  for (size_t i = 0; i < digits.size(); ++i) sum += Digit(digits[i]) * weights[i];
  const int r = sum % 11;
  return static_cast<char>('0' + (r < 2 ? 0 : 11 - r));
}

constexpr int kCpfWeights1[] = {10, 9, 8, 7, 6, 5, 4, 3, 2};
constexpr int kCpfWeights2[] = {11, 10, 9, 8, 7, 6, 5, 4, 3, 2};
constexpr int kCnpjWeights1[] = {5, 4, 3, 2, 9, 8, 7, 6, 5, 4, 3, 2};
constexpr int kCnpjWeights2[] = {6, 5, 4, 3, 2, 9, 8, 7, 6, 5, 4, 3, 2};

std::string CpfCheck(std::string_view nine) {
  std::string d(nine);
  d += Mod11Digit(d, kCpfWeights1);
  d += Mod11Digit(d, kCpfWeights2);
  return d.substr(9);
}

std::string CnpjCheck(std::string_view twelve) {
  std::string d(twelve);
  d += Mod11Digit(d, kCnpjWeights1);
  d += Mod11Digit(d, kCnpjWeights2);
  return d.substr(12);
}

bool IsVoterState(std::string_view state) {
  const int uf = Digit(state[0]) * 10 + Digit(state[1]);
  return uf >= 1 && uf <= 28;
}

// The voter number's digits: the first over the sequence with weights 2 to 9, the second over
// the state and the first digit with weights 7, 8, 9; a remainder of 10 gives 0, and for the
// states 01 and 02 a remainder of 0 (not one of 10) gives 1.
std::string VoterCheck(std::string_view ten) {
  const bool first_states = ten[8] == '0' && (ten[9] == '1' || ten[9] == '2');
  auto digit = [first_states](int sum) {
    const int r = sum % 11;
    if (r == 0 && first_states) return 1;
    return r == 10 ? 0 : r;
  };
  int sum = 0;
  for (int i = 0; i < 8; ++i) sum += Digit(ten[static_cast<size_t>(i)]) * (i + 2);
  const int d1 = digit(sum);
  const int d2 = digit(Digit(ten[8]) * 7 + Digit(ten[9]) * 8 + d1 * 9);
  return {static_cast<char>('0' + d1), static_cast<char>('0' + d2)};
}

using CipherCtxPtr = ossl::CipherCtxPtr;

const EVP_CIPHER *GcmCipher(size_t key_len) {
  switch (key_len) {
    case 16:
      return ossl::Cipher("AES-128-GCM");
    case 24:
      return ossl::Cipher("AES-192-GCM");
    case 32:
      return ossl::Cipher("AES-256-GCM");
    default:
      return nullptr;
  }
}

Result<SecretBytes> HmacSha256(ByteView key, ByteView a, ByteView b) {
  return ossl::ComputeMac("HMAC", OSSL_MAC_PARAM_DIGEST, "SHA256", key, {a, b});
}

}  // namespace

bool LuhnValid(std::string_view digits) {
  if (digits.empty() || !IsDigits(digits)) return false;
  int sum = 0;
  bool twice = false;
  for (size_t i = digits.size(); i-- > 0;) {
    int d = Digit(digits[i]);
    if (twice) d = d * 2 > 9 ? d * 2 - 9 : d * 2;
    sum += d;
    twice = !twice;
  }
  return sum % 10 == 0;
}

bool CpfValid(std::string_view digits) {
  return digits.size() == 11 && IsDigits(digits) &&
         CpfCheck(digits.substr(0, 9)) == digits.substr(9);
}

bool CnpjValid(std::string_view digits) {
  return digits.size() == 14 && IsDigits(digits) &&
         CnpjCheck(digits.substr(0, 12)) == digits.substr(12);
}

bool VoterIdValid(std::string_view digits) {
  return digits.size() == 12 && IsDigits(digits) && IsVoterState(digits.substr(8, 2)) &&
         VoterCheck(digits.substr(0, 10)) == digits.substr(10);
}

std::string_view Alphabet(unsigned base) {
  switch (base) {
    case 10:
      return "0123456789";
    case 16:
      return "0123456789ABCDEF";
    case 26:
      return "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    case 52:
      return "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    case 62:
      return "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    default:
      return {};
  }
}

TokenSource TokenSource::Random() {
  return TokenSource();
}

Result<TokenSource> TokenSource::Keyed(ByteView vault_key, ByteView secret) {
  static constexpr uint8_t kLabel[] = "vault token key";
  Result<SecretBytes> key = HmacSha256(vault_key, ByteView(kLabel, sizeof kLabel - 1), {});
  if (!key.ok()) return key.status();
  TokenSource source;
  source.keyed_ = true;
  source.key_ = std::move(*key);
  source.secret_.assign(secret.begin(), secret.end());
  return source;
}

Status TokenSource::Refill() {
  used_ = 0;
  if (!keyed_) {
    buffer_.assign(64, 0);
    return ossl::RandomBytes(buffer_);
  }
  const uint8_t index[4] = {static_cast<uint8_t>(block_ >> 24), static_cast<uint8_t>(block_ >> 16),
                            static_cast<uint8_t>(block_ >> 8), static_cast<uint8_t>(block_)};
  ++block_;
  Result<SecretBytes> block = HmacSha256(key_, secret_, index);
  if (!block.ok()) return block.status();
  buffer_ = std::move(*block);
  return {};
}

Result<unsigned> TokenSource::Below(unsigned n) {
  if (n == 0 || n > 256) return Status(Code::kBadArgument, "no such range");
  const unsigned limit = 256 - 256 % n;
  for (;;) {
    if (used_ >= buffer_.size()) {
      const Status st = Refill();
      if (!st.ok()) return st;
    }
    const unsigned b = buffer_[used_++];
    if (b < limit) return b % n;
  }
}

Result<std::string> FormatPreservingToken(std::string_view secret, CheckKind kind, unsigned base,
                                          TokenSource &source) {
  const std::string_view alphabet = Alphabet(base);
  if (alphabet.empty()) return Status(Code::kBadArgument, "bases are 10, 16, 26, 52 and 62");
  if (secret.empty() || secret.size() > kMaxSecret) {
    return Status(Code::kBadLength, "a secret is 1 to 4096 bytes");
  }
  std::vector<size_t> at;  // positions of letters and digits
  std::string chars;
  for (size_t i = 0; i < secret.size(); ++i) {
    if (std::isalnum(static_cast<unsigned char>(secret[i])) != 0) {
      at.push_back(i);
      chars += secret[i];
    }
  }
  auto draw = [&](std::string &out, size_t count, std::string_view from) -> Status {
    for (size_t i = 0; i < count; ++i) {
      Result<unsigned> r = source.Below(static_cast<unsigned>(from.size()));
      if (!r.ok()) return r.status();
      out += from[*r];
    }
    return {};
  };

  std::string token_chars;
  if (kind == CheckKind::kNone) {
    const Status st = draw(token_chars, chars.size(), alphabet);
    if (!st.ok()) return st;
  } else {
    if (base != 10 || !IsDigits(chars)) {
      return Status(Code::kBadArgument, "a checked kind is made of decimal digits");
    }
    const std::string_view digits = "0123456789";
    const size_t n = chars.size();
    Status st;
    switch (kind) {
      case CheckKind::kPan: {
        if (n < 12 || n > 19) return Status(Code::kBadArgument, "a PAN is 12 to 19 digits");
        token_chars = chars.substr(0, 6);
        st = draw(token_chars, n - 10, digits);
        if (!st.ok()) return st;
        token_chars += chars.substr(n - 4);
        Result<unsigned> fix = source.Below(static_cast<unsigned>(n - 10));
        if (!fix.ok()) return fix.status();
        const size_t pos = 6 + *fix;
        for (char d = '0'; d <= '9'; ++d) {
          token_chars[pos] = d;
          if (LuhnValid(token_chars)) break;
        }
        break;
      }
      case CheckKind::kCpf:
        if (n != 11) return Status(Code::kBadArgument, "a CPF is 11 digits");
        st = draw(token_chars, 9, digits);
        if (!st.ok()) return st;
        token_chars += CpfCheck(token_chars);
        break;
      case CheckKind::kCnpj:
        if (n != 14) return Status(Code::kBadArgument, "a CNPJ is 14 digits");
        st = draw(token_chars, 8, digits);
        if (!st.ok()) return st;
        token_chars += chars.substr(8, 4);
        token_chars += CnpjCheck(token_chars);
        break;
      case CheckKind::kVoterId:
        if (n != 12 || !IsVoterState(std::string_view(chars).substr(8, 2))) {
          return Status(Code::kBadArgument, "a voter number is 12 digits with a state 01-28");
        }
        st = draw(token_chars, 8, digits);
        if (!st.ok()) return st;
        token_chars += chars.substr(8, 2);
        token_chars += VoterCheck(token_chars);
        break;
      default:
        return Status(Code::kBadArgument, "unknown check kind");
    }
  }
  std::string token(secret);
  for (size_t i = 0; i < at.size(); ++i) token[at[i]] = token_chars[i];
  return token;
}

Result<std::string> TextToken(unsigned base, TokenSource &source) {
  const std::string_view alphabet = Alphabet(base);
  if (alphabet.empty()) return Status(Code::kBadArgument, "bases are 10, 16, 26, 52 and 62");
  std::string token;
  for (int i = 0; i < 32; ++i) {
    Result<unsigned> r = source.Below(static_cast<unsigned>(alphabet.size()));
    if (!r.ok()) return r.status();
    token += alphabet[*r];
  }
  return token;
}

std::string MaskSecret(std::string_view secret, CheckKind kind) {
  std::vector<size_t> at;
  for (size_t i = 0; i < secret.size(); ++i) {
    if (std::isalnum(static_cast<unsigned char>(secret[i])) != 0) at.push_back(i);
  }
  const size_t keep_first = kind == CheckKind::kPan ? 6 : 0;
  std::string masked(secret);
  for (size_t k = 0; k < at.size(); ++k) {
    if (k >= keep_first && k + 4 < at.size()) masked[at[k]] = '*';
  }
  return masked;
}

Result<Bytes> SealVaultBlob(ByteView vault_key, const VaultRecord &record) {
  const EVP_CIPHER *cipher = GcmCipher(vault_key.size());
  if (cipher == nullptr) return Status(Code::kKeyCannotDo, "the vault key is an AES key");
  if (record.secret.empty() || record.secret.size() > kMaxSecret || record.token.size() > 0xFFFF) {
    return Status(Code::kBadLength, "a secret is 1 to 4096 bytes");
  }
  SecretBytes plain = {record.type,
                       record.mask_type,
                       record.checksum,
                       record.representation,
                       static_cast<uint8_t>(record.secret.size() >> 8),
                       static_cast<uint8_t>(record.secret.size()),
                       static_cast<uint8_t>(record.token.size() >> 8),
                       static_cast<uint8_t>(record.token.size())};
  plain.insert(plain.end(), record.secret.begin(), record.secret.end());
  plain.insert(plain.end(), record.token.begin(), record.token.end());

  Bytes blob(kHeaderLen + plain.size() + kTagLen);
  blob[0] = kBlobVersion;
  const Status nonce = ossl::RandomBytes(std::span<uint8_t>(blob.data() + 1, kNonceLen));
  if (!nonce.ok()) return nonce;
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int len = 0;
  int fin = 0;
  if (!ctx ||
      EVP_EncryptInit_ex2(ctx.get(), cipher, vault_key.data(), blob.data() + 1, nullptr) != 1 ||
      EVP_EncryptUpdate(ctx.get(), nullptr, &len, blob.data(), static_cast<int>(kHeaderLen)) != 1 ||
      EVP_EncryptUpdate(ctx.get(), blob.data() + kHeaderLen, &len, plain.data(),
                        static_cast<int>(plain.size())) != 1 ||
      EVP_EncryptFinal_ex(ctx.get(), blob.data() + kHeaderLen + len, &fin) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLen),
                          blob.data() + kHeaderLen + plain.size()) != 1) {
    return ossl::Fail("AES-GCM seal");
  }
  return blob;
}

Result<VaultRecord> OpenVaultBlob(ByteView vault_key, ByteView blob) {
  const EVP_CIPHER *cipher = GcmCipher(vault_key.size());
  if (cipher == nullptr) return Status(Code::kKeyCannotDo, "the vault key is an AES key");
  if (blob.size() < kHeaderLen + 8 + kTagLen || blob[0] != kBlobVersion) {
    return Status(Code::kBadData, "not a vault blob");
  }
  const size_t body = blob.size() - kHeaderLen - kTagLen;
  SecretBytes plain(body);
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int len = 0;
  int fin = 0;
  uint8_t tag[kTagLen];
  std::copy(blob.end() - kTagLen, blob.end(), tag);
  if (!ctx ||
      EVP_DecryptInit_ex2(ctx.get(), cipher, vault_key.data(), blob.data() + 1, nullptr) != 1 ||
      EVP_DecryptUpdate(ctx.get(), nullptr, &len, blob.data(), static_cast<int>(kHeaderLen)) != 1 ||
      EVP_DecryptUpdate(ctx.get(), plain.data(), &len, blob.data() + kHeaderLen,
                        static_cast<int>(body)) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagLen), tag) != 1) {
    return ossl::Fail("AES-GCM open");
  }
  if (EVP_DecryptFinal_ex(ctx.get(), plain.data() + len, &fin) != 1) {
    ossl::ClearErrors();
    return Status(Code::kBadTag, "the vault blob does not verify under this key");
  }
  const size_t secret_len = static_cast<size_t>(plain[4]) << 8 | plain[5];
  const size_t token_len = static_cast<size_t>(plain[6]) << 8 | plain[7];
  if (8 + secret_len + token_len != body) return Status(Code::kBadData, "inconsistent vault blob");
  VaultRecord record;
  record.type = plain[0];
  record.mask_type = plain[1];
  record.checksum = plain[2];
  record.representation = plain[3];
  record.secret.assign(plain.begin() + 8,
                       plain.begin() + 8 + static_cast<std::ptrdiff_t>(secret_len));
  record.token.assign(plain.begin() + 8 + static_cast<std::ptrdiff_t>(secret_len), plain.end());
  return record;
}

}  // namespace qlhsm::crypto::vault
