// jws.h: JSON Web Signatures in compact form (RFC 7515) with RS256, PS256 and ES256 (RFC 7518
// section 3; ES256 values as r||s).
//
// The protected header is signed as the caller wrote it (its bytes base64url-encoded, never
// re-serialised); its "alg" must suit the key, and "none" is refused. Refusals: kBadArgument for
// a header that is not a JSON object with a string "alg", or a compact form that does not parse;
// kBadAlgorithm for another alg; kKeyCannotDo for an alg the key cannot make; kBadSignature for
// a signature that does not verify.
#ifndef QLHSM_CRYPTO_JWS_H_
#define QLHSM_CRYPTO_JWS_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/bytes.h"
#include "crypto/key.h"
#include "crypto/status.h"

namespace qlhsm::crypto::jws {

std::string Base64UrlEncode(ByteView data);
// Without padding; nullopt for other characters or a length base64url never gives.
std::optional<Bytes> Base64UrlDecode(std::string_view text);

// header.payload.signature; with `detached` the payload part is empty (RFC 7515 Appendix F).
Result<std::string> Sign(const Key &key, std::string_view header_json, ByteView payload,
                         bool detached);

struct Parsed {
  std::string header_json;
  Bytes payload;
  std::string alg;
  // The "x5c" certificates (standard base64 DER, signer first), when the header has them.
  std::vector<Bytes> x5c;
};
// Splits and decodes a compact JWS (a detached one takes its payload from `detached_payload`).
Result<Parsed> Parse(std::string_view compact, std::optional<ByteView> detached_payload = {});

// Verifies a compact JWS with the public key (or a key pair).
Status Verify(const Key &key, std::string_view compact,
              std::optional<ByteView> detached_payload = {});

// The header with "x5c" set to the certificates (standard base64), other members as they were
// (the object is re-serialised compactly).
Result<std::string> AddX5c(std::string_view header_json, const std::vector<Bytes> &certificates);

}  // namespace qlhsm::crypto::jws

#endif  // QLHSM_CRYPTO_JWS_H_
