// Every return code both sides use: the library's own (1xxx) and the HSM's answers (5xxx), with
// the engine's name, the library's constant and its sentence. The engine's Code enum and
// QGetReturnCodeString are both made from this one list, and the library checks at compile time
// that each constant in qlapi.h has the value listed here.
//
//   X(engine name, library constant, value, text)
#pragma once

// clang-format off
#define QL_RETURN_CODES(X)                                                                         \
  X(kOk,               QL_OK,                       0,    "Success.")                              \
  X(kBadArgument,      QL_ERR_BAD_ARGUMENT,         1001, "Invalid argument.")                     \
  X(kNoMemory,         QL_ERR_NO_MEMORY,            1002, "Out of memory.")                        \
  X(kBadHandle,        QL_ERR_BAD_HANDLE,           1003, "Invalid handle.")                       \
  X(kBadFlags,         QL_ERR_BAD_FLAGS,            1004, "Unknown flags.")                        \
  X(kBufferTooSmall,   QL_ERR_BUFFER_TOO_SMALL,     1005,                                          \
    "Buffer too small; the needed length was returned.")                                           \
  X(kBadAuthKind,      QL_ERR_BAD_AUTH_KIND,        1006, "Unknown authentication kind.")          \
  X(kConnectionFailed, QL_ERR_CONNECTION_FAILED,    1007, "Could not connect to the HSM.")         \
  X(kTlsFailed,        QL_ERR_TLS_FAILED,           1008, "TLS handshake with the HSM failed.")    \
  X(kProtocol,         QL_ERR_PROTOCOL,             1009,                                          \
    "Malformed or unexpected message on the connection.")                                          \
  X(kSessionClosed,    QL_ERR_SESSION_CLOSED,       1010,                                          \
    "The session is closed or its connection was lost.")                                           \
  X(kBadBase64,        QL_ERR_BAD_BASE64,           1011, "Invalid base64 text.")                  \
  X(kCredentialNotFound, QL_ERR_CREDENTIAL_NOT_FOUND, 1012,                                        \
    "No such credential in the credential store.")                                                 \
  X(kCredentialStore,  QL_ERR_CREDENTIAL_STORE,     1013,                                          \
    "The credential store is unreadable or not private.")                                          \
  X(kLibInternal,      QL_ERR_LIB_INTERNAL,         1014, "Internal error in the client library.") \
  X(kCancelled,        QL_ERR_CANCELLED,            1015, "Stopped by the callback.")              \
  X(kFileIo,           QL_ERR_FILE_IO,              1016,                                          \
    "A local file could not be read or written.")                                                  \
  X(kVersionMismatch,  QL_ERR_VERSION_MISMATCH,     1017,                                          \
    "The HSM speaks another protocol version.")                                                    \
  X(kAuthFailed,       QL_ERR_AUTH_FAILED,          5001, "Authentication failed.")                \
  X(kAccessDenied,     QL_ERR_ACCESS_DENIED,        5002, "Access denied.")                        \
  X(kUserBlocked,      QL_ERR_USER_BLOCKED,         5003, "The user is blocked.")                  \
  X(kObjectNotFound,   QL_ERR_OBJ_NOT_FOUND,        5004, "Object not found.")                     \
  X(kObjectBlocked,    QL_ERR_OBJ_BLOCKED,          5005, "The object is blocked.")                \
  X(kBadAlgorithm,     QL_ERR_BAD_ALGORITHM,        5006,                                          \
    "Unknown or unsuitable algorithm, mode or padding.")                                           \
  X(kNotSupported,     QL_ERR_NOT_SUPPORTED,        5007, "Not supported.")                        \
  X(kLimitReached,     QL_ERR_LIMIT_REACHED,        5008, "A limit of the HSM was reached.")       \
  X(kBusy,             QL_ERR_BUSY_RETRY,           5009, "The HSM is busy; retry the request.")   \
  X(kBadTag,           QL_ERR_BAD_TAG,              5010,                                          \
    "The authentication tag does not verify.")                                                     \
  X(kUserNameTooLong,  QL_ERR_USER_NAME_TOO_LONG,   5011, "User name longer than 16 characters.")  \
  X(kInternal,         QL_ERR_INTERNAL,             5012, "Internal error in the HSM.")            \
  X(kUserExists,       QL_ERR_USER_EXISTS,          5013, "The user already exists.")              \
  X(kBadKeyUsage,      QL_ERR_BAD_KEY_USAGE,        5014,                                          \
    "The key cannot be used for this operation.")                                                  \
  X(kBadLength,        QL_ERR_BAD_LENGTH,           5015, "Invalid data or key length.")           \
  X(kNotExportable,    QL_ERR_NOT_EXPORTABLE,       5016, "The key is not exportable.")            \
  X(kBadSignature,     QL_ERR_BAD_SIGNATURE,        5017, "The signature does not verify.")        \
  X(kPiecesRefused,    QL_ERR_PIECES_REFUSED,       5018,                                          \
    "This mode takes the whole message in one call.")                                              \
  X(kDigestTooLong,    QL_ERR_DIGEST_TOO_LONG,      5019, "The digest does not fit the key.")      \
  X(kUserNotFound,     QL_ERR_USER_NOT_FOUND,       5020, "User not found.")                       \
  X(kBadName,          QL_ERR_BAD_NAME,             5021, "Invalid name.")                         \
  X(kObjectExists,     QL_ERR_OBJ_EXISTS,           5022,                                          \
    "An object of that name already exists.")                                                      \
  X(kBadState,         QL_ERR_BAD_STATE,            5023,                                          \
    "The request does not fit the state of the handle.")                                           \
  X(kBadPadding,       QL_ERR_BAD_PADDING,          5024, "Invalid padding in the decrypted data.")\
  X(kBadPin,           QL_ERR_BAD_PIN,              5025, "Wrong backup PIN or damaged backup.")   \
  X(kNotLoggedIn,      QL_ERR_NOT_LOGGED_IN,        5026, "Not logged in.")                        \
  X(kBadJson,          QL_ERR_BAD_JSON,             5027,                                          \
    "The metadata is not one JSON object in UTF-8.")                                               \
  X(kUpdateRefused,    QL_ERR_UPACK_REFUSED,        5034,                                          \
    "Update package refused: its signature, manifest or version.")                                 \
  X(kHsmIdentityChanged, QL_ERR_HSM_IDENTITY_CHANGED, 5040, "The HSM's identity changed.")         \
  X(kHsmIdentityUnknown, QL_ERR_HSM_IDENTITY_UNKNOWN, 5041,                                        \
    "Unknown HSM: no certificate is pinned for this address (strict mode).")                       \
  X(kHsmIdentityUnverified, QL_ERR_HSM_IDENTITY_UNVERIFIED, 5042,                                  \
    "The HSM's identity could not be verified (certificate chain, address or pin file).")          \
  X(kLastAdministrator, QL_ERR_LAST_ADMINISTRATOR, 5043,                                           \
    "The last user with the operator right cannot be removed, blocked or lose that right.")        \
  X(kBadUtf8, QL_ERR_BAD_UTF8, 5044, "A user name or password that is not UTF-8.")                 \
  X(kSessionRevoked, QL_ERR_SESSION_REVOKED, 5045,                                                 \
    "The session was revoked: its user was blocked or removed, its token revoked or its "          \
    "password changed.")                                                                           \
  X(kSessionExpired,   QL_ERR_SESSION_EXPIRED,      5046,                                          \
    "The session expired after sitting idle; open a new one.")                                     \
  X(kAddressRefused,   QL_ERR_ADDRESS_REFUSED,      5047,                                          \
    "The HSM does not accept connections from this address.")                                      \
  X(kNotInCluster,     QL_ERR_NOT_IN_CLUSTER,       5050, "The HSM is not part of a cluster.")     \
  X(kLogCorrupt,       QL_ERR_LOG_CORRUPT,          5051, "The log is damaged.")                   \
  X(kSelfCheckFailed,  QL_ERR_SELF_CHECK_FAILED,    5052,                                          \
    "The HSM's self-check found a fault; its report names the failing check.")                     \
  X(kTargetUnresolved, QL_ERR_TARGET_UNRESOLVED,    5053,                                          \
    "The tool's target is not an address and its name does not resolve.")                         \
  X(kDirectoryFailed,  QL_ERR_DIRECTORY_FAILED,    5056,                                          \
    "The directory service could not be reached or refused the entry.")                            \
  X(kDirectoryBindRefused, QL_ERR_DIRECTORY_BIND_REFUSED, 5057,                                    \
    "The directory service refused the bind DN or its password.")                                  \
  X(kBadCert,          QL_ERR_BAD_CERT,             5080,                                          \
    "Not a certificate, certificate chain or CRL.")                                                \
  X(kCertUntrusted,    QL_ERR_CERT_UNTRUSTED,       5081,                                          \
    "The certificate does not lead to a trusted certificate of the chain.")                        \
  X(kCertExpired,      QL_ERR_CERT_EXPIRED,         5082,                                          \
    "A certificate is expired or not yet valid.")                                                  \
  X(kCertRevoked,      QL_ERR_CERT_REVOKED,         5083, "The certificate is revoked.")           \
  X(kKeyCertMismatch,  QL_ERR_KEY_CERT_MISMATCH,    5084,                                          \
    "The key does not match the certificate.")                                                     \
  X(kBadPassword,      QL_ERR_BAD_PASSWORD,         5085,                                          \
    "Wrong password: the file's integrity check or decryption fails.")                             \
  X(kBadXml,           QL_ERR_BAD_XML,              5090,                                          \
    "Malformed or refused XML: a DOCTYPE, duplicate IDs or no signature.")                         \
  X(kEndpointRefused,  QL_ERR_ENDPOINT_REFUSED,     5091,                                          \
    "The HSM may not reach that endpoint: it is not among its allowed endpoints.")                 \
  X(kTimeout,          QL_ERR_TIMEOUT,              5092,                                          \
    "The remote exchange did not finish within its timeout.")                                      \
  X(kRemoteFailed,     QL_ERR_REMOTE_FAILED,        5093,                                          \
    "The remote endpoint is unreachable, refused the connection or failed the TLS handshake.")     \
  X(kCheckFailed,      QL_ERR_CHECK_FAILED,         5060, "the value does not match")              \
  X(kBadPinBlock,      QL_ERR_BAD_PIN_BLOCK,        5061,                                          \
    "the PIN block is malformed (control field, PIN length, fill or PAN field)")                   \
  X(kEftdNotAuthorized, QL_ERR_EFTD_NOT_AUTHORIZED, 5062,                                          \
    "the EFT daemon is not authorised for this activity")                                          \
  X(kTokenExists,      QL_ERR_TOKEN_EXISTS,         5070, "The user already has an OATH token.")   \
  X(kNoToken,          QL_ERR_NO_TOKEN,             5071, "The user has no OATH token.")           \
  X(kSecondFactorExists, QL_ERR_SECOND_FACTOR_EXISTS, 5072,                                        \
    "the user already has another second factor")                                                  \
  X(kSpbBadHeader,     QL_ERR_SPB_BAD_HEADER,       5100,                                          \
    "The SPB security header is malformed.")                                                       \
  X(kSpbNoCert,        QL_ERR_SPB_NO_CERT,          5101,                                          \
    "No active SPB certificate of that ISPB and serial.")                                          \
  X(kSpbBadCert,       QL_ERR_SPB_BAD_CERT,         5102,                                          \
    "Not an SPB certificate: RSA-2048 X.509 v3 naming an 8-digit ISPB.")                           \
  X(kBchainInvalidKey, QL_ERR_BCHAIN_INVALID_KEY,   5110,                                          \
    "Invalid blockchain key: out of the curve's range; take the next index.")                      \
  X(kBchainBadEncoding, QL_ERR_BCHAIN_BAD_ENCODING, 5111,                                          \
    "Malformed blockchain key, address or signature encoding.")                                    \
  X(kShareCorrupt,     QL_ERR_SHARE_CORRUPT,        5112,                                          \
    "A secret share is damaged: its checksum or layout is wrong.")                                 \
  X(kSharesMismatch,   QL_ERR_SHARES_MISMATCH,      5113,                                          \
    "The secret shares do not belong together.")                                                   \
  X(kSharesTooFew,     QL_ERR_SHARES_TOO_FEW,       5114,                                          \
    "Too few secret shares to recover the secret.")                                                \
  X(kSkeepMismatch,    QL_ERR_SKEEP_MISMATCH,       5115,                                          \
    "The kept secret does not match.")
// clang-format on
