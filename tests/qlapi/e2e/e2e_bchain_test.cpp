// Blockchain keys through the library against a real qlhsmd: the BIP32 vectors 1 to 4 made and
// derived in the HSM (every xprv and xpub exported), vector 5 refused on import, public-only
// keys, BIP86's first taproot address, the first P2WPKH address, an ECDSA signature, WIF and
// P2PKH recomputed by an independent signer in Python and checked by the openssl command line,
// gen-key with the blockchain flag, and the refusals.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Session = qltest::OpenedSession;

constexpr uint32_t kH = 0x80000000u;

Bytes Hex(const std::string &hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return out;
}

std::string HexOf(const Bytes &b) {
  static const char *d = "0123456789abcdef";
  std::string s;
  for (unsigned char c : b) {
    s += d[c >> 4];
    s += d[c & 15];
  }
  return s;
}

// The key's text in a format, "" with the code in *rc on a refusal.
std::string Export(HSESSIONCTX s, const std::string &name, uint32_t format, int *rc = nullptr,
                   uint32_t version = 0, int compressed = 1) {
  unsigned char *out = nullptr;
  uint32_t len = 0;
  const int code = QBchainPkExport(s, name.c_str(), format, version, compressed, &out, &len);
  if (rc) *rc = code;
  if (code != QL_OK) return "";
  std::string text(reinterpret_cast<char *>(out), len);
  QFree(out);
  return text;
}

int Import(HSESSIONCTX s, const std::string &name, uint32_t format, const std::string &text,
           uint32_t attributes = QL_KEY_EXPORTABLE) {
  return QBchainPkImport(s, name.c_str(), format, attributes,
                         reinterpret_cast<const unsigned char *>(text.data()),
                         static_cast<uint32_t>(text.size()));
}

std::string Address(HSESSIONCTX s, const std::string &name, uint32_t type,
                    uint32_t version = QL_BCHAIN_ADDR_MAINNET) {
  char out[128] = {};
  uint32_t len = sizeof out;
  EXPECT_EQ(QBchainGetAddress(s, name.c_str(), type, version, nullptr, out, &len), QL_OK) << name;
  return out;
}

Bytes PubKey(HSESSIONCTX s, const std::string &name, uint32_t form) {
  Bytes out(65);
  uint32_t len = static_cast<uint32_t>(out.size());
  EXPECT_EQ(QBchainGetPubKey(s, name.c_str(), form, out.data(), &len), QL_OK);
  out.resize(len);
  return out;
}

Bytes Sign(HSESSIONCTX s, const std::string &name, uint32_t type, const Bytes &digest,
           int *rc = nullptr) {
  Bytes sig(80);
  uint32_t len = static_cast<uint32_t>(sig.size());
  const int code = QBchainSignHash(s, name.c_str(), type, QL_BCHAIN_HASH_SHA256, digest.data(),
                                   static_cast<uint32_t>(digest.size()), sig.data(), &len);
  if (rc) *rc = code;
  sig.resize(code == QL_OK ? len : 0);
  return sig;
}

Bytes Sha256Of(HSESSIONCTX s, const std::string &data) {
  Bytes hash(32);
  uint32_t len = 32;
  EXPECT_EQ(QBchainHashData(s, QL_BCHAIN_HASH_SHA256,
                            reinterpret_cast<const unsigned char *>(data.data()),
                            static_cast<uint32_t>(data.size()), hash.data(), &len),
            QL_OK);
  return hash;
}

struct Step {
  uint32_t index;
  const char *xpub;
  const char *xprv;
};

struct Vector {
  const char *name;
  const char *seed;
  std::vector<Step> chain;  // the master first (its index unused)
};

