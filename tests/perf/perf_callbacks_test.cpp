// The callbacks of the members told in full, against a recording stand-in for the library calls
// they make (linked into this binary, it takes the place of libqlapi's own): which keys are
// made with which flags and destroyed how, the piece sizes and final flags of encrypt and
// decrypt, a failing piece that ends only its message, the size query, Init's leniency when no
// temporary name can be drawn, and QDoRSAPadding's inverted answer. None of it shows from
// outside the process.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "PerformanceTests.h"
#include "qlapi.h"
#include "qlutil.h"

namespace {

struct Rec {
  explicit Rec(std::string fn_, std::string name_ = "", uint32_t flags_ = 0, uint32_t len_ = 0,
               uint32_t buffer_ = 0, int final_ = 0)
      : fn(std::move(fn_)),
        name(std::move(name_)),
        flags(flags_),
        len(len_),
        buffer(buffer_),
        final(final_) {}
  std::string fn;
  std::string name;  // key name ("<null>" for none)
  uint32_t flags;
  uint32_t len;
  uint32_t buffer;
  int final;
};

struct Fake {
  std::mutex mutex;
  std::vector<Rec> calls;
  uintptr_t next_handle = 1;
  int random_calls = 0;
  int random_fail_at = -1;  // the n-th QGetRandom (from 0) answers 1012
  int sign_size_answer = QL_ERR_BUFFER_TOO_SMALL;
  uint32_t signature_len = 256;
  int encrypt_calls = 0;
  std::vector<int> encrypt_fail;  // QEncrypt call indexes that answer 5018
  int decrypt_calls = 0;
  std::vector<int> decrypt_fail;
  int rsa_padding_answer = 1;
  uint32_t key_len = 128;

  void Reset() {
    std::lock_guard<std::mutex> lock(mutex);
    calls.clear();
    random_calls = encrypt_calls = decrypt_calls = 0;
    random_fail_at = -1;
    sign_size_answer = QL_ERR_BUFFER_TOO_SMALL;
    encrypt_fail.clear();
    decrypt_fail.clear();
    rsa_padding_answer = 1;
  }
  void *NewHandle() { return reinterpret_cast<void *>(next_handle++); }
  std::vector<Rec> Of(const std::string &fn) {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Rec> out;
    for (const Rec &c : calls) {
      if (c.fn == fn) out.push_back(c);
    }
    return out;
  }
};

Fake &F() {
  static Fake fake;
  return fake;
}

bool Contains(const std::vector<int> &v, int x) {
  for (int i : v) {
    if (i == x) return true;
  }
  return false;
}

}  // namespace

