#pragma once
// The command front end of qlutil: the parameter array, the command table, the typed
// parameter getters, the driver and the help printers.
//
// Every getter takes the parameter array and its length first and the switch name (dashes
// included) third. Getters never change the array, and absence, emptiness, a bad number or an
// unknown word shows only in the result; but every switch a getter finds is marked as read (see
// option_usage.h), and an input file that is missing or empty, or hex that does not parse, gets
// one line on standard error saying which.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qlapi.h"

// Result codes a handler returns (the driver maps kResultSuccess to exit code 0 and passes every
// other value through).
constexpr int kResultSuccess = 100000;      // the command succeeded
constexpr int kResultShowHelp = 100001;     // the command asks for the global help screen
constexpr int kResultJobStarting = 100002;  // a job's result while its runner is being started
constexpr int kResultUsage = -1;            // bad or missing options; the usage page was printed
// Returned by a command that is not built yet, or that needs Windows on another platform.
constexpr int kResultNotSupported = 50;

// Row value of the word "INVALID" that closes several word tables.
constexpr int kOptionInvalid = 99999;

// One command-line switch. Both fields are always zero-terminated: a longer switch is cut to 63
// bytes and a longer value to 255 bytes.
typedef struct _TEST_PARAMETER {
  char szParameter[64];  // the switch as typed, leading dashes included
  char szValue[256];     // its argument; empty when the switch stood alone
} TEST_PARAMETER;

// A command handler: the parameter array (borrowed) and its length; returns a result code.
typedef int (*pfn_TestFunction)(TEST_PARAMETER *pTestParam, int nParameters);

// One row of the command table.
typedef struct tag_TEST_FUNCTION {
  char FunctionType;            // 'p', 'f', 's' or 'j'
  const char *pszFunctionName;  // matched against the type switch's value
  pfn_TestFunction pFunction;
  const char *pszDescription;  // summary and usage; not printed by the help screen
  uint32_t dwFlags = 0;        // kCommand* bits
} TEST_FUNCTION;

// A row flag: the command removes, resets or replaces something in the HSM. Given a switch it
// does not read, such a command refuses to run instead of ignoring the switch.
constexpr uint32_t kCommandDestructive = 1;

// One row of a word table: an accepted option word and the number it stands for.
typedef struct tag_COMMAND_OPTION_TYPE {
  const char *pszStringId;
  int nId;
} COMMAND_OPTION_TYPE;

// Pause between operations, in seconds, read from -opsleep. dwEnd 0 means a fixed pause of
// dwInit; otherwise a random pause in [dwInit, dwEnd].
typedef struct OP_SLEEP_INFO_ {
  uint32_t dwInit;
  uint32_t dwEnd;
  uint32_t uiRandomSeed;  // not touched by the getter
} OP_SLEEP_INFO;

// A byte buffer allocated with QAlloc; the owner releases it with QFree (or ResetDblob).
typedef struct tag_DBLOB {
  unsigned char *pvData;
  uint32_t dwDataLen;
} DBLOB;

// Releases the blob's buffer with QFree and clears it. Safe on an empty blob.
void ResetDblob(DBLOB *pBlob);

// The command table (command_table.cpp) and its row count (194).
extern const TEST_FUNCTION kCommandTable[];
extern const int kCommandTableRows;

// ---------------------------------------------------------------------------------------------
// Parsing, dispatch and the driver

// Builds the parameter array from main's arguments. Sets *ppTestParam to null and
// *pnParameters to 0 first; when there are switches, *ppTestParam receives a block allocated
// with new[] (release with FreeParameters). Every argument beginning with '-' opens an entry;
// the next plain argument becomes its value if the value is still empty; other plain arguments
// are dropped.
void ParseParameters(int argc, const char *const *argv, TEST_PARAMETER **ppTestParam,
                     int *pnParameters);
void FreeParameters(TEST_PARAMETER *pTestParam);