// BIP32's published test vectors 1 to 4.
const std::vector<Vector> &Bip32Vectors() {
  static const std::vector<Vector> v = {
      {"v1",
       "000102030405060708090a0b0c0d0e0f",
       {{0,
         "xpub661MyMwAqRbcFtXgS5sYJABqqG9YLmC4Q1Rdap9gSE8NqtwybGhePY2gZ29ESFjqJoCu1Rupje8YtGqsefD26"
         "5TMg7usUDFdp6W1EGMcet8",
         "xprv9s21ZrQH143K3QTDL4LXw2F7HEK3wJUD2nW2nRk4stbPy6cq3jPPqjiChkVvvNKmPGJxWUtg6LnF5kejMRNNU"
         "3TGtRBeJgk33yuGBxrMPHi"},
        {kH | 0,
         "xpub68Gmy5EdvgibQVfPdqkBBCHxA5htiqg55crXYuXoQRKfDBFA1WEjWgP6LHhwBZeNK1VTsfTFUHCdrfp1bgwQ9"
         "xv5ski8PX9rL2dZXvgGDnw",
         "xprv9uHRZZhk6KAJC1avXpDAp4MDc3sQKNxDiPvvkX8Br5ngLNv1TxvUxt4cV1rGL5hj6KCesnDYUhd7oWgT11eZG"
         "7XnxHrnYeSvkzY7d2bhkJ7"},
        {1,
         "xpub6ASuArnXKPbfEwhqN6e3mwBcDTgzisQN1wXN9BJcM47sSikHjJf3UFHKkNAWbWMiGj7Wf5uMash7SyYq527Hq"
         "ck2AxYysAA7xmALppuCkwQ",
         "xprv9wTYmMFdV23N2TdNG573QoEsfRrWKQgWeibmLntzniatZvR9BmLnvSxqu53Kw1UmYPxLgboyZQaXwTCg8MSY3"
         "H2EU4pWcQDnRnrVA1xe8fs"},
        {kH | 2,
         "xpub6D4BDPcP2GT577Vvch3R8wDkScZWzQzMMUm3PWbmWvVJrZwQY4VUNgqFJPMM3No2dFDFGTsxxpG5uJh7n7epu"
         "4trkrX7x7DogT5Uv6fcLW5",
         "xprv9z4pot5VBttmtdRTWfWQmoH1taj2axGVzFqSb8C9xaxKymcFzXBDptWmT7FwuEzG3ryjH4ktypQSAewRiNMjA"
         "NTtpgP4mLTj34bhnZX7UiM"},
        {2,
         "xpub6FHa3pjLCk84BayeJxFW2SP4XRrFd1JYnxeLeU8EqN3vDfZmbqBqaGJAyiLjTAwm6ZLRQUMv1ZACTj37sR62c"
         "fN7fe5JnJ7dh8zL4fiyLHV",
         "xprvA2JDeKCSNNZky6uBCviVfJSKyQ1mDYahRjijr5idH2WwLsEd4Hsb2Tyh8RfQMuPh7f7RtyzTtdrbdqqsunu5M"
         "m3wDvUAKRHSC34sJ7in334"},
        {1000000000,
         "xpub6H1LXWLaKsWFhvm6RVpEL9P4KfRZSW7abD2ttkWP3SSQvnyA8FSVqNTEcYFgJS2UaFcxupHiYkro49S8yGasT"
         "vXEYBVPamhGW6cFJodrTHy",
         "xprvA41z7zogVVwxVSgdKUHDy1SKmdb533PjDz7J6N6mV6uS3ze1ai8FHa8kmHScGpWmj4WggLyQjgPie1rFSruoU"
         "ihUZREPSL39UNdE3BBDu76"}}},
      {"v2",
       "fffcf9f6f3f0edeae7e4e1dedbd8d5d2cfccc9c6c3c0bdbab7b4b1aeaba8a5a29f9c999693908d8a8784817e7b7"
       "875726f6c696663605d5a5754514e4b484542",
       {{0,
         "xpub661MyMwAqRbcFW31YEwpkMuc5THy2PSt5bDMsktWQcFF8syAmRUapSCGu8ED9W6oDMSgv6Zz8idoc4a6mr8BD"
         "zTJY47LJhkJ8UB7WEGuduB",
         "xprv9s21ZrQH143K31xYSDQpPDxsXRTUcvj2iNHm5NUtrGiGG5e2DtALGdso3pGz6ssrdK4PFmM8NSpSBHNqPqm55"
         "Qn3LqFtT2emdEXVYsCzC2U"},
        {0,
         "xpub69H7F5d8KSRgmmdJg2KhpAK8SR3DjMwAdkxj3ZuxV27CprR9LgpeyGmXUbC6wb7ERfvrnKZjXoUmmDznezpbZ"
         "b7ap6r1D3tgFxHmwMkQTPH",
         "xprv9vHkqa6EV4sPZHYqZznhT2NPtPCjKuDKGY38FBWLvgaDx45zo9WQRUT3dKYnjwih2yJD9mkrocEZXo1ex8G81"
         "dwSM1fwqWpWkeS3v86pgKt"},
        {kH | 2147483647,
         "xpub6ASAVgeehLbnwdqV6UKMHVzgqAG8Gr6riv3Fxxpj8ksbH9ebxaEyBLZ85ySDhKiLDBrQSARLq1uNRts8RuJiH"
         "jaDMBU4Zn9h8LZNnBC5y4a",
         "xprv9wSp6B7kry3Vj9m1zSnLvN3xH8RdsPP1Mh7fAaR7aRLcQMKTR2vidYEeEg2mUCTAwCd6vnxVrcjfy2kRgVsFa"
         "wNzmjuHc2YmYRmagcEPdU9"},
        {1,
         "xpub6DF8uhdarytz3FWdA8TvFSvvAh8dP3283MY7p2V4SeE2wyWmG5mg5EwVvmdMVCQcoNJxGoWaU9DCWh89LojfZ"
         "537wTfunKau47EL2dhHKon",
         "xprv9zFnWC6h2cLgpmSA46vutJzBcfJ8yaJGg8cX1e5StJh45BBciYTRXSd25UEPVuesF9yog62tGAQtHjXajPPdb"
         "RCHuWS6T8XA2ECKADdw4Ef"},
        {kH | 2147483646,
         "xpub6ERApfZwUNrhLCkDtcHTcxd75RbzS1ed54G1LkBUHQVHQKqhMkhgbmJbZRkrgZw4koxb5JaHWkY4ALHY2grBG"
         "RjaDMzQLcgJvLJuZZvRcEL",
         "xprvA1RpRA33e1JQ7ifknakTFpgNXPmW2YvmhqLQYMmrj4xJXXWYpDPS3xz7iAxn8L39njGVyuoseXzU6rcxFLJ8H"
         "FsTjSyQbLYnMpCqE2VbFWc"},
        {2,
         "xpub6FnCn6nSzZAw5Tw7cgR9bi15UV96gLZhjDstkXXxvCLsUXBGXPdSnLFbdpq8p9HmGsApME5hQTZ3emM2rnY5a"
         "gb9rXpVGyy3bdW6EEgAtqt",
         "xprvA2nrNbFZABcdryreWet9Ea4LvTJcGsqrMzxHx98MMrotbir7yrKCEXw7nadnHM8Dq38EGfSh6dqA9QWTyefML"
         "EcBYJUuekgW4BYPJcr9E7j"}}},
      {"v3",
       "4b381541583be4423346c643850da4b320e46a87ae3d2a4e6da11eba819cd4acba45d239319ac14f863b8d5ab5a"
       "0d0c64d2e8a1e7d1457df2e5a3c51c73235be",
       {{0,
         "xpub661MyMwAqRbcEZVB4dScxMAdx6d4nFc9nvyvH3v4gJL378CSRZiYmhRoP7mBy6gSPSCYk6SzXPTf3ND1cZAce"
         "L7SfJ1Z3GC8vBgp2epUt13",
         "xprv9s21ZrQH143K25QhxbucbDDuQ4naNntJRi4KUfWT7xo4EKsHt2QJDu7KXp1A3u7Bi1j8ph3EGsZ9Xvz9dGuVr"
         "tHHs7pXeTzjuxBrCmmhgC6"},
        {kH | 0,
         "xpub68NZiKmJWnxxS6aaHmn81bvJeTESw724CRDs6HbuccFQN9Ku14VQrADWgqbhhTHBaohPX4CjNLf9fq9MYo6oD"
         "aPPLPxSb7gwQN3ih19Zm4Y",
         "xprv9uPDJpEQgRQfDcW7BkF7eTya6RPxXeJCqCJGHuCJ4GiRVLzkTXBAJMu2qaMWPrS7AANYqdq6vcBcBUdJCVVFc"
         "eUvJFjaPdGZ2y9WACViL4L"}}},
      {"v4",
       "3ddd5602285899a946114506157c7997e5444528f3003f6134712147db19b678",
       {{0,
         "xpub661MyMwAqRbcGczjuMoRm6dXaLDEhW1u34gKenbeYqAix21mdUKJyuyu5F1rzYGVxyL6tmgBUAEPrEz92mBXj"
         "ByMRiJdba9wpnN37RLLAXa",
         "xprv9s21ZrQH143K48vGoLGRPxgo2JNkJ3J3fqkirQC2zVdk5Dgd5w14S7fRDyHH4dWNHUgkvsvNDCkvAwcSHNAQw"
         "hwgNMgZhLtQC63zxwhQmRv"},
        {kH | 0,
         "xpub69AUMk3qDBi3uW1sXgjCmVjJ2G6WQoYSnNHyzkmdCHEhSZ4tBok37xfFEqHd2AddP56Tqp4o56AePAgCjYdvp"
         "W2PU2jbUPFKsav5ut6Ch1m",
         "xprv9vB7xEWwNp9kh1wQRfCCQMnZUEG21LpbR9NPCNN1dwhiZkjjeGRnaALmPXCX7SgjFTiCTT6bXes17boXtjq3x"
         "LpcDjzEuGLQBM5ohqkao9G"},
        {kH | 1,
         "xpub6BJA1jSqiukeaesWfxe6sNK9CCGaujFFSJLomWHprUL9DePQ4JDkM5d88n49sMGJxrhpjazuXYWdMf17C9T5X"
         "nxkopaeS7jGk1GyyVziaMt",
         "xprv9xJocDuwtYCMNAo3Zw76WENQeAS6WGXQ55RCy7tDJ8oALr4FWkuVoHJeHVAcAqiZLE7Je3vZJHxspZdFHfnBE"
         "jHqU5hG1Jaj32dVoS6XLT1"}}},
  };
  return v;
}