extern "C" {

int QOpenSession(HSESSIONCTX *phSession, uint32_t, void *, uint32_t, uint32_t) {
  std::lock_guard<std::mutex> lock(F().mutex);
  *phSession = F().NewHandle();
  F().calls.emplace_back("QOpenSession");
  return 0;
}
int QCloseSession(HSESSIONCTX *phSession, uint32_t dwFlags) {
  std::lock_guard<std::mutex> lock(F().mutex);
  F().calls.emplace_back("QCloseSession", "", dwFlags);
  *phSession = nullptr;
  return 0;
}
int QGetRandom(HSESSIONCTX, unsigned char *pbData, uint32_t dwDataLen) {
  std::lock_guard<std::mutex> lock(F().mutex);
  const int n = F().random_calls++;
  F().calls.emplace_back("QGetRandom", "", 0, dwDataLen);
  if (n == F().random_fail_at) return QL_ERR_CREDENTIAL_NOT_FOUND;
  for (uint32_t i = 0; i < dwDataLen; ++i) pbData[i] = static_cast<unsigned char>(0xA5 ^ i ^ n);
  return 0;
}
int QGenerateKey(HSESSIONCTX, const char *szKeyName, uint32_t, uint32_t dwFlags, HKEYCTX *phKey) {
  std::lock_guard<std::mutex> lock(F().mutex);
  F().calls.emplace_back("QGenerateKey", szKeyName ? szKeyName : "<null>", dwFlags);
  if (phKey != nullptr) *phKey = F().NewHandle();
  return 0;
}
int QGetUserKey(HSESSIONCTX, const char *szKeyName, uint32_t dwFlags, HKEYCTX *phKey) {
  std::lock_guard<std::mutex> lock(F().mutex);
  F().calls.emplace_back("QGetUserKey", szKeyName, dwFlags);
  if (szKeyName[0] == '\0') return QL_ERR_OBJ_NOT_FOUND;
  *phKey = F().NewHandle();
  return 0;
}
int QDestroyKey(HKEYCTX *phKey, uint32_t dwFlags) {
  std::lock_guard<std::mutex> lock(F().mutex);
  F().calls.emplace_back("QDestroyKey", "", dwFlags);
  *phKey = nullptr;
  return 0;
}
int QCreateHash(HSESSIONCTX, uint32_t, HKEYCTX, uint32_t, HHASHCTX *phHash) {
  std::lock_guard<std::mutex> lock(F().mutex);
  *phHash = F().NewHandle();
  return 0;
}
int QHashData(HHASHCTX, const unsigned char *, uint32_t dwDataLen, uint32_t) {
  std::lock_guard<std::mutex> lock(F().mutex);
  F().calls.emplace_back("QHashData", "", 0, dwDataLen);
  return 0;
}
int QGetHashParam(HHASHCTX, uint32_t, unsigned char *pbData, uint32_t *pdwDataLen, uint32_t) {
  std::memset(pbData, 0x11, 32);
  *pdwDataLen = 32;
  return 0;
}
int QDestroyHash(HHASHCTX *phHash) {
  *phHash = nullptr;
  return 0;
}
int QSignHash(HHASHCTX, HKEYCTX, uint32_t dwFlags, unsigned char *pbSignature,
              uint32_t *pdwSignatureLen) {
  std::lock_guard<std::mutex> lock(F().mutex);
  if (pbSignature == nullptr) {
    F().calls.emplace_back("QSignHash:size", "", dwFlags, *pdwSignatureLen);
    if (F().sign_size_answer == QL_ERR_BUFFER_TOO_SMALL) *pdwSignatureLen = F().signature_len;
    return F().sign_size_answer;
  }
  F().calls.emplace_back("QSignHash", "", dwFlags, *pdwSignatureLen);
  *pdwSignatureLen = F().signature_len;
  return 0;
}
int QGetKeyParam(HKEYCTX, uint32_t dwParam, void *pvData, uint32_t *pdwDataLen, uint32_t) {
  if (dwParam != QKP_KEYLEN || *pdwDataLen != 4) return QL_ERR_BAD_ARGUMENT;
  std::memcpy(pvData, &F().key_len, 4);
  return 0;
}
int QSetKeyParam(HKEYCTX, uint32_t dwParam, const void *pvData, uint32_t dwDataLen, uint32_t) {
  std::lock_guard<std::mutex> lock(F().mutex);
  uint32_t value = 0;
  if (dwDataLen == 4) std::memcpy(&value, pvData, 4);
  F().calls.emplace_back("QSetKeyParam", std::to_string(dwParam), value, dwDataLen);
  return 0;
}
int QEncrypt(HKEYCTX, HHASHCTX, int bFinal, uint32_t, unsigned char *, uint32_t *pdwDataLen,
             uint32_t dwBufLen) {
  std::lock_guard<std::mutex> lock(F().mutex);
  const int n = F().encrypt_calls++;
  F().calls.emplace_back("QEncrypt", "", 0, *pdwDataLen, dwBufLen, bFinal);
  if (Contains(F().encrypt_fail, n)) return QL_ERR_PIECES_REFUSED;
  if (bFinal) *pdwDataLen += 16;  // a padding block
  return *pdwDataLen <= dwBufLen ? 0 : QL_ERR_BUFFER_TOO_SMALL;
}
int QDecrypt(HKEYCTX, HHASHCTX, int bFinal, uint32_t, unsigned char *, uint32_t *pdwDataLen) {
  std::lock_guard<std::mutex> lock(F().mutex);
  const int n = F().decrypt_calls++;
  F().calls.emplace_back("QDecrypt", "", 0, *pdwDataLen, 0, bFinal);
  if (Contains(F().decrypt_fail, n)) return QL_ERR_BAD_PADDING;
  if (bFinal) *pdwDataLen -= 16;
  return 0;
}
int QDoRSAPadding(HSESSIONCTX, uint32_t dwType, unsigned char *pbOut, const unsigned char *,
                  uint32_t *pdwHashLen, uint32_t dwKeyLen, uint32_t dwDigestId) {
  std::lock_guard<std::mutex> lock(F().mutex);
  F().calls.emplace_back("QDoRSAPadding", "", dwDigestId, dwKeyLen, dwType);
  std::memset(pbOut, 0x01, dwKeyLen);
  *pdwHashLen = dwKeyLen;
  return F().rsa_padding_answer;
}
int QBatchSign(HKEYCTX, unsigned char *pbBatch, uint32_t dwCount, uint32_t) {
  std::lock_guard<std::mutex> lock(F().mutex);
  // The blocks the loop hands over are the padded ones, after the 58-byte header.
  F().calls.emplace_back("QBatchSign", "", pbBatch[QL_BATCH_HEADER_LEN], dwCount);
  return 0;
}

}  // extern "C"

