// The word tables of the enumerated getters: lookups agree with the table, and the getters read
// their own tables.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "param_options.h"
#include "qlutil.h"

namespace {

// The value a lookup gives: the first row with the word.
int ValueOf(const COMMAND_OPTION_TYPE *table, int rows, const std::string &word) {
  TEST_PARAMETER param{};
  snprintf(param.szParameter, sizeof(param.szParameter), "-w");
  snprintf(param.szValue, sizeof(param.szValue), "%s", word.c_str());
  return GetParameterOptionInt(&param, table, rows, 1, "-w");
}

// A word listed twice in a table (kwp has two rows) stands for one value, whichever row a lookup
// finds; an unknown word is -1.
TEST(AlgTable, RepeatedWordsAgree) {
  std::map<std::string, int> first;
  for (int i = 0; i < kAlgOptionsRows; ++i) {
    const auto [it, inserted] = first.emplace(kAlgOptions[i].pszStringId, kAlgOptions[i].nId);
    if (!inserted) {
      EXPECT_EQ(kAlgOptions[i].nId, it->second) << kAlgOptions[i].pszStringId;
    }
  }
  EXPECT_EQ(ValueOf(kAlgOptions, kAlgOptionsRows, "no_such_word"), -1);
}

// The getters read their own tables.
TEST(WordTables, GettersUseThem) {
  TEST_PARAMETER p[] = {{"-a", "sha256"}, {"-b", "aes192"},   {"-c", "sha256"}, {"-d", "t"},
                        {"-e", "x9-24"},  {"-f", "b0"},       {"-g", "users"},  {"-h", "cng"},
                        {"-i", "csv"},    {"-j", "hash_hex"}, {"-k", "event"},  {"-l", "der"},
                        {"-m", "aes"},    {"-n", "secret"}};
  const int n = static_cast<int>(std::size(p));
  EXPECT_EQ(GetParameterAlg(p, n, "-a"), 4);
  EXPECT_EQ(GetParameterAesAlg(p, n, "-b"), 8);
  EXPECT_EQ(GetParameterAesAlg(p, n, "-a"), -1);
  EXPECT_EQ(GetParameterAlgCSP(p, n, "-c"), 0x800c);
  EXPECT_EQ(GetParameterTR31Mode(p, n, "-d"), 'U');
  EXPECT_EQ(GetParameterTR31Exp(p, n, "-e"), 'E');
  EXPECT_EQ(GetParameterTR31Usage(p, n, "-f"), 0x3042);
  EXPECT_EQ(GetParameterCertStore(p, n, "-g"), 0x60000);
  EXPECT_EQ(GetParameterKeySpec(p, n, "-h"), 0);
  EXPECT_EQ(GetParameterFindHSM(p, n, "-i"), 2);
  EXPECT_EQ(GetParameterSignHashInform(p, n, "-j"), 3);
  EXPECT_EQ(GetParameterOathType(p, n, "-k"), 2);
  EXPECT_EQ(GetParameterCertOutForm(p, n, "-l"), 1);
  EXPECT_EQ(GetParameterAlgCSP(p, n, "-m"), 0x6611);
  EXPECT_EQ(GetParameterSVaultGetData(p, n, "-n", 0), 1);
  EXPECT_EQ(GetParameterSVault(p, n, "-n", 0), 2);
}

}  // namespace