TEST(BchainKeys, Bip32VectorsAreMadeAndDerivedInTheHsm) {
  Session s;
  for (const Vector &v : Bip32Vectors()) {
    const Bytes seed = Hex(v.seed);
    std::string parent = std::string("bip32_") + v.name + "_0";
    ASSERT_EQ(QBchainCreateXPrv(s.get(), parent.c_str(), QL_BCHAIN_XPRV_BIP32, seed.data(),
                                static_cast<uint32_t>(seed.size()), QL_KEY_EXPORTABLE),
              QL_OK)
        << v.name;
    for (size_t depth = 0; depth < v.chain.size(); ++depth) {
      const Step &step = v.chain[depth];
      std::string name = parent;
      QL_BCHAIN_KEY_INFO info{};
      if (depth > 0) {
        name = std::string("bip32_") + v.name + "_" + std::to_string(depth);
        ASSERT_EQ(QBchainCreateBip32Ckd(s.get(), parent.c_str(), name.c_str(), 0, step.index,
                                        QL_KEY_EXPORTABLE, &info),
                  QL_OK)
            << name;
        EXPECT_EQ(info.dwDepth, depth);
        EXPECT_EQ(info.dwIndex, step.index);
      } else {
        ASSERT_EQ(QBchainGetKeyInfo(s.get(), name.c_str(), &info), QL_OK);
        EXPECT_EQ(info.dwDepth, 0u);
      }
      EXPECT_EQ(info.dwType, static_cast<uint32_t>(QL_BCHAIN_KEY_EXTENDED));
      EXPECT_EQ(info.dwVersion, static_cast<uint32_t>(QL_BCHAIN_XPRV_MAIN));
      EXPECT_EQ(Export(s.get(), name, QL_BCHAIN_FORMAT_XPRV), step.xprv) << name;
      EXPECT_EQ(Export(s.get(), name, QL_BCHAIN_FORMAT_XPUB), step.xpub) << name;
      // The key info and the public key call agree on the key.
      EXPECT_EQ(Bytes(info.pbPublicKey, info.pbPublicKey + info.dwPublicKeyLen),
                PubKey(s.get(), name, QL_BCHAIN_PBK_COMPRESSED));
      parent = name;
    }
  }
}