namespace {

struct Outcome {
  int result;
  std::string out;
};

Outcome RunMember(pfn_TestFunction handler, const std::string &args) {
  std::vector<std::string> words = {"-a", "127.0.0.1", "-u", "master", "-w", "24681357"};
  std::istringstream in(args);
  for (std::string word; in >> word;) words.push_back(word);
  std::vector<const char *> argv = {"qlutil"};
  for (const std::string &w : words) argv.push_back(w.c_str());
  TEST_PARAMETER *params = nullptr;
  int count = 0;
  ParseParameters(static_cast<int>(argv.size()), argv.data(), &params, &count);
  testing::internal::CaptureStdout();
  const int result = handler(params, count);
  Outcome outcome{result, testing::internal::GetCapturedStdout()};
  FreeParameters(params);
  return outcome;
}

std::vector<uint32_t> FlagsOf(const std::vector<Rec> &calls) {
  std::vector<uint32_t> flags;
  for (const Rec &c : calls) flags.push_back(c.flags);
  return flags;
}

class PerfCallbacks : public ::testing::Test {
 protected:
  void SetUp() override { F().Reset(); }
};

TEST_F(PerfCallbacks, SignHashPerThreadKeysAreUnnamedSessionKeysReleasedWithFlagsZero) {
  const Outcome o = RunMember(PerfSignHash, "-p sign-hash -t 2 -i 3 -h sha256 -k rsa2048");
  EXPECT_EQ(o.result, kResultSuccess) << o.out;
  const std::vector<Rec> made = F().Of("QGenerateKey");
  ASSERT_EQ(made.size(), 2u);
  for (const Rec &c : made) {
    EXPECT_EQ(c.name, "<null>");
    EXPECT_EQ(c.flags, 5u);
  }
  EXPECT_EQ(FlagsOf(F().Of("QDestroyKey")), (std::vector<uint32_t>{0, 0}));
  EXPECT_TRUE(F().Of("QGetUserKey").empty());
  // One size query per thread (length 0 in), then three signatures each with the length it gave.
  const std::vector<Rec> queries = F().Of("QSignHash:size");
  ASSERT_EQ(queries.size(), 2u);
  EXPECT_EQ(queries[0].len, 0u);
  const std::vector<Rec> signs = F().Of("QSignHash");
  ASSERT_EQ(signs.size(), 6u);
  for (const Rec &c : signs) {
    EXPECT_EQ(c.len, 256u);
    EXPECT_EQ(c.flags, 0u);
  }
  // --ds absent: 64 bytes are drawn and hashed per thread.
  for (const Rec &c : F().Of("QHashData")) EXPECT_EQ(c.len, 64u);
}

TEST_F(PerfCallbacks, SignHashTgMakesOneNamedKeyRemovedInFinWithFlag32) {
  const Outcome o = RunMember(PerfSignHash,
                              "-p sign-hash -t 2 -i 1 -h sha256 -k rsa2048 --tg --ds 100 "
                              "--disable_legacy_sign");
  EXPECT_EQ(o.result, kResultSuccess) << o.out;
  const std::vector<Rec> made = F().Of("QGenerateKey");
  ASSERT_EQ(made.size(), 1u);
  EXPECT_TRUE(std::regex_match(made[0].name, std::regex("[0-9A-F]{32}"))) << made[0].name;
  EXPECT_EQ(made[0].flags, 1u);
  const std::vector<Rec> opened = F().Of("QGetUserKey");
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[0].name, made[0].name);
  EXPECT_EQ(opened[0].flags, 0u);
  // The threads' handles go with 0, then Fin removes the key.
  EXPECT_EQ(FlagsOf(F().Of("QDestroyKey")), (std::vector<uint32_t>{0, 0, 32}));
  for (const Rec &c : F().Of("QSignHash")) EXPECT_EQ(c.flags, 2u);
  for (const Rec &c : F().Of("QHashData")) EXPECT_EQ(c.len, 100u);
}

