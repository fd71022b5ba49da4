// The parameter getters and the hex-string reader.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common/ql_string_helper.h"
#include "frontend_test_util.h"
#include "qlutil.h"

using frontend_test::Args;

namespace {

// A parameter array built the way the driver builds it.
class ParamArray {
 public:
  explicit ParamArray(const Args &args) {
    TEST_PARAMETER *raw = nullptr;
    ParseParameters(args.argc(), args.argv(), &raw, &count_);
    params_.reset(raw);
  }
  TEST_PARAMETER *p() const { return params_.get(); }
  int n() const { return count_; }

 private:
  std::unique_ptr<TEST_PARAMETER[], void (*)(TEST_PARAMETER *)> params_{nullptr, FreeParameters};
  int count_ = 0;
};

TEST(FindParameter, FirstExactMatchOnly) {
  ParamArray a(Args{"-t", "1", "--t", "2", "-t", "3", "-T", "4"});
  char *value = reinterpret_cast<char *>(0x1);
  EXPECT_EQ(FindParameter(a.p(), a.n(), "-t", &value), 1);
  EXPECT_STREQ(value, "1");
  EXPECT_EQ(value, a.p()[0].szValue);  // the entry's own field
  EXPECT_EQ(FindParameter(a.p(), a.n(), "--t", &value), 1);
  EXPECT_STREQ(value, "2");
  EXPECT_EQ(FindParameter(a.p(), a.n(), "-", &value), 0);  // no prefix matching
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(FindParameter(nullptr, 3, "-t", &value), 0);
  EXPECT_EQ(value, nullptr);
}

TEST(Getters, SwitchWithoutValue) {
  ParamArray a(Args{"-i"});
  EXPECT_EQ(GetParameterInt(a.p(), a.n(), "-i"), -1);
  EXPECT_EQ(IsParameterDefined(a.p(), a.n(), "-i"), 1);
  ASSERT_NE(GetParameterStr(a.p(), a.n(), "-i"), nullptr);
  EXPECT_STREQ(GetParameterStr(a.p(), a.n(), "-i"), "");
  uint32_t dw = 77;
  EXPECT_FALSE(GetParameterDword(a.p(), a.n(), "-i", &dw));
  EXPECT_EQ(dw, 77u);
}

TEST(Getters, AbsentSwitch) {
  ParamArray a(Args{"-x", "1"});
  EXPECT_EQ(IsParameterDefined(a.p(), a.n(), "-i"), 0);
  EXPECT_EQ(GetParameterStr(a.p(), a.n(), "-i"), nullptr);
  EXPECT_EQ(GetParameterInt(a.p(), a.n(), "-i"), -1);
  EXPECT_TRUE(GetParameterHex(a.p(), a.n(), "-i").empty());
  EXPECT_EQ(GetParameterAlg(a.p(), a.n(), "-i"), -1);
  EXPECT_EQ(GetParameterStr(nullptr, 0, "-i"), nullptr);
}

TEST(Getters, NullWordMeansAbsentForTextAndBytes) {
  ParamArray a(Args{"-x", "NULL", "-y", "null"});
  EXPECT_EQ(GetParameterStr(a.p(), a.n(), "-x"), nullptr);
  EXPECT_TRUE(GetParameterHex(a.p(), a.n(), "-x").empty());
  DBLOB blob{reinterpret_cast<unsigned char *>(0x1), 9};
  EXPECT_EQ(GetParameterFileContent(a.p(), a.n(), "-x", &blob), nullptr);
  EXPECT_EQ(blob.dwDataLen, 9u);  // untouched
  EXPECT_EQ(IsParameterDefined(a.p(), a.n(), "-x"), 1);
  EXPECT_EQ(GetParameterInt(a.p(), a.n(), "-x"), 0);
  EXPECT_STREQ(GetParameterStr(a.p(), a.n(), "-y"), "null");  // only the exact word
}

TEST(Getters, IntFollowsAsciiToInteger) {
  const std::pair<const char *, int> cases[] = {
      {"12abc", 12}, {"abc", 0}, {"  42", 42}, {"+7", 7}, {"007", 7}, {"2147483647", 2147483647}};
  for (const auto &[value, expected] : cases) {
    ParamArray a(Args{"-i", value});
    EXPECT_EQ(GetParameterInt(a.p(), a.n(), "-i"), expected) << value;
  }
}

TEST(Getters, DwordAcceptsOnlyDigitsThatFit) {
  const std::pair<const char *, bool> cases[] = {
      {"4294967295", true}, {"4294967296", false}, {"0", true}, {"12abc", false},
      {" 1", false},        {"+1", false},         {"", false}, {"99999999999999999999999", false}};
  for (const auto &[value, ok] : cases) {
    ParamArray a(Args{"-n", value});
    uint32_t dw = 12345;
    EXPECT_EQ(GetParameterDword(a.p(), a.n(), "-n", &dw), ok) << value;
    if (ok) {
      EXPECT_EQ(dw, static_cast<uint32_t>(std::stoull(value))) << value;
    } else {
      EXPECT_EQ(dw, 12345u) << value;
    }
  }
}

TEST(IsDigitString, Rules) {
  EXPECT_FALSE(IsDigitString(nullptr));
  EXPECT_TRUE(IsDigitString(""));
  EXPECT_TRUE(IsDigitString("0123456789"));
  EXPECT_FALSE(IsDigitString("12a"));
  EXPECT_FALSE(IsDigitString("-1"));
  EXPECT_FALSE(IsDigitString("1 "));
}

TEST(Getters, OpSleepInfo) {
  struct Case {
    const char *value;
    int ret;
    uint32_t init, end;
  };
  const Case cases[] = {{"7", 0, 7, 0},     {"9:3", 0, 3, 9},  {"3:9", 0, 3, 9},
                        {"10:5", 0, 5, 10}, {":", -1, 0, 0},   {"4:", -1, 0, 0},
                        {"", 0, 0, 0},      {"5::8", 0, 5, 8}, {"2:2", 0, 2, 2}};
  for (const Case &c : cases) {
    ParamArray a(Args{"-opsleep", c.value});
    OP_SLEEP_INFO info{111, 222, 333};
    EXPECT_EQ(GetParameterOpSleepInfo(a.p(), a.n(), "-opsleep", &info), c.ret) << c.value;
    EXPECT_EQ(info.dwInit, c.init) << c.value;
    EXPECT_EQ(info.dwEnd, c.end) << c.value;
    EXPECT_EQ(info.uiRandomSeed, 333u) << c.value;
    // The array reads as before.
    EXPECT_STREQ(GetParameterStr(a.p(), a.n(), "-opsleep"), c.value);
  }
  ParamArray absent(Args{"-t", "1"});
  OP_SLEEP_INFO info{111, 222, 333};
  EXPECT_EQ(GetParameterOpSleepInfo(absent.p(), absent.n(), "-opsleep", &info), 0);
  EXPECT_EQ(info.dwInit, 111u);
  EXPECT_EQ(info.dwEnd, 222u);
}

const COMMAND_OPTION_TYPE kWords[] = {{"alpha", 1}, {"beta", 2}, {"alpha", 3}, {"INVALID", 99999}};

TEST(Getters, OptionIntTakesTableBeforeLength) {
  ParamArray a(Args{"-w", "alpha", "-b", "beta", "-u", "ALPHA", "-e", "-i", "INVALID"});
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 4, a.n(), "-w"), 1);  // first row wins
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 4, a.n(), "-b"), 2);
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 1, a.n(), "-b"), -1);  // row count honoured
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 4, a.n(), "-u"), -1);
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 4, a.n(), "-e"), -1);
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 4, a.n(), "-missing"), -1);
  EXPECT_EQ(GetParameterOptionInt(a.p(), kWords, 4, a.n(), "-i"), 99999);
}