TEST(BchainKeys, PublicOnlyKeysDeriveNormalChildrenOnly) {
  Session s;
  const Vector &v1 = Bip32Vectors()[0];
  ASSERT_EQ(Import(s.get(), "pub_m0h", QL_BCHAIN_FORMAT_XPUB, v1.chain[1].xpub), QL_OK);
  QL_BCHAIN_KEY_INFO info{};
  ASSERT_EQ(QBchainGetKeyInfo(s.get(), "pub_m0h", &info), QL_OK);
  EXPECT_EQ(info.dwType, static_cast<uint32_t>(QL_BCHAIN_KEY_EXTENDED_PUBLIC));
  EXPECT_EQ(info.dwVersion, static_cast<uint32_t>(QL_BCHAIN_XPUB_MAIN));
  ASSERT_EQ(QBchainCreateBip32Ckd(s.get(), "pub_m0h", "pub_m0h_1", 0, 1, 0, &info), QL_OK);
  EXPECT_EQ(Export(s.get(), "pub_m0h_1", QL_BCHAIN_FORMAT_XPUB), v1.chain[2].xpub);
  EXPECT_EQ(QBchainCreateBip32Ckd(s.get(), "pub_m0h", "pub_hard", 0, kH | 1, 0, &info),
            QL_ERR_BAD_KEY_USAGE);
  int rc = 0;
  Export(s.get(), "pub_m0h", QL_BCHAIN_FORMAT_XPRV, &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_KEY_USAGE);
  const Bytes digest(32, 7);
  Sign(s.get(), "pub_m0h", QL_BCHAIN_SIG_DER, digest, &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_KEY_USAGE);
  // A testnet version on the way: the child serialises as tprv.
  ASSERT_EQ(Import(s.get(), "xprv_m", QL_BCHAIN_FORMAT_XPRV, v1.chain[0].xprv), QL_OK);
  ASSERT_EQ(QBchainCreateBip32Ckd(s.get(), "xprv_m", "tprv_child", QL_BCHAIN_XPRV_TEST, 0,
                                  QL_KEY_EXPORTABLE, &info),
            QL_OK);
  EXPECT_EQ(Export(s.get(), "tprv_child", QL_BCHAIN_FORMAT_XPRV).substr(0, 4), "tprv");
}

