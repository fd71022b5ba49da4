#pragma once
// The descriptor's login record and session opening: set-up of each kind of login, the session
// flags, the check that enough was given, and the sessions and client facades opened from it.

#include <cstdint>
#include <memory>

#include "harness/thread_info.h"
#include "qlapi.h"

class QueltaClient;

bool IsUserPwdConnection(const char *address, const char *user, const char *password);
void SetupUserPwdConnection(THREAD_INFO *ti, const char *address, const char *user,
                            const char *password, int port);
bool IsWinCredentialsConnection(const char *target);
void SetupWinCredentialsConnection(THREAD_INFO *ti, const char *target, int port);
bool IsAtokenConnection(const char *token, const char *token_file);
// Loads the token (the file's text replaces the -at text) into stAccessToken and sets
// useAccessToken. dwAuthParam is left as it is: a descriptor loaded only with a token does not
// connect (Connect answers 100001); the facade's token connection is the working path.
void SetupAtokenConnection(THREAD_INFO *thread_info, const char *addr, int port,
                           const char *atoken_b64, const char *atoken_b64_file);
// Stores port and auth type and copies 128 bytes of address, 16 of user and 16 of password
// (null texts copy nothing).
void SetAuthPwdEx(AUTH_PWD_EX *record, const char *address, const char *user, const char *password,
                  int port, uint32_t auth_type);

// The session flags for QOpenSession (and the result row): 1 with TLS else 4, +8 without load
// balancing, +16 without the session cache.
uint32_t GetConnectionFlags(const THREAD_INFO *ti);
// True when enough was given to connect (an address with a user and password, an address and a
// token, or for anonymous commands an address).
bool CheckConnectionFlags(const THREAD_INFO *test_info, bool is_anonymous);
// The record for dwAuthParam and its length; null (len untouched) for kinds without a record.
const void *GetAuthData(const THREAD_INFO *ti, uint32_t *len);
// Kind (1 when anonymous), flags and record for QOpenSession; *ret 0, or 100001 and null when
// the kind has no record.
const void *GetConnectionParams(const THREAD_INFO *ti, uint32_t *auth_type, uint32_t *flags,
                                uint32_t *data_len, bool isAnonymous, int *ret);
// Opens a session with the descriptor's connection. 100001 when it has no record (the library
// is not called), otherwise QOpenSession's code. Safe from any thread.
int Connect(const THREAD_INFO *ti, HSESSIONCTX *session, bool is_anonymous);
int ConnectEx(HSESSIONCTX *session, const THREAD_INFO *ti);
int ConnectAnonymous(HSESSIONCTX *session, const THREAD_INFO *ti);
// A user/password session to the given HSM with the given session flags.
int Connect(HSESSIONCTX *session, const char *address, const char *user, const char *password,
            int port, uint32_t flags);

// A client over the descriptor's connection, not yet connected (the caller calls Connect()).
// On a kind without a record: a default, unconnected client.
QueltaClient GetQueltaClient(const THREAD_INFO *ti, bool is_anonymous);
// The same on the heap; null when the kind has no record.
std::unique_ptr<QueltaClient> NewQueltaClient(const THREAD_INFO *ti, bool is_anonymous);
