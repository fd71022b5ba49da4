#include "crypto/mofn.h"

#include <openssl/evp.h>

#include <algorithm>

#include "crypto/ossl.h"

namespace qlhsm::crypto::mofn {
namespace {

constexpr size_t kHeaderLen = 10;  // version, M, N, x, set id, L
constexpr size_t kCheckLen = 8;
constexpr size_t kMaxSecret = 4096;

Result<Bytes> Sha256(ByteView data) {
  Bytes out(32);
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), out.data(), &len, ossl::Digest("SHA256"), nullptr) !=
      1) {
    return ossl::Fail("SHA-256");
  }
  return out;
}

struct Part {
  uint8_t m, n, x;
  uint32_t set;
  size_t length;
  ByteView share;
};

bool ParsePart(ByteView raw, uint8_t version, Part *part) {
  if (raw.size() < kPartOverhead + 1 || raw[0] != version) return false;
  const uint32_t crc = static_cast<uint32_t>(raw[raw.size() - 4]) << 24 |
                       static_cast<uint32_t>(raw[raw.size() - 3]) << 16 |
                       static_cast<uint32_t>(raw[raw.size() - 2]) << 8 | raw[raw.size() - 1];
  if (Crc32(raw.subspan(0, raw.size() - 4)) != crc) return false;
  part->m = raw[1];
  part->n = raw[2];
  part->x = raw[3];
  part->set = static_cast<uint32_t>(raw[4]) << 24 | static_cast<uint32_t>(raw[5]) << 16 |
              static_cast<uint32_t>(raw[6]) << 8 | raw[7];
  part->length = static_cast<size_t>(raw[8]) << 8 | raw[9];
  if (part->m < 2 || part->m > part->n || part->x == 0 || part->length == 0 ||
      part->length > kMaxSecret || raw.size() != part->length + kPartOverhead) {
    return false;
  }
  part->share = raw.subspan(kHeaderLen, part->length + kCheckLen);
  return true;
}

// The polynomial through the points (xs[i], ys[i][k]) evaluated at `at`, byte by byte.
SecretBytes Interpolate(const std::vector<uint8_t> &xs, const std::vector<ByteView> &ys,
                        uint8_t at) {
  SecretBytes out(ys[0].size(), 0);
  for (size_t i = 0; i < xs.size(); ++i) {
    uint8_t basis = 1;  // the Lagrange basis polynomial of point i at `at`
    for (size_t j = 0; j < xs.size(); ++j) {
      if (i == j) continue;
      basis = GfMul(basis, GfMul(static_cast<uint8_t>(at ^ xs[j]),
                                 GfInv(static_cast<uint8_t>(xs[i] ^ xs[j]))));
    }
    for (size_t k = 0; k < out.size(); ++k) out[k] ^= GfMul(ys[i][k], basis);
  }
  return out;
}

}  // namespace

uint8_t GfMul(uint8_t a, uint8_t b) {
  uint8_t product = 0;
  for (int i = 0; i < 8; ++i) {
    product ^= static_cast<uint8_t>(-(b & 1) & a);
    const uint8_t carry = static_cast<uint8_t>(-(a >> 7));
    a = static_cast<uint8_t>((a << 1) ^ (carry & 0x1B));
    b >>= 1;
  }
  return product;
}

uint8_t GfInv(uint8_t a) {
  // a^254 = a^-1 in GF(2^8); 0 stays 0.
  uint8_t result = 1;
  uint8_t power = a;
  for (int e = 254; e != 0; e >>= 1) {
    const uint8_t mul = GfMul(result, power);
    const uint8_t take = static_cast<uint8_t>(-(e & 1));
    result = static_cast<uint8_t>((mul & take) | (result & ~take));
    power = GfMul(power, power);
  }
  return result;
}

