#pragma once
// The word tables of the enumerated parameter getters. Each is searched from its first row; the
// first row whose word equals the value (case-sensitive) gives the number.

#include "qlutil.h"

#define QL_DECLARE_OPTION_TABLE(name)      \
  extern const COMMAND_OPTION_TYPE name[]; \
  extern const int name##Rows

// The general algorithm table of GetParameterAlg (174 rows): the library's algorithm and type
// identifiers. One table serves every algorithm-like switch, so a word of another group is
// accepted; handlers check the range of the number they get.
QL_DECLARE_OPTION_TABLE(kAlgOptions);
// CryptoAPI algorithm identifiers, cipher modes and paddings (GetParameterAlgCSP).
QL_DECLARE_OPTION_TABLE(kAlgCSPOptions);
QL_DECLARE_OPTION_TABLE(kAesAlgOptions);
QL_DECLARE_OPTION_TABLE(kNetToolOptions);
// Mask type, checksum, token type and representation words of the tokenisation commands.
QL_DECLARE_OPTION_TABLE(kSVaultOptions);
QL_DECLARE_OPTION_TABLE(kSVaultGetDataOptions);
QL_DECLARE_OPTION_TABLE(kCertOutFormOptions);
QL_DECLARE_OPTION_TABLE(kOathTypeOptions);
QL_DECLARE_OPTION_TABLE(kDataInformOptions);
QL_DECLARE_OPTION_TABLE(kTextInformOptions);
QL_DECLARE_OPTION_TABLE(kFileOutformOptions);
QL_DECLARE_OPTION_TABLE(kSignHashInformOptions);
// Windows certificate-store location flags.
QL_DECLARE_OPTION_TABLE(kCertStoreOptions);
QL_DECLARE_OPTION_TABLE(kKeySpecOptions);
// Service types and output formats of the HSM discovery command. Its product-family filter
// words come with that command.
QL_DECLARE_OPTION_TABLE(kFindHSMOptions);
// TR-31 key usages: the two usage characters packed little-endian (first, upper case, in the
// low byte): b0 = 'B' | '0' << 8 = 0x3042.
QL_DECLARE_OPTION_TABLE(kTR31UsageOptions);
// TR-31 modes of use: the upper-case letter's code (t maps to 'U', as the HSM expects).
QL_DECLARE_OPTION_TABLE(kTR31ModeOptions);
QL_DECLARE_OPTION_TABLE(kTR31ExpOptions);

#undef QL_DECLARE_OPTION_TABLE
