// Secure messages: encoded here and taken apart by the openssl command (C14 opened with the
// destination's key, the body deciphered, C15 verified), decoded in pieces, and every kind of
// tampering answered the same way.
#include "crypto/spb.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "crypto/algorithms.h"
#include "test_util.h"

namespace qlhsm::crypto::spb {
namespace {

namespace fs = std::filesystem;

Bytes Body(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>('a' + i % 26);
  return b;
}

struct Encoded {
  Header header;
  Bytes body;
};

Encoded Encode(const Key &sender, const Key &dest, uint8_t version, bool sign_only,
               const Bytes &plain) {
  EncodeParams p;
  p.version = version;
  p.sign_only = sign_only;
  p.error_code = 7;
  const Bytes ds = {0x01, 0x02};
  const Bytes ss = {0x7F};
  p.destination_serial = ds;
  p.sender_serial = ss;
  p.message_len = plain.size();
  auto e = Encoder::Start(sender, dest, p);
  EXPECT_TRUE(e.ok());
  Encoded out;
  // Pieces of awkward sizes.
  size_t at = 0;
  for (size_t piece : {size_t{7}, size_t{500}, plain.size()}) {
    const size_t n = std::min(piece, plain.size() - at);
    Result<Bytes> part = (*e)->Update(ByteView(plain).subspan(at, n));
    EXPECT_TRUE(part.ok());
    out.body.insert(out.body.end(), part->begin(), part->end());
    at += n;
  }
  Result<Header> h = (*e)->Finish();
  EXPECT_TRUE(h.ok());
  out.header = *h;
  return out;
}

// Decodes in pieces of 16 bytes; the body and Finish's code.
std::pair<Bytes, Code> Decode(const Encoded &m, const Key &local, const Key &sender,
                              bool keep_padding = false) {
  DecodeParams p;
  p.message_len = m.body.size();
  p.keep_padding = keep_padding;
  auto d = Decoder::Start(m.header, local, sender, p);
  if (!d.ok()) return {{}, d.code()};
  Bytes out;
  for (size_t at = 0; at < m.body.size(); at += 16) {
    Result<Bytes> part =
        (*d)->Update(ByteView(m.body).subspan(at, std::min<size_t>(16, m.body.size() - at)));
    out.insert(out.end(), part->begin(), part->end());
  }
  return {out, (*d)->Finish().code()};
}

class SpbTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    sender_ = *Key::Generate(alg::kRsa2048);
    dest_ = *Key::Generate(alg::kRsa2048);
    dir_ = fs::temp_directory_path() / ("qlhsm_spb_" + std::to_string(getpid()));
    fs::create_directories(dir_);
    WritePem(dir_ / "dest.pem", dest_->pkey(), true);
    WritePem(dir_ / "sender_pub.pem", sender_->pkey(), false);
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }
  static void WritePem(const fs::path &path, EVP_PKEY *pkey, bool priv) {
    FILE *f = fopen(path.c_str(), "w");
    if (priv) {
      PEM_write_PrivateKey(f, pkey, nullptr, nullptr, 0, nullptr, nullptr);
    } else {
      PEM_write_PUBKEY(f, pkey);
    }
    fclose(f);
  }
  static void Write(const char *name, ByteView data) {
    std::ofstream(dir_ / name, std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()),
               static_cast<std::streamsize>(data.size()));
  }
  static std::string Run(const std::string &cmd) {
    const std::string full = "cd '" + dir_.string() + "' && " + cmd + " 2>/dev/null";
    std::string out;
    FILE *p = popen(full.c_str(), "r");
    char buf[4096];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
  }

  static KeyPtr sender_;
  static KeyPtr dest_;
  static fs::path dir_;
};
KeyPtr SpbTest::sender_;
KeyPtr SpbTest::dest_;
fs::path SpbTest::dir_;

TEST_F(SpbTest, TheOpensslCommandOpensWhatIsEncoded) {
  const Bytes plain = Body(1000);
  Write("plain.bin", plain);
  for (uint8_t version : {uint8_t{2}, uint8_t{3}}) {
    const Encoded m = Encode(*sender_, *dest_, version, false, plain);
    const std::array<uint8_t, kHeaderLen> bytes = SerializeHeader(m.header);
    EXPECT_EQ(bytes[0], 0x02);
    EXPECT_EQ(bytes[1], 0x4C);
    EXPECT_EQ(bytes[3], 7);           // C03 as given
    EXPECT_EQ(bytes[11 + 30], 0x01);  // C11 right-aligned
    EXPECT_EQ(bytes[11 + 31], 0x02);
    EXPECT_EQ(bytes[44 + 31], 0x7F);  // C13
    Write("c14.bin", m.header.session_key);
    Write("c15.bin", m.header.signature);
    Write("body.bin", m.body);
    std::string key =
        Run("openssl pkeyutl -decrypt -inkey dest.pem -in c14.bin | od -An -v -tx1 | tr -d ' \\n'");
    key.erase(key.find_last_not_of("\n") + 1);
    ASSERT_EQ(key.size(), version == 2 ? 48u : 64u);
    const std::string cipher = version == 2 ? "-des-ede3-cbc" : "-aes-256-cbc";
    const std::string iv(version == 2 ? 16 : 32, '0');
    const std::string clear =
        Run("openssl enc -d " + cipher + " -K " + key + " -iv " + iv + " -in body.bin");
    EXPECT_EQ(clear, std::string(plain.begin(), plain.end())) << int(version);
    const std::string digest = version == 2 ? "-sha1" : "-sha256";
    EXPECT_EQ(
        Run("openssl dgst " + digest + " -verify sender_pub.pem -signature c15.bin plain.bin"),
        "Verified OK\n");
  }
}