TEST_F(PerfCallbacks, SignHashKnKeyIsOpenedByNameCutTo49AndNeverRemoved) {
  const std::string long_name(60, 'k');
  const Outcome o = RunMember(PerfSignHash, "-p sign-hash -t 2 -i 1 -h sha256 --kn " + long_name);
  EXPECT_EQ(o.result, kResultSuccess) << o.out;
  EXPECT_TRUE(F().Of("QGenerateKey").empty());
  const std::vector<Rec> opened = F().Of("QGetUserKey");
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[0].name, std::string(49, 'k'));
  EXPECT_EQ(FlagsOf(F().Of("QDestroyKey")), (std::vector<uint32_t>{0, 0}));
}

TEST_F(PerfCallbacks, SignHashInitWithoutATemporaryNameGoesOnAndTheThreadsFail) {
  F().random_fail_at = 0;  // Init's draw of the name
  const Outcome o = RunMember(PerfSignHash, "-p sign-hash -t 1 -i 1 -h sha256 -k rsa2048 --tg");
  EXPECT_EQ(o.out.rfind("[PerfSignHashInit] Fail in GetTempKeyName. rc = 0\r\n", 0), 0u) << o.out;
  EXPECT_NE(o.out.find("[PerfSignHashThreadInit] Fail in QGetUserKey. rc = 5004\r\n"),
            std::string::npos)
      << o.out;
  EXPECT_EQ(o.result, QL_ERR_OBJ_NOT_FOUND);
  EXPECT_TRUE(F().Of("QGenerateKey").empty());
  // Init's session is still closed by Fin.
  EXPECT_EQ(F().Of("QCloseSession").size(), F().Of("QOpenSession").size());
}

TEST_F(PerfCallbacks, SignHashSizeQueryThatAnswersZeroIsReportedAndTakenAsSuccess) {
  F().sign_size_answer = 0;
  const Outcome o = RunMember(PerfSignHash, "-p sign-hash -t 1 -i 0 -h sha256 -k rsa2048");
  EXPECT_EQ(o.out.rfind("[PerfSignHashThreadInit] Fail in QSignHash. rc = 0\r\n", 0), 0u) << o.out;
  EXPECT_EQ(o.result, kResultSuccess);
}

