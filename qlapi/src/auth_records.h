#pragma once
// Turns QOpenSession's arguments (kind, record, flags) into the credentials a connection logs in
// with, checking everything the caller controls before any network traffic.

#include <cstdint>

#include "session.h"

namespace qlapi {

// Checks session flags: unknown bits give QL_ERR_BAD_FLAGS. *tls is true for flag 1, for no
// transport bit at all, and for 1 and 4 together; false for 4 alone.
Status CheckSessionFlags(uint32_t flags, bool *tls);

// Reads the record of kind (1, 16, 32 or 128) into *creds. Kind 128 reads the user and password
// from the credential store under the record's address. Short records answer
// QL_ERR_BAD_ARGUMENT, unknown kinds QL_ERR_BAD_AUTH_KIND. A one-time password
// (QL_STRONG_AUTH_OTP, kind 16 only, 6 to 8 digits) goes into creds->otp; a client certificate
// (QL_STRONG_AUTH_X509, kind 16 only, PEM key and certificate) into creds->identity, refused with
// QL_ERR_BAD_AUTH_KIND when creds->tls is false (set it first); any other second factor, or one
// with kind 1, answers QL_ERR_BAD_ARGUMENT.
Status CredentialsFromRecord(uint32_t kind, const void *record, uint32_t record_len,
                             Credentials *creds);

// The text of a fixed-size field: up to its first NUL, or the whole field.
std::string FieldText(const char *field, std::size_t size);

}  // namespace qlapi