TEST(BchainKeys, Vector5KeysAreRefusedOnImport) {
  Session s;
  const char *invalid[] = {
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6LBpB85b3D2yc8sfvZU521AAwdZafEz7"
      "mnzBBsz4wKY5fTtTQBm",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFGTQQD3dC4H2D5GBj7vWvSQaaBv5cxi9"
      "gafk7NF3pnBju6dwKvH",
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6Txnt3siSujt9RCVYsx4qHZGc62TG4Mc"
      "vMGcAUjeuwZdduYEvFn",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFGpWnsj83BHtEy5Zt8CcDr1UiRXuWCmT"
      "QLxEK9vbz5gPstX92JQ",
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6N8ZMMXctdiCjxTNq964yKkwrkBJJwpz"
      "ZS4HS2fxvyYUA4q2Xe4",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFAzHGBP2UuGCqWLTAPLcMtD9y5gkZ6Eq"
      "3Rjuahrv17fEQ3Qen6J",
      "xprv9s2SPatNQ9Vc6GTbVMFPFo7jsaZySyzk7L8n2uqKXJen3KUmvQNTuLh3fhZMBoG3G4ZW1N2kZuHEPY53qmbZzCHs"
      "hoQnNf4GvELZfqTUrcv",
      "xpub661no6RGEX3uJkY4bNnPcw4URcQTrSibUZ4NqJEw5eBkv7ovTwgiT91XX27VbEXGENhYRCf7hyEbWrR3FewATdCE"
      "ebj6znwMfQkhRYHRLpJ",
      "xprv9s21ZrQH4r4TsiLvyLXqM9P7k1K3EYhA1kkD6xuquB5i39AU8KF42acDyL3qsDbU9NmZn6MsGSUYZEsuoePmjzsB"
      "3eFKSUEh3Gu1N3cqVUN",
      "xpub661MyMwAuDcm6CRQ5N4qiHKrJ39Xe1R1NyfouMKTTWcguwVcfrZJaNvhpebzGerh7gucBvzEQWRugZDuDXjNDRmX"
      "zSZe4c7mnTK97pTvGS8",
      "DMwo58pR1QLEFihHiXPVykYB6fJmsTeHvyTp7hRThAtCX8CvYzgPcn8XnmdfHGMQzT7ayAmfo4z3gY5KfbrZWZ6St24U"
      "Vf2Qgo6oujFktLHdHY4",
      "DMwo58pR1QLEFihHiXPVykYB6fJmsTeHvyTp7hRThAtCX8CvYzgPcn8XnmdfHPmHJiEDXkTiJTVV9rHEBUem2mwVbbNf"
      "vT2MTcAqj3nesx8uBf9",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzF93Y5wvzdUayhgkkFoicQZcP3y52uPPx"
      "FnfoLZB21Teqt1VvEHx",
      "xprv9s21ZrQH143K24Mfq5zL5MhWK9hUhhGbd45hLXo2Pq2oqzMMo63oStZzFAzHGBP2UuGCqWLTAPLcMtD5SDKr24z3"
      "aiUvKr9bJpdrcLg1y3G",
      "xpub661MyMwAqRbcEYS8w7XLSVeEsBXy79zSzH1J8vCdxAZningWLdN3zgtU6Q5JXayek4PRsn35jii4veMimro1xefs"
      "M58PgBMrvdYre8QyULY",
      "xprv9s21ZrQH143K3QTDL4LXw2F7HEK3wJUD2nW2nRk4stbPy6cq3jPPqjiChkVvvNKmPGJxWUtg6LnF5kejMRNNU3TG"
      "tRBeJgk33yuGBxrMPHL",
  };
  int n = 0;
  for (const char *text : invalid) {
    const std::string name = "v5_" + std::to_string(n++);
    for (uint32_t format : {QL_BCHAIN_FORMAT_XPRV, QL_BCHAIN_FORMAT_XPUB}) {
      const int rc = Import(s.get(), name, format, text);
      EXPECT_TRUE(rc == QL_ERR_BCHAIN_INVALID_KEY || rc == QL_ERR_BCHAIN_BAD_ENCODING)
          << text << " answered " << rc;
    }
  }
  // A private key of 0 or past n is out of range, not malformed.
  EXPECT_EQ(Import(s.get(), "v5_zero", QL_BCHAIN_FORMAT_XPRV, invalid[12]),
            QL_ERR_BCHAIN_INVALID_KEY);
  EXPECT_EQ(Import(s.get(), "v5_raw0", QL_BCHAIN_FORMAT_RAW, std::string(32, '\0')),
            QL_ERR_BCHAIN_INVALID_KEY);
}