TEST_F(SpbTest, DecodesInPiecesWithAndWithoutPadding) {
  for (size_t n : {size_t{1}, size_t{16}, size_t{1000}}) {
    const Bytes plain = Body(n);
    const Encoded m = Encode(*sender_, *dest_, 3, false, plain);
    EXPECT_EQ(m.body.size(), (n / 16 + 1) * 16);
    auto [out, code] = Decode(m, *dest_, *sender_);
    EXPECT_EQ(code, Code::kOk) << n;
    EXPECT_EQ(out, plain);
    auto [padded, code2] = Decode(m, *dest_, *sender_, true);
    EXPECT_EQ(code2, Code::kOk);
    EXPECT_EQ(padded.size(), m.body.size());
  }
  // Sign only: the body passes in the clear.
  const Encoded m = Encode(*sender_, *dest_, 3, true, Body(100));
  EXPECT_EQ(m.body, Body(100));
  EXPECT_EQ(m.header.cipher, 0);
  EXPECT_EQ(Decode(m, *dest_, *sender_).second, Code::kOk);
}

TEST_F(SpbTest, EveryTamperingAnswersTheSameCode) {
  const Encoded good = Encode(*sender_, *dest_, 3, false, Body(100));
  auto tampered = [&](auto change) {
    Encoded m = good;
    change(m);
    return Decode(m, *dest_, *sender_).second;
  };
  EXPECT_EQ(tampered([](Encoded &m) { m.body[3] ^= 1; }), Code::kBadSignature);
  EXPECT_EQ(tampered([](Encoded &m) { m.body.back() ^= 1; }), Code::kBadSignature);
  EXPECT_EQ(tampered([](Encoded &m) { m.header.session_key[100] ^= 1; }), Code::kBadSignature);
  EXPECT_EQ(tampered([](Encoded &m) { m.header.signature[0] ^= 1; }), Code::kBadSignature);
  // The wrong keys: another destination cannot open it, another sender did not sign it.
  KeyPtr other = *Key::Generate(alg::kRsa2048);
  EXPECT_EQ(Decode(good, *other, *sender_).second, Code::kBadSignature);
  EXPECT_EQ(Decode(good, *dest_, *other).second, Code::kBadSignature);
}

TEST_F(SpbTest, LengthsHeadersAndKeysAreChecked) {
  const Encoded m = Encode(*sender_, *dest_, 3, false, Body(100));
  DecodeParams p;
  p.message_len = m.body.size() - 1;
  EXPECT_EQ(Decoder::Start(m.header, *dest_, *sender_, p).code(), Code::kBadLength);
  p.message_len = m.body.size();
  auto d = Decoder::Start(m.header, *dest_, *sender_, p);
  ASSERT_TRUE(d.ok());
  ASSERT_TRUE((*d)->Update(ByteView(m.body).subspan(0, 16)).ok());
  EXPECT_EQ((*d)->Finish().code(), Code::kBadLength);  // short body

  const std::array<uint8_t, kHeaderLen> bytes = SerializeHeader(m.header);
  EXPECT_TRUE(ParseHeader(bytes).ok());
  EXPECT_EQ(ParseHeader(ByteView(bytes).subspan(0, 587)).code(), Code::kBadData);
  for (size_t at : {size_t{1}, size_t{2}, size_t{5}, size_t{6}, size_t{7}, size_t{8}, size_t{9}}) {
    std::array<uint8_t, kHeaderLen> bad = bytes;
    bad[at] ^= 0x10;
    EXPECT_EQ(ParseHeader(bad).code(), Code::kBadData) << at;
  }
  std::array<uint8_t, kHeaderLen> ignored = bytes;
  ignored[10] = 9;  // C10 and C12 are not read
  ignored[43] = 9;
  EXPECT_TRUE(ParseHeader(ignored).ok());
  const Encoded v2 = Encode(*sender_, *dest_, 2, false, Body(10));
  EXPECT_EQ(ParseHeader(SerializeHeader(v2.header), true).code(), Code::kBadData);

  EncodeParams ep;
  ep.message_len = 1;
  KeyPtr small = *Key::Generate(alg::kRsa1024);
  EXPECT_EQ(Encoder::Start(*small, *dest_, ep).code(), Code::kKeyCannotDo);
  auto e = Encoder::Start(*sender_, *dest_, ep);
  ASSERT_TRUE(e.ok());
  EXPECT_EQ((*e)->Update(Body(2)).code(), Code::kBadLength);
  EXPECT_EQ((*e)->Finish().code(), Code::kBadLength);
  EXPECT_EQ(SerialField(Bytes(33, 1)).code(), Code::kBadLength);
}

}  // namespace
}  // namespace qlhsm::crypto::spb