TEST(Getters, EnumeratedDefaults) {
  ParamArray a(Args{"-n", "tracert", "-bad", "pong", "-sv", "INVALID", "-sv2", "base62", "-d",
                    "hex", "-t", "text", "-o", "csv"});
  EXPECT_EQ(GetParameterNetToolCmd(a.p(), a.n(), "-n", 7), 2u);
  EXPECT_EQ(GetParameterNetToolCmd(a.p(), a.n(), "-bad", 7), 7u);
  EXPECT_EQ(GetParameterNetToolCmd(a.p(), a.n(), "-none", 7), 7u);
  EXPECT_EQ(GetParameterSVault(a.p(), a.n(), "-sv", 5), static_cast<uint8_t>(99999 & 0xff));
  EXPECT_EQ(GetParameterSVault(a.p(), a.n(), "-sv2", 5), 62);
  EXPECT_EQ(GetParameterSVault(a.p(), a.n(), "-none", 5), 5);
  EXPECT_EQ(GetParameterSVaultGetData(a.p(), a.n(), "-bad", 42), 42);
  EXPECT_EQ(GetParameterDataInform(a.p(), a.n(), "-d", kFile), kHexData);
  EXPECT_EQ(GetParameterDataInform(a.p(), a.n(), "-bad", kInvalid), kInvalid);
  EXPECT_EQ(GetParameterTextInform(a.p(), a.n(), "-t", kTextFile), kTextString);
  EXPECT_EQ(GetParameterTextInform(a.p(), a.n(), "-none", kTextFile), kTextFile);
  EXPECT_EQ(GetParameterFileOutform(a.p(), a.n(), "-o", kOriginal), kCsv);
  EXPECT_EQ(GetParameterFileOutform(a.p(), a.n(), "-bad", kOriginal), kOriginal);
  // Getters without a default give -1.
  EXPECT_EQ(GetParameterCertOutForm(a.p(), a.n(), "-bad"), -1);
  EXPECT_EQ(GetParameterKeySpec(a.p(), a.n(), "-none"), -1);
}

