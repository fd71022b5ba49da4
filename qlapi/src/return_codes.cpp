// QGetReturnCodeString: the name and the sentence of every code, from the table the library and
// the HSM share (proto/return_codes.h). Each constant of qlapi.h is checked against that table
// here, and so are the other numbers the HSM reads from the messages (proto/wire_values.h).
#include "return_codes.h"

#include <cstddef>

#include "qlapi.h"
#include "wire_values.h"

namespace {

#define QL_CHECK_CODE(engine_name, library_name, value, text) \
  static_assert((library_name) == (value), #library_name " differs from the shared code table");
QL_RETURN_CODES(QL_CHECK_CODE)
#undef QL_CHECK_CODE

#define QL_CHECK_WIRE(daemon_name, library_name, value) \
  static_assert((library_name) == (value), #library_name " differs from the shared wire values");
QL_WIRE_VALUES(QL_CHECK_WIRE)
#undef QL_CHECK_WIRE

struct CodeText {
  int code;
  const char *name;
  const char *text;
};

#define QL_CODE_TEXT(engine_name, library_name, value, text) {value, #library_name, text},
constexpr CodeText kCodes[] = {QL_RETURN_CODES(QL_CODE_TEXT)};
#undef QL_CODE_TEXT

}  // namespace

extern "C" const char *QGetReturnCodeString(int nCode, uint32_t dwFormat) {
  for (const CodeText &c : kCodes) {
    if (c.code == nCode) return dwFormat == QL_RC_STR_NAME ? c.name : c.text;
  }
  return dwFormat == QL_RC_STR_NAME ? "QL_ERR_UNKNOWN" : "Unknown return code.";
}
