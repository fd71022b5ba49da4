// Vault tokens: the check digits against published valid numbers, tokens that keep format,
// fixed parts and checks, keyed tokens, masks and sealed blobs.
#include "crypto/vault.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "test_util.h"

namespace qlhsm::crypto::vault {
namespace {

using testing::Hex;

std::string DigitsOf(const std::string &s) {
  std::string d;
  for (char c : s) {
    if (c >= '0' && c <= '9') d += c;
  }
  return d;
}

TEST(CheckDigits, PublishedValidNumbersAndOneDigitChanges) {
  EXPECT_TRUE(LuhnValid("79927398713"));
  EXPECT_TRUE(LuhnValid("4111111111111111"));
  EXPECT_FALSE(LuhnValid("79927398710"));
  EXPECT_TRUE(CpfValid("11144477735"));
  EXPECT_FALSE(CpfValid("11144477736"));
  EXPECT_FALSE(CpfValid("1114447773"));
  EXPECT_TRUE(CnpjValid("11222333000181"));
  EXPECT_FALSE(CnpjValid("11222333000182"));
  EXPECT_TRUE(VoterIdValid("102385010671"));
  EXPECT_FALSE(VoterIdValid("102385010672"));
  EXPECT_FALSE(VoterIdValid("102385012971"));  // no state 29
  // State 01 with a first remainder of 10: the digit is 0, not the 1 a remainder of 0 gives.
  EXPECT_TRUE(VoterIdValid("613797680108"));
  EXPECT_FALSE(VoterIdValid("613797680116"));
}

TEST(FormatPreservingToken, KeepsFormatFixedPartsAndChecks) {
  struct Case {
    const char *secret;
    CheckKind kind;
    bool (*valid)(std::string_view);
    size_t keep_from, keep_len;  // kept digits, in digit positions
  };
  const Case cases[] = {
      {"4111-1111-1111-1111", CheckKind::kPan, LuhnValid, 0, 6},
      {"111.444.777-35", CheckKind::kCpf, CpfValid, 0, 0},
      {"11.222.333/0001-81", CheckKind::kCnpj, CnpjValid, 8, 4},
      {"1023 8501 0671", CheckKind::kVoterId, VoterIdValid, 8, 2},
  };
  for (const Case &c : cases) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
      TokenSource source = TokenSource::Random();
      Result<std::string> token = FormatPreservingToken(c.secret, c.kind, 10, source);
      ASSERT_TRUE(token.ok()) << c.secret;
      const std::string secret(c.secret);
      ASSERT_EQ(token->size(), secret.size());
      for (size_t k = 0; k < secret.size(); ++k) {
        if (!isalnum(static_cast<unsigned char>(secret[k]))) {
          EXPECT_EQ((*token)[k], secret[k]);
        }
      }
      const std::string d = DigitsOf(*token);
      EXPECT_TRUE(c.valid(d)) << c.secret << " -> " << *token;
      EXPECT_EQ(d.substr(c.keep_from, c.keep_len),
                DigitsOf(secret).substr(c.keep_from, c.keep_len));
      if (c.kind == CheckKind::kPan) {
        EXPECT_EQ(d.substr(d.size() - 4), "1111");
      }
      seen.insert(*token);
    }
    EXPECT_GT(seen.size(), 150u) << c.secret;  // random, not fixed
  }
}

TEST(FormatPreservingToken, WithoutCheckEveryCharacterComesFromTheBase) {
  for (unsigned base : {10u, 16u, 26u, 52u, 62u}) {
    TokenSource source = TokenSource::Random();
    Result<std::string> token =
        FormatPreservingToken("ab-12_CD 9z", CheckKind::kNone, base, source);
    ASSERT_TRUE(token.ok());
    const std::string_view alphabet = Alphabet(base);
    for (size_t i : {0, 1, 3, 4, 6, 7, 9, 10}) {
      EXPECT_NE(alphabet.find((*token)[i]), std::string::npos) << base << " " << *token;
    }
    EXPECT_EQ((*token)[2], '-');
    EXPECT_EQ((*token)[5], '_');
    EXPECT_EQ((*token)[8], ' ');
  }
  TokenSource source = TokenSource::Random();
  Result<std::string> text = TextToken(62, source);
  ASSERT_TRUE(text.ok());
  EXPECT_EQ(text->size(), 32u);
}

