// libFuzzer target: arbitrary argument vectors through the command-line parser, the command
// selection and the parameter getters. The input is split on NUL bytes into arguments.
// Handlers are never called.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/ql_string_helper.h"
#include "qlutil.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

void ExerciseGetters(TEST_PARAMETER *p, int n, const char *name) {
  char *value = nullptr;
  const int found = FindParameter(p, n, name, &value);
  Check(found == IsParameterDefined(p, n, name));
  Check((found != 0) == (value != nullptr));
  const char *str = GetParameterStr(p, n, name);
  Check(str == nullptr || str == value);
  const int asInt = GetParameterInt(p, n, name);
  if (!found || value[0] == '\0') Check(asInt == -1);

  uint32_t dw = 0xA5A5A5A5u;
  if (GetParameterDword(p, n, name, &dw)) {
    Check(found && IsDigitString(value) && value[0] != '\0');
  } else {
    Check(dw == 0xA5A5A5A5u);
  }

  const auto hex = GetParameterHex(p, n, name);
  if (str != nullptr) Check(hex.size() <= strlen(str) / 2);

  OP_SLEEP_INFO sleep{1, 2, 3};
  const std::string before = found ? value : "";
  const int sleepRet = GetParameterOpSleepInfo(p, n, name, &sleep);
  Check(sleep.uiRandomSeed == 3);
  Check(sleepRet == 0 || sleepRet == -1);
  if (found) {
    Check(before == value);  // the array reads as before
    if (strchr(value, ':') != nullptr && sleepRet == 0) Check(sleep.dwInit <= sleep.dwEnd);
    if (sleepRet == -1) Check(sleep.dwInit == 0 && sleep.dwEnd == 0);
  }

  GetParameterAlg(p, n, name);
  GetParameterAlgCSP(p, n, name);
  GetParameterAesAlg(p, n, name);
  GetParameterNetToolCmd(p, n, name, 1);
  GetParameterSVault(p, n, name, 1);
  GetParameterSVaultGetData(p, n, name, 1);
  GetParameterCertOutForm(p, n, name);
  GetParameterOathType(p, n, name);
  GetParameterDataInform(p, n, name, kFile);
  GetParameterTextInform(p, n, name, kTextFile);
  GetParameterFileOutform(p, n, name, kOriginal);
  GetParameterSignHashInform(p, n, name);
  GetParameterCertStore(p, n, name);
  GetParameterKeySpec(p, n, name);
  GetParameterFindHSM(p, n, name);
  GetParameterTR31Usage(p, n, name);
  GetParameterTR31Mode(p, n, name);
  GetParameterTR31Exp(p, n, name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> args{"qlutil"};
  std::string current;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(data[i]));
    }
  }
  args.push_back(current);
  std::vector<const char *> argv;
  for (const auto &a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);

  TEST_PARAMETER *params = nullptr;
  int count = -1;
  ParseParameters(static_cast<int>(args.size()), argv.data(), &params, &count);
  Check(count >= 0 && (count == 0) == (params == nullptr));
  for (int i = 0; i < count; ++i) {
    Check(strnlen(params[i].szParameter, sizeof(params[i].szParameter)) <
          sizeof(params[i].szParameter));
    Check(strnlen(params[i].szValue, sizeof(params[i].szValue)) < sizeof(params[i].szValue));
    Check(params[i].szParameter[0] == '-');
  }

  const pfn_TestFunction fn = FindFunction(params, count, kCommandTable, kCommandTableRows);
  (void)fn;

  for (const char *name : {"-t", "-i", "-h", "-k", "-opsleep", "-out", "--retfiles"}) {
    ExerciseGetters(params, count, name);
  }
  for (int i = 0; i < count && i < 16; ++i) {
    ExerciseGetters(params, count, params[i].szParameter);
  }
  CERT_FIND_INFO info;
  GetCertFindInfo(params, count, &info);

  std::vector<unsigned char> bytes;
  if (TryConvertHexStrToByteVector(current, &bytes)) Check(bytes.size() <= current.size() / 2);

  FreeParameters(params);
  return 0;
}