TEST(BchainKeys, AddressesOfPublishedKeys) {
  Session s;
  // BIP86: the first receiving address of the first account.
  ASSERT_EQ(Import(s.get(), "bip86_root", QL_BCHAIN_FORMAT_XPRV,
                   "xprv9s21ZrQH143K3GJpoapnV8SFfukcVBSfeCficPSGfubmSFDxo1kuHnLisriDvSnRRuL2Qrg5"
                   "ggqHKNVpxR86QEC8w35uxmGoggxtQTPvfUu"),
            QL_OK);
  std::string parent = "bip86_root";
  int depth = 0;
  for (uint32_t index : {kH | 86, kH | 0, kH | 0, 0u, 0u}) {
    const std::string child = "bip86_" + std::to_string(++depth);
    ASSERT_EQ(QBchainCreateBip32Ckd(s.get(), parent.c_str(), child.c_str(), 0, index, 0, nullptr),
              QL_OK);
    parent = child;
  }
  EXPECT_EQ(Address(s.get(), parent, QL_BCHAIN_ADDR_P2TR),
            "bc1p5cyxnuxmeuwuvkwfem96lqzszd02n6xdcjrs20cac6yqjjwudpxqkedrcr");
  // Private key 1: BIP173's first P2WPKH address; its testnet twin by the version.
  std::string one(31, '\0');
  one += '\x01';
  ASSERT_EQ(Import(s.get(), "key_one", QL_BCHAIN_FORMAT_RAW, one), QL_OK);
  EXPECT_EQ(Address(s.get(), "key_one", QL_BCHAIN_ADDR_P2WPKH),
            "bc1qw508d6qejxtdg4y5r3zarvary0c5xw7kv8f3t4");
  EXPECT_EQ(Address(s.get(), "key_one", QL_BCHAIN_ADDR_P2WPKH, QL_BCHAIN_ADDR_TESTNET),
            "tb1qw508d6qejxtdg4y5r3zarvary0c5xw7kxpjzsx");
  // A plain key has no BIP32 data to serialise or derive from.
  int rc = 0;
  Export(s.get(), "key_one", QL_BCHAIN_FORMAT_XPUB, &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_KEY_USAGE);
}

// An independent secp256k1 signer: RFC 6979 section 3.2 nonces (HMAC-SHA256), S made low; it
// prints the compressed public key, the DER signature, the compressed mainnet WIF and the P2PKH
// address of a private key and a digest.
constexpr const char *kRecompute = R"PY(
import sys, hashlib, hmac
P = 2**256 - 2**32 - 977
N = 0xFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFEBAAEDCE6AF48A03BBFD25E8CD0364141
G = (0x79BE667EF9DCBBAC55A06295CE870B07029BFCDB2DCE28D959F2815B16F81798,
     0x483ADA7726A3C4655DA4FBFC0E1108A8FD17B448A68554199C47D08FFB10D4B8)
def add(a, b):
    if a is None: return b
    if b is None: return a
    if a[0] == b[0] and (a[1] + b[1]) % P == 0: return None
    if a == b: l = 3 * a[0] * a[0] * pow(2 * a[1], -1, P) % P
    else: l = (b[1] - a[1]) * pow(b[0] - a[0], -1, P) % P
    x = (l * l - a[0] - b[0]) % P
    return (x, (l * (a[0] - x) - a[1]) % P)
def mul(k, pt):
    r = None
    while k:
        if k & 1: r = add(r, pt)
        pt = add(pt, pt); k >>= 1
    return r
def mac(k, m): return hmac.new(k, m, hashlib.sha256).digest()
def der_int(v):
    b = v.to_bytes(33, 'big').lstrip(b'\0')
    if b[0] & 0x80: b = b'\0' + b
    return b'\x02' + bytes([len(b)]) + b
A = '123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz'
def b58check(p):
    p += hashlib.sha256(hashlib.sha256(p).digest()).digest()[:4]
    n = int.from_bytes(p, 'big'); s = ''
    while n: n, r = divmod(n, 58); s = A[r] + s
    return '1' * (len(p) - len(p.lstrip(b'\0'))) + s
d = int(sys.argv[1], 16); z = bytes.fromhex(sys.argv[2])
x = d.to_bytes(32, 'big'); h = (int.from_bytes(z, 'big') % N).to_bytes(32, 'big')
V = b'\x01' * 32; K = b'\x00' * 32
K = mac(K, V + b'\x00' + x + h); V = mac(K, V)
K = mac(K, V + b'\x01' + x + h); V = mac(K, V)
while True:
    V = mac(K, V); k = int.from_bytes(V, 'big')
    if 1 <= k < N: break
    K = mac(K, V + b'\x00'); V = mac(K, V)
r = mul(k, G)[0] % N
s = pow(k, -1, N) * (int.from_bytes(z, 'big') + r * d) % N
if s > N // 2: s = N - s
body = der_int(r) + der_int(s)
Q = mul(d, G)
pub = bytes([2 + (Q[1] & 1)]) + Q[0].to_bytes(32, 'big')
h160 = hashlib.new('ripemd160', hashlib.sha256(pub).digest()).digest()
print(pub.hex(), (b'\x30' + bytes([len(body)]) + body).hex(), b58check(b'\x80' + x + b'\x01'),
      b58check(b'\x00' + h160))
)PY";

