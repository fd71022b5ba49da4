// The version banner, the global help screen and the shared option pages of the usage pages.

#include <cstdio>

#include "Output.h"
#include "qlutil.h"
#include "version.h"

void ShowHelpHeader() {
  printf("QUELTA utility tools - Version: %s\n\r", kQlutilVersion);
  printf("-------------------------------------------------------\r\n");
}

void ShowHelp(const TEST_FUNCTION *pFunctions, int nFunctions) {
  ScreenOutput("Command invocation:\r\n");
  ScreenOutput("     -f      Functional test command - see list below\r\n");
  ScreenOutput("     -p      Performance test command - see list below\r\n");
  ScreenOutput("     -s      Stress test command - see list below\r\n");
  ScreenOutput("     -j      Utility command - see list below\r\n");

  char kind = '\0';
  int column = 0;
  for (int i = 0; i < nFunctions; ++i) {
    const TEST_FUNCTION &row = pFunctions[i];
    if (row.FunctionType != kind) {
      kind = row.FunctionType;
      column = 0;
      switch (kind) {
        case 'f':
          printf("\r\n\r\nFunctional tests (-f command):\r\n");
          break;
        case 'p':
          printf("\r\n\r\nPerformance tests (-p command):\r\n");
          break;
        case 's':
          printf("\r\n\r\nStress tests (-s command):\r\n");
          break;
        case 'j':
          printf("\r\n\r\nUtility functions (-j command:):\r\n");
          break;
        default:
          break;
      }
    }
    ScreenOutput("%-20s", row.pszFunctionName != nullptr ? row.pszFunctionName : "");
    if (++column == 4) {
      ScreenOutput("\r\n");
      column = 0;
    }
  }
  ScreenOutput("\r\n\r\n");
}

void ShowHelpResultFilesParameters() {
  ScreenOutput("     %s  If defined, write return code and run time in files\r\n", "--retfiles");
  ScreenOutput("                 (%s and %s). Placed at\r\n", kResultFileName, kTimeFileName);
  ScreenOutput("                 the current folder.\r\n");
}

void ShowHelpGlobalParameters() {
  ScreenOutput("     -a      QUELTA IP Address\r\n");
  ScreenOutput("     -u      QUELTA user\r\n");
  ScreenOutput("     -w      QUELTA password\r\n");
  ScreenOutput("     -t      Number of threads\r\n");
  ScreenOutput("     -i      Number of iterations per thread\r\n");
  ScreenOutput("     -out    [OPTIONAL] Output comma delimeted result file\r\n");
  ScreenOutput(
      "     -print  [OPTIONAL] time: Shows only the performance counter number on the output "
      "screen\r\n");
  ScreenOutput("     -tc     [OPTIONAL] Test case number to be appended in the output file\r\n");
  ScreenOutput("     -r      [OPTIONAL] 0: Create a new session for each iteration. \r\n");
  ScreenOutput(
      "                        1: Reuse the same session for all iterations (default)\r\n");
  ScreenOutput("     -sc     [OPTIONAL] 0: Bypass session cache\r\n");
  ScreenOutput("                        1: Use session cache (default)\r\n");
  ScreenOutput("     -tls    [OPTIONAL] 0: Do not encrypt communication\r\n");
  ScreenOutput("                        1: Encrypt communication (default)\r\n");
  ScreenOutput("     -lb     [OPTIONAL] 0: Bypass loadbalance (default)\r\n");
  ScreenOutput("                        1: Use loadbalance\r\n");
  ShowHelpResultFilesParameters();
}

namespace {

void AddressLine() {
  ScreenOutput("     -a                  QUELTA IP Address\r\n");
}

void PortLine() {
  ScreenOutput(
      "     --port              [OPTIONAL] QUELTA port. If not defined 4433(default) is "
      "used.\r\n");
}

void OutPrintTcLines() {
  ScreenOutput("     -out    [OPTIONAL] Output comma delimeted result file\r\n");
  ScreenOutput(
      "     -print  [OPTIONAL] time: Shows only the performance counter number on the output "
      "screen\r\n");
  ScreenOutput("     -tc     [OPTIONAL] Test case number to be appended in the output file\r\n");
}

}  // namespace

