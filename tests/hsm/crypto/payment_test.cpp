// Payment cryptography against published vectors (card verification values, ISO 9564-1 PIN
// blocks, the triple-DES and AES derived-unique-key schemes, interchange key blocks) and against
// the openssl command where no vector is published.
#include "crypto/payment.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace qlhsm::crypto::payment {
namespace {

using testing::Hex;

std::string Upper(const std::string &s) {
  std::string out = s;
  for (char &c : out) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return out;
}

template <typename Container>
std::string HexOf(const Container &c) {
  return Upper(testing::ToHex(c));
}

const Bytes kCvkA = Hex("0123456789ABCDEF");
const Bytes kCvkB = Hex("FEDCBA9876543210");

TEST(CardVerificationValue, PublishedExampleAndItsVariants) {
  Result<std::string> cvv = CardVerificationValue(kCvkA, kCvkB, "4123456789012345", "8701", "101");
  ASSERT_TRUE(cvv.ok());
  EXPECT_EQ(*cvv, "561");
  // CVV2 and iCVV are the same method with other service codes: other values, same key.
  Result<std::string> cvv2 = CardVerificationValue(kCvkA, kCvkB, "4123456789012345", "8701", "000");
  ASSERT_TRUE(cvv2.ok());
  EXPECT_EQ(cvv2->size(), 3u);
  EXPECT_NE(*cvv2, *cvv);

  EXPECT_EQ(CardVerificationValue(kCvkA, kCvkB, "41234567890", "8701", "101").code(),
            Code::kBadArgument);
  EXPECT_EQ(CardVerificationValue(kCvkA, kCvkB, "412345678901234A", "8701", "101").code(),
            Code::kBadArgument);
  EXPECT_EQ(CardVerificationValue(kCvkA, kCvkB, "4123456789012345", "871", "101").code(),
            Code::kBadArgument);
  EXPECT_EQ(
      CardVerificationValue(Hex("0123456789ABCDEFFEDC"), kCvkB, "4123456789012345", "8701", "101")
          .code(),
      Code::kBadLength);
}

TEST(EqualInConstantTime, ComparesWholeValues) {
  EXPECT_TRUE(EqualInConstantTime("561", "561"));
  EXPECT_FALSE(EqualInConstantTime("561", "562"));
  EXPECT_FALSE(EqualInConstantTime("561", "56"));
}

TEST(PinBlock, Format0PublishedExample) {
  Result<Bytes> clear = ClearPinBlock(PinBlockFormat::k0, "1234", "43219876543210987");
  ASSERT_TRUE(clear.ok());
  EXPECT_EQ(HexOf(*clear), "0412AC89ABCDEF67");
  // Under the CVK pair as a double-length key: checked with openssl enc -des-ede -nopad.
  const Bytes pair = Hex("0123456789ABCDEFFEDCBA9876543210");
  Result<Bytes> block = EncipherPinBlock(PinBlockFormat::k0, pair, "1234", "43219876543210987");
  ASSERT_TRUE(block.ok());
  EXPECT_EQ(HexOf(*block), "C967C8198151A458");
  Result<std::string> pin = DecipherPinBlock(PinBlockFormat::k0, pair, *block, "43219876543210987");
  ASSERT_TRUE(pin.ok());
  EXPECT_EQ(*pin, "1234");
  // Another card's PAN leaves a fill that is not all F.
  EXPECT_EQ(DecipherPinBlock(PinBlockFormat::k0, pair, *block, "43219876543210995").code(),
            Code::kBadData);
}

TEST(PinBlock, EveryFormatRoundTripsAndRefusesAnotherPan) {
  const Bytes tdes = Hex("0123456789ABCDEFFEDCBA9876543210");
  const Bytes aes = Hex("000102030405060708090A0B0C0D0E0F");
  const std::string pan = "4111111111111111";
  for (PinBlockFormat format :
       {PinBlockFormat::k0, PinBlockFormat::k1, PinBlockFormat::k3, PinBlockFormat::k4}) {
    const Bytes &key = format == PinBlockFormat::k4 ? aes : tdes;
    for (const std::string pin : {"1234", "123456789012"}) {
      Result<Bytes> block = EncipherPinBlock(format, key, pin, pan);
      ASSERT_TRUE(block.ok()) << static_cast<int>(format);
      EXPECT_EQ(block->size(), format == PinBlockFormat::k4 ? 16u : 8u);
      Result<std::string> back = DecipherPinBlock(format, key, *block, pan);
      ASSERT_TRUE(back.ok()) << static_cast<int>(format) << " " << CodeName(back.code());
      EXPECT_EQ(*back, pin);
    }
    // Random fill: two blocks of the same PIN differ, except format 0 which has none.
    Result<Bytes> a = EncipherPinBlock(format, key, "4321", pan);
    Result<Bytes> b = EncipherPinBlock(format, key, "4321", pan);
    EXPECT_EQ(*a == *b, format == PinBlockFormat::k0) << static_cast<int>(format);
    // Another card. Where its PAN differs under the PIN digits, formats 0 and 3 read another
    // PIN; where it differs under the fill, format 0 refuses (format 3's fill may survive it);
    // format 4 enciphers the PAN whole and refuses either.
    Result<std::string> under_pin = DecipherPinBlock(format, key, *a, "4222111111111111");
    Result<std::string> under_fill = DecipherPinBlock(format, key, *a, "4111111111111129");
    switch (format) {
      case PinBlockFormat::k0:
        EXPECT_TRUE(under_pin.ok() && *under_pin != "4321");
        EXPECT_EQ(under_fill.code(), Code::kBadData);
        break;
      case PinBlockFormat::k3:
        EXPECT_TRUE(!under_pin.ok() || *under_pin != "4321");
        break;
      case PinBlockFormat::k4:
        EXPECT_EQ(under_pin.code(), Code::kBadData);
        EXPECT_EQ(under_fill.code(), Code::kBadData);
        break;
      default:
        EXPECT_EQ(*under_pin, "4321");  // format 1 does not bind the PAN
    }
  }
}

TEST(PinBlock, ClearFieldsOfFormats1And3FollowTheirRules) {
  const Bytes fill = Hex("00010203040506070809");
  Result<Bytes> f1 = ClearPinBlock(PinBlockFormat::k1, "1234", "", fill);
  ASSERT_TRUE(f1.ok());
  EXPECT_EQ(HexOf(*f1), "1412340123456789");
  // Format 3 fills with A to F and binds the PAN like format 0.
  Result<Bytes> f3 = ClearPinBlock(PinBlockFormat::k3, "1234", "43219876543210987", fill);
  ASSERT_TRUE(f3.ok());
  const Bytes pan_field = Hex("0000987654321098");
  Bytes field = *f3;
  for (size_t i = 0; i < 8; ++i) field[i] ^= pan_field[i];
  EXPECT_EQ(HexOf(field), "341234ABCDEFABCD");
}

TEST(PinBlock, MalformedBlocksAndInputsAreRefused) {
  const Bytes tdes = Hex("0123456789ABCDEFFEDCBA9876543210");
  EXPECT_EQ(EncipherPinBlock(PinBlockFormat::k0, tdes, "123", "4111111111111111").code(),
            Code::kBadArgument);
  EXPECT_EQ(EncipherPinBlock(PinBlockFormat::k0, tdes, "1234567890123", "4111111111111111").code(),
            Code::kBadArgument);
  EXPECT_EQ(EncipherPinBlock(PinBlockFormat::k0, tdes, "12a4", "4111111111111111").code(),
            Code::kBadArgument);
  EXPECT_EQ(
      DecipherPinBlock(PinBlockFormat::k0, tdes, Hex("0011223344"), "4111111111111111").code(),
      Code::kBadLength);
  // A format 1 block read as format 0 has the wrong control field.
  Result<Bytes> f1 = EncipherPinBlock(PinBlockFormat::k1, tdes, "1234", "4111111111111111");
  EXPECT_EQ(DecipherPinBlock(PinBlockFormat::k0, tdes, *f1, "4111111111111111").code(),
            Code::kBadData);
  EXPECT_FALSE(IsPinBlockFormat(2));
  EXPECT_TRUE(IsPinBlockFormat(4));
}

TEST(NaturalPin, MatchesOpenSslAndTheTable) {
  // openssl enc -des-ede -K <pair> -nopad of 0000345678901234 gives C2A47E32FB1E3B78.
  const Bytes pgk = Hex("0123456789ABCDEFFEDCBA9876543210");
  Result<std::string> pin = NaturalPin(pgk, "4123456789012345", "0123456789012345", 6);
  ASSERT_TRUE(pin.ok());
  EXPECT_EQ(*pin, "220474");
  pin = NaturalPin(pgk, "4123456789012345", "9876543210987654", 4);
  ASSERT_TRUE(pin.ok());
  EXPECT_EQ(*pin, "7795");
  EXPECT_EQ(NaturalPin(pgk, "4123456789012345", "0123456789", 4).code(), Code::kBadArgument);
  EXPECT_EQ(NaturalPin(pgk, "4123456789012345", "0123456789012345", 3).code(), Code::kBadArgument);
}

// The triple-DES scheme's published test data: BDK, initial KSN, initial key, keys by counter.
const Bytes kTdesBdk = Hex("0123456789ABCDEFFEDCBA9876543210");

Bytes Ksn(const std::string &tail) {
  return Hex("FFFF9876543210" + tail);
}

TEST(DukptTdes, PublishedInitialAndTransactionKeys) {
  Result<SecretBytes> ik = DukptTdes(kTdesBdk, Ksn("E00000"), DukptKey::kInitial);
  ASSERT_TRUE(ik.ok());
  EXPECT_EQ(HexOf(*ik), "6AC292FAA1315B4D858AB3A3D7D5933A");
  // The initial key ignores the counter.
  EXPECT_EQ(HexOf(*DukptTdes(kTdesBdk, Ksn("E00007"), DukptKey::kInitial)), HexOf(*ik));

  const std::pair<std::string, std::string> keys[] = {
      {"E00001", "042666B49184CFA368DE9628D0397BC9"},
      {"E00002", "C46551CEF9FD24B0AA9AD834130D3BC7"},
      {"E00003", "0DF3D9422ACA56E547676D07AD6BADFA"},
      {"E00015", "E161D1956A61F6D2F37AFD7F9CC3699A"},
      {"EFF800", "F9CDFEBF4F5B1D9EB3EC12454527E176"},
      {"EFFC00", "F9430DF975082491C77BE4EF4FDB91EE"},
      {"F00000", "AA4D58DB653EC74A48C75F2F047DD2B5"},
  };
  for (const auto &[tail, key] : keys) {
    Result<SecretBytes> k = DukptTdes(kTdesBdk, Ksn(tail), DukptKey::kTransaction);
    ASSERT_TRUE(k.ok()) << tail;
    EXPECT_EQ(HexOf(*k), key) << tail;
  }
}

TEST(DukptTdes, PinKeyEnciphersThePublishedPinBlock) {
  Result<SecretBytes> pin_key = DukptTdes(kTdesBdk, Ksn("E00001"), DukptKey::kPin);
  ASSERT_TRUE(pin_key.ok());
  EXPECT_EQ(HexOf(*pin_key), "042666B49184CF5C68DE9628D0397B36");
  Result<SecretBytes> block = TdesEcb(*pin_key, Hex("041274EDCBA9876F"), true);
  EXPECT_EQ(HexOf(*block), "1B9C1845EB993A7A");
  Result<SecretBytes> rollover = DukptTdes(kTdesBdk, Ksn("EFF800"), DukptKey::kPin);
  EXPECT_EQ(HexOf(*TdesEcb(*rollover, Hex("041274EDCBA9876F"), true)), "33365F5CC6F23C35");
  // MAC and data keys are other keys of the same counter.
  Result<SecretBytes> mac = DukptTdes(kTdesBdk, Ksn("E00001"), DukptKey::kMac);
  Result<SecretBytes> data = DukptTdes(kTdesBdk, Ksn("E00001"), DukptKey::kData);
  EXPECT_EQ(HexOf(*mac), "042666B4918430A368DE9628D03984C9");
  EXPECT_NE(HexOf(*data), HexOf(*mac));
}

TEST(DukptTdes, CountersTheSchemeDoesNotAllowAreRefused) {
  EXPECT_EQ(DukptTdes(kTdesBdk, Ksn("E00000"), DukptKey::kTransaction).code(), Code::kBadArgument);
  // 0x0007FF has eleven one-bits.
  EXPECT_EQ(DukptTdes(kTdesBdk, Ksn("E007FF"), DukptKey::kPin).code(), Code::kBadArgument);
  EXPECT_EQ(DukptTdes(kTdesBdk, Hex("FFFF9876543210E000"), DukptKey::kPin).code(),
            Code::kBadLength);
  EXPECT_EQ(DukptTdes(Hex("0123456789ABCDEF"), Ksn("E00001"), DukptKey::kPin).code(),
            Code::kBadLength);
}

// The AES scheme's published test vectors for an AES-128 BDK.
const Bytes kAesBdk = Hex("FEDCBA9876543210F1F1F1F1F1F1F1F1");

TEST(DukptAes, PublishedInitialAndTransactionKeys) {
  Result<SecretBytes> ik = DukptAes(kAesBdk, Hex("123456789012345600000000"), DukptKey::kInitial);
  ASSERT_TRUE(ik.ok());
  EXPECT_EQ(HexOf(*ik), "1273671EA26AC29AFA4D1084127652A1");
  const std::pair<std::string, std::string> keys[] = {
      {"00000001", "4F21B565BAD9835E112B6465635EAE44"},
      {"00000002", "2F34D68DE10F68D38091A73B9E7C437C"},
      {"00000008", "718EE6CF0B27E53D5F7AF99C4D8146A2"},
      {"0001FFFE", "E21E8C8D347F8561A2BE752DAA85A111"},
      {"00020000", "F7AE9025468A25D37B7249CFFED224C8"},
      {"FFFE2000", "48E585B694EB0B18D5C35443E163C0BA"},
      {"FFFF0000", "F6BA59389BD14A9855BE9727E7C52E3C"},
  };
  for (const auto &[counter, key] : keys) {
    Result<SecretBytes> k =
        DukptAes(kAesBdk, Hex("1234567890123456" + counter), DukptKey::kTransaction);
    ASSERT_TRUE(k.ok()) << counter;
    EXPECT_EQ(HexOf(*k), key) << counter;
  }
  // 0x1FFFF has seventeen one-bits; 0 is no transaction.
  EXPECT_EQ(DukptAes(kAesBdk, Hex("12345678901234560001FFFF"), DukptKey::kPin).code(),
            Code::kBadArgument);
  EXPECT_EQ(DukptAes(kAesBdk, Hex("123456789012345600000000"), DukptKey::kPin).code(),
            Code::kBadArgument);
}

TEST(DukptAes, WorkingKeysKeepTheBdkLengthAndDiffer) {
  const Bytes bdk256 = Hex("FEDCBA9876543210F1F1F1F1F1F1F1F1FEDCBA9876543210F1F1F1F1F1F1F1F1");
  const Bytes ksn = Hex("123456789012345600000001");
  Result<SecretBytes> pin = DukptAes(bdk256, ksn, DukptKey::kPin);
  Result<SecretBytes> mac = DukptAes(bdk256, ksn, DukptKey::kMac);
  Result<SecretBytes> data = DukptAes(bdk256, ksn, DukptKey::kData);
  ASSERT_TRUE(pin.ok() && mac.ok() && data.ok());
  EXPECT_EQ(pin->size(), 32u);
  EXPECT_NE(*pin, *mac);
  EXPECT_NE(*mac, *data);
  EXPECT_EQ(DukptAes(Hex("FEDCBA9876543210"), ksn, DukptKey::kPin).code(), Code::kBadLength);
}

struct PublishedKeyBlock {
  const char *kbpk;
  const char *block;
  const char *key;
};

TEST(KeyBlock, PublishedBlocksUnwrapToTheirKeys) {
  const PublishedKeyBlock blocks[] = {
      {"DD7515F2BFC17F85CE48F3CA25CB21F6",
       "B0080P0TE00E000094B420079CC80BA3461F86FE26EFC4A3B8E4FA4C5F5341176EED7B727B8A248E",
       "3F419E1CB7079442AA37474C2EFBF8B8"},
      {"1D22BF32387C600AD97F9B97A51311AC",
       "B0104B0TX12S0100KS1800604B120F9292800000BB68BE8680A400D9191AD4ECE45B6E6C0D21C4738A52190E2"
       "48719E24B433627",
       "E8BC63E5479455E26577F715D587FE68"},
      {"EFE0853B256B583D868F251CE99EA1D9",
       "B0080K0TN00N00001C414014375212C24995E405B5EE052CB92B67F455EA2680F6751088F9F1C228",
       "5DB50B454F8389ADCE573BE50861F2BF"},
      {"88E1AB2A2E3DD38C1FA039A536500CC8A87AB9D62DC92C01058FA79F44657DE6",
       "D0112P0AE00E0000B82679114F470F540165EDFBF7E250FCEA43F810D215F8D207E2E417C07156A27E8E31DA0"
       "5F7425509593D03A457DC34",
       "3F419E1CB7079442AA37474C2EFBF8B8"},
      {"4141414141414141414141414141414141414141414141414141414141414141",
       "D0144D0AN00N0000127862F945C2DED04530FAF7CDBC8B0BA10C7AA79BD5E0C2C5D6AC173BF588E4B19ACF135"
       "7178D50EA0AB193228E13958304FC6149632DFDCADF3A5B3D57E814",
       "BE19E6A07A760F10EF8E83A226B63AAD141F463FDDD4F47DB244B4023EC3CACC"},
  };
  for (const PublishedKeyBlock &b : blocks) {
    Result<UnwrappedKeyBlock> k = UnwrapKeyBlock(Hex(b.kbpk), b.block);
    ASSERT_TRUE(k.ok()) << b.block << ": " << CodeName(k.code());
    EXPECT_EQ(HexOf(k->key), b.key);
    EXPECT_EQ(k->header.version, b.block[0]);
    EXPECT_EQ(k->header.usage, std::string(b.block + 5, 2));
  }
  Result<UnwrappedKeyBlock> with_ks = UnwrapKeyBlock(Hex(blocks[1].kbpk), blocks[1].block);
  EXPECT_EQ(with_ks->header.optional_blocks, "KS1800604B120F9292800000");
  EXPECT_EQ(with_ks->header.key_version, "12");
  EXPECT_EQ(with_ks->header.exportability, 'S');
}

TEST(KeyBlock, VersionDWrapReproducesThePublishedBlock) {
  KeyBlockHeader h;
  h.version = 'D';
  h.usage = "P0";
  h.algorithm = 'A';
  h.mode = 'E';
  h.key_version = "00";
  h.exportability = 'E';
  Result<std::string> block =
      WrapKeyBlock(Hex("88E1AB2A2E3DD38C1FA039A536500CC8A87AB9D62DC92C01058FA79F44657DE6"), h,
                   Hex("3F419E1CB7079442AA37474C2EFBF8B8"), Hex("1C2965473CE206BB855B01533782"));
  ASSERT_TRUE(block.ok()) << CodeName(block.code());
  EXPECT_EQ(*block,
            "D0112P0AE00E0000B82679114F470F540165EDFBF7E250FCEA43F810D215F8D207E2E417C07156A27E8E3"
            "1DA05F7425509593D03A457DC34");
}

TEST(KeyBlock, VersionBRoundTripsAndTamperingIsCaught) {
  const Bytes kbpk = Hex("89E88CF7931444F334BD7547FC3F380C89E88CF7931444F3");
  KeyBlockHeader h;
  h.version = 'B';
  h.usage = "D0";
  h.algorithm = 'T';
  h.mode = 'B';
  h.exportability = 'N';
  const Bytes key = Hex("F039121BEC83D26B169BDCD5B22AAF8FF039121BEC83D26B");
  Result<std::string> block = WrapKeyBlock(kbpk, h, key);
  ASSERT_TRUE(block.ok());
  EXPECT_EQ(block->substr(0, 16), "B0096D0TB00N0000");
  Result<UnwrappedKeyBlock> back = UnwrapKeyBlock(kbpk, *block);
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(HexOf(back->key), HexOf(key));

  std::string tampered = *block;
  tampered[20] = tampered[20] == '0' ? '1' : '0';
  EXPECT_EQ(UnwrapKeyBlock(kbpk, tampered).code(), Code::kBadTag);
  std::string relabelled = *block;
  relabelled[5] = 'P';  // the header is under the MAC too
  relabelled[6] = '0';
  EXPECT_EQ(UnwrapKeyBlock(kbpk, relabelled).code(), Code::kBadTag);
  EXPECT_EQ(UnwrapKeyBlock(kbpk, block->substr(0, block->size() - 2)).code(), Code::kBadData);
  EXPECT_EQ(UnwrapKeyBlock(kbpk,
                           "A0072P0TE00E0000F5161ED902807AF26F1D62263644BD24192FDB3193C73030"
                           "1CEE8701")
                .code(),
            Code::kNotSupported);
  EXPECT_EQ(UnwrapKeyBlock(Hex("000102030405060708090A0B0C0D0E0F1011"), *block).code(),
            Code::kBadLength);
}

TEST(KeyBlock, AttributeCombinations) {
  EXPECT_TRUE(IsAllowedKeyBlock("P0", 'T', 'E'));
  EXPECT_TRUE(IsAllowedKeyBlock("D0", 'A', 'B'));
  EXPECT_TRUE(IsAllowedKeyBlock("B0", 'T', 'X'));
  EXPECT_FALSE(IsAllowedKeyBlock("B0", 'T', 'E'));  // a BDK only derives
  EXPECT_FALSE(IsAllowedKeyBlock("P0", 'T', 'G'));  // a PIN key does not make MACs
  EXPECT_FALSE(IsAllowedKeyBlock("M0", 'A', 'C'));  // ISO 16609 MACs are triple DES
  EXPECT_FALSE(IsAllowedKeyBlock("S0", 'T', 'S'));  // signature keys are asymmetric
  EXPECT_FALSE(IsAllowedKeyBlock("D0", 'R', 'B'));
}

}  // namespace
}  // namespace qlhsm::crypto::payment
