// SPB secure messages through the library against a real qlhsmd: round trips in both versions
// and sign only, every header field and the body tampered with, the openssl command reading what
// the HSM wrote, and an institution set up as an operator would (key, CSR, a CA's certificate,
// import, activation) exchanging messages with the default one.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

using Bytes = std::vector<unsigned char>;
namespace fs = std::filesystem;

constexpr const char *kDefaultIspb = "11111111";
constexpr const char *kOtherIspb = "22222222";

struct Encoded {
  int rc = -1;
  Bytes header;
  Bytes body;
};

// Encodes `plain` in pieces of at most `piece` bytes (the last Cont gets room for the padding).
Encoded Encode(HSESSIONCTX s, const char *local, const char *remote, const Bytes &plain,
               uint32_t flags, uint32_t piece = 32768, unsigned char c3 = 0, unsigned char c4 = 0) {
  Encoded e;
  HSPBMSGCTX msg = nullptr;
  e.rc = QSPBEncodeInit(s, local, remote, static_cast<uint32_t>(plain.size()), c3, c4, &msg, flags);
  if (e.rc != 0) return e;
  for (size_t done = 0; done < plain.size() && e.rc == 0;) {
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(piece, plain.size() - done));
    Bytes out(n + 16);
    uint32_t out_len = static_cast<uint32_t>(out.size());
    e.rc = QSPBEncodeCont(msg, plain.data() + done, n, out.data(), &out_len);
    e.body.insert(e.body.end(), out.begin(), out.begin() + (e.rc == 0 ? out_len : 0));
    done += n;
  }
  e.header.resize(QL_SPB_HEADER_LEN);
  uint32_t len = QL_SPB_HEADER_LEN;
  const int end = QSPBEncodeEnd(&msg, e.header.data(), &len);
  if (e.rc == 0) e.rc = end;
  EXPECT_EQ(msg, nullptr) << "End always releases the message";
  return e;
}

struct Decoded {
  int init = -1;
  int cont = 0;
  int end = -1;
  Bytes plain;
};

Decoded Decode(HSESSIONCTX s, const char *local, const char *remote, const Bytes &header,
               const Bytes &body, uint32_t flags, uint32_t piece = 32768,
               unsigned char accept_expired = 0) {
  Decoded d;
  HSPBMSGCTX msg = nullptr;
  d.init = QSPBDecodeInit(s, local, remote, header.data(), static_cast<uint32_t>(header.size()),
                          static_cast<uint32_t>(body.size()), accept_expired, 0, &msg, flags);
  if (d.init != 0) return d;
  for (size_t done = 0; done < body.size() && d.cont == 0;) {
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(piece, body.size() - done));
    Bytes out(n + 16);
    uint32_t out_len = static_cast<uint32_t>(out.size());
    d.cont = QSPBDecodeCont(msg, body.data() + done, n, out.data(), &out_len);
    if (d.cont == 0) d.plain.insert(d.plain.end(), out.begin(), out.begin() + out_len);
    done += n;
  }
  d.end = QSPBDecodeEnd(&msg);
  EXPECT_EQ(msg, nullptr);
  return d;
}

// Random bytes from the HSM, drawn a few KiB at a time.
Bytes RandomBytes(HSESSIONCTX s, size_t n) {
  Bytes b(n);
  for (size_t at = 0; at < n; at += 4096) {
    const auto len = static_cast<uint32_t>(std::min<size_t>(4096, n - at));
    EXPECT_EQ(QGetRandom(s, b.data() + at, len), 0);
  }
  return b;
}

// The default objects of the default ISPB (a key and its self-signed certificate, active), made
// for one test and removed after it.
class DefaultObjects {
 public:
  explicit DefaultObjects(HSESSIONCTX s, uint32_t flags = 0) : s_(s) {
    uint32_t len = sizeof name_;
    rc_ = QSPBGenerateKey(s, kDefaultIspb, name_, &len, QL_SPB_KEY_SELF_SIGNED | flags);
  }
  ~DefaultObjects() {
    if (rc_ != 0) return;
    QRemoveObj(s_, (std::string(name_) + ".crt").c_str());
    QRemoveObj(s_, name_);
  }
  int rc() const { return rc_; }
  const char *name() const { return name_; }

 private:
  HSESSIONCTX s_;
  char name_[QL_MAX_OBJ_NAME + 1] = {};
  int rc_ = -1;
};