TEST_F(PerfCallbacks, EncryptSendsPiecesOf8064InAn8192ByteBufferTheLastOneFinal) {
  const Outcome o = RunMember(PerfEncrypt,
                              "-p encrypt -t 1 -i 2 -k aes256 -m 20000 -mo cbc -pa "
                              "pkcs5_padding");
  EXPECT_EQ(o.result, kResultSuccess) << o.out;
  const std::vector<Rec> pieces = F().Of("QEncrypt");
  ASSERT_EQ(pieces.size(), 6u);
  const uint32_t sizes[] = {8064, 8064, 3872};
  for (size_t i = 0; i < pieces.size(); ++i) {
    EXPECT_EQ(pieces[i].len, sizes[i % 3]) << i;
    EXPECT_EQ(pieces[i].buffer, 8192u) << i;
    EXPECT_EQ(pieces[i].final, i % 3 == 2 ? 1 : 0) << i;
  }
  // 8,064 random bytes, a session key (flag 4), then mode and padding on the handle.
  EXPECT_EQ(F().Of("QGetRandom")[0].len, 8064u);
  EXPECT_EQ(FlagsOf(F().Of("QGenerateKey")), (std::vector<uint32_t>{4}));
  const std::vector<Rec> params = F().Of("QSetKeyParam");
  ASSERT_EQ(params.size(), 2u);
  EXPECT_EQ(params[0].name, "4");  // QKP_MODE
  EXPECT_EQ(params[0].flags, static_cast<uint32_t>(QL_MODE_CBC));
  EXPECT_EQ(params[1].name, "3");  // QKP_PADDING
  EXPECT_EQ(params[1].flags, static_cast<uint32_t>(QL_PAD_PKCS5));
}

TEST_F(PerfCallbacks, EncryptFailingPieceEndsOnlyItsMessageAndTheLastCodeDecides) {
  // The second piece of the first message fails: that message ends, the next one is whole.
  F().encrypt_fail = {1};
  Outcome o = RunMember(PerfEncrypt, "-p encrypt -t 1 -i 2 -k aes256 -m 20000");
  EXPECT_EQ(o.out.rfind("[PerfEncrypt] Fail in QEncrypt. rc = 5018\r\n", 0), 0u) << o.out;
  EXPECT_EQ(F().Of("QEncrypt").size(), 5u);
  EXPECT_EQ(o.result, kResultSuccess) << "the last piece succeeded";

  F().Reset();
  F().encrypt_fail = {5};  // the very last piece
  o = RunMember(PerfEncrypt, "-p encrypt -t 1 -i 2 -k aes256 -m 20000");
  EXPECT_EQ(F().Of("QEncrypt").size(), 6u);
  EXPECT_EQ(o.result, QL_ERR_PIECES_REFUSED) << o.out;
}

TEST_F(PerfCallbacks, DecryptNamesItsKeyFromFourRandomBytesAndWorksInPiecesOf2048) {
  const Outcome o = RunMember(PerfDecrypt, "-p decrypt -t 1 -i 1 -k aes256 -m 5000");
  EXPECT_EQ(o.result, kResultSuccess) << o.out;
  EXPECT_EQ(F().Of("QGetRandom")[0].len, 4u);
  const std::vector<Rec> made = F().Of("QGenerateKey");
  ASSERT_EQ(made.size(), 1u);
  EXPECT_TRUE(std::regex_match(made[0].name, std::regex("[0-9]+_QLUTI_TMP_KEY"))) << made[0].name;
  EXPECT_EQ(made[0].flags, 4u);
  // ThreadInit encrypts 2048 + 2048 + 904 (final, + 16 of padding here) ...
  const std::vector<Rec> enc = F().Of("QEncrypt");
  ASSERT_EQ(enc.size(), 3u);
  EXPECT_EQ(enc[0].len, 2048u);
  EXPECT_EQ(enc[1].len, 2048u);
  EXPECT_EQ(enc[2].len, 904u);
  EXPECT_EQ(enc[2].final, 1);
  // ... and each pass decrypts the 5,016 bytes of ciphertext in pieces of at most 2,048.
  const std::vector<Rec> dec = F().Of("QDecrypt");
  ASSERT_EQ(dec.size(), 3u);
  EXPECT_EQ(dec[0].len, 2048u);
  EXPECT_EQ(dec[1].len, 2048u);
  EXPECT_EQ(dec[2].len, 920u);
  EXPECT_EQ(dec[0].final + dec[1].final, 0);
  EXPECT_EQ(dec[2].final, 1);
}

