// QGetReturnCodeString: the name and the sentence of every code in qlapi.h.
#include <cstddef>

#include "qlapi.h"

namespace {

struct CodeText {
  int code;
  const char *name;
  const char *text;
};

#define QL_CODE(c, t) \
  { c, #c, t }
constexpr CodeText kCodes[] = {
    QL_CODE(QL_OK, "Success."),
    QL_CODE(QL_ERR_BAD_ARGUMENT, "Invalid argument."),
    QL_CODE(QL_ERR_NO_MEMORY, "Out of memory."),
    QL_CODE(QL_ERR_BAD_HANDLE, "Invalid handle."),
    QL_CODE(QL_ERR_BAD_FLAGS, "Unknown flags."),
    QL_CODE(QL_ERR_BUFFER_TOO_SMALL, "Buffer too small; the needed length was returned."),
    QL_CODE(QL_ERR_BAD_AUTH_KIND, "Unknown authentication kind."),
    QL_CODE(QL_ERR_CONNECTION_FAILED, "Could not connect to the HSM."),
    QL_CODE(QL_ERR_TLS_FAILED, "TLS handshake with the HSM failed."),
    QL_CODE(QL_ERR_PROTOCOL, "Malformed or unexpected message on the connection."),
    QL_CODE(QL_ERR_SESSION_CLOSED, "The session is closed or its connection was lost."),
    QL_CODE(QL_ERR_BAD_BASE64, "Invalid base64 text."),
    QL_CODE(QL_ERR_CREDENTIAL_NOT_FOUND, "No such credential in the credential store."),
    QL_CODE(QL_ERR_CREDENTIAL_STORE, "The credential store is unreadable or not private."),
    QL_CODE(QL_ERR_LIB_INTERNAL, "Internal error in the client library."),
    QL_CODE(QL_ERR_CANCELLED, "Stopped by the callback."),
    QL_CODE(QL_ERR_FILE_IO, "A local file could not be read or written."),
    QL_CODE(QL_ERR_VERSION_MISMATCH, "The HSM speaks another protocol version."),
    QL_CODE(QL_ERR_AUTH_FAILED, "Authentication failed."),
    QL_CODE(QL_ERR_ACCESS_DENIED, "Access denied."),
    QL_CODE(QL_ERR_USER_BLOCKED, "The user is blocked."),
    QL_CODE(QL_ERR_OBJ_NOT_FOUND, "Object not found."),
    QL_CODE(QL_ERR_OBJ_BLOCKED, "The object is blocked."),
    QL_CODE(QL_ERR_BAD_ALGORITHM, "Unknown or unsuitable algorithm, mode or padding."),
    QL_CODE(QL_ERR_NOT_SUPPORTED, "Not supported."),
    QL_CODE(QL_ERR_LIMIT_REACHED, "A limit of the HSM was reached."),
    QL_CODE(QL_ERR_BUSY_RETRY, "The HSM is busy; retry the request."),
    QL_CODE(QL_ERR_BAD_TAG, "The authentication tag does not verify."),
    QL_CODE(QL_ERR_USER_NAME_TOO_LONG, "User name longer than 16 characters."),
    QL_CODE(QL_ERR_INTERNAL, "Internal error in the HSM."),
    QL_CODE(QL_ERR_USER_EXISTS, "The user already exists."),
    QL_CODE(QL_ERR_BAD_KEY_USAGE, "The key cannot be used for this operation."),
    QL_CODE(QL_ERR_BAD_LENGTH, "Invalid data or key length."),
    QL_CODE(QL_ERR_NOT_EXPORTABLE, "The key is not exportable."),
    QL_CODE(QL_ERR_BAD_SIGNATURE, "The signature does not verify."),
    QL_CODE(QL_ERR_PIECES_REFUSED, "This mode takes the whole message in one call."),
    QL_CODE(QL_ERR_DIGEST_TOO_LONG, "The digest does not fit the key."),
    QL_CODE(QL_ERR_USER_NOT_FOUND, "User not found."),
    QL_CODE(QL_ERR_BAD_NAME, "Invalid name."),
    QL_CODE(QL_ERR_OBJ_EXISTS, "An object of that name already exists."),
    QL_CODE(QL_ERR_BAD_STATE, "The request does not fit the state of the handle."),
    QL_CODE(QL_ERR_BAD_PADDING, "Invalid padding in the decrypted data."),
    QL_CODE(QL_ERR_BAD_PIN, "Wrong backup PIN or damaged backup."),
    QL_CODE(QL_ERR_NOT_LOGGED_IN, "Not logged in."),
    QL_CODE(QL_ERR_BAD_JSON, "The metadata is not one JSON object in UTF-8."),
    QL_CODE(QL_ERR_UPACK_REFUSED, "Update package refused: its signature does not verify."),
    QL_CODE(QL_ERR_HSM_IDENTITY_CHANGED, "The HSM's identity changed."),
    QL_CODE(QL_ERR_HSM_IDENTITY_UNKNOWN,
            "Unknown HSM: no certificate is pinned for this address (strict mode)."),
    QL_CODE(QL_ERR_HSM_IDENTITY_UNVERIFIED,
            "The HSM's identity could not be verified (certificate chain, address or pin file)."),
    QL_CODE(QL_ERR_BAD_UTF8, "A user name or password that is not UTF-8 text."),
};
#undef QL_CODE

}  // namespace

extern "C" const char *QGetReturnCodeString(int nCode, uint32_t dwFormat) {
  for (const CodeText &c : kCodes) {
    if (c.code == nCode) return dwFormat == QL_RC_STR_NAME ? c.name : c.text;
  }
  return dwFormat == QL_RC_STR_NAME ? "QL_ERR_UNKNOWN" : "Unknown return code.";
}
