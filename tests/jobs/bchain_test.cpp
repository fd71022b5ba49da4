// Blockchain calls that need no key of the HSM, against a real HSM: BIP340's verification
// vectors, ECDSA signatures made by an independent signer written in Python, the hash modes,
// the bchain-hash, bchain-verify and bchain-recover-pbk jobs, the jobs of the HSM's blockchain
// keys, and skeep-calc-cks.

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "library_job_test.h"

namespace jobs_test {
namespace {

using Bytes = std::vector<unsigned char>;

// Plain secp256k1 ECDSA (affine arithmetic, a nonce hashed from key and digest, S made low).
// Prints the compressed public key, the DER signature, the compact one (header 31 + recovery
// id) and the DER signature with the high S.
constexpr const char *kSigner = R"PY(
import sys, hashlib
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
def der_int(v):
    b = v.to_bytes(33, 'big').lstrip(b'\0')
    if b[0] & 0x80: b = b'\0' + b
    return b'\x02' + bytes([len(b)]) + b
def der(r, s):
    body = der_int(r) + der_int(s)
    return b'\x30' + bytes([len(body)]) + body
d = int(sys.argv[1], 16); z = bytes.fromhex(sys.argv[2])
Q = mul(d, G)
k = int.from_bytes(hashlib.sha256(d.to_bytes(32, 'big') + z).digest(), 'big') % N
R = mul(k, G)
r = R[0] % N
s = pow(k, -1, N) * (int.from_bytes(z, 'big') + r * d) % N
recid = (R[1] & 1) | (2 if R[0] >= N else 0)
if s > N // 2:
    s = N - s; recid ^= 1
pub = bytes([2 + (Q[1] & 1)]) + Q[0].to_bytes(32, 'big')
compact = bytes([31 + recid]) + r.to_bytes(32, 'big') + s.to_bytes(32, 'big')
print(pub.hex().upper(), der(r, s).hex().upper(), compact.hex().upper(), der(r, N - s).hex().upper())
)PY";

struct Signed {
  Bytes pubkey, der, compact, high_s_der;
};

class BchainJobs : public LibraryJobTest {
 protected:
  // Python's hashlib over hex data: the named digest, applied `rounds` times, or the signed-message
  // hash with the "message" name.
  std::string PythonHash(const std::string &how, const std::string &hex) {
    WriteText(Path("h.py"), R"PY(
import sys, hashlib
how, data = sys.argv[1], bytes.fromhex(sys.argv[2])
sha = lambda b: hashlib.sha256(b).digest()
if how == 'sha256': out = sha(data)
elif how == 'sha256d': out = sha(sha(data))
else:
    magic = b'Bitcoin Signed Message:\n'
    out = sha(sha(bytes([len(magic)]) + magic + bytes([len(data)]) + data))
print(out.hex().upper())
)PY");
    RunResult r = RunCommand("python3 " + Quote(Path("h.py")) + " " + how + " " + hex);
    EXPECT_EQ(r.exitCode, 0);
    return r.out.substr(0, r.out.find('\n'));
  }

  Signed PythonSign(const std::string &key_hex, const Bytes &digest) {
    WriteText(Path("sign.py"), kSigner);
    RunResult r =
        RunCommand("python3 " + Quote(Path("sign.py")) + " " + key_hex + " " + HexOf(digest));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    std::istringstream in(r.out);
    std::string a, b, c, d;
    in >> a >> b >> c >> d;
    return Signed{FromHex(a), FromHex(b), FromHex(c), FromHex(d)};
  }

  int Hash(uint32_t mode, const Bytes &data, Bytes *out) {
    uint32_t len = 64;
    out->assign(len, 0);
    const int rc = QBchainHashData(session_, mode, data.data(), static_cast<uint32_t>(data.size()),
                                   out->data(), &len);
    out->resize(rc == 0 ? len : 0);
    return rc;
  }

  int Verify(uint32_t type, const Bytes &digest, const Bytes &sig, uint32_t pbk_type,
             const Bytes &pbk) {
    return QBchainVerify(session_, type, QL_BCHAIN_HASH_SHA256, digest.data(),
                         static_cast<uint32_t>(digest.size()), sig.data(),
                         static_cast<uint32_t>(sig.size()), pbk_type, pbk.data(),
                         static_cast<uint32_t>(pbk.size()));
  }