class Spb : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(session_.rc(), 0);
    dir_ = fs::temp_directory_path() /
           ("ql_spb_" + std::to_string(getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  HSESSIONCTX s() const { return session_.get(); }
  std::string Path(const std::string &name) const { return (dir_ / name).string(); }
  void Write(const std::string &name, const Bytes &data) const {
    std::ofstream(Path(name), std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()),
               static_cast<std::streamsize>(data.size()));
  }
  Bytes Read(const std::string &name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  // A shell command in the test's folder; its exit status.
  int Sh(const std::string &command) const {
    const std::string line = "cd '" + dir_.string() + "' && (" + command + ") >/dev/null 2>&1";
    return std::system(line.c_str());
  }

  qltest::LibrarySession session_;
  fs::path dir_;
};

TEST_F(Spb, RoundTripsInBothVersionsAndSignOnly) {
  DefaultObjects defaults(s());
  ASSERT_EQ(defaults.rc(), 0);
  struct Mode {
    uint32_t flags;
    uint8_t version, cipher;
  };
  for (const Mode &m : {Mode{0, 2, 1}, Mode{QL_SPB_V3, 3, 2}, Mode{QL_SPB_GEN01, 2, 0},
                        Mode{QL_SPB_GEN01 | QL_SPB_V3, 3, 0}}) {
    for (size_t size : {size_t{1}, size_t{16}, size_t{32768}, size_t{100000}}) {
      SCOPED_TRACE("flags " + std::to_string(m.flags) + " size " + std::to_string(size));
      const Bytes plain = RandomBytes(s(), size);
      const Encoded e = Encode(s(), kDefaultIspb, kDefaultIspb, plain, m.flags, 32768, 0x5A, 7);
      ASSERT_EQ(e.rc, 0);
      const QL_SPB_HEADER *h = reinterpret_cast<const QL_SPB_HEADER *>(e.header.data());
      EXPECT_EQ((h->C01[0] << 8) | h->C01[1], QL_SPB_HEADER_LEN);
      EXPECT_EQ(h->C02, m.version);
      EXPECT_EQ(h->C03, 0x5A);
      EXPECT_EQ(h->C04, 7);
      EXPECT_EQ(h->C07, m.cipher);
      if (m.cipher == 0) {
        EXPECT_EQ(e.body, plain) << "sign only: the body passes in the clear";
        EXPECT_EQ(Bytes(h->C14, h->C14 + 256), Bytes(256, 0));
      } else {
        const size_t block = m.cipher == 1 ? 8 : 16;
        EXPECT_EQ(e.body.size(), (size / block + 1) * block) << "PKCS#7 padding";
      }
      // Decoded in pieces of another size than encoded.
      const Decoded d = Decode(s(), kDefaultIspb, kDefaultIspb, e.header, e.body, 0, 4096);
      EXPECT_EQ(d.init, 0);
      EXPECT_EQ(d.cont, 0);
      EXPECT_EQ(d.end, 0);
      EXPECT_EQ(d.plain, plain);
    }
  }
}

TEST_F(Spb, ExpiredCertificatesAreRefusedUnlessAccepted) {
  DefaultObjects defaults(s());
  ASSERT_EQ(defaults.rc(), 0);
  const Bytes plain = RandomBytes(s(), 100);
  const Encoded e = Encode(s(), kDefaultIspb, kDefaultIspb, plain, 0);
  ASSERT_EQ(e.rc, 0);
  // Two years on, the one-year self-signed certificate has expired; the clock goes back after.
  struct HsmClock {
    HSESSIONCTX s;
    void Set(uint64_t t) const {
      ASSERT_EQ(QAdmOperation(s, QL_ADM_SET_DATE_TIME, &t, sizeof t, nullptr, nullptr, 0), 0);
    }
    ~HsmClock() { Set(static_cast<uint64_t>(std::time(nullptr))); }
  } clock{s()};
  clock.Set(static_cast<uint64_t>(std::time(nullptr)) + 2 * 366 * 86400);
  EXPECT_EQ(Encode(s(), kDefaultIspb, kDefaultIspb, plain, 0).rc, QL_ERR_CERT_EXPIRED);
  EXPECT_EQ(Decode(s(), kDefaultIspb, kDefaultIspb, e.header, e.body, 0).init, QL_ERR_CERT_EXPIRED);
  const Decoded accepted = Decode(s(), kDefaultIspb, kDefaultIspb, e.header, e.body, 0, 32768, 1);
  EXPECT_EQ(accepted.end, 0);
  EXPECT_EQ(accepted.plain, plain);
}

TEST_F(Spb, TamperedFieldsAndBodyAreRefusedWithTheirCodes) {
  DefaultObjects defaults(s());
  ASSERT_EQ(defaults.rc(), 0);
  const Bytes plain = RandomBytes(s(), 100);
  const Encoded e = Encode(s(), kDefaultIspb, kDefaultIspb, plain, QL_SPB_V3);
  ASSERT_EQ(e.rc, 0);
  struct Flip {
    size_t at;  // offset in the header; past it, in the body
    const char *what;
    int init, end;
  };
  const Flip flips[] = {
      {0, "C01", QL_ERR_SPB_BAD_HEADER, 0},
      {2, "C02", QL_ERR_SPB_BAD_HEADER, 0},
      {5, "C05", QL_ERR_SPB_BAD_HEADER, 0},
      {6, "C06", QL_ERR_SPB_BAD_HEADER, 0},
      {7, "C07", QL_ERR_SPB_BAD_HEADER, 0},
      {8, "C08", QL_ERR_SPB_BAD_HEADER, 0},
      {9, "C09", QL_ERR_SPB_BAD_HEADER, 0},
      {42, "C11", QL_ERR_SPB_NO_CERT, 0},
      {75, "C13", QL_ERR_SPB_NO_CERT, 0},
      {76 + 100, "C14", 0, QL_ERR_BAD_SIGNATURE},
      {332 + 9, "C15", 0, QL_ERR_BAD_SIGNATURE},
      {588 + 40, "body", 0, QL_ERR_BAD_SIGNATURE},
      {588 + 100, "last block", 0, QL_ERR_BAD_SIGNATURE},
      // Outside the signature, as in the network's layout; C10 and C12 are not read.
      {3, "C03", 0, 0},
      {4, "C04", 0, 0},
      {10, "C10", 0, 0},
      {43, "C12", 0, 0},
  };
  for (const Flip &f : flips) {
    SCOPED_TRACE(f.what);
    Bytes header = e.header, body = e.body;
    (f.at < 588 ? header[f.at] : body[f.at - 588]) ^= 0x01;
    const Decoded d = Decode(s(), kDefaultIspb, kDefaultIspb, header, body, 0);
    EXPECT_EQ(d.init, f.init);
    if (f.init == 0) {
      EXPECT_EQ(d.end, f.end);
    }
    if (f.init == 0 && f.end == 0) {
      EXPECT_EQ(d.plain, plain);
    }
  }
  // A version 2 header refused when version 3 is demanded; a body of the wrong length.
  const Encoded v2 = Encode(s(), kDefaultIspb, kDefaultIspb, plain, 0);
  ASSERT_EQ(v2.rc, 0);
  EXPECT_EQ(Decode(s(), kDefaultIspb, kDefaultIspb, v2.header, v2.body, QL_SPB_V3).init,
            QL_ERR_SPB_BAD_HEADER);
  Bytes cut(e.body.begin(), e.body.end() - 1);
  EXPECT_EQ(Decode(s(), kDefaultIspb, kDefaultIspb, e.header, cut, 0).init, QL_ERR_BAD_LENGTH);
}

TEST_F(Spb, RefusalsOfTheMessageCalls) {
  const Bytes plain(40, 'x');
  // No certificate of either side yet.
  EXPECT_EQ(Encode(s(), "33333333", kDefaultIspb, plain, 0).rc, QL_ERR_SPB_NO_CERT);
  DefaultObjects defaults(s());
  ASSERT_EQ(defaults.rc(), 0);
  EXPECT_EQ(Encode(s(), kDefaultIspb, "33333333", plain, 0).rc, QL_ERR_SPB_NO_CERT);

  HSPBMSGCTX msg = nullptr;
  ASSERT_EQ(QSPBEncodeInit(s(), kDefaultIspb, kDefaultIspb, 40, 0, 0, &msg, QL_SPB_V3), 0);
  unsigned char out[128];
  uint32_t out_len = sizeof out;
  // More than announced fails the message; what follows answers 5023 until End drops it.
  Bytes too_much(41, 'x');
  EXPECT_EQ(QSPBEncodeCont(msg, too_much.data(), 41, out, &out_len), QL_ERR_BAD_LENGTH);
  out_len = sizeof out;
  EXPECT_EQ(QSPBEncodeCont(msg, plain.data(), 40, out, &out_len), QL_ERR_BAD_STATE);
  uint32_t header_len = sizeof out;
  EXPECT_EQ(QSPBEncodeEnd(&msg, out, &header_len), QL_ERR_BAD_STATE);
  EXPECT_EQ(msg, nullptr);

  // Too little body: End refuses; a short header buffer learns 588 and the message is gone.
  ASSERT_EQ(QSPBEncodeInit(s(), kDefaultIspb, kDefaultIspb, 40, 0, 0, &msg, 0), 0);
  out_len = sizeof out;
  EXPECT_EQ(QSPBEncodeCont(msg, plain.data(), 20, out, &out_len), 0);
  header_len = QL_SPB_HEADER_LEN;
  Bytes header(QL_SPB_HEADER_LEN);
  EXPECT_EQ(QSPBEncodeEnd(&msg, header.data(), &header_len), QL_ERR_BAD_LENGTH);
  ASSERT_EQ(QSPBEncodeInit(s(), kDefaultIspb, kDefaultIspb, 40, 0, 0, &msg, 0), 0);
  out_len = sizeof out;
  EXPECT_EQ(QSPBEncodeCont(msg, plain.data(), 40, out, &out_len), 0);
  header_len = 100;
  EXPECT_EQ(QSPBEncodeEnd(&msg, header.data(), &header_len), QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(header_len, static_cast<uint32_t>(QL_SPB_HEADER_LEN));
  EXPECT_EQ(msg, nullptr);

  // A message dies with its session.
  {
    qltest::LibrarySession other;
    ASSERT_EQ(QSPBEncodeInit(other.get(), kDefaultIspb, kDefaultIspb, 40, 0, 0, &msg, 0), 0);
  }
  out_len = sizeof out;
  EXPECT_NE(QSPBEncodeCont(msg, plain.data(), 40, out, &out_len), 0);
  EXPECT_NE(QSPBEncodeEnd(&msg, out, &header_len), 0);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(Spb, OpensslReadsWhatTheHsmWrote) {
  DefaultObjects defaults(s(), QL_KEY_EXPORTABLE);
  ASSERT_EQ(defaults.rc(), 0);
  HKEYCTX key = nullptr;
  ASSERT_EQ(QGetUserKey(s(), defaults.name(), 0, &key), 0);
  Bytes pkcs8(4096);
  uint32_t len = static_cast<uint32_t>(pkcs8.size());
  ASSERT_EQ(QExportKey(key, nullptr, QL_PRIVATEKEY_BLOB, 0, pkcs8.data(), &len), 0);
  QDestroyKey(&key, 0);
  pkcs8.resize(len);
  Write("key.der", pkcs8);
  ASSERT_EQ(Sh("openssl pkey -inform DER -in key.der -out key.pem"), 0);
  ASSERT_EQ(Sh("openssl pkey -in key.pem -pubout -out pub.pem"), 0);

  const Bytes plain = RandomBytes(s(), 1000);
  Write("plain.bin", plain);
  for (uint32_t flags : {uint32_t{0}, uint32_t{QL_SPB_V3}}) {
    SCOPED_TRACE(flags);
    const Encoded e = Encode(s(), kDefaultIspb, kDefaultIspb, plain, flags);
    ASSERT_EQ(e.rc, 0);
    Write("c14.bin", Bytes(e.header.begin() + 76, e.header.begin() + 332));
    Write("c15.bin", Bytes(e.header.begin() + 332, e.header.end()));
    Write("body.bin", e.body);
    ASSERT_EQ(Sh("openssl pkeyutl -decrypt -inkey key.pem -in c14.bin -out session.key"), 0);
    const Bytes session_key = Read("session.key");
    std::string hex;
    char two[3];
    for (unsigned char c : session_key) {
      std::snprintf(two, sizeof two, "%02x", c);
      hex += two;
    }
    const bool v3 = flags & QL_SPB_V3;
    ASSERT_EQ(session_key.size(), v3 ? 32u : 24u);
    const std::string cipher = v3 ? "aes-256-cbc" : "des-ede3-cbc";
    const std::string iv(v3 ? 32 : 16, '0');
    ASSERT_EQ(Sh("openssl enc -d -" + cipher + " -K " + hex + " -iv " + iv +
                 " -in body.bin -out opened.bin"),
              0);
    EXPECT_EQ(Read("opened.bin"), plain);
    EXPECT_EQ(Sh(std::string("openssl dgst -") + (v3 ? "sha256" : "sha1") +
                 " -verify pub.pem -signature c15.bin plain.bin"),
              0);
  }

  // A message built by openssl and a few bytes of Python decodes in the HSM.
  const std::string build =
      "openssl rand 32 > k.bin && "
      "openssl pkeyutl -encrypt -pubin -inkey pub.pem -in k.bin -out c14.bin && "
      "openssl enc -aes-256-cbc -K $(xxd -p -c 64 k.bin) -iv " +
      std::string(32, '0') +
      " -in plain.bin -out body.bin && "
      "openssl dgst -sha256 -sign key.pem -out c15.bin plain.bin && "
      "python3 -c \"import struct,sys;"
      "d=open('" +
      Path("sn.bin") +
      "','rb').read();"
      "c11=d.rjust(32,b'\\0');"
      "h=struct.pack('>HBBBBBBBBB32sB32s',588,3,0,0,0,2,2,2,3,0,c11,0,c11)"
      "+open('c14.bin','rb').read()+open('c15.bin','rb').read();"
      "open('header.bin','wb').write(h)\"";
  // The serial of the default certificate, from the certificate the HSM issued.
  HKEYCTX cert = nullptr;
  ASSERT_EQ(QGetUserKey(s(), (std::string(defaults.name()) + ".crt").c_str(), 0, &cert), 0);
  Bytes der(8192);
  len = static_cast<uint32_t>(der.size());
  ASSERT_EQ(QExportKey(cert, nullptr, QL_CERT_BLOB, 0, der.data(), &len), 0)
      << "the certificate object exports as its DER";
  QDestroyKey(&cert, 0);
  der.resize(len);
  Write("cert.der", der);
  ASSERT_EQ(Sh("openssl x509 -inform DER -in cert.der -noout -serial | cut -d= -f2 | xxd -r -p "
               "> sn.bin"),
            0);
  ASSERT_EQ(Sh(build), 0);
  const Decoded d =
      Decode(s(), kDefaultIspb, kDefaultIspb, Read("header.bin"), Read("body.bin"), QL_SPB_V3);
  EXPECT_EQ(d.init, 0);
  EXPECT_EQ(d.end, 0);
  EXPECT_EQ(d.plain, plain);
}

TEST_F(Spb, AnInstitutionSetUpByAnOperatorExchangesMessages) {
  DefaultObjects defaults(s());
  ASSERT_EQ(defaults.rc(), 0);
  char key_name[QL_MAX_OBJ_NAME + 1];
  uint32_t len = 4;
  EXPECT_EQ(QSPBGenerateKey(s(), kOtherIspb, key_name, &len, 0), QL_ERR_BUFFER_TOO_SMALL);
  len = sizeof key_name;
  ASSERT_EQ(QSPBGenerateKey(s(), kOtherIspb, key_name, &len, 0), 0);
  EXPECT_EQ(std::string(key_name).rfind("SPB_22222222_", 0), 0u) << key_name;

  // CSRs: PEM with SHA-256, DER with SHA-1; openssl accepts both.
  // The PEM one last: the CA signs it below.
  for (uint32_t flags : {uint32_t{QL_SPB_CSR_DER | QL_SPB_CSR_SHA1}, uint32_t{0}}) {
    unsigned char *csr = nullptr;
    uint32_t csr_len = 0;
    ASSERT_EQ(QSPBGenerateCSR(s(), kOtherIspb, key_name,
                              "/C=BR/O=Banco Teste/serialNumber=22222222/CN=BANCO TESTE 22222222",
                              &csr, &csr_len, flags),
              0);
    Write("req", Bytes(csr, csr + csr_len));
    QFree(csr);
    const std::string form = (flags & QL_SPB_CSR_DER) ? "DER" : "PEM";
    EXPECT_EQ(Sh("openssl req -verify -noout -inform " + form + " -in req"), 0) << form;
    EXPECT_EQ(Sh("openssl req -inform " + form + " -in req -noout -text | grep -q " +
                 ((flags & QL_SPB_CSR_SHA1) ? "sha1WithRSA" : "sha256WithRSA")),
              0);
  }
  unsigned char *csr = nullptr;
  uint32_t csr_len = 0;
  EXPECT_EQ(QSPBGenerateCSR(s(), kOtherIspb, key_name, "C=BR,CN=x", &csr, &csr_len, 0),
            QL_ERR_BAD_ARGUMENT);

  // The CA's certificate for the request, imported inactive, then activated by serial.
  ASSERT_EQ(Sh("openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 30 "
               "-subj /CN=Test-CA && printf 'basicConstraints=CA:FALSE\\n' > ext.cnf"),
            0);
  ASSERT_EQ(Sh("openssl x509 -req -in req -CA ca.pem -CAkey ca.key -set_serial 0x0123456789AB "
               "-days 30 -extfile ext.cnf -out inst.pem"),
            0);
  const Bytes pem = Read("inst.pem");
  ASSERT_FALSE(pem.empty());
  ASSERT_EQ(QSPBImportCertificate(s(), pem.data(), static_cast<uint32_t>(pem.size()), 0), 0);
  const Bytes plain = RandomBytes(s(), 5000);
  EXPECT_EQ(Encode(s(), kOtherIspb, kDefaultIspb, plain, QL_SPB_V3).rc, QL_ERR_SPB_NO_CERT)
      << "imported inactive";
  EXPECT_EQ(QSPBActivateCertificate(s(), kOtherIspb, "", "FFFF", 0), QL_ERR_SPB_NO_CERT);
  ASSERT_EQ(QSPBActivateCertificate(s(), kOtherIspb, "SPB", "0123456789ab", 0), 0);

  // Both ways, each side with its own key.
  for (uint32_t flags : {uint32_t{0}, uint32_t{QL_SPB_V3}}) {
    const Encoded out = Encode(s(), kOtherIspb, kDefaultIspb, plain, flags);
    ASSERT_EQ(out.rc, 0);
    const QL_SPB_HEADER *h = reinterpret_cast<const QL_SPB_HEADER *>(out.header.data());
    const unsigned char serial[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB};
    EXPECT_EQ(std::memcmp(h->C13 + 32 - sizeof serial, serial, sizeof serial), 0);
    EXPECT_EQ(Bytes(h->C13, h->C13 + 26), Bytes(26, 0));
    const Decoded in = Decode(s(), kDefaultIspb, kOtherIspb, out.header, out.body, flags);
    EXPECT_EQ(in.end, 0);
    EXPECT_EQ(in.plain, plain);
    // The wrong way round: the default institution is not the destination of its own C11.
    EXPECT_EQ(Decode(s(), kOtherIspb, kDefaultIspb, out.header, out.body, flags).init,
              QL_ERR_SPB_NO_CERT);
    const Encoded back = Encode(s(), kDefaultIspb, kOtherIspb, plain, flags);
    ASSERT_EQ(back.rc, 0);
    EXPECT_EQ(Decode(s(), kOtherIspb, kDefaultIspb, back.header, back.body, flags).end, 0);
  }

  // A second certificate of the same key (serial ABC): a message to it still opens once the
  // first is active again (rollover), and a message from it is refused until --autocer
  // activates it.
  ASSERT_EQ(Sh("openssl x509 -req -in req -CA ca.pem -CAkey ca.key -set_serial 0xABC -days 30 "
               "-extfile ext.cnf -out inst2.pem"),
            0);
  const Bytes pem2 = Read("inst2.pem");
  ASSERT_EQ(QSPBImportCertificate(s(), pem2.data(), static_cast<uint32_t>(pem2.size()),
                                  QL_SPB_CERT_ACTIVATE),
            0);
  const Encoded to_new = Encode(s(), kDefaultIspb, kOtherIspb, plain, QL_SPB_V3);
  const Encoded from_new = Encode(s(), kOtherIspb, kDefaultIspb, plain, QL_SPB_V3);
  ASSERT_EQ(to_new.rc, 0);
  ASSERT_EQ(from_new.rc, 0);
  ASSERT_EQ(QSPBActivateCertificate(s(), kOtherIspb, nullptr, "123456789AB", 0), 0);
  EXPECT_EQ(Decode(s(), kOtherIspb, kDefaultIspb, to_new.header, to_new.body, 0).end, 0);
  EXPECT_EQ(Decode(s(), kDefaultIspb, kOtherIspb, from_new.header, from_new.body, 0).init,
            QL_ERR_SPB_NO_CERT);
  HSPBMSGCTX msg = nullptr;
  ASSERT_EQ(QSPBDecodeInit(s(), kDefaultIspb, kOtherIspb, from_new.header.data(), QL_SPB_HEADER_LEN,
                           static_cast<uint32_t>(from_new.body.size()), 0, 1, &msg, 0),
            0);
  EXPECT_EQ(QSPBDecodeEnd(&msg), QL_ERR_BAD_LENGTH) << "ended before its body";
  const Encoded again = Encode(s(), kOtherIspb, kDefaultIspb, plain, QL_SPB_V3);
  ASSERT_EQ(again.rc, 0);
  EXPECT_EQ(Bytes(again.header.begin() + 44, again.header.begin() + 76),
            Bytes(from_new.header.begin() + 44, from_new.header.begin() + 76))
      << "--autocer made the certificate of C13 the active one";

  // Bad certificates: not one, and one naming no ISPB.
  const Bytes junk = {'n', 'o', 't'};
  EXPECT_EQ(QSPBImportCertificate(s(), junk.data(), 3, 0), QL_ERR_SPB_BAD_CERT);
  const Bytes ca = Read("ca.pem");
  EXPECT_EQ(QSPBImportCertificate(s(), ca.data(), static_cast<uint32_t>(ca.size()), 0),
            QL_ERR_SPB_BAD_CERT);

  // A PKCS#12 of a third institution, activated on import.
  ASSERT_EQ(Sh("openssl req -newkey rsa:2048 -nodes -keyout p.key -out p.csr "
               "-subj '/O=P/CN=PAGADOR 33333333' && "
               "openssl x509 -req -in p.csr -CA ca.pem -CAkey ca.key -set_serial 77 -days 30 "
               "-extfile ext.cnf -out p.pem && "
               "openssl pkcs12 -export -inkey p.key -in p.pem -passout pass:pw -out p.p12"),
            0);
  EXPECT_EQ(QSPBImportPKCS12(s(), Path("missing.p12").c_str(), "pw", "33333333", 0),
            QL_ERR_FILE_IO);
  EXPECT_EQ(QSPBImportPKCS12(s(), Path("p.p12").c_str(), "pw", kOtherIspb, 0), QL_ERR_SPB_BAD_CERT);
  ASSERT_EQ(QSPBImportPKCS12(s(), Path("p.p12").c_str(), "pw", "33333333", QL_SPB_CERT_ACTIVATE),
            0);
  const Encoded third = Encode(s(), "33333333", kOtherIspb, plain, QL_SPB_V3);
  ASSERT_EQ(third.rc, 0);
  EXPECT_EQ(Decode(s(), kOtherIspb, "33333333", third.header, third.body, QL_SPB_V3).end, 0);

  for (const std::string &name : qltest::ListObjectNames())
    if (name.rfind("SPB_22222222_", 0) == 0 || name.rfind("SPB_33333333_", 0) == 0)
      QRemoveObj(s(), name.c_str());
}

TEST_F(Spb, RightsOfEachCall) {
  DefaultObjects defaults(s());
  ASSERT_EQ(defaults.rc(), 0);
  struct Case {
    const char *user;
    uint32_t mask;
    int generate, activate, encode;
  };
  const Case cases[] = {
      {"spbread", ACL_OBJ_READ, QL_ERR_ACCESS_DENIED, QL_ERR_ACCESS_DENIED, 0},
      {"spbupdate", ACL_OBJ_UPDATE, QL_ERR_ACCESS_DENIED, 0, QL_ERR_ACCESS_DENIED},
      {"spbcreate", ACL_OBJ_CREATE, 0, QL_ERR_ACCESS_DENIED, 0},
  };
  const std::string serial_of_default = [&] {
    HKEYCTX cert = nullptr;
    Bytes der(8192);
    uint32_t len = static_cast<uint32_t>(der.size());
    if (QGetUserKey(s(), (std::string(defaults.name()) + ".crt").c_str(), 0, &cert) != 0 ||
        QExportKey(cert, nullptr, QL_CERT_BLOB, 0, der.data(), &len) != 0)
      return std::string();
    QDestroyKey(&cert, 0);
    der.resize(len);
    Write("d.der", der);
    Sh("openssl x509 -inform DER -in d.der -noout -serial | cut -d= -f2 > serial.txt");
    const Bytes text = Read("serial.txt");
    return std::string(text.begin(), text.end() - (text.empty() ? 0 : 1));
  }();
  ASSERT_FALSE(serial_of_default.empty());
  for (const Case &c : cases) {
    SCOPED_TRACE(c.user);
    QL_USER_INFO info{};
    std::snprintf(info.szUserId, sizeof info.szUserId, "%s", c.user);
    std::snprintf(info.szPassword, sizeof info.szPassword, "%s", "spb-pass-1");
    info.dwAcl = c.mask;
    ASSERT_EQ(QCreateUser(s(), &info), 0);
    {
      qltest::LibrarySession as(qltest::HsmEnvironment::hsm(), c.user, "spb-pass-1");
      ASSERT_EQ(as.rc(), 0);
      char name[QL_MAX_OBJ_NAME + 1];
      uint32_t len = sizeof name;
      EXPECT_EQ(QSPBGenerateKey(as.get(), "55555555", name, &len, 0), c.generate);
      EXPECT_EQ(
          QSPBActivateCertificate(as.get(), kDefaultIspb, nullptr, serial_of_default.c_str(), 0),
          c.activate);
      EXPECT_EQ(Encode(as.get(), kDefaultIspb, kDefaultIspb, Bytes(10, 'r'), 0).rc, c.encode);
    }
    EXPECT_EQ(QRemoveUser(s(), c.user), 0);  // and the key it made
  }
}

#ifdef QLUTIL_BIN
// The jobs, as an operator runs them: qlutil as master against the same daemon.
class SpbJobs : public Spb {
 protected:
  using Run = qltest::CommandResult;
  Run Qlutil(const std::string &args) const {
    const qltest::CommandResult c = qltest::RunCommand(
        qltest::QlutilAsMaster(QLUTIL_BIN, dir_.string(), qltest::HsmEnvironment::hsm(), args));
    return c;
  }
};

TEST_F(SpbJobs, MissingOptionsPrintTheHelp) {
  for (const char *job :
       {"spb-gen-key", "spb-gen-csr --ispb 22222222", "spb-import-cert", "spb-import-pkcs12 -pwd x",
        "spb-activate-cert --ispb 22222222", "spb-encode --si 11111111 -in x",
        "spb-decode --di 11111111", "spb-dump-message"}) {
    SCOPED_TRACE(job);
    const Run r = Qlutil(std::string("-j ") + job);
    EXPECT_EQ(r.exit_code, 255);
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\r\nEXAMPLE\r\n"), std::string::npos) << r.out;
  }
}

TEST_F(SpbJobs, KeyRequestMessagesAndDump) {
  DefaultObjects defaults(s(), QL_KEY_EXPORTABLE);
  ASSERT_EQ(defaults.rc(), 0);
  const std::string text = "<SISMSG>one SPB message</SISMSG>";
  const Bytes plain(text.begin(), text.end());
  Write("msg.xml", plain);
  for (const char *version : {"", " --v3", " --gen01"}) {
    SCOPED_TRACE(version);
    Run r = Qlutil(std::string("-j spb-encode --si 11111111 --di 11111111 -in msg.xml --c3 1F") +
                   version + " --out msg.spb");
    ASSERT_EQ(r.exit_code, 0) << r.out;
    const Bytes encoded = Read("msg.spb");
    ASSERT_GT(encoded.size(), static_cast<size_t>(QL_SPB_HEADER_LEN));
    EXPECT_EQ(encoded[3], 0x1F);
    r = Qlutil("-j spb-decode --si 11111111 --di 11111111 -in msg.spb --out back.xml");
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_EQ(Read("back.xml"), plain);
    r = Qlutil(std::string("-j spb-dump-message -in msg.spb") +
               (std::strcmp(version, " --gen01") == 0
                    ? ""
                    : std::string(" -kn ") + defaults.name() + " --out dumped.xml"));
    EXPECT_EQ(r.exit_code, 0) << r.out;
    EXPECT_NE(r.out.find("C15 : "), std::string::npos) << r.out;
    if (std::strcmp(version, " --gen01") != 0) {
      EXPECT_EQ(Read("dumped.xml"), plain);
    }
  }
  // A changed body: the signature check refuses and nothing is written.
  Bytes encoded = Read("msg.spb");
  encoded.back() ^= 1;
  Write("bad.spb", encoded);
  const Run bad = Qlutil("-j spb-decode --si 11111111 --di 11111111 -in bad.spb --out bad.xml");
  EXPECT_EQ(bad.exit_code, QL_ERR_BAD_SIGNATURE & 0xFF);
  EXPECT_NE(bad.out.find("Error in QSPBDecodeEnd. Err = 5017"), std::string::npos) << bad.out;
  EXPECT_FALSE(fs::exists(Path("bad.xml")));

  // A key, its request, and the refusals of the certificate jobs.
  const Run key = Qlutil("-j spb-gen-key --ispb 44444444");
  ASSERT_EQ(key.exit_code, 0) << key.out;
  ASSERT_EQ(key.out.rfind("Key: SPB_44444444_", 0), 0u) << key.out;
  const std::string name = key.out.substr(5, key.out.find('\r') - 5);
  const Run csr =
      Qlutil("-j spb-gen-csr --ispb 44444444 -kn " + name +
             " --dn /C=BR/O=Bank/CN=BANK_44444444 -h spbsha1 --outform der --out r.der");
  EXPECT_EQ(csr.exit_code, 0) << csr.out;
  EXPECT_EQ(Sh("openssl req -verify -noout -inform DER -in r.der"), 0);
  const Run activate = Qlutil("-j spb-activate-cert --ispb 44444444 --serial 01");
  EXPECT_EQ(activate.exit_code, QL_ERR_SPB_NO_CERT & 0xFF);
  EXPECT_NE(activate.out.find("Error in QSPBActivateCertificate. Err = 5101"), std::string::npos);
  Write("junk.pem", Bytes{'x'});
  EXPECT_EQ(Qlutil("-j spb-import-cert -in junk.pem").exit_code, QL_ERR_SPB_BAD_CERT & 0xFF);
  EXPECT_EQ(Qlutil("-j spb-import-pkcs12 -in none.p12 -pwd x").exit_code, QL_ERR_FILE_IO & 0xFF);
  EXPECT_EQ(QRemoveObj(s(), name.c_str()), 0);
}
#endif

}  // namespace
