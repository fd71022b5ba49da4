// The discovery datagrams (UDP, not frames): the query a client sends to find HSMs and the answer
// each HSM sends back. Shared by qlhsmd (server/discovery.cpp) and the library (QFindHSM).
//
// Query, exactly kQuerySize bytes:
//   "QLDQ"  version (1)  service type (1: ip, 2: aap, 3: both)  nonce (16)  zeros to the end
// Answer, never longer than the query:
//   "QLDA"  version (1)  service type (1)  nonce (16, the query's)  fields
// Each field is tag (1), length (1), value. Ports are 2 bytes, big-endian; texts are not
// NUL-terminated. Which fields come depends on the service type; unknown tags are skipped.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qlproto::discovery {

inline constexpr uint16_t kDefaultPort = 4434;
inline constexpr uint8_t kVersion = 1;
// A query is padded to this size so that an answer is never larger than what asked for it.
inline constexpr size_t kQuerySize = 192;
inline constexpr size_t kHeaderSize = 4 + 1 + 1 + 16;
inline constexpr size_t kMaxNameLen = 48;  // longer host names are cut
inline constexpr char kQueryMagic[4] = {'Q', 'L', 'D', 'Q'};
inline constexpr char kAnswerMagic[4] = {'Q', 'L', 'D', 'A'};

enum ServiceType : uint8_t { kServiceIp = 1, kServiceAap = 2, kServiceAll = 3 };

enum Tag : uint8_t {
  kTagAddress = 1,      // ip: the address the HSM serves on (text)
  kTagTlsPort = 2,      // ip: its TLS port
  kTagName = 3,         // aap: the HSM's name (text)
  kTagAppPort = 4,      // aap: the port applications connect to
  kTagFamily = 5,       // always: the product family (1 byte, kFamily*)
  kTagVersion = 6,      // always: the HSM's version (text)
  kTagFingerprint = 7,  // always: SHA-256 of its TLS certificate (32 bytes)
};

// Product families; qlhsmd is kFamilySoft.
enum Family : uint8_t {
  kFamilySoft = 1,
  kFamilyNet = 2,
  kFamilyPcie = 3,
  kFamilyUsb = 4,
  kFamilyCloud = 5,
  kFamilyLab = 6,
};

using Nonce = std::array<uint8_t, 16>;

struct Query {
  uint8_t service_type = 0;
  Nonce nonce{};
};

struct Answer {
  uint8_t service_type = 0;
  Nonce nonce{};
  std::string address;
  uint16_t tls_port = 0;
  std::string name;
  uint16_t app_port = 0;
  uint8_t family = 0;
  std::string version;
  std::string fingerprint;  // 32 raw bytes
};

inline std::vector<uint8_t> EncodeQuery(const Query &q) {
  std::vector<uint8_t> out(kQuerySize, 0);
  std::memcpy(out.data(), kQueryMagic, 4);
  out[4] = kVersion;
  out[5] = q.service_type;
  std::memcpy(out.data() + 6, q.nonce.data(), q.nonce.size());
  return out;
}

inline bool ValidServiceType(uint8_t t) {
  return t >= kServiceIp && t <= kServiceAll;
}

// A query of exactly the layout above (size, magic, version, service type, zero padding), or
// nothing.
inline std::optional<Query> DecodeQuery(const uint8_t *data, size_t len) {
  if (len != kQuerySize || std::memcmp(data, kQueryMagic, 4) != 0 || data[4] != kVersion ||
      !ValidServiceType(data[5]))
    return std::nullopt;
  for (size_t i = kHeaderSize; i < len; ++i)
    if (data[i] != 0) return std::nullopt;
  Query q;
  q.service_type = data[5];
  std::memcpy(q.nonce.data(), data + 6, q.nonce.size());
  return q;
}

namespace detail {
inline void Field(std::vector<uint8_t> *out, uint8_t tag, std::string_view value) {
  out->push_back(tag);
  out->push_back(static_cast<uint8_t>(value.size()));
  out->insert(out->end(), value.begin(), value.end());
}
inline std::string Port(uint16_t port) {
  return std::string{static_cast<char>(port >> 8), static_cast<char>(port & 0xFF)};
}
}  // namespace detail

// The fields the answer's service type asks for; texts longer than 255 bytes (the name: longer
// than kMaxNameLen) are cut.
inline std::vector<uint8_t> EncodeAnswer(const Answer &a) {
  std::vector<uint8_t> out(kAnswerMagic, kAnswerMagic + 4);
  out.push_back(kVersion);
  out.push_back(a.service_type);
  out.insert(out.end(), a.nonce.begin(), a.nonce.end());
  auto text = [](const std::string &s, size_t max) { return std::string_view(s).substr(0, max); };
  if (a.service_type & kServiceIp) {
    detail::Field(&out, kTagAddress, text(a.address, 46));
    detail::Field(&out, kTagTlsPort, detail::Port(a.tls_port));
  }
  if (a.service_type & kServiceAap) {
    detail::Field(&out, kTagName, text(a.name, kMaxNameLen));
    detail::Field(&out, kTagAppPort, detail::Port(a.app_port));
  }
  detail::Field(&out, kTagFamily, std::string(1, static_cast<char>(a.family)));
  detail::Field(&out, kTagVersion, text(a.version, 16));
  detail::Field(&out, kTagFingerprint, text(a.fingerprint, 32));
  return out;
}

// An answer with a well-formed header and fields, or nothing.
inline std::optional<Answer> DecodeAnswer(const uint8_t *data, size_t len) {
  if (len < kHeaderSize || len > kQuerySize || std::memcmp(data, kAnswerMagic, 4) != 0 ||
      data[4] != kVersion || !ValidServiceType(data[5]))
    return std::nullopt;
  Answer a;
  a.service_type = data[5];
  std::memcpy(a.nonce.data(), data + 6, a.nonce.size());
  size_t i = kHeaderSize;
  while (i < len) {
    if (len - i < 2 || len - i - 2 < data[i + 1]) return std::nullopt;
    const uint8_t tag = data[i];
    const std::string value(reinterpret_cast<const char *>(data + i + 2), data[i + 1]);
    i += 2 + value.size();
    auto port = [&value](uint16_t *p) {
      if (value.size() != 2) return false;
      *p = static_cast<uint16_t>((static_cast<uint8_t>(value[0]) << 8) |
                                 static_cast<uint8_t>(value[1]));
      return true;
    };
    switch (tag) {
      case kTagAddress:
        a.address = value;
        break;
      case kTagTlsPort:
        if (!port(&a.tls_port)) return std::nullopt;
        break;
      case kTagName:
        a.name = value;
        break;
      case kTagAppPort:
        if (!port(&a.app_port)) return std::nullopt;
        break;
      case kTagFamily:
        if (value.size() != 1) return std::nullopt;
        a.family = static_cast<uint8_t>(value[0]);
        break;
      case kTagVersion:
        a.version = value;
        break;
      case kTagFingerprint:
        if (value.size() != 32) return std::nullopt;
        a.fingerprint = value;
        break;
      default:
        break;
    }
  }
  return a;
}

}  // namespace qlproto::discovery