TEST_F(PerfCallbacks, DecryptFailingPiecePrintsTheEncryptMessageAndEndsOnlyItsMessage) {
  F().decrypt_fail = {0};
  const Outcome o = RunMember(PerfDecrypt, "-p decrypt -t 1 -i 2 -k aes256 -m 5000");
  EXPECT_EQ(o.out.rfind("[PerfEncrypt] Fail in QEncrypt. rc = 5024\r\n", 0), 0u) << o.out;
  EXPECT_EQ(F().Of("QDecrypt").size(), 4u) << "the second message is decrypted whole";
  EXPECT_EQ(o.result, kResultSuccess);
}

TEST_F(PerfCallbacks, BatchSignPadsOnceCopiesTheBlocksAndGoesOnWhenPaddingAnswersZero) {
  Outcome o = RunMember(PerfBatchSign, "-p batch-sign -t 1 -i 2 -h sha256 -k rsa1024 -bc 3");
  EXPECT_EQ(o.result, kResultSuccess) << o.out;
  const std::vector<Rec> padding = F().Of("QDoRSAPadding");
  ASSERT_EQ(padding.size(), 1u);
  EXPECT_EQ(padding[0].flags, 4u);   // SHA-256's digest identifier
  EXPECT_EQ(padding[0].len, 128u);   // the key length read with QKP_KEYLEN
  EXPECT_EQ(padding[0].buffer, 1u);  // PKCS#1 block type 1
  const std::vector<Rec> batches = F().Of("QBatchSign");
  ASSERT_EQ(batches.size(), 2u);
  for (const Rec &c : batches) {
    EXPECT_EQ(c.len, 3u);
    EXPECT_EQ(c.flags, 1u) << "the first padded block follows the 58-byte header";
  }
  EXPECT_EQ(F().Of("QGetRandom")[0].len, 1024u);

  F().Reset();
  F().rsa_padding_answer = 0;
  o = RunMember(PerfBatchSign, "-p batch-sign -t 1 -i 1 -h sha256 -k rsa1024 -bc 3");
  EXPECT_EQ(o.out.rfind("[PerfBatchSignThreadInit] Fail in QDoRSAPadding. rc = 0\r\n", 0), 0u)
      << o.out;
  EXPECT_EQ(o.result, kResultSuccess);
  EXPECT_EQ(F().Of("QBatchSign").size(), 1u);
}

TEST_F(PerfCallbacks, EverySessionOpenedIsClosed) {
  const char *runs[] = {"-p sign-hash -t 3 -i 2 -h sha256 -k rsa2048 --tg",
                        "-p encrypt -t 2 -i 2 -k aes256 -m 100",
                        "-p decrypt -t 2 -i 2 -k aes256 -m 100"};
  const pfn_TestFunction handlers[] = {PerfSignHash, PerfEncrypt, PerfDecrypt};
  for (int i = 0; i < 3; ++i) {
    F().Reset();
    const Outcome o = RunMember(handlers[i], runs[i]);
    EXPECT_EQ(o.result, kResultSuccess) << runs[i] << "\n" << o.out;
    EXPECT_EQ(F().Of("QCloseSession").size(), F().Of("QOpenSession").size()) << runs[i];
  }
}

}  // namespace
