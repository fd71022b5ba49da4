#include "crypto/jws.h"

#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <nlohmann/json.hpp>

#include "crypto/ossl.h"

namespace qlhsm::crypto::jws {
namespace {

constexpr char kUrlAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kStdAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Encode(ByteView data, const char *alphabet, bool pad) {
  std::string out;
  size_t i = 0;
  for (; i + 2 < data.size(); i += 3) {
    const uint32_t v = data[i] << 16 | data[i + 1] << 8 | data[i + 2];
    for (int s = 18; s >= 0; s -= 6) out += alphabet[(v >> s) & 63];
  }
  if (i + 1 == data.size()) {
    const uint32_t v = data[i] << 16;
    out += alphabet[(v >> 18) & 63];
    out += alphabet[(v >> 12) & 63];
    if (pad) out += "==";
  } else if (i + 2 == data.size()) {
    const uint32_t v = data[i] << 16 | data[i + 1] << 8;
    out += alphabet[(v >> 18) & 63];
    out += alphabet[(v >> 12) & 63];
    out += alphabet[(v >> 6) & 63];
    if (pad) out += '=';
  }
  return out;
}

std::optional<Bytes> Decode(std::string_view text, const char *alphabet, bool padded) {
  if (padded) {
    if (text.size() % 4 != 0) return std::nullopt;
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  }
  if (text.size() % 4 == 1) return std::nullopt;
  Bytes out;
  uint32_t acc = 0;
  int bits = 0;
  for (char c : text) {
    const char *p = std::char_traits<char>::find(alphabet, 64, c);
    if (p == nullptr) return std::nullopt;
    acc = (acc << 6) | static_cast<uint32_t>(p - alphabet);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<uint8_t>(acc >> bits));
    }
  }
  return out;
}

enum class Alg { kRs256, kPs256, kEs256 };

Result<Alg> AlgOf(std::string_view header_json, std::string *name) {
  const nlohmann::json header = nlohmann::json::parse(header_json, nullptr, false);
  if (!header.is_object() || !header.contains("alg") || !header["alg"].is_string()) {
    return Status(Code::kBadArgument, "a header is a JSON object with a string alg");
  }
  *name = header["alg"].get<std::string>();
  if (*name == "RS256") return Alg::kRs256;
  if (*name == "PS256") return Alg::kPs256;
  if (*name == "ES256") return Alg::kEs256;
  return Status(Code::kBadAlgorithm, "alg must be RS256, PS256 or ES256");
}

Status FitsKey(Alg alg, const Key &key) {
  EVP_PKEY *pkey = key.pkey();
  const int type = pkey == nullptr ? 0 : EVP_PKEY_get_base_id(pkey);
  if (alg == Alg::kEs256) {
    char group[32] = {};
    size_t len = 0;
    if (type != EVP_PKEY_EC ||
        EVP_PKEY_get_utf8_string_param(pkey, "group", group, sizeof group, &len) != 1 ||
        std::string_view(group) != "prime256v1") {
      ossl::ClearErrors();
      return Status(Code::kKeyCannotDo, "ES256 needs a P-256 key");
    }
    return {};
  }
  if (type != EVP_PKEY_RSA && type != EVP_PKEY_RSA_PSS) {
    return Status(Code::kKeyCannotDo, "RS256 and PS256 need an RSA key");
  }
  return {};
}

ossl::MdCtxPtr StartDigest(Alg alg, const Key &key, bool sign) {
  ossl::MdCtxPtr md(EVP_MD_CTX_new());
  EVP_PKEY_CTX *pctx = nullptr;
  const int ok = sign ? EVP_DigestSignInit_ex(md.get(), &pctx, "SHA256", ossl::LibCtx(), nullptr,
                                              key.pkey(), nullptr)
                      : EVP_DigestVerifyInit_ex(md.get(), &pctx, "SHA256", ossl::LibCtx(), nullptr,
                                                key.pkey(), nullptr);
  if (ok != 1) return nullptr;
  if (alg == Alg::kPs256 && (EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) != 1 ||
                             EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, 32) != 1)) {
    return nullptr;
  }
  return md;
}

}  // namespace

std::string Base64UrlEncode(ByteView data) {
  return Encode(data, kUrlAlphabet, false);
}

std::optional<Bytes> Base64UrlDecode(std::string_view text) {
  return Decode(text, kUrlAlphabet, false);
}