// The handler of the command chosen by the first two-character type switch (-p, -f, -s, -j)
// and its value, or null. Kind letters and names are case-sensitive.
pfn_TestFunction FindFunction(TEST_PARAMETER *pTestParam, int nParameters,
                              const TEST_FUNCTION *pFunctions, int nFunctions);
// The row FindFunction picks, or null.
const TEST_FUNCTION *FindCommandRow(TEST_PARAMETER *pTestParam, int nParameters,
                                    const TEST_FUNCTION *pFunctions, int nFunctions);

// The whole run of one invocation: parse, dispatch between QInitialize and QFinalize, help,
// output file, result file. Returns the process exit code. main() calls it with kCommandTable;
// tests call it with tables of their own. Installs the exception guard (fatal signals on POSIX,
// SEH on Windows) for the duration of the call.
int RunQlutil(int argc, const char *const *argv, const TEST_FUNCTION *pFunctions, int nFunctions);

// ---------------------------------------------------------------------------------------------
// Help

void ShowHelpHeader();
void ShowHelp(const TEST_FUNCTION *pFunctions, int nFunctions);

void ShowHelpGlobalParameters();
void ShowHelpResultFilesParameters();
void ShowHelpConnectionParameters();
void ShowHelpAnonymousConnectionParameters();
void ShowHelpGlobalPerfParameters();
void ShowHelpGlobalJobParameters(bool bAnonymous);
void ShowHelpGlobalUserParameters();
void ShowHelpKeyAttributesParameters();
void ShowHelpExportTR31KeyAttributesParameters();
void ShowHelpGenKeyParamParameters();
void ShowHelpGenSPBKeyParamParameters();
void ShowHelpImpKeyParamParameters();
void ShowHelpP7SignAttributesParameters();
void ShowHelpSVaultGenToken();
void ShowHelpSVaultGetData();
void ShowHelpHashAlgorithms();
void ShowHelpHmacAlgorithms();
void ShowHelpCmacAlgorithms();
void ShowHelpP11HashAlgorithms();
void ShowHelpSymmetricAlgorithms();
void ShowHelpDESAlgorithms();
void ShowHelpTDESAlgorithms();
void ShowHelpAESAlgorithms();
void ShowHelpExportTR31KbpkAlg();
void ShowHelpRSAAlgorithms();
void ShowHelpECCAlgorithms();
void ShowHelpEDDSAAlgorithms();
void ShowHelpXECDHAlgorithms();
void ShowHelpECXAlgorithms();
void ShowHelpAsymmetricAlgorithms();
void ShowHelpAsymSigAlgorithms();
void ShowHelpHSMPubKeyAlgorithms();
void ShowHelpP11SymmetricAlgorithms();
void ShowHelpP11AssymmetricAlgorithms();
void ShowHelpSPBHashAlgorithms();
void ShowHelpEcdhOpAlgorithms();
void ShowHelpOathTypes();
void ShowHelpMode();
void ShowHelpPadding();
void ShowHelpCertOutForm();
void ShowHelpCertStoreLocation();
void ShowHelpKeySpec();
void ShowHelpGenPkcs10Version();
void ShowHelpGenPkcs10OutType();
void ShowHelpExportBlobTypeParameters();
void ShowHelpDataInformParameters();
void ShowHelpDataTextInformParameters();
void ShowHelpFileOutformParameters();
void ShowHelpSymCryptFlagsParameters();
void ShowHelpReplicationMessages();
void ShowHelpNetToolCommand();
void ShowHelpFindHSMServiceType();
void ShowHelpFindHSMFilter();
void ShowHelpFindHSMOutFormat();
void ShowHelpSVaultGetTokenFlags();
void ShowHelpSVaultGetTokenCKS();
void ShowHelpSVaultGetTokenType();
void ShowHelpSVaultGetTokenRepresentation();
void ShowHelpSVaultGetDataOp();
void ShowHelpExportTR31Usage();
void ShowHelpExportTR31Mode();
void ShowHelpExportTR31Exp();

// ---------------------------------------------------------------------------------------------
// Parameter getters