TEST(FormatPreservingToken, SecretsThatDoNotFitTheirKindAreRefused) {
  TokenSource source = TokenSource::Random();
  EXPECT_EQ(FormatPreservingToken("41111111111", CheckKind::kPan, 10, source).code(),
            Code::kBadArgument);
  EXPECT_EQ(FormatPreservingToken("1114447773A", CheckKind::kCpf, 10, source).code(),
            Code::kBadArgument);
  EXPECT_EQ(FormatPreservingToken("11144477735", CheckKind::kCpf, 16, source).code(),
            Code::kBadArgument);
  EXPECT_EQ(FormatPreservingToken("102385012971", CheckKind::kVoterId, 10, source).code(),
            Code::kBadArgument);
  EXPECT_EQ(FormatPreservingToken("abc", CheckKind::kNone, 12, source).code(), Code::kBadArgument);
  EXPECT_EQ(FormatPreservingToken("", CheckKind::kNone, 10, source).code(), Code::kBadLength);
}

TEST(TokenSource, KeyedTokensAreOnePerSecretAndKey) {
  const Bytes key1 = Hex("000102030405060708090A0B0C0D0E0F");
  const Bytes key2 = Hex("F00102030405060708090A0B0C0D0E0F");
  const std::string pan = "4111111111111111";
  const Bytes secret(pan.begin(), pan.end());
  auto token = [&](const Bytes &key, const Bytes &s) {
    Result<TokenSource> source = TokenSource::Keyed(key, s);
    return *FormatPreservingToken(std::string(s.begin(), s.end()), CheckKind::kPan, 10, *source);
  };
  EXPECT_EQ(token(key1, secret), token(key1, secret));
  EXPECT_NE(token(key1, secret), token(key2, secret));
  const std::string other_pan = "4111111111112222";
  EXPECT_NE(token(key1, secret), token(key1, Bytes(other_pan.begin(), other_pan.end())));
}

TEST(MaskSecret, KeepsTheLastFourAndAPansFirstSix) {
  EXPECT_EQ(MaskSecret("4111-1111-1111-1234", CheckKind::kPan), "4111-11**-****-1234");
  EXPECT_EQ(MaskSecret("111.444.777-35", CheckKind::kCpf), "***.***.*77-35");
  EXPECT_EQ(MaskSecret("abc", CheckKind::kNone), "abc");
}

TEST(VaultBlob, RoundTripAndRefusals) {
  const Bytes key = Hex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
  VaultRecord record;
  record.type = 1;
  record.mask_type = 3;
  record.secret = "4111111111111111";
  record.token = "4111119876541111";
  Result<Bytes> blob = SealVaultBlob(key, record);
  ASSERT_TRUE(blob.ok());
  Result<VaultRecord> back = OpenVaultBlob(key, *blob);
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(back->secret, record.secret);
  EXPECT_EQ(back->token, record.token);
  EXPECT_EQ(back->mask_type, 3);
  // Two blobs of one record differ (fresh nonce).
  EXPECT_NE(*SealVaultBlob(key, record), *blob);

  Bytes other_key = key;
  other_key[0] ^= 1;
  EXPECT_EQ(OpenVaultBlob(other_key, *blob).code(), Code::kBadTag);
  for (size_t at : {size_t{3}, size_t{20}, blob->size() - 1}) {
    Bytes changed = *blob;
    changed[at] ^= 0x40;
    EXPECT_EQ(OpenVaultBlob(key, changed).code(), Code::kBadTag) << at;
  }
  EXPECT_EQ(OpenVaultBlob(key, Bytes(blob->begin(), blob->begin() + 20)).code(), Code::kBadData);
  EXPECT_EQ(SealVaultBlob(Hex("0001020304"), record).code(), Code::kKeyCannotDo);
  record.secret.clear();
  EXPECT_EQ(SealVaultBlob(key, record).code(), Code::kBadLength);
}

}  // namespace
}  // namespace qlhsm::crypto::vault