Result<std::string> Sign(const Key &key, std::string_view header_json, ByteView payload,
                         bool detached) {
  std::string alg_name;
  Result<Alg> alg = AlgOf(header_json, &alg_name);
  if (!alg.ok()) return alg.status();
  const Status fits = FitsKey(*alg, key);
  if (!fits.ok()) return fits;
  const std::string head = Base64UrlEncode(
      ByteView(reinterpret_cast<const uint8_t *>(header_json.data()), header_json.size()));
  const std::string body = Base64UrlEncode(payload);
  const std::string input = head + "." + body;
  ossl::MdCtxPtr md = StartDigest(*alg, key, true);
  size_t len = 0;
  if (!md || EVP_DigestSign(md.get(), nullptr, &len,
                            reinterpret_cast<const uint8_t *>(input.data()), input.size()) != 1) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the key cannot sign");
  }
  Bytes sig(len);
  if (EVP_DigestSign(md.get(), sig.data(), &len, reinterpret_cast<const uint8_t *>(input.data()),
                     input.size()) != 1) {
    ossl::ClearErrors();
    return Status(Code::kKeyCannotDo, "the key cannot sign");
  }
  sig.resize(len);
  if (*alg == Alg::kEs256) {
    // DER to r||s, each 32 bytes.
    const unsigned char *p = sig.data();
    ECDSA_SIG *es = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(sig.size()));
    if (es == nullptr) return ossl::Fail("d2i_ECDSA_SIG");
    Bytes raw(64);
    BN_bn2binpad(ECDSA_SIG_get0_r(es), raw.data(), 32);
    BN_bn2binpad(ECDSA_SIG_get0_s(es), raw.data() + 32, 32);
    ECDSA_SIG_free(es);
    sig = std::move(raw);
  }
  return head + "." + (detached ? std::string() : body) + "." + Base64UrlEncode(sig);
}

Result<Parsed> Parse(std::string_view compact, std::optional<ByteView> detached_payload) {
  const size_t a = compact.find('.');
  const size_t b = a == std::string_view::npos ? a : compact.find('.', a + 1);
  if (b == std::string_view::npos || compact.find('.', b + 1) != std::string_view::npos) {
    return Status(Code::kBadArgument, "a compact JWS has three parts");
  }
  std::optional<Bytes> head = Base64UrlDecode(compact.substr(0, a));
  std::optional<Bytes> body = Base64UrlDecode(compact.substr(a + 1, b - a - 1));
  if (!head || !body) return Status(Code::kBadArgument, "a part is not base64url");
  Parsed out;
  out.header_json.assign(head->begin(), head->end());
  if (b == a + 1 && detached_payload) {
    out.payload.assign(detached_payload->begin(), detached_payload->end());
  } else {
    out.payload = std::move(*body);
  }
  Result<Alg> alg = AlgOf(out.header_json, &out.alg);
  if (!alg.ok()) return alg.status();
  const nlohmann::json header = nlohmann::json::parse(out.header_json, nullptr, false);
  if (header.contains("x5c")) {
    if (!header["x5c"].is_array()) return Status(Code::kBadArgument, "x5c is an array");
    for (const auto &cert : header["x5c"]) {
      std::optional<Bytes> der =
          cert.is_string() ? Decode(cert.get<std::string>(), kStdAlphabet, true) : std::nullopt;
      if (!der) return Status(Code::kBadArgument, "x5c holds standard base64 DER");
      out.x5c.push_back(std::move(*der));
    }
  }
  return out;
}

Status Verify(const Key &key, std::string_view compact, std::optional<ByteView> detached_payload) {
  Result<Parsed> parsed = Parse(compact, detached_payload);
  if (!parsed.ok()) return parsed.status();
  std::string alg_name;
  const Alg alg = *AlgOf(parsed->header_json, &alg_name);
  const Status fits = FitsKey(alg, key);
  if (!fits.ok()) return fits;
  const size_t a = compact.find('.');
  const size_t b = compact.rfind('.');
  // The signing input is the text as sent; a detached payload is encoded into it.
  const std::string input =
      b == a + 1 && detached_payload
          ? std::string(compact.substr(0, a)) + "." + Base64UrlEncode(parsed->payload)
          : std::string(compact.substr(0, b));
  std::optional<Bytes> sig = Base64UrlDecode(compact.substr(b + 1));
  if (!sig) return Status(Code::kBadArgument, "the signature is not base64url");
  if (alg == Alg::kEs256) {
    if (sig->size() != 64) return Status(Code::kBadSignature, "an ES256 value is 64 bytes");
    ECDSA_SIG *es = ECDSA_SIG_new();
    ECDSA_SIG_set0(es, BN_bin2bn(sig->data(), 32, nullptr),
                   BN_bin2bn(sig->data() + 32, 32, nullptr));
    unsigned char *der = nullptr;
    const int len = i2d_ECDSA_SIG(es, &der);
    ECDSA_SIG_free(es);
    if (len <= 0) return ossl::Fail("i2d_ECDSA_SIG");
    sig->assign(der, der + len);
    OPENSSL_free(der);
  }
  ossl::MdCtxPtr md = StartDigest(alg, key, false);
  const bool ok =
      md && EVP_DigestVerify(md.get(), sig->data(), sig->size(),
                             reinterpret_cast<const uint8_t *>(input.data()), input.size()) == 1;
  ossl::ClearErrors();
  if (!ok) return Status(Code::kBadSignature, "the signature does not verify");
  return {};
}

Result<std::string> AddX5c(std::string_view header_json, const std::vector<Bytes> &certificates) {
  nlohmann::json header = nlohmann::json::parse(header_json, nullptr, false);
  if (!header.is_object()) return Status(Code::kBadArgument, "a header is a JSON object");
  nlohmann::json chain = nlohmann::json::array();
  for (const Bytes &der : certificates) chain.push_back(Encode(der, kStdAlphabet, true));
  header["x5c"] = chain;
  return header.dump();
}

}  // namespace qlhsm::crypto::jws