void ShowHelpConnectionParameters() {
  AddressLine();
  ScreenOutput("     -u                  QUELTA user\r\n");
  ScreenOutput("     -w                  QUELTA password\r\n");
  PortLine();
  ScreenOutput(
      "     --cm                [OPTIONAL] Windows credential target. Target must be equal to\r\n"
      "                         the HSM address.\r\n");
  ScreenOutput("     -at                 [OPTIONAL] Access token in base64 format.\r\n");
  ScreenOutput("                         If defined, the parameters -u and -w can be ignored.\r\n");
  ScreenOutput(
      "     -atf                [OPTIONAL] File with an access token in base64 format.\r\n");
  ScreenOutput("                         If defined, the parameters -u and -w can be ignored.\r\n");
}

void ShowHelpAnonymousConnectionParameters() {
  AddressLine();
  PortLine();
}

void ShowHelpGlobalPerfParameters() {
  ShowHelpConnectionParameters();
  ShowHelpResultFilesParameters();
  ScreenOutput("     -t      Number of threads\r\n");
  ScreenOutput("     -i      [OPTIONAL] Number of iterations per thread. If not defined it\r\n");
  ScreenOutput("             will enter in an infinite loop.\r\n");
  OutPrintTcLines();
  ScreenOutput("     -tls    [OPTIONAL] 0: Do not encrypt communication\r\n");
  ScreenOutput("     -sc     [OPTIONAL] 0: Bypass session cache\r\n");
  ScreenOutput("                        1: Use session cache (default)\r\n");
  ScreenOutput("                        1: Encrypt communication (default)\r\n");
  ScreenOutput("     -lb     [OPTIONAL] 0: Bypass loadbalance (default)\r\n");
  ScreenOutput("                        1: Use loadbalance\r\n");
  ScreenOutput(
      "     --stats_file        [OPTIONAL] File where the HSM statistics are written (csv).\r\n");
  ScreenOutput(
      "     --stats_interval    [OPTIONAL] HSM statistics sampling interval in ms.\r\n"
      "                         500 ms (default). 0 is disabled.\r\n");
  ScreenOutput("     --stats_print       [OPTIONAL] Print the HSM statistics on the screen.\r\n");
}

void ShowHelpGlobalJobParameters(bool bAnonymous) {
  if (bAnonymous) {
    ShowHelpAnonymousConnectionParameters();
  } else {
    ShowHelpConnectionParameters();
  }
  ShowHelpResultFilesParameters();
  OutPrintTcLines();
  ScreenOutput("     -sc     [OPTIONAL] 0: Bypass session cache\r\n");
  ScreenOutput("                        1: Use session cache (default)\r\n");
  ScreenOutput("     -tls    [OPTIONAL] 0: Do not encrypt communication\r\n");
  ScreenOutput("                        1: Encrypt communication (default)\r\n");
}

void ShowHelpGlobalUserParameters() {
  ScreenOutput("     -pwd                [OPTIONAL] 1: Grant change password permission\r\n");
  ScreenOutput("     -operator           [OPTIONAL] 1: Grant operator permission\r\n");
  ScreenOutput(
      "     -usr_create         [OPTIONAL] 1: Grant create and remove users permission\r\n");
  ScreenOutput("     -usr_list           [OPTIONAL] 1: Grant list users permission\r\n");
  ScreenOutput("     -remote_log         [OPTIONAL] 1: Grant remote log permission\r\n");
  ScreenOutput("     -backup             [OPTIONAL] 1: Grant backup and restore permission\r\n");
  ScreenOutput("     -firm_update        [OPTIONAL] 1: Grant firmware update permission\r\n");
  ScreenOutput("     -ns_auth            [OPTIONAL] 1: Require two-factor authentication\r\n");
  ScreenOutput("     -cold_partition     [OPTIONAL] 1: Create the user in a cold partition\r\n");
  ScreenOutput("\r\n");
}

