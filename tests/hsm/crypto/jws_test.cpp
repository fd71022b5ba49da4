// Compact JWS against RFC 7515's examples (A.2 signed byte for byte with its key, A.3 checked),
// PS256, detached payloads, x5c and the refusals.
#include "crypto/jws.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

#include <string>

#include "crypto/algorithms.h"
#include "test_util.h"

namespace qlhsm::crypto::jws {
namespace {

BIGNUM *Bn(std::string_view b64url) {
  const Bytes b = *Base64UrlDecode(b64url);
  return BN_bin2bn(b.data(), static_cast<int>(b.size()), nullptr);
}

// A key pair of the type from the parameters; frees the builder.
EVP_PKEY *KeyPairFromParams(const char *type, OSSL_PARAM_BLD *bld) {
  OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
  EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
  EVP_PKEY *pkey = nullptr;
  EVP_PKEY_fromdata_init(pctx);
  EVP_PKEY_fromdata(pctx, &pkey, EVP_PKEY_KEYPAIR, params);
  EVP_PKEY_CTX_free(pctx);
  OSSL_PARAM_free(params);
  OSSL_PARAM_BLD_free(bld);
  return pkey;
}

// RFC 7515 Appendix A.2's RSA key, from its primes (n is checked against the published one).
KeyPtr Rfc7515RsaKey() {
  BN_CTX *ctx = BN_CTX_new();
  BIGNUM *p =
      Bn("4BzEEOtIpmVdVEZNCqS7baC4crd0pqnRH_5IB3jw3bcxGn6QLvnEtfdUdiYrqBdss1l58BQ3KhooKeQTa9AB0Hw_"
         "Py5PJd"
         "TJNPY8cQn7ouZ2KKDcmnPGBY5t7yLc1QlQ5xHdwW1VhvKn-nXqhJTBgIPgtldC-KDV5z-y2XDwGUc");
  BIGNUM *q =
      Bn("uQPEfgmVtjL0Uyyx88GZFF1fOunH3-"
         "7cepKmtH4pxhtCoHqpWmT8YAmZxaewHgHAjLYsp1ZSe7zFYHj7C6ul7TjeLQeZD_"
         "YwD66t62wDmpe_HlB-TnBA-njbglfIsRLtXlnDzQkv5dTltRJ11BKBBypeeF6689rjcJIDEz9RWdc");
  BIGNUM *e = BN_new();
  BN_set_word(e, 65537);
  BIGNUM *n = BN_new(), *d = BN_new(), *p1 = BN_new(), *q1 = BN_new(), *phi = BN_new();
  BIGNUM *dp = BN_new(), *dq = BN_new(), *qi = BN_new();
  BN_mul(n, p, q, ctx);
  BN_sub(p1, p, BN_value_one());
  BN_sub(q1, q, BN_value_one());
  BN_mul(phi, p1, q1, ctx);
  BN_mod_inverse(d, e, phi, ctx);
  BN_mod(dp, d, p1, ctx);
  BN_mod(dq, d, q1, ctx);
  BN_mod_inverse(qi, q, p, ctx);
  BIGNUM *published =
      Bn("ofgWCuLjybRlzo0tZWJjNiuSfb4p4fAkd_wWJcyQoTbji9k0l8W26mPddxHmfHQp-Vaw-4qPC"
         "JrcS2mJPMEzP1Pt0Bm4d4QlL-yRT-SFd2lZS-pCgNMsD1W_YpRPEwOWvG6b32690r2jZ47soMZ"
         "o9wGzjb_7OMg0LOL-bSf63kpaSHSXndS5z5rexMdbBYUsLA9e-KXBdQOS-UTo7WTBEMa2R2Cap"
         "Hg665xsmtdVMTBQY4uDZlxvb3qCo5ZwKh9kG4LT6_I5IhlJH7aGhyxXFvUK-DWNmoudF8NAco9"
         "_h9iaGNj8q2ethFkMLs91kzk2PAcDTW9gb54h4FRWyuXpoQ");
  EXPECT_EQ(BN_cmp(n, published), 0);
  BN_free(published);
  OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_D, d);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_FACTOR1, p);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_FACTOR2, q);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_EXPONENT1, dp);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_EXPONENT2, dq);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_COEFFICIENT1, qi);
  EVP_PKEY *pkey = KeyPairFromParams("RSA", bld);
  for (BIGNUM *bn : {p, q, e, n, d, p1, q1, phi, dp, dq, qi}) BN_free(bn);
  BN_CTX_free(ctx);
  return testing::KeyFromPkey(pkey, alg::kRsa2048);
}