uint32_t Crc32(ByteView data) {
  uint32_t crc = 0xFFFFFFFFu;
  for (uint8_t byte : data) {
    crc ^= byte;
    for (int i = 0; i < 8; ++i) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

Result<std::vector<Bytes>> Split(ByteView secret, unsigned m, unsigned n, uint8_t version) {
  if (m < 2 || m > n || n > 255 || secret.empty() || secret.size() > kMaxSecret) {
    return Status(Code::kBadLength, "2 <= M <= N <= 255, and 1 to 4096 bytes of secret");
  }
  Result<Bytes> digest = Sha256(secret);
  if (!digest.ok()) return digest.status();
  SecretBytes value(secret.begin(), secret.end());
  value.insert(value.end(), digest->begin(), digest->begin() + kCheckLen);

  // coefficients[c][k]: the coefficient of x^(c+1) of byte k's polynomial.
  SecretBytes coefficients((m - 1) * value.size());
  uint8_t set[4];
  Status st = ossl::RandomBytes(coefficients);
  if (st.ok()) st = ossl::RandomBytes(set);
  if (!st.ok()) return st;

  std::vector<Bytes> parts;
  parts.reserve(n);
  for (unsigned x = 1; x <= n; ++x) {
    Bytes part = {version,
                  static_cast<uint8_t>(m),
                  static_cast<uint8_t>(n),
                  static_cast<uint8_t>(x),
                  set[0],
                  set[1],
                  set[2],
                  set[3],
                  static_cast<uint8_t>(secret.size() >> 8),
                  static_cast<uint8_t>(secret.size())};
    for (size_t k = 0; k < value.size(); ++k) {
      // Horner's rule from the highest coefficient down to the secret byte.
      uint8_t y = 0;
      for (size_t c = m - 1; c-- > 0;) {
        y = static_cast<uint8_t>(GfMul(y, static_cast<uint8_t>(x)) ^
                                 coefficients[c * value.size() + k]);
      }
      y = static_cast<uint8_t>(GfMul(y, static_cast<uint8_t>(x)) ^ value[k]);
      part.push_back(y);
    }
    const uint32_t crc = Crc32(part);
    for (int shift = 24; shift >= 0; shift -= 8) part.push_back(static_cast<uint8_t>(crc >> shift));
    parts.push_back(std::move(part));
  }
  return parts;
}

Result<Recovered> Recover(const std::vector<Bytes> &raw_parts, uint8_t version) {
  Recovered out;
  std::vector<Part> parts(raw_parts.size());
  for (size_t i = 0; i < raw_parts.size(); ++i) {
    if (!ParsePart(raw_parts[i], version, &parts[i])) {
      out.problem = ShareProblem::kCorrupt;
      return out;
    }
  }
  if (parts.empty()) {
    out.problem = ShareProblem::kTooFew;
    return out;
  }
  std::vector<uint8_t> xs;
  for (const Part &p : parts) {
    const Part &first = parts[0];
    if (p.m != first.m || p.n != first.n || p.set != first.set || p.length != first.length ||
        std::find(xs.begin(), xs.end(), p.x) != xs.end()) {
      out.problem = ShareProblem::kMismatch;
      return out;
    }
    xs.push_back(p.x);
  }
  const size_t m = parts[0].m;
  if (parts.size() < m) {
    out.problem = ShareProblem::kTooFew;
    return out;
  }
  std::vector<uint8_t> base_x(xs.begin(), xs.begin() + static_cast<std::ptrdiff_t>(m));
  std::vector<ByteView> base_y;
  for (size_t i = 0; i < m; ++i) base_y.push_back(parts[i].share);
  // Parts beyond M must lie on the same polynomial.
  for (size_t i = m; i < parts.size(); ++i) {
    const SecretBytes expected = Interpolate(base_x, base_y, parts[i].x);
    if (!std::equal(expected.begin(), expected.end(), parts[i].share.begin())) {
      out.problem = ShareProblem::kMismatch;
      return out;
    }
  }
  SecretBytes value = Interpolate(base_x, base_y, 0);
  const size_t length = parts[0].length;
  Result<Bytes> digest = Sha256(ByteView(value).subspan(0, length));
  if (!digest.ok()) return digest.status();
  if (!std::equal(digest->begin(), digest->begin() + kCheckLen, value.begin() + length)) {
    out.problem = ShareProblem::kMismatch;
    return out;
  }
  value.resize(length);
  out.secret = std::move(value);
  return out;
}

}  // namespace qlhsm::crypto::mofn