TEST(Getters, AlgWordsAreCaseSensitiveAndShareOneTable) {
  ParamArray a(Args{"-h", "SHA256", "-k", "rsa2048", "-x", "INVALID", "-m", "cfb", "-c", "cfb"});
  EXPECT_EQ(GetParameterAlg(a.p(), a.n(), "-h"), -1);
  EXPECT_EQ(GetParameterAlg(a.p(), a.n(), "-k"), 6);  // a key word through the hash switch too
  EXPECT_EQ(GetParameterAlg(a.p(), a.n(), "-x"), 99999);
  EXPECT_EQ(GetParameterAlg(a.p(), a.n(), "-m"), -1);    // no cfb in the general table
  EXPECT_EQ(GetParameterAlgCSP(a.p(), a.n(), "-c"), 4);  // the CryptoAPI table has it
}

TEST(Getters, RsaKeySizeFlag) {
  EXPECT_EQ(GetFlagRSAKeySize(1024), 0x4000000u);
  EXPECT_EQ(GetFlagRSAKeySize(2048), 0x8000000u);
  for (int bits : {0, -1, 512, 3072, 4096, 1023}) EXPECT_EQ(GetFlagRSAKeySize(bits), 0u) << bits;
}

TEST(Getters, CertFindInfoNeedsStoreAndHash) {
  ParamArray both(Args{"--store", "MY", "--certhash", "ab12", "--scope", "local_machine"});
  CERT_FIND_INFO info;
  EXPECT_TRUE(GetCertFindInfo(both.p(), both.n(), &info));
  EXPECT_STREQ(info.szStoreName, "MY");
  EXPECT_STREQ(info.szCertHash, "ab12");
  EXPECT_EQ(info.dwStoreLocation, 0x20000u);

  ParamArray noHash(Args{"--store", "MY"});
  EXPECT_FALSE(GetCertFindInfo(noHash.p(), noHash.n(), &info));
  EXPECT_STREQ(info.szCertHash, "");
  EXPECT_EQ(info.dwStoreLocation, 0x10000u);  // current user without --scope
  ParamArray noStore(Args{"--certhash", "ab12", "--store", "NULL"});
  EXPECT_FALSE(GetCertFindInfo(noStore.p(), noStore.n(), &info));
}

