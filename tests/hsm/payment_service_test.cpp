// The payment service in-process: its refusals in check order, the published CVV through stored
// and session keys, PIN verification, and PIN block translation checked by deciphering the
// result outside the HSM.
#include <gtest/gtest.h>

#include <string>

#include "crypto/payment.h"
#include "test_util.h"

namespace qlhsm {
namespace {

using testing::EngineFixture;
namespace pay = crypto::payment;

constexpr const char *kUserPwd = "24681357";

secure::Bytes Hex(std::string_view hex) {
  secure::Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return out;
}

const secure::Bytes kCvkPair = Hex("0123456789ABCDEFFEDCBA9876543210");
const CardData kCard{"4123456789012345", "8701", "101"};
constexpr const char *kPan = "43219876543210987";

struct Fixture : EngineFixture {
  Fixture() { EXPECT_TRUE(engine->users().CreateUser(*master, "tested", kUserPwd, 0).ok()); }
  std::unique_ptr<sessions::Session> As(uint32_t mask) {
    EXPECT_TRUE(engine->users().SetUserMask(*master, "tested", mask).ok());
    return LoginAs("tested", kUserPwd);
  }
  // A key of the master's session (name "": unnamed; otherwise a named session key).
  KeyArg Session(const secure::Bytes &secret, uint32_t alg, const std::string &name = "") {
    auto d = engine->keys().ImportKey(*master, name, {}, secret, QL_PLAINTEXTKEY_BLOB, alg,
                                      QL_KEY_TEMPORARY, true);
    EXPECT_TRUE(d.ok()) << d.status().ToString();
    return KeyArg{d.ok() ? d->handle : 0, {}};
  }
  PaymentService &pay() { return engine->payment(); }
};

TEST(PaymentCvv, PublishedValueUnderThePairAndTheAbaKey) {
  Fixture f;
  auto pair = f.pay().GenerateCvv(*f.master, f.Session(kCvkPair, QL_ALG_3DES_112), kCard);
  ASSERT_TRUE(pair.ok()) << pair.status().ToString();
  EXPECT_EQ(*pair, "561");
  secure::Bytes aba = kCvkPair;
  aba.insert(aba.end(), kCvkPair.begin(), kCvkPair.begin() + 8);
  auto same = f.pay().GenerateCvv(*f.master, f.Session(aba, QL_ALG_3DES_168), kCard);
  ASSERT_TRUE(same.ok());
  EXPECT_EQ(*same, "561");

  KeyArg cvk = f.Session(kCvkPair, QL_ALG_3DES_112);
  EXPECT_TRUE(f.pay().VerifyCvv(*f.master, cvk, kCard, "561").ok());
  EXPECT_EQ(f.pay().VerifyCvv(*f.master, cvk, kCard, "562").code(), Code::kCheckFailed);
  // The CVV2 of the same card is another value.
  auto cvv2 = f.pay().GenerateCvv(*f.master, cvk, CardData{kCard.pan, kCard.expiry, "000"});
  ASSERT_TRUE(cvv2.ok());
  EXPECT_NE(*cvv2, "561");
}

TEST(PaymentCvv, OtherKeysAreRefused) {
  Fixture f;
  secure::Bytes abc = Hex("0123456789ABCDEFFEDCBA98765432101122334455667788");
  EXPECT_EQ(f.pay().GenerateCvv(*f.master, f.Session(abc, QL_ALG_3DES_168), kCard).status().code(),
            Code::kBadKeyUsage);
  EXPECT_EQ(
      f.pay().GenerateCvv(*f.master, f.Session(kCvkPair, QL_ALG_AES128), kCard).status().code(),
      Code::kBadKeyUsage);
}

TEST(PaymentCvv, RefusalsInCheckOrder) {
  Fixture f;
  ASSERT_TRUE(f.engine->keys()
                  .ImportKey(*f.master, "cvk", {}, kCvkPair, QL_PLAINTEXTKEY_BLOB, QL_ALG_3DES_112,
                             0, false)
                  .ok());
  auto nobody = f.As(0);
  const KeyArg stored{0, "master/cvk"};
  // Arguments before the right; the right before existence.
  EXPECT_EQ(f.pay().GenerateCvv(*nobody, stored, {"41234", "8701", "101"}).status().code(),
            Code::kBadArgument);
  EXPECT_EQ(f.pay().GenerateCvv(*nobody, stored, kCard).status().code(), Code::kAccessDenied);
  EXPECT_EQ(f.pay().GenerateCvv(*nobody, {0, "master/none"}, kCard).status().code(),
            Code::kAccessDenied);
  auto reader = f.As(ACL_OBJ_READ);
  EXPECT_EQ(f.pay().GenerateCvv(*reader, {0, "master/none"}, kCard).status().code(),
            Code::kObjectNotFound);
  auto cvv = f.pay().GenerateCvv(*reader, stored, kCard);
  ASSERT_TRUE(cvv.ok()) << cvv.status().ToString();
  EXPECT_EQ(*cvv, "561");
}

TEST(PaymentPin, NaturalPinVerifiesInEveryFormatAndAWrongOneFails) {
  Fixture f;
  const secure::Bytes pgk_secret = Hex("0123456789ABCDEF23456789ABCDEF01");
  KeyArg pgk = f.Session(pgk_secret, QL_ALG_3DES_112);
  auto pin = f.pay().GeneratePin(*f.master, pgk, kPan, 6, 0);
  ASSERT_TRUE(pin.ok()) << pin.status().ToString();
  ASSERT_EQ(pin->size(), 6u);

  const secure::Bytes tdes = Hex("89ABCDEF0123456701234567890ABCDE");
  const secure::Bytes aes = Hex("000102030405060708090A0B0C0D0E0F");
  for (unsigned format : {0u, 1u, 3u, 4u}) {
    SCOPED_TRACE(format);
    const secure::Bytes &secret = format == 4 ? aes : tdes;
    KeyArg ptk = f.Session(secret, format == 4 ? QL_ALG_AES128 : QL_ALG_3DES_112);
    auto good = pay::EncipherPinBlock(static_cast<pay::PinBlockFormat>(format), secret, *pin, kPan);
    ASSERT_TRUE(good.ok());
    const secure::Bytes block(good->begin(), good->end());
    EXPECT_TRUE(f.pay().VerifyPinBlock(*f.master, ptk, pgk, format, kPan, block, 0).ok());

    std::string other = *pin;
    other[0] = other[0] == '9' ? '0' : static_cast<char>(other[0] + 1);
    auto bad = pay::EncipherPinBlock(static_cast<pay::PinBlockFormat>(format), secret, other, kPan);
    ASSERT_TRUE(bad.ok());
    EXPECT_EQ(f.pay()
                  .VerifyPinBlock(*f.master, ptk, pgk, format, kPan,
                                  secure::Bytes(bad->begin(), bad->end()), 0)
                  .code(),
              Code::kCheckFailed);
    EXPECT_EQ(f.pay().VerifyPinBlock(*f.master, ptk, pgk, format, kPan, block, 1).code(),
              Code::kBadFlags);
  }
}

TEST(PaymentPin, MalformedBlocksAndWrongKeys) {
  Fixture f;
  const secure::Bytes secret = Hex("0123456789ABCDEFFEDCBA9876543210");
  KeyArg k = f.Session(secret, QL_ALG_3DES_112);
  KeyArg aes = f.Session(Hex("000102030405060708090A0B0C0D0E0F"), QL_ALG_AES128);
  // A clear block whose control field says format 2, enciphered as format 0 would be.
  auto wrong = pay::TdesEcb(secret, Hex("2412ACFFFFFFFFFF"), true);
  ASSERT_TRUE(wrong.ok());
  const secure::Bytes block(wrong->begin(), wrong->end());
  EXPECT_EQ(f.pay().VerifyPinBlock(*f.master, k, k, 0, kPan, block, 0).code(), Code::kBadPinBlock);
  EXPECT_EQ(f.pay().TranslatePinBlock(*f.master, k, k, 0x0300, kPan, block, 0).status().code(),
            Code::kBadPinBlock);
  // An AES key cannot take a triple-DES format, nor the reverse.
  const secure::Bytes published = Hex("C967C8198151A458");
  EXPECT_EQ(
      f.pay().TranslatePinBlock(*f.master, aes, k, 0x0000, kPan, published, 0).status().code(),
      Code::kBadKeyUsage);
  EXPECT_EQ(f.pay().TranslatePinBlock(*f.master, k, k, 0x0400, kPan, published, 0).status().code(),
            Code::kBadKeyUsage);
  // Lengths and formats.
  EXPECT_EQ(f.pay().TranslatePinBlock(*f.master, k, k, 0x0004, kPan, published, 0).status().code(),
            Code::kBadLength);
  EXPECT_EQ(f.pay().TranslatePinBlock(*f.master, k, k, 0x0200, kPan, published, 0).status().code(),
            Code::kBadArgument);
}

TEST(PaymentPin, TranslationKeepsThePinAndLeavingThePanNeedsAnAuthorisation) {
  Fixture f;
  // The published format 0 block of PIN 1234 under the CVK pair, as a named session key.
  f.Session(kCvkPair, QL_ALG_3DES_112, "src");
  const secure::Bytes aes = Hex("000102030405060708090A0B0C0D0E0F");
  f.Session(aes, QL_ALG_AES128, "dst4");
  const secure::Bytes tdes = Hex("0123456789ABCDEF23456789ABCDEF01");
  f.Session(tdes, QL_ALG_3DES_112, "dst1");
  const secure::Bytes published = Hex("C967C8198151A458");

  auto to4 =
      f.pay().TranslatePinBlock(*f.master, {0, "src"}, {0, "dst4"}, 0x0400, kPan, published, 0);
  ASSERT_TRUE(to4.ok()) << to4.status().ToString();
  ASSERT_EQ(to4->size(), 16u);
  auto pin = pay::DecipherPinBlock(pay::PinBlockFormat::k4, aes, *to4, kPan);
  ASSERT_TRUE(pin.ok());
  EXPECT_EQ(*pin, "1234");

  EXPECT_EQ(f.pay()
                .TranslatePinBlock(*f.master, {0, "src"}, {0, "dst1"}, 0x0100, kPan, published, 0)
                .status()
                .code(),
            Code::kEftdNotAuthorized);
  // Format 1 to a PAN-bound format needs nothing.
  auto one = pay::EncipherPinBlock(pay::PinBlockFormat::k1, tdes, "1234", "");
  ASSERT_TRUE(one.ok());
  auto back = f.pay().TranslatePinBlock(*f.master, {0, "dst1"}, {0, "src"}, 0x0001, kPan,
                                        secure::Bytes(one->begin(), one->end()), 0);
  ASSERT_TRUE(back.ok()) << back.status().ToString();
  auto clear = pay::TdesEcb(kCvkPair, *back, false);
  ASSERT_TRUE(clear.ok());
  EXPECT_EQ(secure::Bytes(clear->begin(), clear->end()), Hex("0412AC89ABCDEF67"));
}

TEST(PaymentPin, NamedSessionKeysAreOpenedByNameAndNamesAreUnique) {
  Fixture f;
  f.Session(kCvkPair, QL_ALG_3DES_112, "named");
  auto dup = f.engine->keys().ImportKey(*f.master, "named", {}, kCvkPair, QL_PLAINTEXTKEY_BLOB,
                                        QL_ALG_3DES_112, QL_KEY_TEMPORARY, true);
  EXPECT_EQ(dup.status().code(), Code::kObjectExists);
  auto opened = f.engine->keys().OpenKey(*f.master, "named");
  ASSERT_TRUE(opened.ok()) << opened.status().ToString();
  auto cvv = f.pay().GenerateCvv(*f.master, {opened->handle, {}}, kCard);
  ASSERT_TRUE(cvv.ok());
  EXPECT_EQ(*cvv, "561");
  // Releasing the opened handle leaves the named key in place.
  ASSERT_TRUE(f.engine->keys().DestroyKey(*f.master, opened->handle, false, "").ok());
  EXPECT_TRUE(f.pay().GenerateCvv(*f.master, {0, "named"}, kCard).ok());
  // Another session does not see it.
  auto other = f.LoginAs("master", testing::kMasterPassword);
  EXPECT_EQ(f.pay().GenerateCvv(*other, {0, "named"}, kCard).status().code(),
            Code::kObjectNotFound);
}

}  // namespace
}  // namespace qlhsm