  int Recover(const Bytes &digest, const Bytes &sig, Bytes *pbk) {
    uint32_t len = 65;
    pbk->assign(len, 0);
    const int rc = QBchainRecoverPbkFromSignature(
        session_, QL_BCHAIN_SIG_COMPACT, QL_BCHAIN_HASH_SHA256D, digest.data(),
        static_cast<uint32_t>(digest.size()), sig.data(), static_cast<uint32_t>(sig.size()),
        pbk->data(), &len);
    pbk->resize(rc == 0 ? len : 0);
    return rc;
  }
};

TEST_F(BchainJobs, Bip340VerificationVectors) {
  std::ifstream in(std::string(QL_BCHAIN_TEST_DATA) + "/bip340_vectors.csv");
  ASSERT_TRUE(in.good());
  // BIP340 documents these rows' public keys as no point of the curve.
  const std::set<int> not_a_point = {5, 14};
  std::string line;
  int rows = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, ',');) f.push_back(cell);
    ASSERT_GE(f.size(), 7u) << line;
    const int index = std::stoi(f[0]);
    const int rc = Verify(QL_BCHAIN_SIG_SCHNORR, FromHex(f[4]), FromHex(f[5]), QL_BCHAIN_PBK_XONLY,
                          FromHex(f[2]));
    if (f[6].rfind("TRUE", 0) == 0) {
      EXPECT_EQ(rc, 0) << "row " << index;
    } else {
      EXPECT_EQ(rc, not_a_point.count(index) ? QL_ERR_BCHAIN_BAD_ENCODING : QL_ERR_BAD_SIGNATURE)
          << "row " << index;
    }
    ++rows;
  }
  EXPECT_EQ(rows, 15);
}

TEST_F(BchainJobs, EcdsaFromAnIndependentSignerVerifiesAndRecovers) {
  const Bytes data = {'p', 'a', 'y', ' ', '1'};
  Bytes digest;
  ASSERT_EQ(Hash(QL_BCHAIN_HASH_SHA256D, data, &digest), 0);
  const Signed s =
      PythonSign("C28A9F80738F770D527803A566CF6FC3EDF6CEA586C4FC4A5223A5AD797E1AC3", digest);
  ASSERT_EQ(s.pubkey.size(), 33u);

  EXPECT_EQ(Verify(QL_BCHAIN_SIG_DER, digest, s.der, QL_BCHAIN_PBK_COMPRESSED, s.pubkey), 0);
  EXPECT_EQ(Verify(QL_BCHAIN_SIG_COMPACT, digest, s.compact, QL_BCHAIN_PBK_COMPRESSED, s.pubkey),
            0);
  // The same signature with the high S is refused, as is a changed digest.
  EXPECT_EQ(Verify(QL_BCHAIN_SIG_DER, digest, s.high_s_der, QL_BCHAIN_PBK_COMPRESSED, s.pubkey),
            QL_ERR_BAD_SIGNATURE);
  Bytes other = digest;
  other[0] ^= 1;
  EXPECT_EQ(Verify(QL_BCHAIN_SIG_DER, other, s.der, QL_BCHAIN_PBK_COMPRESSED, s.pubkey),
            QL_ERR_BAD_SIGNATURE);
  // A key of the wrong length for its form, and an x-only key for ECDSA.
  EXPECT_EQ(Verify(QL_BCHAIN_SIG_DER, digest, s.der, QL_BCHAIN_PBK_UNCOMPRESSED, s.pubkey),
            QL_ERR_BCHAIN_BAD_ENCODING);
  EXPECT_EQ(Verify(QL_BCHAIN_SIG_DER, digest, s.der, QL_BCHAIN_PBK_XONLY,
                   Bytes(s.pubkey.begin() + 1, s.pubkey.end())),
            QL_ERR_BCHAIN_BAD_ENCODING);
  EXPECT_EQ(Verify(QL_BCHAIN_SIG_DER, Bytes(20, 1), s.der, QL_BCHAIN_PBK_COMPRESSED, s.pubkey),
            QL_ERR_BAD_LENGTH);

  Bytes recovered;
  ASSERT_EQ(Recover(digest, s.compact, &recovered), 0);
  EXPECT_EQ(recovered, s.pubkey);
  const int rc = Recover(other, s.compact, &recovered);
  EXPECT_TRUE(rc != 0 || recovered != s.pubkey) << "a changed digest names another signer";
  uint32_t len = 65;
  Bytes out(len);
  EXPECT_EQ(QBchainRecoverPbkFromSignature(session_, QL_BCHAIN_SIG_DER, QL_BCHAIN_HASH_SHA256,
                                           digest.data(), 32, s.der.data(),
                                           static_cast<uint32_t>(s.der.size()), out.data(), &len),
            QL_ERR_BAD_ALGORITHM);
}