class FileContentTest : public frontend_test::ScratchDirTest {};

TEST_F(FileContentTest, ReadsWholeFileOrGivesEmptyBlob) {
  const std::string content("a\0b\r\n\xff", 6);
  std::ofstream("data.bin", std::ios::binary) << content;
  std::ofstream("empty.bin", std::ios::binary);
  ParamArray a(Args{"-f", "data.bin", "-g", "missing.bin", "-e", "empty.bin"});

  DBLOB blob{};
  const char *name = GetParameterFileContent(a.p(), a.n(), "-f", &blob);
  ASSERT_STREQ(name, "data.bin");
  ASSERT_EQ(blob.dwDataLen, content.size());
  EXPECT_EQ(std::string(reinterpret_cast<char *>(blob.pvData), blob.dwDataLen), content);
  ResetDblob(&blob);
  EXPECT_EQ(blob.pvData, nullptr);
  EXPECT_EQ(blob.dwDataLen, 0u);

  blob = DBLOB{reinterpret_cast<unsigned char *>(0x1), 5};
  EXPECT_STREQ(GetParameterFileContent(a.p(), a.n(), "-g", &blob), "missing.bin");
  EXPECT_EQ(blob.pvData, nullptr);
  EXPECT_EQ(blob.dwDataLen, 0u);

  blob = DBLOB{reinterpret_cast<unsigned char *>(0x1), 5};
  EXPECT_STREQ(GetParameterFileContent(a.p(), a.n(), "-e", &blob), "empty.bin");
  EXPECT_EQ(blob.pvData, nullptr);
  EXPECT_EQ(blob.dwDataLen, 0u);
}

TEST(HexString, AcceptedForms) {
  using V = std::vector<unsigned char>;
  const std::pair<const char *, V> cases[] = {
      {"", V{}},
      {"0x", V{}},
      {"00ff7A", V{0x00, 0xff, 0x7a}},
      {"0X0a1B", V{0x0a, 0x1b}},
      {"0a:1b:2c", V{0x0a, 0x1b, 0x2c}},
      {"0a 1b\t2c", V{0x0a, 0x1b, 0x2c}},
      {"0A-1B", V{0x0a, 0x1b}},
      {" 0a  1b ", V{0x0a, 0x1b}},
  };
  for (const auto &[text, bytes] : cases) {
    V out{0x99};
    EXPECT_TRUE(TryConvertHexStrToByteVector(text, &out)) << text;
    EXPECT_EQ(out, bytes) << text;
    EXPECT_EQ(ConvertHexStrToByteVector(text), bytes) << text;
  }
}

TEST(HexString, RefusedForms) {
  for (const char *text : {"abc", "0", "0:a1b", "0g", "zz", "0a,1b", "0x0x00", "00 0"}) {
    std::vector<unsigned char> out{0x99};
    EXPECT_FALSE(TryConvertHexStrToByteVector(text, &out)) << text;
    EXPECT_TRUE(out.empty()) << text;
    EXPECT_TRUE(ConvertHexStrToByteVector(text).empty()) << text;
  }
}

TEST(HexString, ThroughTheGetterAndBack) {
  ParamArray a(Args{"-d", "DEADbeef", "-o", "abc"});
  const auto bytes = GetParameterHex(a.p(), a.n(), "-d");
  EXPECT_EQ(bytes, (std::vector<unsigned char>{0xde, 0xad, 0xbe, 0xef}));
  EXPECT_EQ(ConvertByteVectorToHexStr(bytes.data(), bytes.size()), "DEADBEEF");
  EXPECT_TRUE(GetParameterHex(a.p(), a.n(), "-o").empty());
}

}  // namespace
