// Blockchain keys against the published vectors: BIP32 (1, 2 and the invalid keys of 5), Bech32
// and Bech32m (BIP173, BIP350), BIP86's taproot addresses, BIP340's signing and verification
// rows, the well-known forms of private key 1, and ECDSA signatures and key recovery.
#include "crypto/bchain.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "crypto/bchain_codec.h"
#include "test_util.h"

namespace qlhsm::crypto::bchain {
namespace {

using testing::Hex;
using testing::Text;

std::string Lower(std::string s) {
  for (char &c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

template <typename C>
std::string HexOf(const C &c) {
  return Lower(testing::ToHex(c));
}

TEST(Bech32, PublishedValidAndInvalidStrings) {
  const std::vector<std::string> bech32 = {
      "A12UEL5L",
      "a12uel5l",
      "an83characterlonghumanreadablepartthatcontainsthenumber1andtheexcludedcharactersbio1tt5tgs",
      "abcdef1qpzry9x8gf2tvdw0s3jn54khce6mua7lmqqqxw",
      "11qqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqc8247j",
      "split1checkupstagehandshakeupstreamerranterredcaperred2y9e3w",
      "?1ezyfcl"};
  const std::vector<std::string> bech32m = {
      "A1LQFN3A",
      "a1lqfn3a",
      "an83characterlonghumanreadablepartthatcontainsthetheexcludedcharactersbioandnumber11sg7hg6",
      "abcdef1l7aum6echk45nj3s0wdvt2fg8x9yrzpqzd3ryx",
      "11llllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllllludsr8",
      "split1checkupstagehandshakeupstreamerranterredcaperredlc445v",
      "?1v759aa"};
  for (const auto &[list, variant] :
       {std::pair{bech32, Bech32Variant::kBech32}, std::pair{bech32m, Bech32Variant::kBech32m}}) {
    for (const std::string &s : list) {
      std::optional<Bech32Decoded> d = Bech32Decode(s);
      ASSERT_TRUE(d.has_value()) << s;
      EXPECT_EQ(d->variant, variant) << s;
      EXPECT_EQ(Bech32Encode(d->hrp, d->groups, variant), Lower(s));
    }
  }
  const std::vector<std::string> invalid = {
      " 1nwldj5",
      "\x7f"
      "1axkwrx",
      "\x80"
      "1eym55h",
      "an84characterslonghumanreadablepartthatcontainsthenumber1andtheexcludedcharactersbio1569pvx",
      "pzry9x0s0muk",
      "1pzry9x0s0muk",
      "x1b4n0q5v",
      "li1dgmt3",
      "de1lg7wt\xff",
      "10a06t8",
      "1qzzfhee",
      " 1xj0phk",
      "\x7f"
      "1g6xzxy",
      "\x80"
      "1vctc34",
      "an84characterslonghumanreadablepartthatcontainsthetheexcludedcharactersbioandnumber11d6pts4",
      "qyrz8wqd2c9m",
      "1qyrz8wqd2c9m",
      "y1b0jsk6g",
      "lt1igcx5c0",
      "in1muywd",
      "mm1crxm3i",
      "au1s5cgom",
      "16plkw9",
      "1p2gdwpf"};
  for (const std::string &s : invalid) EXPECT_FALSE(Bech32Decode(s).has_value()) << s;
  // Checksums made with the upper-case part or the other variant's constant.
  EXPECT_FALSE(Bech32Decode("A1G7SGD8").has_value());
  EXPECT_EQ(Bech32Decode("M1VUXWEZ").has_value() &&
                Bech32Decode("M1VUXWEZ")->variant == Bech32Variant::kBech32m,
            false);
}

TEST(Addresses, PrivateKeyOneInEveryForm) {
  SecretBytes one(32, 0);
  one[31] = 1;
  EXPECT_EQ(EncodeWif(one, true, false), "KwDiBf89QgGbjEhKnhXJuH7LrciVrZi3qYjgd9M7rFU73sVHnoWn");
  EXPECT_EQ(EncodeWif(one, false, false), "5HpHagT65TZzG1PH3CSu63k8DbpvD8s5ip4nEB3kEsreAnchuDf");
  Result<WifKey> wif = DecodeWif("KwDiBf89QgGbjEhKnhXJuH7LrciVrZi3qYjgd9M7rFU73sVHnoWn");
  ASSERT_TRUE(wif.ok());
  EXPECT_TRUE(wif->compressed);
  EXPECT_EQ(wif->private_key, one);
  EXPECT_EQ(DecodeWif("KwDiBf89QgGbjEhKnhXJuH7LrciVrZi3qYjgd9M7rFU73sVHnoWm").code(),
            Code::kBadData);

  Result<Bytes> pub = PublicKeyOf(one, PublicKeyForm::kCompressed);
  ASSERT_TRUE(pub.ok());
  EXPECT_EQ(HexOf(*pub), "0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798");
  EXPECT_EQ(*AddressOf(*pub, AddressType::kP2pkh, false), "1BgGZ9tcN4rm9KBzDn7KprQz87SZ26SAMH");
  EXPECT_EQ(*AddressOf(*pub, AddressType::kP2pkhUncompressed, false),
            "1EHNa6Q4Jz2uvNExL497mE43ikXhwF6kZm");
  EXPECT_EQ(*AddressOf(*pub, AddressType::kP2wpkh, false),
            "bc1qw508d6qejxtdg4y5r3zarvary0c5xw7kv8f3t4");
  EXPECT_EQ(*AddressOf(*pub, AddressType::kP2wpkh, true),
            "tb1qw508d6qejxtdg4y5r3zarvary0c5xw7kxpjzsx");
  std::optional<SegwitProgram> program =
      ParseSegwitAddress("bc", "bc1qw508d6qejxtdg4y5r3zarvary0c5xw7kv8f3t4");
  ASSERT_TRUE(program.has_value());
  EXPECT_EQ(HexOf(program->program), "751e76e8199196d454941c45d1b3a323f1433bd6");
  EXPECT_FALSE(ParseSegwitAddress("tb", "bc1qw508d6qejxtdg4y5r3zarvary0c5xw7kv8f3t4").has_value());
}

TEST(Addresses, Bip86TaprootOutputs) {
  EXPECT_EQ(*AddressOf(Hex("02cc8a4bc64d897bddc5fbc2f670f7a8ba0b386779106cf1223c6fc5d7cd6fc115"),
                       AddressType::kP2tr, false),
            "bc1p5cyxnuxmeuwuvkwfem96lqzszd02n6xdcjrs20cac6yqjjwudpxqkedrcr");
  EXPECT_EQ(*AddressOf(Hex("0283dfe85a3151d2517290da461fe2815591ef69f2b18a2ce63f01697a8b313145"),
                       AddressType::kP2tr, false),
            "bc1p4qhjn9zdvkux4e44uhx8tc55attvtyu358kutcqkudyccelu0was9fqzwh");
  // The same through BIP86's root key and path m/86'/0'/0'/0/0.
  Result<ExtendedKey> key = ParseExtended(
      "xprv9s21ZrQH143K3GJpoapnV8SFfukcVBSfeCficPSGfubmSFDxo1kuHnLisriDvSnRRuL2Qrg5ggqHKNVpxR86QEC8"
      "w35uxmGoggxtQTPvfUu");
  ASSERT_TRUE(key.ok());
  for (uint32_t index : {86 | kHardened, kHardened, kHardened, 0u, 0u}) {
    key = DeriveChild(*key, index);
    ASSERT_TRUE(key.ok());
  }
  EXPECT_EQ(*AddressOf(key->public_key, AddressType::kP2tr, false),
            "bc1p5cyxnuxmeuwuvkwfem96lqzszd02n6xdcjrs20cac6yqjjwudpxqkedrcr");
}

struct Chain {
  std::vector<uint32_t> path;
  const char *xpub;
  const char *xprv;
};

void CheckVector(const Bytes &seed, const std::vector<Chain> &chains) {
  Result<ExtendedKey> master = MasterFromSeed(seed, false);
  ASSERT_TRUE(master.ok());
  for (const Chain &chain : chains) {
    ExtendedKey key = *master;
    for (uint32_t index : chain.path) {
      Result<ExtendedKey> child = DeriveChild(key, index);
      ASSERT_TRUE(child.ok());
      key = *child;
    }
    EXPECT_EQ(SerializeExtended(key, false), chain.xprv);
    EXPECT_EQ(SerializeExtended(key, true), chain.xpub);
    // Both texts read back; the public one derives the same normal children.
    Result<ExtendedKey> prv = ParseExtended(chain.xprv);
    Result<ExtendedKey> pub = ParseExtended(chain.xpub);
    ASSERT_TRUE(prv.ok() && pub.ok());
    EXPECT_FALSE(pub->has_private());
    EXPECT_EQ(SerializeExtended(*DeriveChild(*pub, 7), true),
              SerializeExtended(*DeriveChild(*prv, 7), true));
    EXPECT_EQ(DeriveChild(*pub, kHardened).code(), Code::kKeyCannotDo);
  }
}

TEST(Bip32, Vector1) {
  const uint32_t h = kHardened;
  CheckVector(Hex("000102030405060708090a0b0c0d0e0f"),
              {{{},
                "xpub661MyMwAqRbcFtXgS5sYJABqqG9YLmC4Q1Rdap9gSE8NqtwybGhePY2gZ29ESFjqJoCu1Rupje8YtG"
                "qsefD265TM"
                "g7usUDFdp6W1EGMcet8",
                "xprv9s21ZrQH143K3QTDL4LXw2F7HEK3wJUD2nW2nRk4stbPy6cq3jPPqjiChkVvvNKmPGJxWUtg6LnF5k"
                "ejMRNNU3TG"
                "tRBeJgk33yuGBxrMPHi"},
               {{h},
                "xpub68Gmy5EdvgibQVfPdqkBBCHxA5htiqg55crXYuXoQRKfDBFA1WEjWgP6LHhwBZeNK1VTsfTFUHCdrf"
                "p1bgwQ9xv5"
                "ski8PX9rL2dZXvgGDnw",
                "xprv9uHRZZhk6KAJC1avXpDAp4MDc3sQKNxDiPvvkX8Br5ngLNv1TxvUxt4cV1rGL5hj6KCesnDYUhd7oW"
                "gT11eZG7Xn"
                "xHrnYeSvkzY7d2bhkJ7"},
               {{h, 1},
                "xpub6ASuArnXKPbfEwhqN6e3mwBcDTgzisQN1wXN9BJcM47sSikHjJf3UFHKkNAWbWMiGj7Wf5uMash7Sy"
                "Yq527Hqck2"
                "AxYysAA7xmALppuCkwQ",
                "xprv9wTYmMFdV23N2TdNG573QoEsfRrWKQgWeibmLntzniatZvR9BmLnvSxqu53Kw1UmYPxLgboyZQaXwT"
                "Cg8MSY3H2E"
                "U4pWcQDnRnrVA1xe8fs"},
               {{h, 1, 2 | h},
                "xpub6D4BDPcP2GT577Vvch3R8wDkScZWzQzMMUm3PWbmWvVJrZwQY4VUNgqFJPMM3No2dFDFGTsxxpG5uJ"
                "h7n7epu4tr"
                "krX7x7DogT5Uv6fcLW5",
                "xprv9z4pot5VBttmtdRTWfWQmoH1taj2axGVzFqSb8C9xaxKymcFzXBDptWmT7FwuEzG3ryjH4ktypQSAe"
                "wRiNMjANTt"
                "pgP4mLTj34bhnZX7UiM"},
               {{h, 1, 2 | h, 2},
                "xpub6FHa3pjLCk84BayeJxFW2SP4XRrFd1JYnxeLeU8EqN3vDfZmbqBqaGJAyiLjTAwm6ZLRQUMv1ZACTj"
                "37sR62cfN7"
                "fe5JnJ7dh8zL4fiyLHV",
                "xprvA2JDeKCSNNZky6uBCviVfJSKyQ1mDYahRjijr5idH2WwLsEd4Hsb2Tyh8RfQMuPh7f7RtyzTtdrbdq"
                "qsunu5Mm3w"
                "DvUAKRHSC34sJ7in334"},
               {{h, 1, 2 | h, 2, 1000000000},
                "xpub6H1LXWLaKsWFhvm6RVpEL9P4KfRZSW7abD2ttkWP3SSQvnyA8FSVqNTEcYFgJS2UaFcxupHiYkro49"
                "S8yGasTvXE"
                "YBVPamhGW6cFJodrTHy",
                "xprvA41z7zogVVwxVSgdKUHDy1SKmdb533PjDz7J6N6mV6uS3ze1ai8FHa8kmHScGpWmj4WggLyQjgPie1"
                "rFSruoUihU"
                "ZREPSL39UNdE3BBDu76"}});
}

TEST(Bip32, Vector2) {
  const uint32_t h = kHardened;
  CheckVector(
      Hex("fffcf9f6f3f0edeae7e4e1dedbd8d5d2cfccc9c6c3c0bdbab7b4b1aeaba8a5a29f9c999693908d8a878481"
          "7e7b7875726f6c696663605d5a5754514e4b484542"),
      {{{},
        "xpub661MyMwAqRbcFW31YEwpkMuc5THy2PSt5bDMsktWQcFF8syAmRUapSCGu8ED9W6oDMSgv6Zz8idoc4a6mr8BDz"
        "TJ"
        "Y47LJhkJ8UB7WEGuduB",
        "xprv9s21ZrQH143K31xYSDQpPDxsXRTUcvj2iNHm5NUtrGiGG5e2DtALGdso3pGz6ssrdK4PFmM8NSpSBHNqPqm55Q"
        "n3"
        "LqFtT2emdEXVYsCzC2U"},
       {{0},
        "xpub69H7F5d8KSRgmmdJg2KhpAK8SR3DjMwAdkxj3ZuxV27CprR9LgpeyGmXUbC6wb7ERfvrnKZjXoUmmDznezpbZb"
        "7a"
        "p6r1D3tgFxHmwMkQTPH",
        "xprv9vHkqa6EV4sPZHYqZznhT2NPtPCjKuDKGY38FBWLvgaDx45zo9WQRUT3dKYnjwih2yJD9mkrocEZXo1ex8G81d"
        "wS"
        "M1fwqWpWkeS3v86pgKt"},
       {{0, 2147483647 | h},
        "xpub6ASAVgeehLbnwdqV6UKMHVzgqAG8Gr6riv3Fxxpj8ksbH9ebxaEyBLZ85ySDhKiLDBrQSARLq1uNRts8RuJiHj"
        "aD"
        "MBU4Zn9h8LZNnBC5y4a",
        "xprv9wSp6B7kry3Vj9m1zSnLvN3xH8RdsPP1Mh7fAaR7aRLcQMKTR2vidYEeEg2mUCTAwCd6vnxVrcjfy2kRgVsFaw"
        "Nz"
        "mjuHc2YmYRmagcEPdU9"},
       {{0, 2147483647 | h, 1, 2147483646 | h, 2},
        "xpub6FnCn6nSzZAw5Tw7cgR9bi15UV96gLZhjDstkXXxvCLsUXBGXPdSnLFbdpq8p9HmGsApME5hQTZ3emM2rnY5ag"
        "b9"
        "rXpVGyy3bdW6EEgAtqt",
        "xprvA2nrNbFZABcdryreWet9Ea4LvTJcGsqrMzxHx98MMrotbir7yrKCEXw7nadnHM8Dq38EGfSh6dqA9QWTyefMLE"
        "cB"
        "YJUuekgW4BYPJcr9E7j"}});
}

TEST(Bip32, Vector5KeysAreRefused) {
  const char *invalid[] = {
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6LBpB85b3D2yc8sfvZU521AAwdZafEz7"
      "mnzBB"
      "sz4wKY5fTtTQBm",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFGTQQD3dC4H2D5GBj7vWvSQaaBv5cxi9"
      "gafk7"
      "NF3pnBju6dwKvH",
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6Txnt3siSujt9RCVYsx4qHZGc62TG4Mc"
      "vMGcA"
      "UjeuwZdduYEvFn",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFGpWnsj83BHtEy5Zt8CcDr1UiRXuWCmT"
      "QLxEK"
      "9vbz5gPstX92JQ",
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6N8ZMMXctdiCjxTNq964yKkwrkBJJwpz"
      "ZS4HS"
      "2fxvyYUA4q2Xe4",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFAzHGBP2UuGCqWLTAPLcMtD9y5gkZ6Eq"
      "3Rjua"
      "hrv17fEQ3Qen6J",
      "xprv9s2SPatNQ9Vc6GTbVMFPFo7jsaZySyzk7L8n2uqKXJen3KUmvQNTuLh3fhZMBoG3G4ZW1N2kZuHEPY53qmbZzCHs"
      "hoQnN"
      "f4GvELZfqTUrcv",
      "xpub661no6RGEX3uJkY4bNnPcw4URcQTrSibUZ4NqJEw5eBkv7ovTwgiT91XX27VbEXGENhYRCf7hyEbWrR3FewATdCE"
      "ebj6z"
      "nwMfQkhRYHRLpJ",
      "xprv9s21ZrQH4r4TsiLvyLXqM9P7k1K3EYhA1kkD6xuquB5i39AU8KF42acDyL3qsDbU9NmZn6MsGSUYZEsuoePmjzsB"
      "3eFKS"
      "UEh3Gu1N3cqVUN",
      "xpub661MyMwAuDcm6CRQ5N4qiHKrJ39Xe1R1NyfouMKTTWcguwVcfrZJaNvhpebzGerh7gucBvzEQWRugZDuDXjNDRmX"
      "zSZe4"
      "c7mnTK97pTvGS8",
      "DMwo58pR1QLEFihHiXPVykYB6fJmsTeHvyTp7hRThAtCX8CvYzgPcn8XnmdfHGMQzT7ayAmfo4z3gY5KfbrZWZ6St24U"
      "Vf2Qg"
      "o6oujFktLHdHY4",
      "DMwo58pR1QLEFihHiXPVykYB6fJmsTeHvyTp7hRThAtCX8CvYzgPcn8XnmdfHPmHJiEDXkTiJTVV9rHEBUem2mwVbbNf"
      "vT2MT"
      "cAqj3nesx8uBf9",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzF93Y5wvzdUayhgkkFoicQZcP3y52uPPx"
      "FnfoL"
      "ZB21Teqt1VvEHx",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFAzHGBP2UuGCqWLTAPLcMtD5SDKr24z3"
      "aiUvK"
      "r9bJpdrcLg1y3G",
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6Q5JXayek4PRsn35jii4veMimro1xefs"
      "M58Pg"
      "BMrvdYre8QyULY",
      "xprv9s21ZrQH143K3QTDL4LXw2F7HEK3wJUD2nW2nRk4stbPy6cq3jPPqjiChkVvvNKmPGJxWUtg6LnF5kejMRNNU3TG"
      "tRBeJ"
      "gk33yuGBxrMPHL",
  };
  for (const char *text : invalid) EXPECT_FALSE(ParseExtended(text).ok()) << text;
  // Out-of-range keys are invalid keys; the rest are bad encodings.
  EXPECT_EQ(ParseExtended(invalid[12]).code(), Code::kBadArgument);
  EXPECT_EQ(ParseExtended(invalid[14]).code(), Code::kBadArgument);
  EXPECT_EQ(ParseExtended(invalid[15]).code(), Code::kBadData);
  EXPECT_EQ(MasterFromSeed(Hex("000102030405060708090a0b0c0d0e"), false).code(), Code::kBadLength);
}

TEST(MiniKey, PublishedExample) {
  Result<SecretBytes> key = MiniKeyToPrivate("S6c56bnXQiBjk9mqSYE7ykVQ7NzrRy");
  ASSERT_TRUE(key.ok());
  EXPECT_EQ(HexOf(*key), "4c7a9640c72dc2099f23715d0c8a0d8a35f8906e3cab61dd3f78b67bf887c9ab");
  EXPECT_EQ(MiniKeyToPrivate("S6c56bnXQiBjk9mqSYE7ykVQ7NzrRz").code(), Code::kBadData);
}

// BIP340's test-vectors.csv without its comment column.
std::vector<std::vector<std::string>> Bip340Rows() {
  std::ifstream in(std::string(QLHSM_CRYPTO_TEST_DATA) + "/bip340_vectors.csv");
  std::vector<std::vector<std::string>> rows;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::stringstream ss(line);
    std::string field;
    while (std::getline(ss, field, ',')) fields.push_back(field);
    fields.erase(fields.begin());  // the index
    rows.push_back(fields);
  }
  return rows;
}

TEST(Schnorr, Bip340SigningAndVerificationRows) {
  int row = 0;
  ASSERT_EQ(Bip340Rows().size(), 15u);
  for (const auto &r : Bip340Rows()) {
    const Bytes pub = Hex(r[1]);
    const Bytes msg = Hex(r[3]);
    const Bytes sig = Hex(r[4]);
    if (!r[0].empty()) {
      Result<Bytes> made = SignDigest(Hex(r[0]), msg, SignatureType::kSchnorr, Hex(r[2]));
      ASSERT_TRUE(made.ok()) << row;
      EXPECT_EQ(HexOf(*made), Lower(r[4])) << row;
      EXPECT_EQ(HexOf(*PublicKeyOf(Hex(r[0]), PublicKeyForm::kXOnly)), Lower(r[1])) << row;
    }
    EXPECT_EQ(VerifyDigest(pub, msg, SignatureType::kSchnorr, sig).ok(), r[5] == "TRUE") << row;
    ++row;
  }
}

TEST(Ecdsa, SignVerifyRecoverAndRefuseHighS) {
  const Bytes key = Hex("B7E151628AED2A6ABF7158809CF4F3C762E7160F38B4DA56A784D9045190CFEF");
  const Bytes digest = MessageHash(Text("hello"));
  const Bytes pub = *PublicKeyOf(key, PublicKeyForm::kCompressed);
  Result<Bytes> compact = SignDigest(key, digest, SignatureType::kCompact);
  Result<Bytes> der = SignDigest(key, digest, SignatureType::kDer);
  ASSERT_TRUE(compact.ok() && der.ok());
  EXPECT_EQ(compact->size(), 65u);
  EXPECT_TRUE((*compact)[0] >= 31 && (*compact)[0] <= 34);
  // RFC 6979 nonces: signing again gives the same signature.
  EXPECT_EQ(*SignDigest(key, digest, SignatureType::kDer), *der);
  EXPECT_TRUE(VerifyDigest(pub, digest, SignatureType::kCompact, *compact).ok());
  EXPECT_TRUE(VerifyDigest(pub, digest, SignatureType::kDer, *der).ok());
  EXPECT_EQ(*RecoverPublicKey(digest, *compact), pub);

  Bytes other = digest;
  other[0] ^= 1;
  EXPECT_EQ(VerifyDigest(pub, other, SignatureType::kDer, *der).code(), Code::kBadSignature);
  Result<Bytes> recovered = RecoverPublicKey(other, *compact);
  EXPECT_TRUE(!recovered.ok() || *recovered != pub);

  // s replaced by n - s verifies mathematically but is refused as malleable.
  static const Bytes n = Hex("FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFEBAAEDCE6AF48A03BBFD25E8CD0364141");
  Bytes high = *compact;
  int borrow = 0;
  for (int i = 31; i >= 0; --i) {
    int d = n[static_cast<size_t>(i)] - (*compact)[33 + static_cast<size_t>(i)] - borrow;
    borrow = d < 0;
    high[33 + static_cast<size_t>(i)] = static_cast<uint8_t>(d + (borrow ? 256 : 0));
  }
  EXPECT_EQ(VerifyDigest(pub, digest, SignatureType::kCompact, high).code(), Code::kBadSignature);
  EXPECT_EQ(SignDigest(key, Bytes(31, 1), SignatureType::kDer).code(), Code::kBadLength);
}

TEST(Hashes, ModesOfTheLibrary) {
  EXPECT_EQ(HexOf(Sha256d(Text("hello"))),
            "9595c9df90075148eb06860365df33584b75bff782a510c6cd4883a419833d50");
  EXPECT_EQ(
      HexOf(Hash160(Hex("0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"))),
      "751e76e8199196d454941c45d1b3a323f1433bd6");
  EXPECT_EQ(Base58Encode(Hex("0000287fb4cd")), "11233QC4");
  EXPECT_EQ(*Base58Decode("11233QC4"), Hex("0000287fb4cd"));
  EXPECT_FALSE(Base58Decode("0OIl").has_value());
}

}  // namespace
}  // namespace qlhsm::crypto::bchain