// RFC 7515 Appendix A.3's P-256 key.
KeyPtr Rfc7515EcKey() {
  const Bytes x = *Base64UrlDecode("f83OJ3D2xF1Bg8vub9tLe1gHMzV76e8Tus9uPHvRVEU");
  const Bytes y = *Base64UrlDecode("x_FEzRu9m36HLN_tue659LNpXW6pCyStikYjKIWI5a0");
  Bytes pub = {0x04};
  pub.insert(pub.end(), x.begin(), x.end());
  pub.insert(pub.end(), y.begin(), y.end());
  BIGNUM *d = Bn("jpsQnnGQmL-YBIffH1136cspYG6-0iY7X1fCE9-E9LI");
  OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1", 0);
  OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, pub.data(), pub.size());
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_PRIV_KEY, d);
  EVP_PKEY *pkey = KeyPairFromParams("EC", bld);
  BN_free(d);
  return testing::KeyFromPkey(pkey, alg::kSecp256r1);
}

const std::string kPayload =
    "{\"iss\":\"joe\",\r\n \"exp\":1300819380,\r\n \"http://example.com/is_root\":true}";

Bytes PayloadBytes() {
  return Bytes(kPayload.begin(), kPayload.end());
}

TEST(Jws, Rfc7515A2SignedByteForByte) {
  KeyPtr key = Rfc7515RsaKey();
  Result<std::string> jws = Sign(*key, "{\"alg\":\"RS256\"}", PayloadBytes(), false);
  ASSERT_TRUE(jws.ok()) << CodeName(jws.code());
  EXPECT_EQ(
      *jws,
      "eyJhbGciOiJSUzI1NiJ9.eyJpc3MiOiJqb2UiLA0KICJleHAiOjEzMDA4MTkzODAsDQogImh0dHA6Ly9leGFtcG"
      "xlLmNvbS9pc19yb290Ijp0cnVlfQ.cC4hiUPoj9Eetdgtv3hF80EGrhuB__dzERat0XF9g2VtQgr9PJbu3XOiZj"
      "5RZmh7AAuHIm4Bh-0Qc_lF5YKt_O8W2Fp5jujGbds9uJdbF9CUAr7t1dnZcAcQjbKBYNX4BAynRFdiuB--f_nZ"
      "LgrnbyTyWzO75vRK5h6xBArLIARNPvkSjtQBMHlb1L07Qe7K0GarZRmB_eSN9383LcOLn6_dO--xi12jzDwusC"
      "-eOkHWEsqtFZESc6BfI7noOPqvhJ1phCnvWh6IeYI2w9QOYEUipUTI8np6LbgGY9Fs98rqVt5AXLIhWkWywlVm"
      "tVrBp0igcN_IoypGlUPQGe77Rw");
  EXPECT_TRUE(Verify(*key, *jws).ok());
}

