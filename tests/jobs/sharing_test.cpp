// M-of-N sharing against a real HSM: the library's split and recover over every subset of small
// sets, refusals of damaged and mixed parts, an independent recombination in Python, and the
// mofn-split and mofn-recover jobs.

#include <cstring>
#include <string>
#include <vector>

#include "library_job_test.h"

namespace jobs_test {
namespace {

using Part = std::vector<unsigned char>;

class SharingJobs : public LibraryJobTest {
 protected:
  int Split(uint32_t m, uint32_t n, const std::string &secret, std::vector<Part> *parts) {
    unsigned char *buf = nullptr;
    uint32_t len = 0;
    const int rc =
        QMofNSplit(session_, m, n, reinterpret_cast<const unsigned char *>(secret.data()),
                   static_cast<uint32_t>(secret.size()), &buf, &len);
    parts->clear();
    if (rc == 0) {
      for (uint32_t i = 0; i < n; ++i)
        parts->emplace_back(buf + size_t{i} * len, buf + (i + 1) * len);
    }
    QFree(buf);
    return rc;
  }

  int Recover(const std::vector<Part> &parts, std::string *secret) {
    std::vector<unsigned char> joined;
    for (const Part &p : parts) joined.insert(joined.end(), p.begin(), p.end());
    unsigned char *buf = nullptr;
    uint32_t len = 0;
    const int rc =
        QMofNRecover(session_, joined.data(), static_cast<uint32_t>(parts.size()),
                     parts.empty() ? 0 : static_cast<uint32_t>(parts[0].size()), &buf, &len);
    secret->assign(reinterpret_cast<char *>(buf), buf ? len : 0);
    QFree(buf);
    return rc;
  }
};

std::string Hex(const Part &p) {
  return HexOf(p);
}

// Every subset of {0..n-1} of `size` elements.
void Subsets(uint32_t n, uint32_t size, uint32_t from, std::vector<uint32_t> *cur,
             std::vector<std::vector<uint32_t>> *out) {
  if (cur->size() == size) {
    out->push_back(*cur);
    return;
  }
  for (uint32_t i = from; i < n; ++i) {
    cur->push_back(i);
    Subsets(n, size, i + 1, cur, out);
    cur->pop_back();
  }
}

TEST_F(SharingJobs, EveryMSubsetRecoversAndEverySmallerOneIsTooFew) {
  const std::string secret = "the launch code is 0000";
  for (uint32_t n = 2; n <= 6; ++n) {
    for (uint32_t m = 2; m <= n; ++m) {
      std::vector<Part> parts;
      ASSERT_EQ(Split(m, n, secret, &parts), 0) << m << " of " << n;
      ASSERT_EQ(parts.size(), n);
      EXPECT_EQ(parts[0].size(), secret.size() + 22);
      for (uint32_t size : {m - 1, m}) {
        std::vector<std::vector<uint32_t>> subsets;
        std::vector<uint32_t> cur;
        Subsets(n, size, 0, &cur, &subsets);
        for (const auto &subset : subsets) {
          std::vector<Part> chosen;
          for (uint32_t i : subset) chosen.push_back(parts[i]);
          std::string got;
          const int rc = Recover(chosen, &got);
          if (size == m) {
            EXPECT_EQ(rc, 0) << m << " of " << n;
            EXPECT_EQ(got, secret) << m << " of " << n;
          } else {
            EXPECT_EQ(rc, QL_ERR_SHARES_TOO_FEW) << m << " of " << n << ", " << size << " parts";
            EXPECT_TRUE(got.empty());
          }
        }
      }
    }
  }
}

TEST_F(SharingJobs, DamagedMixedAndRepeatedPartsAreRefused) {
  std::vector<Part> a, b;
  ASSERT_EQ(Split(2, 3, "secret A", &a), 0);
  ASSERT_EQ(Split(2, 3, "secret B", &b), 0);
  std::string got;
  // A flipped bit anywhere: the CRC sees it.
  for (size_t at = 0; at < a[0].size(); ++at) {
    std::vector<Part> damaged = {a[0], a[1]};
    damaged[1][at] ^= 0x01;
    EXPECT_EQ(Recover(damaged, &got), QL_ERR_SHARE_CORRUPT) << "byte " << at;
  }
  EXPECT_EQ(Recover({a[0], b[1]}, &got), QL_ERR_SHARES_MISMATCH);
  EXPECT_EQ(Recover({a[0], a[0]}, &got), QL_ERR_SHARES_MISMATCH);
  // An extra part of another set is checked too, not ignored.
  EXPECT_EQ(Recover({a[0], a[1], b[2]}, &got), QL_ERR_SHARES_MISMATCH);
  EXPECT_EQ(Recover({a[2], a[0], a[1]}, &got), 0);
  EXPECT_EQ(got, "secret A");

  std::vector<Part> none;
  EXPECT_EQ(Split(1, 3, "x", &none), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(Split(3, 2, "x", &none), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(Split(2, 256, "x", &none), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(Split(2, 3, "", &none), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(Split(2, 3, std::string(4097, 'x'), &none), QL_ERR_BAD_LENGTH);
  EXPECT_EQ(Split(255, 255, std::string(4096, 'x'), &none), 0);
}

// Lagrange interpolation at 0 over GF(2^8) with the AES polynomial, written here from the field's
// definition, recovers the HSM's secret from the bytes of its parts.
TEST_F(SharingJobs, PythonRecombinesTheParts) {
  static const char kSecret[] = "\x00\x01\xfe\xff shared in the field";
  const std::string secret(kSecret, sizeof kSecret - 1);  // leading zero bytes included
  std::vector<Part> parts;
  ASSERT_EQ(Split(3, 5, secret, &parts), 0);
  const std::string script = R"PY(
import sys
def mul(a, b):
    r = 0
    while b:
        if b & 1: r ^= a
        a = ((a << 1) ^ 0x11B) if a & 0x80 else (a << 1)
        b >>= 1
    return r
def inv(a):
    return next(x for x in range(1, 256) if mul(a, x) == 1)
parts = [bytes.fromhex(h) for h in sys.argv[1:]]
n = int.from_bytes(parts[0][8:10], 'big')
xs = [p[3] for p in parts]
out = bytearray(n)
for i, p in enumerate(parts):
    basis = 1
    for j, xj in enumerate(xs):
        if j != i: basis = mul(basis, mul(xj, inv(xs[i] ^ xj)))
    for k in range(n): out[k] ^= mul(p[10 + k], basis)
print(out.hex().upper())
)PY";
  WriteText(Path("lagrange.py"), script);
  const RunResult r = RunCommand("python3 " + Quote(Path("lagrange.py")) + " " + Hex(parts[4]) +
                                 " " + Hex(parts[1]) + " " + Hex(parts[2]));
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out, Hex(Part(secret.begin(), secret.end())) + "\n");
}

TEST_F(SharingJobs, SplitToFilesThenRecoverFromAnyTwo) {
  WriteText(Path("secret.bin"), "my wallet seed");
  std::string out = MustRun(
      "mofn-split", {"-m", "2", "-n", "3", "--secret", Path("secret.bin"), "--out", Path("part")});
  EXPECT_NE(out.find("3 parts written"), std::string::npos) << out;
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(ReadText(Path("part." + std::to_string(i))).size(), 14u + 22u);
  }
  MustRun("mofn-recover",
          {"--parts", Path("part.3") + "," + Path("part.1"), "--out", Path("back.bin")});
  EXPECT_EQ(ReadText(Path("back.bin")), "my wallet seed");

  // Hex in and out.
  out = MustRun("mofn-split", {"-m", "2", "-n", "2", "--secretform", "hex", "--secret", "C0FFEE"});
  const size_t p1 = out.find("Part 1: "), p2 = out.find("Part 2: ");
  ASSERT_NE(p1, std::string::npos);
  ASSERT_NE(p2, std::string::npos);
  const std::string h1 = out.substr(p1 + 8, out.find("\r\n", p1) - p1 - 8);
  const std::string h2 = out.substr(p2 + 8, out.find("\r\n", p2) - p2 - 8);
  out = MustRun("mofn-recover", {"--partsform", "hex", "--parts", h2 + "," + h1});
  EXPECT_EQ(out.rfind("C0FFEE\r\n", 0), 0u) << out;
}

TEST_F(SharingJobs, JobRefusalsAndHelp) {
  RunResult r =
      Job("mofn-split", {"-m", "1", "-n", "3", "--secretform", "hex", "--secret", "0011"});
  EXPECT_NE(r.out.find(ErrorLine("MofNSplit", QL_ERR_BAD_LENGTH)), std::string::npos) << r.out;
  EXPECT_NE(r.exitCode, 0);

  MustRun("mofn-split",
          {"-m", "2", "-n", "3", "--secretform", "hex", "--secret", "0011", "--out", Path("p")});
  r = Job("mofn-recover", {"--parts", Path("p.2")});
  EXPECT_NE(r.out.find(ErrorLine("MofNRecover", QL_ERR_SHARES_TOO_FEW)), std::string::npos)
      << r.out;

  for (const auto &[job, options] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"mofn-split", {"-m", "2", "-n", "3"}},
           {"mofn-split", {"-n", "3", "--secretform", "hex", "--secret", "00"}},
           {"mofn-recover", {}},
           {"mofn-recover", {"--parts", Path("p.1") + ",," + Path("p.2")}}}) {
    r = Job(job, options);
    EXPECT_EQ(r.exitCode, 255) << job;
    EXPECT_NE(r.out.find("EXAMPLE"), std::string::npos) << job << ":\n" << r.out;
  }
}

}  // namespace
}  // namespace jobs_test