std::string Capture(const std::string &command) {
  std::string out;
  FILE *p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[512];
  while (fgets(buf, sizeof buf, p)) out += buf;
  pclose(p);
  return out;
}

void WriteFile(const std::string &path, const void *data, size_t n) {
  std::ofstream f(path, std::ios::binary);
  f.write(static_cast<const char *>(data), static_cast<std::streamsize>(n));
}

TEST(BchainKeys, EcdsaWifAndP2pkhAgreeWithAnIndependentSigner) {
  Session s;
  const Bytes secret = Sha256Of(s.get(), "a test key of the blockchain keys");
  ASSERT_EQ(
      Import(s.get(), "ecdsa_key", QL_BCHAIN_FORMAT_RAW, std::string(secret.begin(), secret.end())),
      QL_OK);
  const Bytes digest = Sha256Of(s.get(), "a message to sign");
  const Bytes der = Sign(s.get(), "ecdsa_key", QL_BCHAIN_SIG_DER, digest);
  ASSERT_FALSE(der.empty());

  char dir_template[] = "/tmp/bchain_e2e_XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  const std::string dir = dir_template;
  WriteFile(dir + "/recompute.py", kRecompute, std::strlen(kRecompute));
  const std::string expected = HexOf(PubKey(s.get(), "ecdsa_key", QL_BCHAIN_PBK_COMPRESSED)) + " " +
                               HexOf(der) + " " +
                               Export(s.get(), "ecdsa_key", QL_BCHAIN_FORMAT_WIF) + " " +
                               Address(s.get(), "ecdsa_key", QL_BCHAIN_ADDR_P2PKH) + "\n";
  EXPECT_EQ(
      Capture("/usr/bin/python3 " + dir + "/recompute.py " + HexOf(secret) + " " + HexOf(digest)),
      expected);

  // openssl checks the DER signature with the public key in a SubjectPublicKeyInfo.
  Bytes spki = Hex("3036301006072a8648ce3d020106052b8104000a032200");
  const Bytes pub = PubKey(s.get(), "ecdsa_key", QL_BCHAIN_PBK_COMPRESSED);
  spki.insert(spki.end(), pub.begin(), pub.end());
  WriteFile(dir + "/pub.der", spki.data(), spki.size());
  WriteFile(dir + "/digest.bin", digest.data(), digest.size());
  WriteFile(dir + "/sig.der", der.data(), der.size());
  const std::string verify = "openssl pkeyutl -verify -pubin -keyform DER -inkey " + dir +
                             "/pub.der -in " + dir + "/digest.bin -sigfile " + dir +
                             "/sig.der >/dev/null 2>&1";
  EXPECT_EQ(std::system(verify.c_str()), 0);
  Bytes other = digest;
  other[0] ^= 1;
  WriteFile(dir + "/digest.bin", other.data(), other.size());
  EXPECT_NE(std::system(verify.c_str()), 0);
  std::system(("rm -rf " + dir).c_str());

  // Compact signatures recover the signer's key, and only for the digest signed; Schnorr
  // signatures verify against the x-only key.
  const Bytes compact = Sign(s.get(), "ecdsa_key", QL_BCHAIN_SIG_COMPACT, digest);
  ASSERT_EQ(compact.size(), 65u);
  Bytes recovered(65);
  uint32_t len = 65;
  ASSERT_EQ(
      QBchainRecoverPbkFromSignature(s.get(), QL_BCHAIN_SIG_COMPACT, QL_BCHAIN_HASH_SHA256,
                                     digest.data(), 32, compact.data(), 65, recovered.data(), &len),
      QL_OK);
  recovered.resize(len);
  EXPECT_EQ(recovered, pub);
  len = 65;
  recovered.assign(65, 0);
  const int rc =
      QBchainRecoverPbkFromSignature(s.get(), QL_BCHAIN_SIG_COMPACT, QL_BCHAIN_HASH_SHA256,
                                     other.data(), 32, compact.data(), 65, recovered.data(), &len);
  if (rc == QL_OK) {
    EXPECT_NE(Bytes(recovered.begin(), recovered.begin() + len), pub);
  }
  const Bytes schnorr = Sign(s.get(), "ecdsa_key", QL_BCHAIN_SIG_SCHNORR, digest);
  const Bytes xonly = PubKey(s.get(), "ecdsa_key", QL_BCHAIN_PBK_XONLY);
  EXPECT_EQ(QBchainVerify(s.get(), QL_BCHAIN_SIG_SCHNORR, QL_BCHAIN_HASH_SHA256, digest.data(), 32,
                          schnorr.data(), static_cast<uint32_t>(schnorr.size()),
                          QL_BCHAIN_PBK_XONLY, xonly.data(), 32),
            QL_OK);
}