TEST(Jws, Rfc7515A3VerifiesAndEs256RoundTrips) {
  KeyPtr key = Rfc7515EcKey();
  const std::string published =
      "eyJhbGciOiJFUzI1NiJ9.eyJpc3MiOiJqb2UiLA0KICJleHAiOjEzMDA4MTkzODAsDQogImh0dHA6Ly9leGFtcGxlLmN"
      "vbS9pc19yb290Ijp0cnVlfQ.DtEhU3ljbEg8L38VWAfUAqOyKAM6-Xx-F4GawxaepmXFCgfTjDxw5djxLa8ISlSApmW"
      "QxfKTUJqPP3-Kg6NU1Q";
  EXPECT_TRUE(Verify(*key, published).ok());
  Result<std::string> mine = Sign(*key, "{\"alg\":\"ES256\"}", PayloadBytes(), false);
  ASSERT_TRUE(mine.ok());
  EXPECT_EQ(Base64UrlDecode(mine->substr(mine->rfind('.') + 1))->size(), 64u);  // r||s
  EXPECT_TRUE(Verify(*key, *mine).ok());
  std::string changed = published;
  changed[changed.size() - 5] = changed[changed.size() - 5] == 'A' ? 'B' : 'A';
  EXPECT_EQ(Verify(*key, changed).code(), Code::kBadSignature);
}

TEST(Jws, Ps256DetachedAndRefusals) {
  KeyPtr rsa = Rfc7515RsaKey();
  KeyPtr ec = Rfc7515EcKey();
  Result<std::string> ps = Sign(*rsa, "{\"alg\":\"PS256\",\"b64\":true}", PayloadBytes(), true);
  ASSERT_TRUE(ps.ok());
  EXPECT_NE(ps->find(".."), std::string::npos);  // the payload part is empty
  EXPECT_TRUE(Verify(*rsa, *ps, ByteView(PayloadBytes())).ok());
  Bytes other = PayloadBytes();
  other[0] = '[';
  EXPECT_EQ(Verify(*rsa, *ps, ByteView(other)).code(), Code::kBadSignature);

  EXPECT_EQ(Sign(*rsa, "{\"alg\":\"none\"}", PayloadBytes(), false).code(), Code::kBadAlgorithm);
  EXPECT_EQ(Sign(*rsa, "{\"alg\":\"HS256\"}", PayloadBytes(), false).code(), Code::kBadAlgorithm);
  EXPECT_EQ(Sign(*rsa, "[1,2]", PayloadBytes(), false).code(), Code::kBadArgument);
  EXPECT_EQ(Sign(*rsa, "{\"alg\":\"ES256\"}", PayloadBytes(), false).code(), Code::kKeyCannotDo);
  EXPECT_EQ(Sign(*ec, "{\"alg\":\"RS256\"}", PayloadBytes(), false).code(), Code::kKeyCannotDo);
  EXPECT_EQ(Verify(*rsa, "a.b").code(), Code::kBadArgument);
  EXPECT_EQ(Verify(*rsa, "a.b.c.d").code(), Code::kBadArgument);
  EXPECT_EQ(Verify(*rsa, "e30.e30.!!").code(), Code::kBadArgument);
}

TEST(Jws, X5cCarriesTheCertificatesInStandardBase64) {
  const std::vector<Bytes> certs = {Bytes{0x30, 0x03, 0xFB, 0xFF, 0xFE}, Bytes{0x30, 0x00}};
  Result<std::string> header = AddX5c("{\"alg\":\"RS256\",\"kid\":\"k\"}", certs);
  ASSERT_TRUE(header.ok());
  EXPECT_NE(header->find("\"x5c\":[\"MAP7//4=\",\"MAA=\"]"), std::string::npos) << *header;
  EXPECT_NE(header->find("\"kid\":\"k\""), std::string::npos);
  KeyPtr rsa = Rfc7515RsaKey();
  Result<std::string> jws = Sign(*rsa, *header, PayloadBytes(), false);
  ASSERT_TRUE(jws.ok());
  Result<Parsed> parsed = Parse(*jws);
  ASSERT_TRUE(parsed.ok());
  EXPECT_EQ(parsed->x5c, certs);
  EXPECT_EQ(parsed->alg, "RS256");
  EXPECT_EQ(parsed->payload, PayloadBytes());
}

}  // namespace
}  // namespace qlhsm::crypto::jws
