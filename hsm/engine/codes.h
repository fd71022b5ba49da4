// The answer codes the engine hands to the daemon, named after the library's constants in
// qlapi.h so the two can never drift apart. Inside the engine every failure is a Status with one
// of these codes; only the daemon turns them into numbers on the wire.
#pragma once

#include "qlapi.h"

namespace qlhsm {

enum class Code : int {
  kOk = QL_OK,
  kBadArgument = QL_ERR_BAD_ARGUMENT,
  kBufferTooSmall = QL_ERR_BUFFER_TOO_SMALL,
  kBadAuthKind = QL_ERR_BAD_AUTH_KIND,
  kProtocol = QL_ERR_PROTOCOL,
  kVersionMismatch = QL_ERR_VERSION_MISMATCH,
  kAuthFailed = QL_ERR_AUTH_FAILED,
  kAccessDenied = QL_ERR_ACCESS_DENIED,
  kUserBlocked = QL_ERR_USER_BLOCKED,
  kObjectNotFound = QL_ERR_OBJ_NOT_FOUND,
  kObjectBlocked = QL_ERR_OBJ_BLOCKED,
  kBadAlgorithm = QL_ERR_BAD_ALGORITHM,
  kNotSupported = QL_ERR_NOT_SUPPORTED,
  kLimitReached = QL_ERR_LIMIT_REACHED,
  kBusy = QL_ERR_BUSY_RETRY,
  kUserNameTooLong = QL_ERR_USER_NAME_TOO_LONG,
  kInternal = QL_ERR_INTERNAL,
  kUserExists = QL_ERR_USER_EXISTS,
  kUserNotFound = QL_ERR_USER_NOT_FOUND,
  kBadName = QL_ERR_BAD_NAME,
  kObjectExists = QL_ERR_OBJ_EXISTS,
  kBadPin = QL_ERR_BAD_PIN,
  kNotLoggedIn = QL_ERR_NOT_LOGGED_IN,
  kBadJson = QL_ERR_BAD_JSON,
  kUpdateRefused = QL_ERR_UPACK_REFUSED,
  kBadTag = QL_ERR_BAD_TAG,
  kBadKeyUsage = QL_ERR_BAD_KEY_USAGE,
  kBadLength = QL_ERR_BAD_LENGTH,
  kNotExportable = QL_ERR_NOT_EXPORTABLE,
  kBadSignature = QL_ERR_BAD_SIGNATURE,
  kPiecesRefused = QL_ERR_PIECES_REFUSED,
  kDigestTooLong = QL_ERR_DIGEST_TOO_LONG,
  kBadPadding = QL_ERR_BAD_PADDING,
  kBadUtf8 = QL_ERR_BAD_UTF8,
};

inline int ToWire(Code c) {
  return static_cast<int>(c);
}

}  // namespace qlhsm