TEST(BchainKeys, RefusalsAndGeneratedKeys) {
  Session s;
  const Bytes seed(16, 0x42);
  const Bytes digest(32, 0x11);
  ASSERT_EQ(QBchainCreateXPrv(s.get(), "locked", QL_BCHAIN_XPRV_BIP32, seed.data(), 16, 0), QL_OK);
  // Not exportable: every private form is refused, the public one is not.
  for (uint32_t format : {QL_BCHAIN_FORMAT_RAW, QL_BCHAIN_FORMAT_WIF, QL_BCHAIN_FORMAT_XPRV}) {
    int rc = 0;
    Export(s.get(), "locked", format, &rc);
    EXPECT_EQ(rc, QL_ERR_NOT_EXPORTABLE) << format;
  }
  int rc = 0;
  EXPECT_EQ(Export(s.get(), "locked", QL_BCHAIN_FORMAT_XPUB, &rc).substr(0, 4), "xpub");
  // Seeds of 16 to 64 bytes; 32-byte digests; HASH160 is no digest to sign.
  EXPECT_EQ(QBchainCreateXPrv(s.get(), "short", QL_BCHAIN_XPRV_BIP32, seed.data(), 15, 0),
            QL_ERR_BAD_LENGTH);
  Sign(s.get(), "locked", QL_BCHAIN_SIG_DER, Bytes(20, 1), &rc);
  EXPECT_EQ(rc, QL_ERR_BAD_LENGTH);
  EXPECT_EQ(QBchainCreateXPrv(s.get(), "locked", QL_BCHAIN_XPRV_BIP32, seed.data(), 16, 0),
            QL_ERR_OBJ_EXISTS);
  // The generic signature call does not use a blockchain key.
  unsigned char sig[128];
  uint32_t sig_len = sizeof sig;
  EXPECT_EQ(QSignHashedData(s.get(), "locked", QL_PAD_NONE, digest.data(), 32, QL_ALG_SHA256, sig,
                            &sig_len, 0),
            QL_ERR_BAD_KEY_USAGE);

  // gen-key with the blockchain flag: a BIP32 master of secp256k1, and only that curve.
  HKEYCTX key = nullptr;
  ASSERT_EQ(QGenerateKey(s.get(), "generated", QL_ALG_ECC_SECP256K1,
                         QL_KEY_BLOCKCHAIN | QL_KEY_EXPORTABLE, &key),
            QL_OK);
  QDestroyKey(&key, 0);
  QL_BCHAIN_KEY_INFO info{};
  ASSERT_EQ(QBchainGetKeyInfo(s.get(), "generated", &info), QL_OK);
  EXPECT_EQ(info.dwType, static_cast<uint32_t>(QL_BCHAIN_KEY_EXTENDED));
  EXPECT_EQ(info.dwDepth, 0u);
  EXPECT_EQ(Sign(s.get(), "generated", QL_BCHAIN_SIG_COMPACT, digest).size(), 65u);
  EXPECT_EQ(QGenerateKey(s.get(), "rsa_chain", QL_ALG_RSA2048, QL_KEY_BLOCKCHAIN, &key),
            QL_ERR_BAD_ALGORITHM);
  // A temporary key lives in the session and needs no right.
  ASSERT_EQ(QBchainCreateXPrv(s.get(), "tmp_key", QL_BCHAIN_XPRV_BIP32_TESTNET, seed.data(), 16,
                              QL_KEY_TEMPORARY | QL_KEY_EXPORTABLE),
            QL_OK);
  EXPECT_EQ(Export(s.get(), "tmp_key", QL_BCHAIN_FORMAT_XPRV).substr(0, 4), "tprv");

  // Rights: making needs the create right, using a key the right to use it.
  ASSERT_EQ(qltest::CreateUser(s.get(), "bchain_nobody", "pw-bchain", 0), QL_OK);
  qltest::OpenedSession nobody("bchain_nobody", "pw-bchain");
  EXPECT_EQ(QBchainCreateXPrv(nobody.get(), "mine", QL_BCHAIN_XPRV_BIP32, seed.data(), 16, 0),
            QL_ERR_ACCESS_DENIED);
  Sign(nobody.get(), "master/generated", QL_BCHAIN_SIG_DER, digest, &rc);
  EXPECT_EQ(rc, QL_ERR_ACCESS_DENIED);
  QL_BCHAIN_KEY_INFO none{};
  EXPECT_EQ(QBchainGetKeyInfo(nobody.get(), "master/generated", &none), QL_ERR_ACCESS_DENIED);
}

}  // namespace
