#pragma once
// The credential store: generic credentials (user name and password) kept under a target name,
// the HSM's address. The Windows credential manager on Windows; elsewhere the library's file
// store in the user's home directory, behind the same three operations.

#include <cstddef>

// Reads the credential of target_id. When user is given (user_len > 0) the user name is copied
// into it, at most user_len bytes, zero-terminated when it fits; when secret is given
// (secret_len > 0) and a password is stored, the password likewise. False when there is no such
// credential or it cannot be read.
bool read_windows_credential(const char *target_id, char *user, size_t user_len, char *secret,
                             size_t secret_len);
// Creates or replaces the credential of target_id. True on success.
bool write_windows_credential(const char *target_id, const char *user_name, const char *secret);
// Removes the credential of target_id. True when one was removed.
bool delete_windows_credential(const char *target_id);
