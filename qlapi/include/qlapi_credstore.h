/* qlapi_credstore.h: the credential store that authentication kind 128 reads.
 *
 * A credential is a user name and a password kept under a target name (the HSM's address).
 * Windows: the credential manager (generic credentials, CRED_TYPE_GENERIC, the password as a
 * UTF-16 blob). Elsewhere: the file ".qlapi_credentials" in the home directory of the calling
 * user (from the password database, never from the environment). The file must be a regular
 * file owned by that user with no permission for group or others (mode 0600 or stricter);
 * otherwise every operation refuses it with QL_ERR_CREDENTIAL_STORE, as ssh refuses a loose key.
 * Its format is described in credential_store.h and in the README.
 *
 * The three calls return 0 or a qlapi.h code and are safe from any thread.
 */
#ifndef QLAPI_CREDSTORE_H_
#define QLAPI_CREDSTORE_H_

#include <stddef.h>

#include "qlapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the credential of szTarget. When szUser is given (dwUserLen > 0) the user name is copied
 * into it, at most dwUserLen bytes, NUL-terminated when it fits; the same for szSecret and the
 * password. QL_ERR_CREDENTIAL_NOT_FOUND when there is no such credential. */
QLAPI_EXPORT int QLCredRead(const char *szTarget, char *szUser, size_t dwUserLen, char *szSecret,
                            size_t dwSecretLen);
/* Creates or replaces the credential of szTarget (the file is created with mode 0600). */
QLAPI_EXPORT int QLCredWrite(const char *szTarget, const char *szUser, const char *szSecret);
/* Removes the credential of szTarget; QL_ERR_CREDENTIAL_NOT_FOUND when there was none. */
QLAPI_EXPORT int QLCredDelete(const char *szTarget);

#ifdef __cplusplus
}
#endif

#endif /* QLAPI_CREDSTORE_H_ */