void ShowHelpKeyAttributesParameters() {
  ScreenOutput("     -exp    [OPTIONAL] 0: Non exportable key (default)\r\n");
  ScreenOutput("                        1: Exportable key\r\n");
  ScreenOutput("     -tmp    [OPTIONAL] 0: Permanent key (default)\r\n");
  ScreenOutput("                        1: Temporary key\r\n");
}

void ShowHelpExportTR31KeyAttributesParameters() {
  ScreenOutput("     -tmp    [OPTIONAL] 0: Permanent key (default)\r\n");
  ScreenOutput("                        1: Temporary key\r\n");
}

void ShowHelpGenKeyParamParameters() {
  ScreenOutput("     -rsaexp3 [OPTIONAL] Use 3 as the RSA public exponent (default 65537)\r\n");
  ScreenOutput("     -nocrypt [OPTIONAL] The key cannot be used to encrypt or decrypt\r\n");
  ScreenOutput("     -bchain  [OPTIONAL] Key for blockchain operations\r\n");
}

void ShowHelpGenSPBKeyParamParameters() {
  ScreenOutput("     -exp    [OPTIONAL] 0: Non exportable key (default)\r\n");
  ScreenOutput("                        1: Exportable key\r\n");
}

void ShowHelpImpKeyParamParameters() {
  ScreenOutput("     -nocrypt [OPTIONAL] The key cannot be used to encrypt or decrypt\r\n");
}

void ShowHelpP7SignAttributesParameters() {
  ScreenOutput("     -p7attr_text             [OPTIONAL] Add text/plain MIME headers\r\n");
  ScreenOutput(
      "     -p7attr_nocerts          [OPTIONAL] Do not include the signer certificate\r\n");
  ScreenOutput("     -p7attr_nosigns          [OPTIONAL] Do not verify the signature\r\n");
  ScreenOutput("     -p7attr_nochain          [OPTIONAL] Do not verify the signer chain\r\n");
  ScreenOutput(
      "     -p7attr_nointern         [OPTIONAL] Do not search the included certificates\r\n");
  ScreenOutput("     -p7attr_noverify         [OPTIONAL] Do not verify the signer certificate\r\n");
  ScreenOutput("     -p7attr_detached         [OPTIONAL] Detached signature\r\n");
  ScreenOutput("     -p7attr_binary           [OPTIONAL] Do not translate the input to MIME\r\n");
  ScreenOutput("     -p7attr_noattr           [OPTIONAL] Do not include signed attributes\r\n");
  ScreenOutput("     -p7attr_nosmimecap       [OPTIONAL] Do not include SMIMECapabilities\r\n");
  ScreenOutput("     -p7attr_nooldmimetype    [OPTIONAL] Use the new MIME type\r\n");
  ScreenOutput("     -p7attr_crlfeol          [OPTIONAL] Use CRLF line ends\r\n");
  ScreenOutput("     -p7attr_nocrl            [OPTIONAL] Do not include CRLs\r\n");
  ScreenOutput("     -p7attr_cosign           [OPTIONAL] Add a signature to an existing one\r\n");
}

void ShowHelpSVaultGenToken() {
  ScreenOutput("     -kn       Key name\r\n");
  ScreenOutput("     -masktype [OPTIONAL] Token mask type\r\n");
  ShowHelpSVaultGetTokenFlags();
  ScreenOutput("     -cks      [OPTIONAL] Checksum type\r\n");
  ShowHelpSVaultGetTokenCKS();
  ScreenOutput("     -type     [OPTIONAL] Token type\r\n");
  ShowHelpSVaultGetTokenType();
}

void ShowHelpSVaultGetData() {
  ScreenOutput("     -mask     [OPTIONAL] Mask applied to the returned data\r\n");
  ScreenOutput("     -op       Operation\r\n");
  ShowHelpSVaultGetDataOp();
}

void PrintCertFindHelp() {
  ScreenOutput("     --scope       Certificate store scope\\location\r\n");
  ShowHelpCertStoreLocation();
  ScreenOutput("     --store       Certificate store name\r\n");
  ScreenOutput("     --certhash    Certificate hash\r\n");
  ShowHelpKeySpec();
}