TEST_F(BchainJobs, HashModes) {
  const Bytes abc = {'a', 'b', 'c'};
  Bytes h;
  ASSERT_EQ(Hash(QL_BCHAIN_HASH_SHA256, abc, &h), 0);
  EXPECT_EQ(HexOf(h), PythonHash("sha256", "616263"));
  ASSERT_EQ(Hash(QL_BCHAIN_HASH_SHA256D, abc, &h), 0);
  EXPECT_EQ(HexOf(h), PythonHash("sha256d", "616263"));
  ASSERT_EQ(Hash(QL_BCHAIN_HASH_MESSAGE, abc, &h), 0);
  EXPECT_EQ(HexOf(h), PythonHash("message", "616263"));
  // The key hash of private key 1, the program of BIP173's first P2WPKH example.
  ASSERT_EQ(Hash(QL_BCHAIN_HASH_HASH160,
                 FromHex("0279BE667EF9DCBBAC55A06295CE870B07029BFCDB2DCE28D959F2815B16F81798"), &h),
            0);
  EXPECT_EQ(HexOf(h), "751E76E8199196D454941C45D1B3A323F1433BD6");
  EXPECT_EQ(Hash(5, abc, &h), QL_ERR_BAD_ALGORITHM);
  uint32_t len = 0;
  EXPECT_EQ(QBchainHashData(session_, QL_BCHAIN_HASH_SHA256, abc.data(), 3, nullptr, &len),
            QL_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 32u);
}

TEST_F(BchainJobs, HashVerifyAndRecoverJobs) {
  EXPECT_EQ(
      MustRun("bchain-hash", {"--mode", "hash160", "-inform", "hex", "-in",
                              "0279BE667EF9DCBBAC55A06295CE870B07029BFCDB2DCE28D959F2815B16F81798"})
          .rfind("751E76E8199196D454941C45D1B3A323F1433BD6\r\n", 0),
      0u);
  WriteText(Path("tx.bin"), "send 2 to bob");
  // The jobs hash -in with --mode (SHA-256d by default) before the signature call.
  const std::string digest_hex = PythonHash("sha256d", HexOf(std::string("send 2 to bob")));
  const Signed s = PythonSign("0B", FromHex(digest_hex));
  std::string out = MustRun("bchain-verify", {"-in", Path("tx.bin"), "--sigtype", "der", "--sig",
                                              HexOf(s.der), "--pbk", HexOf(s.pubkey)});
  EXPECT_NE(out.find("Signature verified.\r\n"), std::string::npos) << out;
  RunResult r = Job("bchain-verify", {"-in", Path("tx.bin"), "--sigtype", "der", "--sig",
                                      HexOf(s.high_s_der), "--pbk", HexOf(s.pubkey)});
  EXPECT_NE(r.out.find(ErrorLine("BchainVerify", QL_ERR_BAD_SIGNATURE)), std::string::npos)
      << r.out;
  EXPECT_NE(r.exitCode, 0);
  out = MustRun("bchain-recover-pbk", {"-in", Path("tx.bin"), "--sig", HexOf(s.compact)});
  EXPECT_EQ(out.rfind(HexOf(s.pubkey) + "\r\n", 0), 0u) << out;

  for (const auto &[job, options] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"bchain-hash", {"--mode", "sha512", "-in", Path("tx.bin")}},
           {"bchain-verify", {"-in", Path("tx.bin"), "--sig", "00"}},
           {"bchain-recover-pbk", {"-in", Path("tx.bin")}}}) {
    r = Job(job, options);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("EXAMPLE"), std::string::npos) << job << ":\n" << r.out;
  }
}