// 1 and *ppszValue = the first matching entry's szValue, or 0 and null. A null array gives 0.
int FindParameter(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                  char **ppszValue);
// 1 when the switch is present, with or without a value.
int IsParameterDefined(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
// The value; null when absent or exactly "NULL"; "" for a switch without value.
char *GetParameterStr(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
// atoi of the value; -1 when absent or empty.
int GetParameterInt(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
// True and *pdwValue when the value is all decimal digits (non-empty) and fits 32 bits;
// otherwise false and *pdwValue untouched.
bool GetParameterDword(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                       uint32_t *pdwValue);
// False for null; true when every character is a decimal digit ("" is true).
bool IsDigitString(const char *psz);
// The value read by ConvertHexStrToByteVector; empty when absent, "NULL" or not valid hex.
std::vector<unsigned char> GetParameterHex(TEST_PARAMETER *pTestParam, int nParameters,
                                           const char *pszName);
// The file name (null when absent or "NULL"). When a name is given, the whole file is read into
// pBlob (QAlloc); if it cannot be read, pBlob is set to null data and length 0 and the name is
// still returned. When null is returned pBlob is untouched.
char *GetParameterFileContent(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                              DBLOB *pBlob);
// -opsleep: "N" or "A:B" (swapped so that dwInit <= dwEnd). 0 when absent (untouched), empty or
// well-formed; -1 (both 0) when a range lacks its second number.
int GetParameterOpSleepInfo(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                            OP_SLEEP_INFO *pInfo);
// The nId of the first row whose word equals the value (case-sensitive); -1 when absent, empty
// or not found. Note the argument order: table and row count before the array length.
int GetParameterOptionInt(TEST_PARAMETER *pTestParam, const COMMAND_OPTION_TYPE *pOptions,
                          int nOptions, int nParameters, const char *pszName);

// Enumerated getters (word tables in param_options.cpp). Those with a default return it
// whenever the lookup gives -1.
enum DataInform { kFile = 0, kHexData = 1, kInvalid = 2 };
enum TextInform { kTextFile = 0, kTextString = 1 };
enum DataFileOutform { kOriginal = 0, kCsv = 1 };

uint32_t GetParameterNetToolCmd(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                                uint32_t dwDefault);
uint8_t GetParameterSVault(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                           uint8_t bDefault);
int GetParameterSVaultGetData(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                              int nDefault);
int GetParameterCertOutForm(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterOathType(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
DataInform GetParameterDataInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                                  DataInform eDefault);
TextInform GetParameterTextInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName,
                                  TextInform eDefault);
DataFileOutform GetParameterFileOutform(TEST_PARAMETER *pTestParam, int nParameters,
                                        const char *pszName, DataFileOutform eDefault);
int GetParameterSignHashInform(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterCertStore(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterKeySpec(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterFindHSM(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterTR31Usage(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterTR31Mode(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterTR31Exp(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterAesAlg(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
int GetParameterAlgCSP(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);
// The general algorithm table (174 words): hashes, keys, modes, paddings, blob and object types.
int GetParameterAlg(TEST_PARAMETER *pTestParam, int nParameters, const char *pszName);

// The library's key-size flag for an RSA size in bits: 1024 -> 0x4000000, 2048 -> 0x8000000,
// anything else 0.
uint32_t GetFlagRSAKeySize(int nBits);

// A certificate-search request read from --store, --certhash and --scope.
typedef struct tag_CERT_FIND_INFO {
  char szStoreName[256];
  char szCertHash[256];
  // Store location flag from --scope (GetParameterCertStore); current_user (0x10000) when the
  // switch is absent or its word unknown.
  uint32_t dwStoreLocation;
} CERT_FIND_INFO;

// True when both --store and --certhash are given; pInfo is filled either way (empty texts for
// what is missing).
bool GetCertFindInfo(TEST_PARAMETER *pTestParam, int nParameters, CERT_FIND_INFO *pInfo);
void PrintCertFindHelp();