TEST_F(BchainJobs, KeyJobs) {
  // BIP32's vector 1: the master and its first hardened child, made and derived by the jobs.
  MustRun("bchain-create-xprv",
          {"-kn", "jw", "--seed", "000102030405060708090a0b0c0d0e0f", "-exp", "1"});
  EXPECT_EQ(
      MustRun("bchain-exp-pk", {"-kn", "jw", "--format", "xprv"})
          .rfind("xprv9s21ZrQH143K3QTDL4LXw2F7HEK3wJUD2nW2nRk4stbPy6cq3jPPqjiChkVvvNKmPGJxWUtg6"
                 "LnF5kejMRNNU3TGtRBeJgk33yuGBxrMPHi\r\n",
                 0),
      0u);
  std::string out =
      MustRun("bchain-create-ckd", {"-kn", "jw", "--dst", "jw0h", "--index", "0h", "-exp", "1"});
  EXPECT_NE(out.find("Depth: 1\r\nIndex: 2147483648\r\n"), std::string::npos) << out;
  EXPECT_EQ(MustRun("bchain-exp-pk", {"-kn", "jw0h", "--format", "xpub"})
                .rfind("xpub68Gmy5EdvgibQVfPdqkBBCHxA5htiqg55crXYuXoQRKfDBFA1WEjWgP6LHhwBZeNK1VTsfT"
                       "FUHCdrfp1bgwQ9xv5ski8PX9rL2dZXvgGDnw\r\n",
                       0),
            0u);
  out = MustRun("bchain-key-info", {"-kn", "jw0h"});
  std::string pbk = MustRun("bchain-get-pbk", {"-kn", "jw0h"});
  pbk = pbk.substr(0, pbk.find("\r\n"));
  ASSERT_EQ(pbk.size(), 66u) << pbk;
  EXPECT_NE(out.find("Public key: " + pbk + "\r\n"), std::string::npos) << out;

  // A signature of the sign job passes the verify job.
  WriteText(Path("tx.bin"), "send 3 to carol");
  std::string sig =
      MustRun("bchain-sign", {"-kn", "jw0h", "-in", Path("tx.bin"), "--sigtype", "der"});
  sig = sig.substr(0, sig.find("\r\n"));
  out = MustRun("bchain-verify",
                {"-in", Path("tx.bin"), "--sigtype", "der", "--sig", sig, "--pbk", pbk});
  EXPECT_NE(out.find("Signature verified.\r\n"), std::string::npos) << out;

  // Private key 1, imported raw: BIP173's first P2WPKH address.
  MustRun("bchain-imp-pk",
          {"-kn", "one", "--format", "raw", "-inform", "hex", "-in", std::string(63, '0') + "1"});
  EXPECT_EQ(MustRun("bchain-get-addr", {"-kn", "one"})
                .rfind("bc1qw508d6qejxtdg4y5r3zarvary0c5xw7kv8f3t4\r\n", 0),
            0u);

  // The wiki's mini private key; a mistyped one fails its check.
  MustRun("bchain-create-xprv",
          {"-kn", "mini", "--minikey", "S6c56bnXQiBjk9mqSYE7ykVQ7NzrRy", "-exp", "1"});
  EXPECT_EQ(MustRun("bchain-exp-pk", {"-kn", "mini", "--format", "raw"})
                .rfind("4C7A9640C72DC2099F23715D0C8A0D8A35F8906E3CAB61DD3F78B67BF887C9AB\r\n", 0),
            0u);
  RunResult r =
      Job("bchain-create-xprv", {"-kn", "mini2", "--minikey", "S6c56bnXQiBjk9mqSYE7ykVQ7NzrRz"});
  EXPECT_NE(r.out.find(ErrorLine("BchainCreateXPrv", QL_ERR_BCHAIN_BAD_ENCODING)),
            std::string::npos)
      << r.out;

  // The key was imported without -exp 1: its private forms stay in the HSM.
  r = Job("bchain-exp-pk", {"-kn", "one"});
  EXPECT_NE(r.out.find(ErrorLine("BchainExportPk", QL_ERR_NOT_EXPORTABLE)), std::string::npos)
      << r.out;
  EXPECT_NE(r.exitCode, 0);

  // A missing or wrong option prints the help page.
  for (const auto &[job, options] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"bchain-create-xprv", {"-kn", "x"}},
           {"bchain-create-ckd", {"-kn", "jw", "--dst", "c", "--index", "1x"}},
           {"bchain-key-info", {}},
           {"bchain-get-pbk", {"-kn", "jw", "--pbktype", "hybrid"}},
           {"bchain-get-addr", {"-kn", "jw", "--type", "p2sh"}},
           {"bchain-sign", {"-kn", "jw"}},
           {"bchain-exp-pk", {"-kn", "jw", "--net", "regtest"}},
           {"bchain-imp-pk", {"-kn", "x", "--format", "raw"}}}) {
    r = Job(job, options);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("EXAMPLE"), std::string::npos) << job << ":\n" << r.out;
  }
}

TEST_F(BchainJobs, ShareChecksumsWithoutASession) {
  WriteText(Path("s1"), "share one");
  WriteText(Path("s2"), "share two");
  CountingListener nobody;
  const RunResult r = Qlutil({"-a", "127.0.0.1", "--port", std::to_string(nobody.port()), "-j",
                              "skeep-calc-cks", "--parts", Path("s1") + "," + Path("s2")});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(nobody.count(), 0);
  const std::string h1 = PythonHash("sha256", HexOf(std::string("share one")));
  const std::string h2 = PythonHash("sha256", HexOf(std::string("share two")));
  EXPECT_EQ(r.out.rfind("Part 1: " + h1.substr(0, 4) + "-" + h1.substr(4, 4) +
                            "\r\nPart 2: " + h2.substr(0, 4) + "-" + h2.substr(4, 4) + "\r\n",
                        0),
            0u)
      << r.out;
  const RunResult help = Qlutil({"-a", "127.0.0.1", "-j", "skeep-calc-cks"});
  EXPECT_EQ(help.exitCode, 255);
  EXPECT_NE(help.out.find("EXAMPLE"), std::string::npos) << help.out;
}

}  // namespace
}  // namespace jobs_test
