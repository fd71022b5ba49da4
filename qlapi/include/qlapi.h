/* qlapi.h: the C API of libqlapi, the client library of the HSM.
 *
 * Conventions
 * -----------
 * Return values. Every function returns an int: 0 (QL_OK) on success, otherwise one of the
 *   QL_ERR_* codes below. Four functions differ and say so: QAlloc (a pointer), QFree (nothing),
 *   QGetReturnCodeString (a text the library owns) and QDoRSAPadding (non-zero on success,
 *   0 on failure). No function prints, and no C++ exception ever crosses this API.
 *
 * Handles. HSESSIONCTX, HKEYCTX, HHASHCTX and the other H* types are opaque pointers (void *,
 *   so that generic owners of "void *" hold any of them). A handle is made by one call
 *   (QOpenSession, QGenerateKey, QGetUserKey, QCreateHash, ...) and released through its
 *   address by its matching call, which clears it: QCloseSession(&s, flags),
 *   QDestroyKey(&k, flags), QDestroyHash(&h). Releasing a null handle is a no-op that answers
 *   QL_OK. Key and hash handles belong to the session that made them and must be released
 *   before it is closed; QFinalize releases whatever is left.
 *
 * Buffers. A buffer that the library hands out (an "unsigned char **" or "char **" out
 *   argument) comes from QAlloc and goes back with QFree. Every other buffer is the caller's.
 *
 * Size queries. An output buffer comes with a length argument that holds the buffer's size on
 *   input and the length written on output. A null buffer or a buffer that is too short answers
 *   QL_ERR_BUFFER_TOO_SMALL (1005) with the needed length in the length argument, and changes
 *   nothing else (no state of a key or hash advances).
 *
 * Texts. Names and passwords are NUL-terminated; user names hold at most 16 characters
 *   (QL_MAX_USER_NAME), passwords at most 16 (QL_MAX_PASSWORD), object names at most 64
 *   (QL_MAX_OBJ_NAME); another user's object is named "owner/object".
 *
 * Threads. Every function may be called from any thread. Distinct sessions are independent:
 *   many threads, each with its own sessions, run without any lock in common. A session and its
 *   key handles may be used by several threads at once; their requests then run one after
 *   another on the connection. A hash handle (and a message being encrypted in pieces) belongs
 *   to one thread at a time. QInitialize and QFinalize may be called more than once and from any
 *   thread; no other call may run while QFinalize runs, and it releases every handle still
 *   open, which must not be used afterwards.
 *
 * Connections. A session is one authenticated connection to an HSM at "address:port" (the
 *   address and port of the authentication record; port 0 or negative means 4433). TLS 1.3
 *   for session flag QL_SESSION_ENCRYPTED, for flags without either transport bit, and for
 *   both transport bits together; plain TCP for QL_SESSION_UNENCRYPTED alone.
 *   The HSM's identity is checked before any credential is sent: with QLAPI_TLS_CA_FILE (a PEM
 *   bundle) its chain and address must verify (else QL_ERR_HSM_IDENTITY_UNVERIFIED); otherwise
 *   its certificate's SHA-256 is pinned per address:port in ~/.qlapi_known_hsms on first use
 *   (QLAPI_TLS_STRICT=1 refuses an unknown HSM: QL_ERR_HSM_IDENTITY_UNKNOWN), and a changed one
 *   is refused with QL_ERR_HSM_IDENTITY_CHANGED. Plain connections carry no certificate. TLS 1.3
 *   only; QGetSessionParam(QL_SP_TLS_PEER_SHA256) reads the fingerprint of a session's HSM.
 *
 * Session cache. QCloseSession without QL_CLOSE_PHYSICAL gives an idle connection back to the
 *   library's cache, after the HSM has reset the session (its temporary keys and hashes are
 *   gone, and it no longer counts as open). The next QOpenSession to the same HSM with the same
 *   credentials reuses it, unless QL_SESSION_BYPASS_CACHE is set; the HSM checks the user
 *   again on reuse (a blocked or removed user, or a changed password, is refused).
 */
#ifndef QLAPI_H_
#define QLAPI_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32) && defined(QLAPI_BUILDING)
#define QLAPI_EXPORT __declspec(dllexport)
#elif defined(_WIN32)
#define QLAPI_EXPORT __declspec(dllimport)
#elif defined(__GNUC__)
#define QLAPI_EXPORT __attribute__((visibility("default")))
#else
#define QLAPI_EXPORT
#endif

#ifdef __cplusplus
#define QL_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QL_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ===========================================================================================
 * Handles
 */
typedef void *HSESSIONCTX; /* one authenticated connection */
typedef void *HKEYCTX;     /* a key or object opened in a session */
typedef void *HHASHCTX;    /* a running hash, HMAC or CMAC */
typedef void *HOBJMETACTX; /* an object-metadata record being built or read */
typedef void *HSPBMSGCTX;  /* an SPB message being encoded or decoded */
typedef void *HLOGCTX;     /* a read of the HSM's audit log */
typedef void *HP11INFOCTX; /* the HSM's PKCS#11 information */

/* ===========================================================================================
 * Return codes
 */
#define QL_OK 0

/* Library-side codes (1000..1099): the request never reached the HSM, or its answer was bad. */
#define QL_ERR_BAD_ARGUMENT 1001         /* a null or inconsistent argument */
#define QL_ERR_NO_MEMORY 1002            /* an allocation failed */
#define QL_ERR_BAD_HANDLE 1003           /* a handle of the wrong kind, or already released */
#define QL_ERR_BAD_FLAGS 1004            /* unknown bits in a flags argument */
#define QL_ERR_BUFFER_TOO_SMALL 1005     /* the needed length is in the length argument */
#define QL_ERR_BAD_AUTH_KIND 1006        /* an authentication kind or record length unknown */
#define QL_ERR_CONNECTION_FAILED 1007    /* the HSM could not be reached (resolve, connect) */
#define QL_ERR_TLS_FAILED 1008           /* the TLS 1.3 handshake failed */
#define QL_ERR_PROTOCOL 1009             /* a malformed, oversized or unexpected frame */
#define QL_ERR_SESSION_CLOSED 1010       /* the connection was lost or closed */
#define QL_ERR_BAD_BASE64 1011           /* text that is not base64 */
#define QL_ERR_CREDENTIAL_NOT_FOUND 1012 /* no entry for that target in the credential store */
#define QL_ERR_CREDENTIAL_STORE 1013     /* the credential store is unreadable or not private */
#define QL_ERR_LIB_INTERNAL 1014         /* an unexpected failure inside the library */
#define QL_ERR_CANCELLED 1015            /* a callback asked to stop */
#define QL_ERR_FILE_IO 1016              /* a local file could not be read or written */
#define QL_ERR_VERSION_MISMATCH 1017     /* the HSM speaks another protocol version */

/* HSM-side codes (5000..5099): the HSM refused or failed the request. */
#define QL_ERR_AUTH_FAILED 5001        /* wrong user, password or access token */
#define QL_ERR_ACCESS_DENIED 5002      /* the user's access mask lacks the right */
#define QL_ERR_USER_BLOCKED 5003       /* the user is blocked */
#define QL_ERR_OBJ_NOT_FOUND 5004      /* no such object */
#define QL_ERR_OBJ_BLOCKED 5005        /* the object is blocked (key parameter 12) */
#define QL_ERR_BAD_ALGORITHM 5006      /* an unknown algorithm, mode or padding */
#define QL_ERR_NOT_SUPPORTED 5007      /* the service or combination is not built */
#define QL_ERR_LIMIT_REACHED 5008      /* sessions, objects or frame size past a limit */
#define QL_ERR_BUSY_RETRY 5009         /* the HSM is busy: retry the same request later */
#define QL_ERR_BAD_TAG 5010            /* a tag (GCM) or a MAC (key blocks) does not verify */
#define QL_ERR_USER_NAME_TOO_LONG 5011 /* a user name longer than 16 characters */
#define QL_ERR_INTERNAL 5012           /* an unexpected failure inside the HSM */
#define QL_ERR_USER_EXISTS 5013        /* a user of that name exists */
#define QL_ERR_BAD_KEY_USAGE 5014      /* the key cannot do that (no crypt, wrong type) */
#define QL_ERR_BAD_LENGTH 5015         /* a data, key or block length that does not fit */
#define QL_ERR_NOT_EXPORTABLE 5016     /* the key was made without the exportable flag */
#define QL_ERR_BAD_SIGNATURE 5017      /* a signature that does not verify */
#define QL_ERR_PIECES_REFUSED 5018     /* the mode needs the whole message in one call */
#define QL_ERR_DIGEST_TOO_LONG 5019    /* the digest does not fit the key (RSA-512/SHA-512) */
#define QL_ERR_USER_NOT_FOUND 5020     /* no such user */
#define QL_ERR_BAD_NAME 5021           /* an empty, too long or malformed name */
#define QL_ERR_OBJ_EXISTS 5022         /* an object of that name exists */
#define QL_ERR_BAD_STATE 5023          /* the request does not fit the handle's state */
#define QL_ERR_BAD_PADDING 5024        /* decrypted data whose padding is wrong */
#define QL_ERR_BAD_PIN 5025            /* a backup PIN that does not open the backup */
#define QL_ERR_NOT_LOGGED_IN 5026      /* a request before login */
#define QL_ERR_BAD_JSON 5027           /* metadata that is not one JSON object in UTF-8 */
#define QL_ERR_UPACK_REFUSED 5034      /* an update package refused: signature, manifest, version */
/* The HSM's identity (checked before any credential leaves), the caller's text, the HSM's users
 * and sessions, and its guard of the network. */
#define QL_ERR_HSM_IDENTITY_CHANGED 5040    /* the certificate differs from the one pinned */
#define QL_ERR_HSM_IDENTITY_UNKNOWN 5041    /* no certificate pinned for the HSM (strict mode) */
#define QL_ERR_HSM_IDENTITY_UNVERIFIED 5042 /* chain, address or pin file does not verify */
#define QL_ERR_LAST_ADMINISTRATOR 5043      /* the last user with ACL_SYS_OPERATOR stays one */
#define QL_ERR_BAD_UTF8 5044                /* a user name or password that is not UTF-8 */
/* 5045: the session's user was blocked or removed, its token revoked or its password changed. */
#define QL_ERR_SESSION_REVOKED 5045 /* the session was revoked: log in again */
#define QL_ERR_SESSION_EXPIRED 5046 /* the session sat idle past the HSM's idle timeout */
#define QL_ERR_ADDRESS_REFUSED 5047 /* the address may not connect (allow-list, plain) */
/* The audit log and administration. */
#define QL_ERR_NOT_IN_CLUSTER 5050 /* the HSM is not part of a cluster */
#define QL_ERR_LOG_CORRUPT 5051    /* a log page that is cut short or damaged */
/* Tools run by the HSM. */
#define QL_ERR_SELF_CHECK_FAILED 5052 /* a check of the self-check failed (see its report) */
#define QL_ERR_TARGET_UNRESOLVED 5053 /* a tool's target name that does not resolve */
/* Directory binding. */
#define QL_ERR_DIRECTORY_FAILED 5056       /* the directory is unreachable or refused the entry */
#define QL_ERR_DIRECTORY_BIND_REFUSED 5057 /* the directory refused the bind DN or password */
/* Certificates and signing identities. */
#define QL_ERR_BAD_CERT 5080          /* not a certificate, chain or CRL in DER or PEM */
#define QL_ERR_CERT_UNTRUSTED 5081    /* no path to an anchor of the chain, or a stale CRL */
#define QL_ERR_CERT_EXPIRED 5082      /* a certificate of the path is expired or not yet valid */
#define QL_ERR_CERT_REVOKED 5083      /* the CRL names the certificate */
#define QL_ERR_KEY_CERT_MISMATCH 5084 /* the key is not the certificate's */
#define QL_ERR_BAD_PASSWORD 5085      /* a PKCS#12 file whose MAC or decryption fails */
/* XML signatures and PIX messages. */
#define QL_ERR_BAD_XML 5090 /* malformed XML, a DOCTYPE, duplicate IDs, no signature */
/* PIX requests over mutual TLS. */
#define QL_ERR_ENDPOINT_REFUSED 5091 /* the URL's host and port are not an allowed endpoint */
#define QL_ERR_TIMEOUT 5092          /* the exchange did not finish within its timeout */
#define QL_ERR_REMOTE_FAILED 5093    /* unreachable, refused, or the TLS handshake failed */
/* Payment: card values, PINs and the EFT daemon. */
#define QL_ERR_CHECK_FAILED 5060        /* a CVV, PIN or one-time password that does not match */
#define QL_ERR_BAD_PIN_BLOCK 5061       /* control field, PIN length, fill or PAN field wrong */
#define QL_ERR_EFTD_NOT_AUTHORIZED 5062 /* the activity needs an EFT daemon authorisation */
/* OATH tokens of users. */
#define QL_ERR_TOKEN_EXISTS 5070         /* the user already has an OATH token */
#define QL_ERR_NO_TOKEN 5071             /* the user has no OATH token */
#define QL_ERR_SECOND_FACTOR_EXISTS 5072 /* the user already has another second factor */
/* SPB secure messages. */
#define QL_ERR_SPB_BAD_HEADER 5100 /* a security header whose fixed fields are wrong */
#define QL_ERR_SPB_NO_CERT 5101    /* no (active) certificate of the ISPB with that serial */
#define QL_ERR_SPB_BAD_CERT 5102   /* not an RSA-2048 X.509 v3 certificate naming an ISPB */
/* Blockchain keys, M-of-N sharing, secret keeping */
#define QL_ERR_BCHAIN_INVALID_KEY 5110  /* a key out of range (BIP32: take the next index) */
#define QL_ERR_BCHAIN_BAD_ENCODING 5111 /* a malformed key, address or signature encoding */
#define QL_ERR_SHARE_CORRUPT 5112       /* a share whose checksum or layout is wrong */
#define QL_ERR_SHARES_MISMATCH 5113     /* shares of different sets, repeated or off the set */
#define QL_ERR_SHARES_TOO_FEW 5114      /* fewer shares than the threshold */
#define QL_ERR_SKEEP_MISMATCH 5115      /* the kept secret, its level or auth type differ */

/* QGetReturnCodeString formats. */
#define QL_RC_STR_NAME 1        /* the constant's name: "QL_ERR_ACCESS_DENIED" */
#define QL_RC_STR_DESCRIPTION 2 /* a sentence: "Access denied." */

/* ===========================================================================================
 * Limits
 */
#define QL_DEFAULT_PORT 4433
#define QL_MAX_ADDR 128     /* the address field of the authentication records */
#define QL_MAX_USER_NAME 16 /* characters, without the terminating NUL */
#define QL_MAX_PASSWORD 16
#define QL_MAX_OBJ_NAME 64 /* an object's own name; "owner/object" may reach 16 + 1 + 64 */
#define QL_ATOKEN_KEY_LEN 16
#define QL_HSM_INFO_TEXT_LEN 512

/* ===========================================================================================
 * Authentication kinds (QOpenSession's second argument) and records
 */
#define QL_AUTH_ANONYMOUS 1        /* AUTH_PWD_EX, address and port only; user fields ignored */
#define QL_AUTH_USER_PWD 16        /* AUTH_PWD_EX */
#define QL_AUTH_ATOKEN 32          /* AUTH_ATOKEN */
#define QL_AUTH_WIN_CREDENTIAL 128 /* AUTH_WIN_CREDENTIAL: user and password from the store */
/* AUTH_PWD_EX.dwAuthType: the second factor of a user and password login. A user with an OATH
 * token (QAssignToken) needs it on every login; a user without one is refused with it. The same
 * holds for a certificate bound with QSetUserParam(QL_UP_X509_ASSIGN): the library presents
 * pbStrongAuth (nStrongAuthLen bytes: a PEM private key and its PEM certificate, in either
 * order) as the TLS client certificate, so it needs an encrypted session (QL_SESSION_UNENCRYPTED
 * alone: QL_ERR_BAD_AUTH_KIND); a key that is not the certificate's: QL_ERR_KEY_CERT_MISMATCH. A
 * user holds at most one second factor. */
#define QL_STRONG_AUTH_OTP 1
#define QL_STRONG_AUTH_X509 2

/* The records are little-endian wire records with fixed offsets (asserted below). */
#pragma pack(push, 4)

typedef struct AUTH_PWD_EX_ {
  char szAddr[128];    /* HSM address (IP or name), NUL-terminated when shorter */
  int32_t nPort;       /* TCP port; 0 or negative: 4433 */
  char szUserId[16];   /* user name, NUL-terminated when shorter */
  char szPassword[16]; /* password, NUL-terminated when shorter */
  uint32_t dwAuthType; /* second factor: 0 none, QL_STRONG_AUTH_OTP or QL_STRONG_AUTH_X509 */
  union {
    unsigned char *pbStrongAuth; /* the OTP's digits, or the PEM key and certificate; 0: null */
    uint64_t qwStrongAuthPad;    /* keeps the field 8 bytes wide on 32-bit builds */
  };
  int32_t nStrongAuthLen; /* the digits (6 to 8) or PEM bytes; 0 with dwAuthType 0 */
} AUTH_PWD_EX;

typedef struct QL_A_TOKEN_ {
  char pcUserName[16];     /* the user the token belongs to, NUL-terminated when shorter */
  unsigned char pbKey[16]; /* the token's secret key */
} QL_A_TOKEN;

typedef struct AUTH_ATOKEN_ {
  char szAddr[128];
  int32_t nPort;
  QL_A_TOKEN stAToken;
} AUTH_ATOKEN;

typedef struct AUTH_WIN_CREDENTIAL_ {
  char szAddr[128]; /* the credential target; it is also the HSM address */
  int32_t nPort;
} AUTH_WIN_CREDENTIAL;

#pragma pack(pop)

/* The user record (38 bytes): QCreateUser takes it whole; QSetUserParam and QGetUserParam use
 * it for the parameters that name another user. A name or password that fills its 17 bytes
 * without a NUL is too long: QL_ERR_USER_NAME_TOO_LONG (name) or QL_ERR_BAD_LENGTH. */
#pragma pack(push, 2)
typedef struct QL_USER_INFO_ {
  char szUserId[17];   /* at 0: the user name, at most 16 characters */
  char szPassword[17]; /* at 17: the password, at most 16 characters */
  uint32_t dwAcl;      /* at 34: the access mask (ACL_*) */
} QL_USER_INFO;
#pragma pack(pop)

QL_STATIC_ASSERT(sizeof(AUTH_PWD_EX) == 180, "AUTH_PWD_EX is 180 bytes");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, szAddr) == 0, "AUTH_PWD_EX.szAddr");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, nPort) == 128, "AUTH_PWD_EX.nPort");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, szUserId) == 132, "AUTH_PWD_EX.szUserId");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, szPassword) == 148, "AUTH_PWD_EX.szPassword");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, dwAuthType) == 164, "AUTH_PWD_EX.dwAuthType");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, pbStrongAuth) == 168, "AUTH_PWD_EX.pbStrongAuth");
QL_STATIC_ASSERT(offsetof(AUTH_PWD_EX, nStrongAuthLen) == 176, "AUTH_PWD_EX.nStrongAuthLen");
QL_STATIC_ASSERT(sizeof(QL_A_TOKEN) == 32, "QL_A_TOKEN is 32 bytes");
QL_STATIC_ASSERT(offsetof(QL_A_TOKEN, pcUserName) == 0, "QL_A_TOKEN.pcUserName");
QL_STATIC_ASSERT(offsetof(QL_A_TOKEN, pbKey) == 16, "QL_A_TOKEN.pbKey");
QL_STATIC_ASSERT(sizeof(AUTH_ATOKEN) == 164, "AUTH_ATOKEN is 164 bytes");
QL_STATIC_ASSERT(offsetof(AUTH_ATOKEN, szAddr) == 0, "AUTH_ATOKEN.szAddr");
QL_STATIC_ASSERT(offsetof(AUTH_ATOKEN, nPort) == 128, "AUTH_ATOKEN.nPort");
QL_STATIC_ASSERT(offsetof(AUTH_ATOKEN, stAToken) == 132, "AUTH_ATOKEN.stAToken");
QL_STATIC_ASSERT(sizeof(AUTH_WIN_CREDENTIAL) == 132, "AUTH_WIN_CREDENTIAL is 132 bytes");
QL_STATIC_ASSERT(offsetof(AUTH_WIN_CREDENTIAL, szAddr) == 0, "AUTH_WIN_CREDENTIAL.szAddr");
QL_STATIC_ASSERT(offsetof(AUTH_WIN_CREDENTIAL, nPort) == 128, "AUTH_WIN_CREDENTIAL.nPort");
QL_STATIC_ASSERT(sizeof(QL_USER_INFO) == 38, "QL_USER_INFO is 38 bytes");
QL_STATIC_ASSERT(offsetof(QL_USER_INFO, szUserId) == 0, "QL_USER_INFO.szUserId");
QL_STATIC_ASSERT(offsetof(QL_USER_INFO, szPassword) == 17, "QL_USER_INFO.szPassword");
QL_STATIC_ASSERT(offsetof(QL_USER_INFO, dwAcl) == 34, "QL_USER_INFO.dwAcl");

/* ===========================================================================================
 * Flags
 */
/* QOpenSession. */
#define QL_SESSION_ENCRYPTED 1     /* TLS 1.3 */
#define QL_SESSION_UNENCRYPTED 4   /* plain TCP (alone; with QL_SESSION_ENCRYPTED it is TLS) */
#define QL_SESSION_BYPASS_LB 8     /* connect to exactly the given HSM (there is only one) */
#define QL_SESSION_BYPASS_CACHE 16 /* always open a new connection */
#define QL_SESSION_ALL_FLAGS 29

/* QCloseSession. */
#define QL_CLOSE_PHYSICAL 8 /* close the connection instead of giving it to the cache */

/* QGenerateKey, QImportKey and the other key-making calls. */
#define QL_KEY_EXPORTABLE 1
#define QL_KEY_NO_CRYPT 2       /* the key may not encrypt or decrypt data */
#define QL_KEY_TEMPORARY 4      /* the key lives in its session only */
#define QL_KEY_RSA_EXP3 2048    /* RSA public exponent 3 instead of 65537 */
#define QL_KEY_BLOCKCHAIN 16384 /* a blockchain key (QGenerateKey: QL_ALG_ECC_SECP256K1 only) */
/* QImportKey: with this bit in the algorithm, the blob makes a public-key object. */
#define QL_ALG_PUBLIC_KEY_BIT 0x80000000u
/* Key-size flags of the CSP-style key calls. */
#define QL_KEYSIZE_FLAG_RSA1024 0x4000000
#define QL_KEYSIZE_FLAG_RSA2048 0x8000000

/* QDestroyKey. */
#define QL_DESTROY_REMOVE 32 /* also remove the object from the HSM */

/* QGetUserKey. */
#define QL_GETKEY_OFFLINE 1 /* build the handle from the full name, without a round trip */

/* QSignHash. */
#define QL_SIGN_DISABLE_LEGACY 2 /* RSA: refuse the legacy form (see QSignHash) */

/* ===========================================================================================
 * Key parameters (QGetKeyParam / QSetKeyParam) and hash parameters
 */
#define QKP_ALGID 1     /* uint32: the key's algorithm (QL_ALG_*); read only */
#define QKP_IV 2        /* bytes: the IV of the next message (GCM: 12 bytes) */
#define QKP_PADDING 3   /* uint32: QL_PAD_* */
#define QKP_MODE 4      /* uint32: QL_MODE_* */
#define QKP_AAD 5       /* bytes: additional authenticated data of the next GCM message */
#define QKP_TAG_LEN 6   /* uint32: GCM tag length in bytes (default 16) */
#define QKP_FLAGS 7     /* uint32: the key's QL_KEY_* flags; read only */
#define QKP_KEYBITS 8   /* uint32: key size in bits; read only */
#define QKP_KEYLEN 9    /* uint32: key length in bytes (RSA: modulus bytes); read only */
#define QKP_OBJ_ID 10   /* text: the full name "owner/object"; read only */
#define QKP_OBJ_TYPE 11 /* uint32: QL_OBJ_* type; read only */
#define QKP_BLOCKED 12  /* uint32: 1 blocked, 0 usable */
#define QKP_STATS 13    /* QL_OBJ_STATS; read only */

#define QHP_ALGID 1    /* uint32: the hash's algorithm */
#define QHP_HASHVAL 2  /* bytes: the value (read), or a value computed elsewhere (write) */
#define QHP_HASHSIZE 4 /* uint32: the value's length */

typedef struct QL_OBJ_STATS_ {
  uint64_t qwCreated; /* seconds since 1970 */
  uint64_t qwModified;
  uint32_t dwSize;     /* stored bytes */
  uint32_t dwUseCount; /* operations since creation */
} QL_OBJ_STATS;

/* ===========================================================================================
 * Algorithm identifiers. Hashes and keys are separate name spaces (QL_ALG_MD5 and QL_ALG_DES
 * are both 1).
 */
/* Hashes. */
#define QL_ALG_MD5 1
#define QL_ALG_SHA1 2
#define QL_ALG_SHA256 4
#define QL_ALG_SHA384 5
#define QL_ALG_SHA512 6
#define QL_ALG_SHA224 7
#define QL_ALG_SHA3_224 8
#define QL_ALG_SHA3_256 9
#define QL_ALG_SHA3_384 10
#define QL_ALG_SHA3_512 11
/* HMAC and CMAC: the hash takes a key (QCreateHash's third argument). */
#define QL_ALG_HMAC_MD5 92
#define QL_ALG_HMAC_SHA1 93
#define QL_ALG_HMAC_SHA2_256 94
#define QL_ALG_HMAC_SHA2_384 95
#define QL_ALG_HMAC_SHA2_512 96
#define QL_ALG_HMAC_SHA2_224 97
#define QL_ALG_HMAC_SHA3_224 98
#define QL_ALG_HMAC_SHA3_256 99
#define QL_ALG_HMAC_SHA3_384 100
#define QL_ALG_HMAC_SHA3_512 101
#define QL_ALG_CMAC_AES 250
#define QL_ALG_CMAC_DES 251
#define QL_ALG_IDFUNC 255 /* no hash: EdDSA signs the message itself */

/* PKCS#11 mechanisms accepted where the general table offers them. */
#define QL_CKM_RSA_PKCS 0x1
#define QL_CKM_RSA_X509 0x3
#define QL_CKM_MD5 0x210
#define QL_CKM_MD5_HMAC 0x211
#define QL_CKM_SHA_1 0x220
#define QL_CKM_SHA_1_HMAC 0x221
#define QL_CKM_SHA256 0x250
#define QL_CKM_SHA256_HMAC 0x251
#define QL_CKM_SHA224_HMAC 0x256
#define QL_CKM_SHA384 0x260
#define QL_CKM_SHA384_HMAC 0x261
#define QL_CKM_SHA512 0x270
#define QL_CKM_SHA512_HMAC 0x271
#define QL_CKM_SHA3_256_HMAC 0x2B1
#define QL_CKM_SHA3_224_HMAC 0x2B6
#define QL_CKM_SHA3_384_HMAC 0x2C1
#define QL_CKM_SHA3_512_HMAC 0x2D1
#define QL_CKM_ECDSA_SHA1 0x1042

/* Symmetric keys. */
#define QL_ALG_DES 1
#define QL_ALG_3DES_112 2
#define QL_ALG_3DES_168 3
#define QL_ALG_AES128 7
#define QL_ALG_AES192 8
#define QL_ALG_AES256 9
#define QL_ALG_ARC4 10
#define QL_ALG_ARC5 89 /* not supported */
#define QL_ALG_DESX 91
/* HMAC secrets: generic keys for QL_ALG_HMAC_* and nothing else (32 and 64 bytes). */
#define QL_ALG_HMAC_KEY 170
#define QL_ALG_HMAC_KEY_512 171

/* RSA. */
#define QL_ALG_RSA512 4
#define QL_ALG_RSA1024 5
#define QL_ALG_RSA2048 6
#define QL_ALG_RSA4096 11
#define QL_ALG_RSA1152 121
#define QL_ALG_RSA1408 122
#define QL_ALG_RSA1984 123
#define QL_ALG_RSA8192 124
#define QL_ALG_RSA2304 126
#define QL_ALG_RSA2560 127
#define QL_ALG_RSA2816 128
#define QL_ALG_RSA3072 129
#define QL_ALG_RSA1976 130
#define QL_ALG_RSA1536 131
#define QL_ALG_CSP 193

/* Elliptic curves. */
#define QL_ALG_ECC_SECP112R1 18
#define QL_ALG_ECC_SECP112R2 19
#define QL_ALG_ECC_SECP128R1 20
#define QL_ALG_ECC_SECP128R2 21
#define QL_ALG_ECC_SECP160K1 22
#define QL_ALG_ECC_SECP160R1 23
#define QL_ALG_ECC_SECP160R2 24
#define QL_ALG_ECC_SECP192K1 25
#define QL_ALG_ECC_SECP192R1 26
#define QL_ALG_ECC_SECP224K1 27
#define QL_ALG_ECC_SECP224R1 28
#define QL_ALG_ECC_SECP256K1 29
#define QL_ALG_ECC_SECP256R1 30
#define QL_ALG_ECC_SECP384R1 31
#define QL_ALG_ECC_SECP521R1 32
#define QL_ALG_ECC_X9_62_PRIME192V1 26 /* the same curve as secp192r1 */
#define QL_ALG_ECC_X9_62_PRIME192V2 33
#define QL_ALG_ECC_X9_62_PRIME192V3 34
#define QL_ALG_ECC_X9_62_PRIME239V1 35
#define QL_ALG_ECC_X9_62_PRIME239V2 36
#define QL_ALG_ECC_X9_62_PRIME239V3 37
#define QL_ALG_ECC_X9_62_PRIME256V1 30 /* the same curve as secp256r1 */
#define QL_ALG_ECC_BRAINPOOL_P160R1 38
#define QL_ALG_ECC_BRAINPOOL_P160T1 39
#define QL_ALG_ECC_BRAINPOOL_P192R1 40
#define QL_ALG_ECC_BRAINPOOL_P192T1 41
#define QL_ALG_ECC_BRAINPOOL_P224R1 42
#define QL_ALG_ECC_BRAINPOOL_P224T1 43
#define QL_ALG_ECC_BRAINPOOL_P256R1 44
#define QL_ALG_ECC_BRAINPOOL_P256T1 45
#define QL_ALG_ECC_BRAINPOOL_P320R1 46
#define QL_ALG_ECC_BRAINPOOL_P320T1 47
#define QL_ALG_ECC_BRAINPOOL_P384R1 48
#define QL_ALG_ECC_BRAINPOOL_P384T1 49
#define QL_ALG_ECC_BRAINPOOL_P512R1 50
#define QL_ALG_ECC_BRAINPOOL_P512T1 51
#define QL_ALG_ED25519 201
#define QL_ALG_ED448 202
#define QL_ALG_X25519 203
#define QL_ALG_X448 204

/* Public-key blob kinds. */
#define QL_PUBLICKEYBLOB 350
#define QL_RSA_PUB_KEY_BLOB 351
#define QL_ECC_PUB_KEY_BLOB 352
#define QL_SPKI_RSA_PUB_KEY_BLOB 353
#define QL_ECC_ED_BLOB 354
#define QL_ECC_X_BLOB 355
#define QL_DSA_BLOB 356
#define QL_DH_BLOB 357

/* Cipher modes (QKP_MODE). */
#define QL_MODE_NONE 0 /* a stream cipher, or RSA */
#define QL_MODE_ECB 1
#define QL_MODE_CBC 2
#define QL_MODE_KWP 4 /* RFC 5649 */
#define QL_MODE_OFB 8
#define QL_MODE_CTR 16
#define QL_MODE_GCM 32
#define QL_MODE_KW 64 /* RFC 3394 */

/* Paddings (QKP_PADDING). */
#define QL_PAD_NONE 0
#define QL_PAD_PKCS5 1
#define QL_PAD_ZERO 2     /* cannot be undone: decryption keeps the padded length */
#define QL_PAD_RSA_NONE 3 /* raw RSA */
#define QL_PAD_FORCE_ACTUAL_RSA 4
#define QL_PAD_RSA_OAEP 5 /* RSA OAEP with SHA-1 */

/* Blob types (QExportKey / QImportKey). Formats:
 *   PRIVATEKEY_BLOB, PRIVATEKEY_BLOB_STRICT: PKCS#8 PrivateKeyInfo (DER); with a key-encryption
 *     key, that DER wrapped with RFC 5649 under it; STRICT refuses a public-only key.
 *   PUBLICKEY_BLOB, PUBLICKEY_BLOB_HSM: SubjectPublicKeyInfo (DER).
 *   PLAINTEXTKEY_BLOB: the raw secret of a symmetric key.
 *   SIMPLE_BLOB: a symmetric key encrypted under an RSA key with PKCS#1 v1.5;
 *   SIMPLE_BLOB_OAEP: the same with OAEP (SHA-1).
 *   SYM_WRAPPED_KEY_BLOB: a symmetric key wrapped with RFC 3394 (RFC 5649 when its length is
 *     not a multiple of 8) under an AES key.
 *   WRAPPED_KEY_BLOB: any key's PKCS#8 (asymmetric) or raw secret, wrapped with RFC 5649.
 */
#define QL_PRIVATEKEY_BLOB 1
#define QL_PUBLICKEY_BLOB 2
#define QL_SIMPLE_BLOB 3
#define QL_PLAINTEXTKEY_BLOB 4
#define QL_HOTP_BLOB 6
#define QL_SIMPLE_BLOB_OAEP 7
#define QL_SYM_WRAPPED_KEY_BLOB 9
#define QL_PUBLICKEY_BLOB_HSM 11
#define QL_PRIVATEKEY_BLOB_STRICT 14
#define QL_WRAPPED_KEY_BLOB 16
/* PKI: the DER of a certificate (QL_OBJ_X509), chain (QL_OBJ_PKCS7) or CRL (QL_OBJ_CRL) object,
 * from a handle of QGetUserKey; a use right. */
#define QL_CERT_BLOB 19

/* PKCS#10 request forms. */
#define QL_P10_CSR_VERSION1 0
#define QL_P10_CSR_DER 1
#define QL_P10_CSR_PEM 2

/* Object types (QKP_OBJ_TYPE). A key's type is its algorithm; these are the other objects. */
#define QL_OBJ_FILE 12
#define QL_OBJ_X509 13
#define QL_OBJ_PKCS7 14
#define QL_OBJ_CRL 15
#define QL_OBJ_HOTP 16
#define QL_OBJ_DPG03 17
#define QL_OBJ_MAP 90
/* Secret keeping: a kept secret (QSKeepNewSecret), never read out. */
#define QL_OBJ_SKEEP 60

/* Request options of the probe (QAdmOperation QL_ADM_PROBE, first input byte). */
#define QL_RNM_PROBE 1
#define QL_RNM_DOWN 2
#define QL_RNM_SLP_BYPASS_ADD 3
#define QL_RNM_SLP_BYPASS_DEL 4

/* Key-derivation functions of QGenEcdhKey. */
#define QL_GEN_KEY_KDF_RAW_SECRET 1
#define QL_GEN_KEY_X9_63_SHA256 2

/* QDoRSAPadding: block type and digest identifiers. */
#define QL_RSA_PADDING_PKCS1_TYPE1 1
#define QL_DIGEST_ID_NONE 0 /* the bare digest, no DigestInfo */
#define QL_DIGEST_ID_MD5 2
#define QL_DIGEST_ID_SHA1 3
#define QL_DIGEST_ID_SHA256 4
#define QL_DIGEST_ID_SHA384 5
#define QL_DIGEST_ID_SHA512 6
#define QL_DIGEST_ID_SHA224 7

/* ===========================================================================================
 * Access rights (a user's access mask)
 */
#define ACL_NOP 0x0
#define ACL_OBJ_DEL 0x1
#define ACL_OBJ_READ 0x2
#define ACL_OBJ_CREATE 0x4
#define ACL_OBJ_UPDATE 0x8
#define ACL_OBJ_WRITE ACL_OBJ_UPDATE
#define ACL_USR_CREATE 0x10
#define ACL_USR_DELETE ACL_USR_CREATE
#define ACL_USR_REMOTE_LOG 0x20
#define ACL_USR_LIST 0x40
#define ACL_SYS_OPERATOR 0x80
#define ACL_SYS_BACKUP 0x100
#define ACL_SYS_RESTORE ACL_SYS_BACKUP
#define ACL_SYS_UDATE_HSM 0x200
#define ACL_NS_AUTHORIZATION 0x400
#define ACL_CHANGE_COLD_PARTITION 0x800
#define ACL_ALL_RIGHTS 0xFFF

/* ===========================================================================================
 * Library, buffers and helpers
 */

/* Starts the library. nFlags must be 0. May be called any number of times, from any thread;
 * every function also starts the library when needed. */
QLAPI_EXPORT int QInitialize(int nFlags);

/* Closes every session still open (and the connections of the cache) and releases every handle
 * left. The library stays usable: a later call starts it again. */
QLAPI_EXPORT int QFinalize(void);

/* A buffer of dwSize bytes (at least one), or null when memory is short. */
QLAPI_EXPORT void *QAlloc(unsigned int dwSize);
/* Releases a buffer from QAlloc or handed out by the library; null is ignored. */
QLAPI_EXPORT void QFree(void *pvData);

/* The text of a code: dwFormat QL_RC_STR_NAME or QL_RC_STR_DESCRIPTION. Never null; an unknown
 * code gives "Unknown return code." (or "QL_ERR_UNKNOWN"). The library owns the text. */
QLAPI_EXPORT const char *QGetReturnCodeString(int nCode, uint32_t dwFormat);

/* Decodes dwTextLen characters of base64 (RFC 4648, padding optional, white space ignored)
 * into pbOut (capacity in *pdwOutLen). Size query as usual; QL_ERR_BAD_BASE64 on bad text. */
QLAPI_EXPORT int QBase642ByteArray(const char *szText, uint32_t dwTextLen, void *pbOut,
                                   uint32_t *pdwOutLen);
/* Encodes dwDataLen bytes as base64 with padding and a terminating NUL into szOut (capacity in
 * *pdwOutLen, NUL included); on success *pdwOutLen is the text length without the NUL. */
QLAPI_EXPORT int QByteArray2Base64(const void *pbData, uint32_t dwDataLen, char *szOut,
                                   uint32_t *pdwOutLen);

/* Version texts: QL_VERSION_LIBRARY needs no session (hSession may be null); the others ask the
 * HSM. */
#define QL_VERSION_LIBRARY 0
#define QL_VERSION_HSM 1
#define QL_VERSION_PROTOCOL 2
QLAPI_EXPORT int QVersion(HSESSIONCTX hSession, uint32_t dwWhich, char *szVersion,
                          uint32_t *pdwVersionLen);

/* ===========================================================================================
 * Sessions
 */

/* Opens a session: dwAuthType is a QL_AUTH_* kind, pvAuthData its record and dwAuthDataLen at
 * least the record's size (180, 164 or 132). dwFlags: QL_SESSION_*; other bits answer
 * QL_ERR_BAD_FLAGS. Kind QL_AUTH_WIN_CREDENTIAL reads the user and password stored under the
 * record's szAddr (see qlapi_credstore.h) and connects to that address. On failure *phSession
 * is null. */
QLAPI_EXPORT int QOpenSession(HSESSIONCTX *phSession, uint32_t dwAuthType, void *pvAuthData,
                              uint32_t dwAuthDataLen, uint32_t dwFlags);

/* Closes *phSession and clears it: the HSM forgets the session's temporary keys and hashes, and
 * the connection goes back to the cache (or is closed with QL_CLOSE_PHYSICAL, or when the
 * session was opened with QL_SESSION_BYPASS_CACHE). Key and hash handles of the session become
 * invalid. */
QLAPI_EXPORT int QCloseSession(HSESSIONCTX *phSession, uint32_t dwFlags);

/* Session parameters. */
#define QL_SP_USER_NAME 1         /* text: the logged-in user ("" when anonymous) */
#define QL_SP_ACL 2               /* uint32: the user's access mask */
#define QL_SP_SESSION_ID 3        /* uint64: the HSM's session number */
#define QL_SP_TLS 4               /* uint32: 1 when the connection is TLS */
#define QL_SP_TLS_PEER_SHA256 5   /* 32 bytes: SHA-256 of the HSM's certificate (DER) */
#define QL_SP_OPERATING_MODE 1024 /* uint32: QL_OP_MODE_* */
#define QL_OP_MODE_NORMAL 1
#define QL_OP_MODE_MAINTENANCE 2
QLAPI_EXPORT int QGetSessionParam(HSESSIONCTX hSession, uint32_t dwParam, void *pvData,
                                  uint32_t *pdwDataLen, uint32_t dwFlags);

/* Administrative operations. pvIn/dwInLen and pvOut/pdwOutLen as each operation needs (null
 * when none). QL_ADM_KEEPALIVE and QL_ADM_PROBE need no right; the others ACL_SYS_OPERATOR.
 * A QL_ERR_BUSY_RETRY answer may be retried as it is. */
/* QL_ADM_SET_DATE_TIME sets the HSM's time (UTC) to a uint64 of seconds since 1970 in this
 * machine's byte order (8 bytes; QL_ERR_BAD_LENGTH otherwise), at most 253402300799
 * (9999-12-31 23:59:59; QL_ERR_BAD_ARGUMENT beyond). The HSM keeps the difference to its machine's
 * clock, which it never changes, and stamps with its own time from then on: object and user
 * creation times, access-token issue times and expiry checks, audit log lines. The time survives
 * a restart. QL_ADM_PROBE answers a uint32 state in pvOut (4 bytes; a shorter or null buffer
 * answers QL_ERR_BUFFER_TOO_SMALL with 4). QL_ADM_LOG_CACHE on keeps the log lines of read-only
 * requests in memory until a change or a full page writes them; off writes every line as it comes;
 * the setting survives a restart and the answer is the state left (pvOut may be null).
 * QL_ADM_REPL_UPDATE and QL_ADM_REPL_NODE_MESSAGE answer QL_ERR_NOT_IN_CLUSTER on a single HSM. */
#define QL_ADM_SET_DATE_TIME 1 /* in: uint64 seconds since 1970 */
/* QL_ADM_SET_TLS_BUNDLE in: a PEM private key, its certificate, then any intermediates. The key
 * must be RSA of 2048 bits or more, P-256, P-384 or Ed25519 (else QL_ERR_BAD_KEY_USAGE) and the
 * certificate's (QL_ERR_KEY_CERT_MISMATCH), the certificate valid at the HSM's time
 * (QL_ERR_CERT_EXPIRED); no key QL_ERR_BAD_ARGUMENT, no certificate QL_ERR_BAD_CERT. The HSM
 * keeps it under its master key and presents it on every new connection, and after a restart;
 * open connections keep theirs. Clients that pinned the old certificate must pin the new one. */
#define QL_ADM_SET_TLS_BUNDLE 2
#define QL_ADM_LOG_CACHE 3 /* in: uint32 0 off, 1 on (none: unchanged); out: uint32 state */
#define QL_ADM_KEEPALIVE 4 /* none */
#define QL_ADM_PROBE 5     /* in: optional byte QL_RNM_*; out: uint32 state (1 up) */
#define QL_ADM_REPL_UPDATE 6
#define QL_ADM_REPL_NODE_MESSAGE 7
#define QL_ADM_EFTD_AUTHORIZE 8
#define QL_ADM_EFTD_DEAUTHORIZE 9
#define QL_ADM_EFTD_INFO 10
#define QL_ADM_EFTD_RESET 11
#define QL_ADM_EFTD_SET_CONF 12
QLAPI_EXPORT int QAdmOperation(HSESSIONCTX hSession, uint32_t dwOperation, const void *pvIn,
                               uint32_t dwInLen, void *pvOut, uint32_t *pdwOutLen,
                               uint32_t dwFlags);

/* The EFT daemon: the payment family's own state. Its configuration is stored; an authorisation
 * lives in memory until its time runs out, a deauthorisation, a reset or a restart; counters of
 * successes and failures are kept per payment operation. All five operations need
 * ACL_SYS_OPERATOR.
 *   QL_ADM_EFTD_AUTHORIZE    in: QL_EFTD_AUTH (activities, minutes 1 to 720); the activities
 *                            are authorised to the caller until now + minutes (one end time for
 *                            all of them: the latest authorisation sets it)
 *   QL_ADM_EFTD_DEAUTHORIZE  in: QL_EFTD_AUTH (activities; minutes ignored)
 *   QL_ADM_EFTD_INFO         out: QL_EFTD_INFO
 *   QL_ADM_EFTD_RESET        none: ends every authorisation and zeroes the counters
 *   QL_ADM_EFTD_SET_CONF     in: QL_EFTD_CONF, the whole configuration (read, change, write)
 * Activities that need an authorisation only while the configuration says so
 * (dwAuthRequired): a clear PIN from QGeneratePIN, a PAN-bound PIN block translated to format 1.
 * The default configuration: table "0123456789012345", PINs of 4 to 12 digits, formats 0, 1, 3
 * and 4, authorisation required for the translation to format 1. */
#define QL_EFTD_ACT_CLEAR_PIN 0x1   /* a clear PIN handed out by QGeneratePIN */
#define QL_EFTD_ACT_PIN_FORMAT1 0x2 /* a PAN-bound PIN block translated to format 1 */
#define QL_EFTD_ACT_ALL 0x3
#define QL_EFTD_FORMAT(n) (1u << (n)) /* dwFormats: bit n enables PIN block format n */
#define QL_EFTD_MAX_MINUTES 720
/* The counted operations, the index of each in astCounters. */
#define QL_EFTD_OP_GENERATE_CVV 0
#define QL_EFTD_OP_VERIFY_CVV 1
#define QL_EFTD_OP_GENERATE_PIN 2
#define QL_EFTD_OP_VERIFY_PIN_BLOCK 3
#define QL_EFTD_OP_TRANSLATE_PIN_BLOCK 4
#define QL_EFTD_OP_GENERATE_DUKPT 5
#define QL_EFTD_OP_EXPORT_TR31 6
#define QL_EFTD_OP_IMPORT_TR31 7
#define QL_EFTD_OP_COUNT 8
#define QL_EFTD_USER_LEN 24

typedef struct QL_EFTD_CONF_ {
  char szDecTable[17]; /* 16 decimal digits and a NUL */
  uint8_t bReserved[3];
  uint32_t dwPinMin; /* 4 to 12, at most dwPinMax */
  uint32_t dwPinMax;
  uint32_t dwFormats;      /* QL_EFTD_FORMAT bits of 0, 1, 3 and 4 */
  uint32_t dwAuthRequired; /* QL_EFTD_ACT_* */
} QL_EFTD_CONF;

typedef struct QL_EFTD_AUTH_ {
  uint32_t dwActivities; /* QL_EFTD_ACT_* */
  uint32_t dwMinutes;    /* 1 to QL_EFTD_MAX_MINUTES */
} QL_EFTD_AUTH;

typedef struct QL_EFTD_COUNTER_ {
  uint64_t qwSuccesses;
  uint64_t qwFailures;
} QL_EFTD_COUNTER;

typedef struct QL_EFTD_INFO_ {
  QL_EFTD_CONF stConf;
  uint32_t dwAuthActivities;         /* authorised now */
  int64_t qwAuthUntil;               /* seconds since 1970; 0 when nothing is authorised */
  char szAuthUser[QL_EFTD_USER_LEN]; /* who authorised them */
  QL_EFTD_COUNTER astCounters[QL_EFTD_OP_COUNT];
} QL_EFTD_INFO;

QL_STATIC_ASSERT(sizeof(QL_EFTD_CONF) == 36, "QL_EFTD_CONF is 36 bytes");
QL_STATIC_ASSERT(offsetof(QL_EFTD_CONF, dwPinMin) == 20, "QL_EFTD_CONF.dwPinMin");
QL_STATIC_ASSERT(offsetof(QL_EFTD_CONF, dwAuthRequired) == 32, "QL_EFTD_CONF.dwAuthRequired");
QL_STATIC_ASSERT(sizeof(QL_EFTD_AUTH) == 8, "QL_EFTD_AUTH is 8 bytes");
QL_STATIC_ASSERT(sizeof(QL_EFTD_COUNTER) == 16, "QL_EFTD_COUNTER is 16 bytes");
QL_STATIC_ASSERT(offsetof(QL_EFTD_INFO, dwAuthActivities) == 36, "QL_EFTD_INFO.dwAuthActivities");
QL_STATIC_ASSERT(offsetof(QL_EFTD_INFO, qwAuthUntil) == 40, "QL_EFTD_INFO.qwAuthUntil");
QL_STATIC_ASSERT(offsetof(QL_EFTD_INFO, szAuthUser) == 48, "QL_EFTD_INFO.szAuthUser");
QL_STATIC_ASSERT(offsetof(QL_EFTD_INFO, astCounters) == 72, "QL_EFTD_INFO.astCounters");
QL_STATIC_ASSERT(sizeof(QL_EFTD_INFO) == 200, "QL_EFTD_INFO is 200 bytes");

/* ===========================================================================================
 * HSM information and statistics
 */
typedef struct QL_HSM_INFO_ {
  char szModel[QL_HSM_INFO_TEXT_LEN];
  char szFirmwareVersion[QL_HSM_INFO_TEXT_LEN];
  char szSerialNumber[QL_HSM_INFO_TEXT_LEN];
  char szHardwareVersion[QL_HSM_INFO_TEXT_LEN];
  char szHsmName[QL_HSM_INFO_TEXT_LEN];
  char szLibraryVersion[QL_HSM_INFO_TEXT_LEN]; /* filled by the library */
  unsigned char pbPendingTransaction[8];       /* replication; all 0 without a cluster */
} QL_HSM_INFO;
/* Fills *pInfo. The texts are NUL-terminated and never contain '%'. No right needed. */
QLAPI_EXPORT int QGetHsmInfo(HSESSIONCTX hSession, QL_HSM_INFO *pInfo);

/* Memory units of QGetStatInfo. */
#define QL_MEM_UNIT_BYTES 0
#define QL_MEM_UNIT_KIB 1
#define QL_MEM_UNIT_MIB 2
/* The HSM's load: open sessions, CPU use in percent (0..100) since the previous call (or over
 * the last second), the memory unit (QL_MEM_UNIT_MIB) and the machine's memory and swap, total
 * and used, in that unit. Right ACL_USR_REMOTE_LOG or ACL_SYS_OPERATOR (else 5002). Any output
 * pointer may be null. */
QLAPI_EXPORT int QGetStatInfo(HSESSIONCTX hSession, uint32_t *pdwSessionCount,
                              uint32_t *pdwCpuUsage, uint32_t *pdwMemUnit, uint32_t *pdwMemTotal,
                              uint32_t *pdwMemUsed, uint32_t *pdwSwapTotal, uint32_t *pdwSwapUsed);

/* The size in bytes of the HSM's audit log. Right ACL_USR_REMOTE_LOG or ACL_SYS_OPERATOR. */
QLAPI_EXPORT int QGetStatLogSize(HSESSIONCTX hSession, uint64_t *pqwLogSize);

/* Network configuration of the HSM as text lines "name=value\n": "hostname=<name>", then one line
 * per address, "if.<interface>.ipv4=<address>/<prefix>" or ".ipv6=". szInfo gets the text and its
 * NUL (size query as usual). Right ACL_USR_REMOTE_LOG or ACL_SYS_OPERATOR. */
QLAPI_EXPORT int QGetNetInfo(HSESSIONCTX hSession, char *szInfo, uint32_t *pdwInfoLen);

/* A list of names: called once per name with bLast 0, then once with szName null and bLast 1.
 * A non-zero return stops the list; the listing call then answers QL_ERR_CANCELLED. */
typedef int (*PQL_LIST_CALLBACK)(void *pvParam, const char *szName, int bLast);

/* What the HSM runs, one name each: "service:<name>" per service of the HSM, "openssl:<version>",
 * "sqlite:<version>", "provider:<name> <version>" per OpenSSL provider loaded, and
 * "update-package:<version>" once an update package was applied (QUPackPush). Any login. */
QLAPI_EXPORT int QListLoadedModules(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback,
                                    void *pvParam);

/* IP filter: dwOperation 1 list (callback per rule), 2 add szRule, 3 remove szRule. A rule is an
 * IPv4 or IPv6 address or network ("192.0.2.7", "192.0.2.0/24", "2001:db8::/32"); with rules
 * listed, the HSM accepts connections only from the addresses they hold (and loopback); with
 * none, from any address. Needs ACL_SYS_OPERATOR. Adding a listed rule answers
 * QL_ERR_OBJ_EXISTS, removing an unlisted one QL_ERR_OBJ_NOT_FOUND. */
#define QL_IPF_LIST 1
#define QL_IPF_ADD 2
#define QL_IPF_REMOVE 3
QLAPI_EXPORT int QIPFilterOperation(HSESSIONCTX hSession, uint32_t dwOperation, const char *szRule,
                                    PQL_LIST_CALLBACK pfnCallback, void *pvParam);

/* The HSM seen as a PKCS#11 token (v2.40 CK_INFO and CK_TOKEN_INFO), read once by QGetHSMP11Info
 * (dwFlags 0; any session, anonymous ones too) and then field by field with QGetHSMP11InfoAttr:
 * texts NUL-terminated, versions 2 bytes (major, minor), flags and counts uint64 in the host's
 * order. pvData null or *pdwDataLen too small: QL_ERR_BUFFER_TOO_SMALL with the length needed;
 * an unknown id QL_ERR_BAD_ARGUMENT. QDestroyHSMP11Info releases the handle and clears it.
 * QGetHSMP11TypeInfoList calls back once per mechanism the HSM serves with
 * "CKM_<name> <min> <max> 0x<flags>" (key sizes as PKCS#11 counts them: bits for RSA and
 * curves, bytes for secret keys; flags CKF_*), then the final call. */
/* PKCS#11 information: the fields of QGetHSMP11InfoAttr. */
#define QL_P11_INFO_CRYPTOKI_VERSION 1
#define QL_P11_INFO_MANUFACTURER 2
#define QL_P11_INFO_FLAGS 3
#define QL_P11_INFO_LIBRARY_DESCRIPTION 4
#define QL_P11_INFO_LIBRARY_VERSION 5
#define QL_P11_INFO_TOKEN_LABEL 6
#define QL_P11_INFO_TOKEN_MANUFACTURER 7
#define QL_P11_INFO_TOKEN_MODEL 8
#define QL_P11_INFO_TOKEN_SERIAL 9
#define QL_P11_INFO_TOKEN_FLAGS 10
#define QL_P11_INFO_MAX_SESSION_COUNT 11
#define QL_P11_INFO_SESSION_COUNT 12
#define QL_P11_INFO_MAX_RW_SESSION_COUNT 13
#define QL_P11_INFO_RW_SESSION_COUNT 14
#define QL_P11_INFO_MAX_PIN_LEN 15
#define QL_P11_INFO_MIN_PIN_LEN 16
#define QL_P11_INFO_TOTAL_PUBLIC_MEMORY 17
#define QL_P11_INFO_FREE_PUBLIC_MEMORY 18
#define QL_P11_INFO_TOTAL_PRIVATE_MEMORY 19
#define QL_P11_INFO_FREE_PRIVATE_MEMORY 20
#define QL_P11_INFO_HARDWARE_VERSION 21
#define QL_P11_INFO_FIRMWARE_VERSION 22
#define QL_P11_INFO_UTC_TIME 23
QLAPI_EXPORT int QGetHSMP11Info(HSESSIONCTX hSession, HP11INFOCTX *phInfo, uint32_t dwFlags);
QLAPI_EXPORT int QGetHSMP11InfoAttr(HP11INFOCTX hInfo, uint32_t dwAttr, void *pvData,
                                    uint32_t *pdwDataLen);
QLAPI_EXPORT int QDestroyHSMP11Info(HP11INFOCTX *phInfo);
QLAPI_EXPORT int QGetHSMP11TypeInfoList(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback,
                                        void *pvParam);

/* The HSM's TLS certificate, DER (dwFormat 1) or PEM (2), in a buffer from QAlloc. */
QLAPI_EXPORT int QGetHSMTLSCert(HSESSIONCTX hSession, uint32_t dwFormat, unsigned char **ppbCert,
                                uint32_t *pdwCertLen);

/* Network tools run by the HSM: dwTool 1 ping, 2 traceroute (szTarget), 3 cross-check; the
 * report is text in a buffer from QAlloc. On a single HSM the cross-check is a self-check
 * (the store, a known-answer test of each algorithm family, the key cache against the store);
 * it answers QL_ERR_SELF_CHECK_FAILED with its report when a check fails. The report is NUL
 * terminated; *pdwReportLen is its length without the NUL. Ping and traceroute targets are
 * "host" or "host:port". Right ACL_SYS_OPERATOR. */
#define QL_HSM_TOOL_PING 1
#define QL_HSM_TOOL_TRACEROUTE 2
#define QL_HSM_TOOL_CROSS_CHECK 3
#define QL_HSM_TOOL_TCP_PROBE 1 /* ping: a TCP connect probe even where ICMP echo is allowed */
QLAPI_EXPORT int QHSMTool(HSESSIONCTX hSession, uint32_t dwTool, const char *szTarget,
                          char **ppszReport, uint32_t *pdwReportLen, uint32_t dwFlags);

/* Discovery of HSMs on the local network. Sends one query datagram to the broadcast address of
 * each IPv4 interface, at UDP port 4434 (or, when $QLAPI_DISCOVERY_ADDR is set to "HOST:PORT",
 * only there), and collects the answers for dwTimeoutMs (1 to 60000). The callback follows
 * PQL_LIST_CALLBACK: once per HSM that answered, then the final call; two identical answers count
 * once. Each line is seven fields separated by one space:
 *   "<address> <tls-port> <name> <app-port> <family> <version> <fingerprint>"
 * address and TLS port with QL_FIND_HSM_IP, the HSM's name (its host name) and the port
 * applications connect to with QL_FIND_HSM_AAP, both with QL_FIND_HSM_ALL; a field not asked
 * for is "-". family is the product family ("soft" for qlhsmd; also "net", "pcie", "usb",
 * "cloud", "lab"); version is the HSM's; fingerprint is the SHA-256 of its TLS certificate in
 * lower-case hex, as `qlhsmd fingerprint` prints it (pin it before trusting the HSM: answers
 * are not authenticated). No answer is not an error: only the final call comes.
 * QL_ERR_BAD_FLAGS for another service type, QL_ERR_BAD_ARGUMENT for a null callback or a
 * timeout out of range, QL_ERR_CONNECTION_FAILED when no query could be sent ($QLAPI_DISCOVERY_ADDR
 * does not resolve, no interface has a broadcast address). */
/* Discovery service types. */
#define QL_FIND_HSM_IP 1
#define QL_FIND_HSM_AAP 2
#define QL_FIND_HSM_ALL 3
QLAPI_EXPORT int QFindHSM(uint32_t dwServiceType, uint32_t dwTimeoutMs,
                          PQL_LIST_CALLBACK pfnCallback, void *pvParam);

/* Directory-service binding of the HSM. */
QLAPI_EXPORT int QDSBindHSM(HSESSIONCTX hSession, const char *szServiceUrl, const char *szUser,
                            const char *szPassword, uint32_t dwFlags);
QLAPI_EXPORT int QDSUnbindHSM(HSESSIONCTX hSession, uint32_t dwFlags);

/* ===========================================================================================
 * Audit log
 */
/* Reads the log page by page: Init, then Cont until it answers QL_ERR_OBJ_NOT_FOUND (no more
 * pages), then End. dwFlags 1 reads backwards from the newest page. A page is a sequence of
 * lines; a page whose first byte is 'Z' is a deflate stream of such lines after that byte. The
 * read covers the pages the log held at Init. Cont with a null or short buffer answers
 * QL_ERR_BUFFER_TOO_SMALL with the page's length and hands the same page out on the next call.
 * Right ACL_USR_REMOTE_LOG or ACL_SYS_OPERATOR. A line is "YYYY-MM-DD hh:mm:ss user operation
 * target code" (UTC; "-" for no user or no target). */
QLAPI_EXPORT int QGetHSMLogInit(HSESSIONCTX hSession, uint32_t dwFlags, HLOGCTX *phLog);
QLAPI_EXPORT int QGetHSMLogCont(HLOGCTX hLog, unsigned char *pbPage, uint32_t *pdwPageLen);
QLAPI_EXPORT int QGetHSMLogEnd(HLOGCTX *phLog);
/* Follows the log: the HSM pushes each line written from now on, one callback per line (szLine
 * NUL-terminated, without its line end), until the callback returns non-zero. While no line
 * comes, the callback is called about every 250 ms with szLine null and dwLineLen 0, so that it
 * can end the follow. A follower that falls far behind loses lines and gets one line saying how
 * many. The session's connection closes when the follow ends: close the session then. Answers
 * QL_OK when the callback ended it. Right ACL_USR_REMOTE_LOG or ACL_SYS_OPERATOR. */
typedef int (*PQL_LOG_EVENT_CALLBACK)(void *pvParam, const char *szLine, uint32_t dwLineLen);
QLAPI_EXPORT int QGetLogEvents(HSESSIONCTX hSession, PQL_LOG_EVENT_CALLBACK pfnCallback,
                               void *pvParam);
/* Turns one raw log line into readable text ("2026-11-23 10:00:00 UTC  master  create-user
 * alice  ok", or the code's name and number in place of "ok"); a line of another form comes back
 * as it is. *pdwOutLen: the buffer's size in, the text's length with its NUL out
 * (QL_ERR_BUFFER_TOO_SMALL when it does not fit). */
QLAPI_EXPORT int QLogLineFormat(const char *szRawLine, uint32_t dwRawLen, char *szOut,
                                uint32_t *pdwOutLen);
/* Empties the audit log (dwFlags 0); the truncation's own line starts the new log. Right
 * ACL_SYS_OPERATOR. */
QLAPI_EXPORT int QTruncateLog(HSESSIONCTX hSession, uint32_t dwFlags);

/* ===========================================================================================
 * Random
 */
/* dwDataLen random bytes from the HSM's generator into pbData. */
QLAPI_EXPORT int QGetRandom(HSESSIONCTX hSession, unsigned char *pbData, uint32_t dwDataLen);

/* ===========================================================================================
 * Users
 */
/* Creates the user pUser describes (name, password, mask). Right ACL_USR_CREATE or
 * ACL_SYS_OPERATOR; the new mask may hold only bits its creator holds, unless the creator is an
 * operator. QL_ERR_USER_EXISTS, QL_ERR_USER_NAME_TOO_LONG. */
QLAPI_EXPORT int QCreateUser(HSESSIONCTX hSession, const QL_USER_INFO *pUser);
/* Removes a user and the objects it owns. */
QLAPI_EXPORT int QRemoveUser(HSESSIONCTX hSession, const char *szUserName);
QLAPI_EXPORT int QListUsers(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback, void *pvParam);
/* The access mask of a user (one's own needs no right; another's ACL_USR_LIST or
 * ACL_SYS_OPERATOR). */
QLAPI_EXPORT int QGetUserAcl(HSESSIONCTX hSession, const char *szUserName, uint32_t *pdwAcl);

/* User parameters of QSetUserParam / QGetUserParam. */
#define QL_UP_PASSWORD 1      /* set: the caller's own new password, as text */
#define QL_UP_ACL 2           /* QL_USER_INFO: set: szUserId, dwAcl; get: szUserId in, dwAcl out */
#define QL_UP_BLOCK 3         /* set: QL_USER_INFO, szUserId */
#define QL_UP_UNBLOCK 4       /* set: QL_USER_INFO, szUserId */
#define QL_UP_USER_PASSWORD 5 /* set: QL_USER_INFO, szUserId and szPassword */
#define QL_UP_OBJ_COUNT 6     /* get: uint32, the caller's number of objects */
#define QL_UP_BLOCKED 7       /* get: QL_USER_INFO in (szUserId), uint32 at dwAcl: 1 blocked */
#define QL_UP_X509_ASSIGN 8   /* set: the caller's login certificate (one, DER or PEM, valid now) */
/* set: removes a login certificate (none held: nothing): pvData null the caller's own, else
 * QL_USER_INFO's szUserId (another user's needs ACL_SYS_OPERATOR) */
#define QL_UP_X509_UNASSIGN 9
QLAPI_EXPORT int QSetUserParam(HSESSIONCTX hSession, uint32_t dwParam, const void *pvData,
                               uint32_t dwDataLen);
QLAPI_EXPORT int QGetUserParam(HSESSIONCTX hSession, uint32_t dwParam, void *pvData,
                               uint32_t *pdwDataLen);

/* ===========================================================================================
 * Access tokens and one-time-password tokens
 */
#define QL_ATOKEN_ISSUE 1  /* *pToken out: a new token of the session's user */
#define QL_ATOKEN_REVOKE 2 /* *pToken in */
#define QL_ATOKEN_LIST 3   /* callback per token of the session's user (all with operator) */
typedef struct QL_ATOKEN_INFO_ {
  char szUserName[17];
  unsigned char pbKeyId[8]; /* the first 8 bytes of SHA-256 over the token's key */
  uint64_t qwIssued;        /* seconds since 1970 */
  uint64_t qwExpiration;    /* seconds since 1970; 0 never */
} QL_ATOKEN_INFO;
/* Called once per token, then once with null. Non-zero stops the list. */
typedef int (*PQL_ATOKEN_CALLBACK)(void *pvParam, const QL_ATOKEN_INFO *pInfo);
/* qwExpiration: for QL_ATOKEN_ISSUE, the token's end (seconds since 1970; 0 never). */
QLAPI_EXPORT int QManageAToken(HSESSIONCTX hSession, uint32_t dwOperation, QL_A_TOKEN *pToken,
                               uint64_t qwExpiration, PQL_ATOKEN_CALLBACK pfnCallback,
                               void *pvParam);
#define QL_ATOKEN_CACHE_COUNT 1 /* *pqwValue out: tokens held by the HSM */
#define QL_ATOKEN_CACHE_GC 2    /* *pqwValue out: expired tokens removed */
QLAPI_EXPORT int QManageATokenCache(HSESSIONCTX hSession, uint32_t dwOperation, uint64_t *pqwValue);

/* OATH tokens of users: the second factor of their logins (QL_STRONG_AUTH_OTP). Operator right.
 * dwType 2 event (HOTP), 3 time (TOTP), with the hash in bits 8 to 11 (QL_OATH_SHA256,
 * QL_OATH_SHA512); seed 16 to 64 bytes (QL_ERR_BAD_LENGTH); dwTimeStep 1 to 3,600 s (0: 30) and
 * qwT0 (seconds since 1970) for time tokens; bits 0 to 3 of dwFlags the digits (0: 6; 6 to 8).
 * A user with a token: QL_ERR_TOKEN_EXISTS; QUnassignToken of a user without one:
 * QL_ERR_NO_TOKEN. Ten OTP failures in a row that came with the right password block the user
 * until unblocked or resynchronised. QOATHResync: two consecutive OTPs within 1,000 counters or
 * 60 steps set the counter or drift and clear the failures (QL_ERR_CHECK_FAILED otherwise). */
QLAPI_EXPORT int QAssignToken(HSESSIONCTX hSession, const char *szUserName, uint32_t dwType,
                              const unsigned char *pbSeed, uint32_t dwSeedLen, uint32_t dwTimeStep,
                              uint64_t qwT0, uint32_t dwFlags);
QLAPI_EXPORT int QUnassignToken(HSESSIONCTX hSession, const char *szUserName);
QLAPI_EXPORT int QOATHResync(HSESSIONCTX hSession, const char *szUserName, const char *szOtp1,
                             const char *szOtp2);
/* OATH token blobs: a QL_OATH_TOKEN_INFO record (little-endian, the layout below) wrapped by
 * RFC 5649 (AES key wrap with padding) under an AES "master key" of the HSM, used with the use
 * right. The HSM keeps nothing: QOATHCheckHOTP checks szOtp as a login does (event: the next 10
 * counters, moving past the match; time: the current step and one back, plus the drift, and only
 * a step later than the last accepted one) and answers the blob re-wrapped with its new counter
 * in pbNewBlob (size query as usual), which the caller must keep: the HSM cannot refuse an old
 * blob. A wrong OTP answers QL_ERR_CHECK_FAILED; a wrong key or a changed blob QL_ERR_BAD_TAG.
 * dwFlags 0. */
#define QL_OATH_SHA256 0x100 /* bits 8 to 11 of an OATH type: the HMAC's hash (0 SHA-1) */
#define QL_OATH_SHA512 0x200
#define QL_OATH_MAX_SEED 64
typedef struct QL_OATH_TOKEN_INFO_ {
  uint32_t dwType;     /* 2 event (HOTP), 3 time (TOTP) */
  uint32_t dwHash;     /* 0 SHA-1, 1 SHA-256, 2 SHA-512 */
  uint32_t dwDigits;   /* 6 to 8 */
  uint32_t dwTimeStep; /* time: seconds, 1 to 3600 */
  uint64_t qwCounter;  /* event: the next counter; time: the last accepted step + 1 (0 none) */
  uint64_t qwT0;       /* time: seconds since 1970 of step 0 */
  int32_t nDrift;      /* time: steps the token runs ahead (negative: behind) */
  uint32_t dwFailures; /* failed checks in a row */
  uint32_t dwSeedLen;  /* 16 to 64 */
  unsigned char pbSeed[QL_OATH_MAX_SEED];
} QL_OATH_TOKEN_INFO;
QLAPI_EXPORT int QOATHCheckHOTP(HSESSIONCTX hSession, const char *szMasterKey,
                                const unsigned char *pbBlob, uint32_t dwBlobLen, const char *szOtp,
                                unsigned char *pbNewBlob, uint32_t *pdwNewBlobLen,
                                uint32_t dwFlags);
/* dwInfoType QL_OATH_INFO_RECORD: the QL_OATH_TOKEN_INFO record with its seed zeroed;
 * QL_OATH_INFO_SEED: the seed, only under an exportable master key (QL_ERR_NOT_EXPORTABLE). */
#define QL_OATH_INFO_RECORD 1
#define QL_OATH_INFO_SEED 2
QLAPI_EXPORT int QOATHGetBlobInfo(HSESSIONCTX hSession, const char *szMasterKey,
                                  const unsigned char *pbBlob, uint32_t dwBlobLen,
                                  uint32_t dwInfoType, unsigned char *pbOut, uint32_t *pdwOutLen);
/* One-time password computed locally from a seed: event counter or time (seconds since 1970);
 * bits 8 to 11 of dwType choose the HMAC (0 SHA-1, 1 SHA-256, 2 SHA-512),
 * dwDigits 6 to 8; szOtp holds dwDigits + 1 bytes. */
QLAPI_EXPORT int QGenerateHOTPOffline(const unsigned char *pbSeed, uint32_t dwSeedLen,
                                      uint32_t dwType, uint64_t qwMovingFactor, uint32_t dwTimeStep,
                                      uint64_t qwT0, uint32_t dwDigits, char *szOtp);

/* ===========================================================================================
 * Objects and files
 */
QLAPI_EXPORT int QListObjs(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback, void *pvParam);
QLAPI_EXPORT int QRemoveObj(HSESSIONCTX hSession, const char *szObjName);
QLAPI_EXPORT int QRenameObj(HSESSIONCTX hSession, const char *szObjName, const char *szNewName);

/* Object information as the HSM keeps it. */
typedef struct QL_OBJ_INFO_ {
  char szName[QL_MAX_OBJ_NAME + 1];
  char szOwner[QL_MAX_USER_NAME + 1];
  uint32_t dwType;  /* QL_OBJ_* or, for a key, its QL_ALG_* */
  uint32_t dwFlags; /* QL_KEY_* */
  uint32_t dwBlocked;
  QL_OBJ_STATS stStats;
} QL_OBJ_INFO;
QLAPI_EXPORT int QGetObjInfo(HSESSIONCTX hSession, const char *szObjName, QL_OBJ_INFO *pInfo);

/* Reads a file object: the callback gets each chunk in order (at most 64 KiB each), then a
 * final call with null and 0. Non-zero stops the read (QL_ERR_CANCELLED). */
typedef int (*PQL_READ_CALLBACK)(void *pvParam, const unsigned char *pbChunk, uint32_t dwChunkLen);
QLAPI_EXPORT int QReadFile(HSESSIONCTX hSession, const char *szObjName,
                           PQL_READ_CALLBACK pfnCallback, void *pvParam);
/* Writes the local file szLocalPath into the file object szObjName. dwFlags 1 replaces an
 * existing object (right ACL_OBJ_UPDATE); without it a taken name answers QL_ERR_OBJ_EXISTS. */
#define QL_WRITE_FILE_REPLACE 1
/* PKI: the data is a certificate, a chain (PEM certificates or a certs-only PKCS#7) or a CRL,
 * DER or PEM; the HSM stores it as QL_OBJ_X509, QL_OBJ_PKCS7 or QL_OBJ_CRL (QL_ERR_BAD_CERT
 * when it is none of them). */
#define QL_WRITE_FILE_TYPED 2
QLAPI_EXPORT int QWriteFile(HSESSIONCTX hSession, const char *szLocalPath, const char *szObjName,
                            uint32_t dwFlags);
QLAPI_EXPORT int QWriteFileBuffer(HSESSIONCTX hSession, const char *szObjName,
                                  const unsigned char *pbData, uint32_t dwDataLen,
                                  uint32_t dwFlags);

/* ===========================================================================================
 * Backup and update packages
 */
/* Writes a backup of the HSM's store to the local file szFile, encrypted under a key derived
 * from szPin (at least 8 characters). Right ACL_SYS_BACKUP or ACL_SYS_OPERATOR. */
QLAPI_EXPORT int QBackupData(HSESSIONCTX hSession, const char *szFile, const char *szPin,
                             uint32_t dwFlags);
/* Pushes an update package: a CMS SignedData (DER) signed by the certificate the HSM was given
 * at init, holding a JSON manifest (version, limits, log cache, IP allow-list; see the daemon's
 * README). QL_ERR_UPACK_REFUSED, with nothing changed, for a package whose signature does not
 * verify with that key, a malformed manifest or a version not newer than the last applied.
 * Right ACL_SYS_UDATE_HSM or ACL_SYS_OPERATOR. */
QLAPI_EXPORT int QUPackPush(HSESSIONCTX hSession, const unsigned char *pbPackage,
                            uint32_t dwPackageLen, uint32_t dwFlags);

/* ===========================================================================================
 * Keys
 */
/* Generates a key of dwAlgId (QL_ALG_*). szKeyName null or "" makes an unnamed session key;
 * otherwise the key is stored under that name (QL_ERR_OBJ_EXISTS when taken) unless
 * QL_KEY_TEMPORARY is set, which keeps it in the session under that name. phKey may be null
 * when no handle is wanted (the key is then stored, or forgotten if temporary). */
QLAPI_EXPORT int QGenerateKey(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwAlgId,
                              uint32_t dwFlags, HKEYCTX *phKey);

/* Opens an object by name. dwFlags 0 asks the HSM (right, then existence): 0 means the object
 * exists. QL_GETKEY_OFFLINE builds the handle from the full name "owner/object" without a round
 * trip; a refusal then shows at the handle's first use. */
QLAPI_EXPORT int QGetUserKey(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwFlags,
                             HKEYCTX *phKey);

/* Releases *phKey and clears it; with QL_DESTROY_REMOVE the object is removed from the HSM
 * too (right ACL_OBJ_DEL). A temporary key ends with its handle. */
QLAPI_EXPORT int QDestroyKey(HKEYCTX *phKey, uint32_t dwFlags);

QLAPI_EXPORT int QGetKeyParam(HKEYCTX hKey, uint32_t dwParam, void *pvData, uint32_t *pdwDataLen,
                              uint32_t dwFlags);
/* QKP_BLOCKED needs ACL_OBJ_UPDATE and changes the stored object; QKP_MODE, QKP_PADDING,
 * QKP_IV, QKP_AAD and QKP_TAG_LEN change only this handle. */
QLAPI_EXPORT int QSetKeyParam(HKEYCTX hKey, uint32_t dwParam, const void *pvData,
                              uint32_t dwDataLen, uint32_t dwFlags);

/* Exports hKey as dwBlobType (QL_*_BLOB), under hKek when the type needs one (null otherwise).
 * A key without QL_KEY_EXPORTABLE exports only its public part. */
QLAPI_EXPORT int QExportKey(HKEYCTX hKey, HKEYCTX hKek, uint32_t dwBlobType, uint32_t dwFlags,
                            unsigned char *pbBlob, uint32_t *pdwBlobLen);
/* Imports a blob as szKeyName (null: an unnamed session key) of algorithm dwAlgId; with
 * QL_ALG_PUBLIC_KEY_BIT in dwAlgId a public-key blob makes a public-key object. */
QLAPI_EXPORT int QImportKey(HSESSIONCTX hSession, const char *szKeyName, HKEYCTX hKek,
                            const unsigned char *pbBlob, uint32_t dwBlobLen, uint32_t dwBlobType,
                            uint32_t dwAlgId, uint32_t dwFlags, HKEYCTX *phKey);

/* Key material made by the HSM and handed out without being stored: a symmetric or HMAC key's
 * secret of the algorithm's length (DES keys with odd parity), or an asymmetric key's PKCS#8
 * PrivateKeyInfo (DER, not encrypted). Nothing is kept, so no right is needed (as for a temporary
 * key). dwFlags: QL_KEY_RSA_EXP3 is acted on, QL_KEY_BLOCKCHAIN answers QL_ERR_NOT_SUPPORTED, the
 * other key flags change nothing. Size query as usual; the HSM makes new material for every call,
 * and an RSA or EC key's DER may differ by a few bytes from one call to the next, so size a buffer
 * with some room over the query's answer. */
QLAPI_EXPORT int QGenerateKeyMaterial(HSESSIONCTX hSession, uint32_t dwAlgId, uint32_t dwFlags,
                                      unsigned char *pbData, uint32_t *pdwDataLen);

/* ECDH between the private key szPrivKeyName and a peer public key (SubjectPublicKeyInfo DER).
 * dwKdf QL_GEN_KEY_KDF_RAW_SECRET hands the shared secret out in pbOut; QL_GEN_KEY_X9_63_SHA256
 * derives dwOutLen bytes (ANSI X9.63 with SHA-256 and the optional shared info) and, when
 * szTargetName is given, stores them as a key of dwTargetAlgId with dwFlags instead.
 * The private key is a stored EC key (any named curve of the table), X25519 or X448 key; the peer
 * key must be of the same algorithm and curve (QL_ERR_BAD_KEY_USAGE otherwise, also for a private
 * key that cannot agree, such as RSA). The raw secret (the x coordinate, or the X25519/X448
 * output) is always handed out: with szTargetName it answers QL_ERR_BAD_ARGUMENT; its size query
 * follows the usual rule. X9.63 derives 1 to 1024 bytes (QL_ERR_BAD_LENGTH otherwise); a kept key
 * must get a length its algorithm takes (aes256: 32; an HMAC key: 1 to 1024; QL_ERR_BAD_LENGTH
 * otherwise), and a kept key's algorithm must be a secret-key one (QL_ERR_BAD_KEY_USAGE for an
 * asymmetric one, QL_ERR_BAD_ALGORITHM for an unknown one). With QL_KEY_TEMPORARY in dwFlags the
 * kept key is a session key that no handle reaches, so it ends with the call; without it the key
 * is stored (QL_KEY_BLOCKCHAIN: QL_ERR_NOT_SUPPORTED). Rights: ACL_OBJ_CREATE for a stored key,
 * then the use of the private key (any of ACL_OBJ_DEL, ACL_OBJ_READ, ACL_OBJ_CREATE). */
QLAPI_EXPORT int QGenEcdhKey(HSESSIONCTX hSession, uint32_t dwKdf, const char *szPrivKeyName,
                             const unsigned char *pbPeerPub, uint32_t dwPeerPubLen,
                             const unsigned char *pbSharedInfo, uint32_t dwSharedInfoLen,
                             const char *szTargetName, uint32_t dwTargetAlgId, uint32_t dwFlags,
                             unsigned char *pbOut, uint32_t *pdwOutLen);

/* PKCS#8: export szKeyName encrypted under szPassword (PBES2, AES-256-CBC, PBKDF2-SHA256; an
 * empty or null password exports it in the clear, as a PrivateKeyInfo), in a buffer from QAlloc;
 * import the same: an EncryptedPrivateKeyInfo under szPassword, or with an empty or null password
 * a PrivateKeyInfo whose key pair must check out. Export needs a key made with
 * QL_KEY_EXPORTABLE; the imported key is always stored (QL_KEY_TEMPORARY is ignored). */
QLAPI_EXPORT int QPKCS8ExportKey(HSESSIONCTX hSession, const char *szKeyName,
                                 const char *szPassword, unsigned char **ppbData,
                                 uint32_t *pdwDataLen);
QLAPI_EXPORT int QPKCS8ImportKey(HSESSIONCTX hSession, const char *szKeyName,
                                 const char *szPassword, const unsigned char *pbData,
                                 uint32_t dwDataLen, uint32_t dwFlags);

/* Bring-your-own-key export of szKeyName (exportable: else QL_ERR_NOT_EXPORTABLE) for a cloud
 * provider, under szKekName (an RSA key of 2048 bits or more, usually its public key imported for
 * the purpose: else QL_ERR_BAD_KEY_USAGE). pbData is the RSA-OAEP label (may be empty).
 * QL_BYOK_RSA_AES_KEY_WRAP (CKM_RSA_AES_KEY_WRAP): a fresh AES-256 key under RSA-OAEP with SHA-256
 * and MGF1-SHA-256, followed by its RFC 5649 wrap of the key's raw secret (symmetric keys) or
 * PKCS#8 PrivateKeyInfo. QL_BYOK_RSA_OAEP: RSA-OAEP-SHA256 of a symmetric key alone. */
#define QL_BYOK_RSA_AES_KEY_WRAP 1
#define QL_BYOK_RSA_OAEP 2
QLAPI_EXPORT int QByokExport(HSESSIONCTX hSession, const char *szKeyName, const char *szKekName,
                             uint32_t dwType, const unsigned char *pbData, uint32_t dwDataLen,
                             unsigned char **ppbOut, uint32_t *pdwOutLen);

/* ===========================================================================================
 * Hashes and MACs
 */
/* A hash of dwAlgId. MD5, SHA-1, SHA-2 and SHA-3 run in the library; HMAC and CMAC need hKey
 * (a key in the HSM) and run there; QL_ALG_IDFUNC collects the message for EdDSA. */
QLAPI_EXPORT int QCreateHash(HSESSIONCTX hSession, uint32_t dwAlgId, HKEYCTX hKey, uint32_t dwFlags,
                             HHASHCTX *phHash);
/* Adds data. After QSetHashParam(QHP_HASHVAL), QHashData starts a new message: the value set is
 * dropped and the data hashed from the start. */
QLAPI_EXPORT int QHashData(HHASHCTX hHash, const unsigned char *pbData, uint32_t dwDataLen,
                           uint32_t dwFlags);
/* QHP_HASHVAL: the value (the hash stays usable: reading, signing and verifying never consume
 * it, and QHashData after it goes on adding to the same message). */
QLAPI_EXPORT int QGetHashParam(HHASHCTX hHash, uint32_t dwParam, unsigned char *pbData,
                               uint32_t *pdwDataLen, uint32_t dwFlags);
/* QHP_HASHVAL: sets a value computed elsewhere (its length must be the algorithm's). */
QLAPI_EXPORT int QSetHashParam(HHASHCTX hHash, uint32_t dwParam, const unsigned char *pbData,
                               uint32_t dwDataLen, uint32_t dwFlags);
QLAPI_EXPORT int QDestroyHash(HHASHCTX *phHash);

/* ===========================================================================================
 * Signatures
 */
/* Signs the hash's value with hKey: RSA PKCS#1 v1.5 (DigestInfo with the hash's OID; the legacy
 * form, which QL_SIGN_DISABLE_LEGACY refuses, is MD5 and SHA-1 digests and a bare digest with no
 * DigestInfo), ECDSA (DER), EdDSA (QL_ALG_IDFUNC: the message). Size query as usual. */
QLAPI_EXPORT int QSignHash(HHASHCTX hHash, HKEYCTX hKey, uint32_t dwFlags,
                           unsigned char *pbSignature, uint32_t *pdwSignatureLen);
/* Signs a digest computed elsewhere with the key szKeyName: dwHashAlgId its algorithm,
 * dwPadding QL_PAD_NONE (PKCS#1 v1.5 for RSA) or QL_PAD_RSA_NONE (the digest is already a
 * padded block of the key's length). */
QLAPI_EXPORT int QSignHashedData(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwPadding,
                                 const unsigned char *pbHash, uint32_t dwHashLen,
                                 uint32_t dwHashAlgId, unsigned char *pbSignature,
                                 uint32_t *pdwSignatureLen, uint32_t dwFlags);
/* 0 when the signature verifies against the hash's value; QL_ERR_BAD_SIGNATURE otherwise. */
QLAPI_EXPORT int QVerifySignature(HHASHCTX hHash, const unsigned char *pbSignature,
                                  uint32_t dwSignatureLen, HKEYCTX hKey);
/* pbBatch: a 58-byte header (ignored) and dwCount blocks of the key's length, each already
 * padded; each is signed with raw RSA in place, in one request. */
#define QL_BATCH_HEADER_LEN 58
QLAPI_EXPORT int QBatchSign(HKEYCTX hKey, unsigned char *pbBatch, uint32_t dwCount,
                            uint32_t dwFlags);
/* Builds in pbOut (dwKeyLen bytes) the PKCS#1 type-1 block over the digest pbHash
 * (*pdwHashLen bytes) with the DigestInfo of dwDigestId (QL_DIGEST_ID_*; NONE: the bare digest).
 * Runs locally (hSession may be null). Answers NON-ZERO ON SUCCESS, with *pdwHashLen set to
 * dwKeyLen, and 0 on failure (the digest does not fit, a bad type or argument). */
QLAPI_EXPORT int QDoRSAPadding(HSESSIONCTX hSession, uint32_t dwType, unsigned char *pbOut,
                               const unsigned char *pbHash, uint32_t *pdwHashLen, uint32_t dwKeyLen,
                               uint32_t dwDigestId);

/* ===========================================================================================
 * Ciphers
 */
/* Encrypts *pdwDataLen bytes of pbData in place (buffer size dwBufLen); on return *pdwDataLen is
 * the output length. A message may go in pieces, bFinal set on the last; the chaining state
 * lives in hKey and starts afresh after the final piece. GCM appends its tag to the final
 * piece's output. KW/KWP take the whole message with bFinal set (QL_ERR_PIECES_REFUSED
 * otherwise). hHash: must be null. */
/* sign-soluti: dwFlags QL_ENCRYPT_RSA_PRIVATE encrypts a value (a DigestInfo) with an RSA private
 * key: the HSM pads it (PKCS#1 v1.5 type 1) and applies the private operation, so the output is
 * an RSASSA-PKCS1-v1_5 signature. The whole value in one call (bFinal is not read); a public key
 * or another algorithm QL_ERR_BAD_KEY_USAGE, a value longer than the key's length less 11 bytes
 * QL_ERR_BAD_LENGTH. */
#define QL_ENCRYPT_RSA_PRIVATE 1
QLAPI_EXPORT int QEncrypt(HKEYCTX hKey, HHASHCTX hHash, int bFinal, uint32_t dwFlags,
                          unsigned char *pbData, uint32_t *pdwDataLen, uint32_t dwBufLen);
/* Decrypts in place. A piece's output never exceeds its input: non-final pieces of block modes
 * must be whole blocks (QL_ERR_BAD_LENGTH otherwise), and the padding is removed from the
 * final piece. GCM: the final piece ends with the tag (QL_ERR_BAD_TAG when it fails). */
QLAPI_EXPORT int QDecrypt(HKEYCTX hKey, HHASHCTX hHash, int bFinal, uint32_t dwFlags,
                          unsigned char *pbData, uint32_t *pdwDataLen);

/* ===========================================================================================
 * PKI: certificates, PKCS#7, PKCS#10, PKCS#12, XML signatures
 */
typedef struct QL_CERT_INFO_ {
  char szSubject[512];
  char szIssuer[512];
  char szSerial[128];   /* hexadecimal */
  uint64_t qwNotBefore; /* seconds since 1970 */
  uint64_t qwNotAfter;
  uint32_t dwKeyAlgId; /* QL_ALG_* of the public key */
} QL_CERT_INFO;
QLAPI_EXPORT int QCert2CertInfo(const unsigned char *pbCert, uint32_t dwCertLen,
                                QL_CERT_INFO *pInfo);
/* DER to PEM or back: dwOutForm 1 DER, 2 PEM; the result in a buffer from QAlloc. */
QLAPI_EXPORT int QCertEncodingConvert(const unsigned char *pbIn, uint32_t dwInLen,
                                      uint32_t dwOutForm, unsigned char **ppbOut,
                                      uint32_t *pdwOutLen);
QLAPI_EXPORT int QGeneratePKCS10CSR(HSESSIONCTX hSession, const char *szKeyName,
                                    const char *szSubjectDn, uint32_t dwVersion, uint32_t dwOutForm,
                                    uint32_t dwHashAlgId, unsigned char **ppbCsr,
                                    uint32_t *pdwCsrLen, uint32_t dwFlags);
QLAPI_EXPORT int QImportPKCS12(HSESSIONCTX hSession, const char *szPkcs12File,
                               const char *szPassword, const char *szKeyName,
                               const char *szCertName, uint32_t dwFlags);
QLAPI_EXPORT int QImportPKCS12Buffer(HSESSIONCTX hSession, const unsigned char *pbPkcs12,
                                     uint32_t dwPkcs12Len, const char *szPassword,
                                     const char *szKeyName, const char *szCertName,
                                     uint32_t dwFlags);
QLAPI_EXPORT int QExportPKCS12(HSESSIONCTX hSession, const char *szPassword, const char *szKeyName,
                               const char *szCertName, unsigned char **ppbPkcs12,
                               uint32_t *pdwPkcs12Len, uint32_t dwFlags);
QLAPI_EXPORT int QAssociatePKCS11Key(HSESSIONCTX hSession, const char *szKeyName,
                                     const char *szCertName, uint32_t dwFlags);
/* PKI: the QL_P7_* bits of QPKCS7Sign's dwAttributes. text, crlfeol and binary steer the
 * canonicalisation of the data; nocerts, nochain, noattr, nosmimecap and detached shape the
 * output; cosign adds a SignerInfo to the SignedData given as the data; the verification bits
 * change nothing when signing. Bits 16 to 23 of dwFlags hold a QL_ALG_* hash (0: SHA-256). */
#define QL_P7_TEXT 0x1
#define QL_P7_NOCERTS 0x2
#define QL_P7_NOSIGS 0x4
#define QL_P7_NOCHAIN 0x8
#define QL_P7_NOINTERN 0x10
#define QL_P7_NOVERIFY 0x20
#define QL_P7_DETACHED 0x40
#define QL_P7_BINARY 0x80
#define QL_P7_NOATTR 0x100
#define QL_P7_NOSMIMECAP 0x200
#define QL_P7_NOOLDMIMETYPE 0x400
#define QL_P7_CRLFEOL 0x800
#define QL_P7_NOCRL 0x2000
#define QL_P7_COSIGN 0x4000
/* PKCS#7 / CMS signature of pbData; dwAttributes the QL_P7_* bits. */
QLAPI_EXPORT int QPKCS7Sign(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                            const char *szChainName, uint32_t dwAttributes,
                            const unsigned char *pbData, uint32_t dwDataLen,
                            unsigned char **ppbSigned, uint32_t *pdwSignedLen, uint32_t dwFlags);
QLAPI_EXPORT int QSignXml(HSESSIONCTX hSession, uint32_t dwHashAlgId, const char *szKeyName,
                          const char *szCertName, const char *szFilter, const unsigned char *pbXml,
                          uint32_t dwXmlLen, unsigned char **ppbSigned, uint32_t *pdwSignedLen,
                          uint32_t dwFlags);
QLAPI_EXPORT int QVerifySignedXmlEx(HSESSIONCTX hSession, const char *szChainName,
                                    const char *szCrlName, const char *szFilter,
                                    const unsigned char *pbXml, uint32_t dwXmlLen,
                                    uint32_t dwFlags);

/* ===========================================================================================
 * Payment: CVV, PIN, DUKPT, TR-31
 */
/* PIN block formats (ISO 9564-1) of QVerifyPINBlock and QPINBlockTranslate: the source format
 * in bits 0-7 and, for a translation, the destination format in bits 8-15. Formats 0, 1 and 3
 * are 8-byte triple-DES blocks, format 4 a 16-byte AES block. A PAN-bound block (0, 3, 4) is
 * translated to format 1 only under an EFT daemon authorisation (QL_ERR_EFTD_NOT_AUTHORIZED). */
#define QL_PIN_BLOCK_ISO_0 0
#define QL_PIN_BLOCK_ISO_1 1
#define QL_PIN_BLOCK_ISO_3 3
#define QL_PIN_BLOCK_ISO_4 4
#define QL_PIN_BLOCK_TRANSLATE(src, dst) ((uint32_t)(src) | ((uint32_t)(dst) << 8))
/* QGenerateBDKName: a 5-byte key set identifier (triple DES) or a 4-byte BDK ID (AES); the name is
 * "BDK_" and the bytes in upper-case hex. QGenerateDUKPT: a 10-byte KSN under a 3des112 BDK, or a
 * 12-byte KSN under an AES BDK; dwFlags holds key flags (QL_KEY_EXPORTABLE, QL_KEY_TEMPORARY)
 * and, in bits 16-19, the key to derive. Every key but the initial one refuses counter 0 and
 * counters with more one-bits than the scheme allows (QL_ERR_BAD_ARGUMENT). */
#define QL_DUKPT_INITIAL_KEY 0x00000     /* the device's initial key (counter ignored) */
#define QL_DUKPT_TRANSACTION_KEY 0x10000 /* the key of the KSN's counter */
#define QL_DUKPT_PIN_KEY 0x20000         /* its PIN encryption key */
#define QL_DUKPT_MAC_KEY 0x30000         /* its MAC key */
#define QL_DUKPT_DATA_KEY 0x40000        /* its data encryption key */
#define QL_DUKPT_KEY_MASK 0xF0000
/* szCvv receives 3 digits and a NUL. QGeneratePIN: *pdwPinLen holds the size of szPin (at least
 * dwPinLen + 1) and receives the PIN's length. */
QLAPI_EXPORT int QGenerateCVV(HKEYCTX hKey, const char *szPan, const char *szExpiry,
                              const char *szServiceCode, char *szCvv, uint32_t dwFlags);
QLAPI_EXPORT int QVerifyCVV(HKEYCTX hKey, const char *szPan, const char *szExpiry,
                            const char *szServiceCode, const char *szCvv, uint32_t dwFlags);
QLAPI_EXPORT int QGeneratePIN(HKEYCTX hPinKey, const char *szPan, uint32_t dwPinLen, char *szPin,
                              uint32_t *pdwPinLen, uint32_t dwFlags);
QLAPI_EXPORT int QVerifyPINBlock(HKEYCTX hPtk, HKEYCTX hPgk, uint32_t dwFormat, const char *szPan,
                                 const unsigned char *pbPinBlock, uint32_t dwPinBlockLen,
                                 uint32_t dwFlags);
QLAPI_EXPORT int QPINBlockTranslate(HSESSIONCTX hSession, const char *szSrcPek,
                                    const char *szDstPek, uint32_t dwFormat, const char *szPan,
                                    const unsigned char *pbIn, uint32_t dwInLen,
                                    unsigned char *pbOut, uint32_t *pdwOutLen, uint32_t dwFlags);
QLAPI_EXPORT int QGenerateBDKName(HSESSIONCTX hSession, const unsigned char *pbKsi,
                                  uint32_t dwKsiLen, char *szBdkName, uint32_t *pdwNameLen);
QLAPI_EXPORT int QGenerateDUKPT(HSESSIONCTX hSession, const char *szBdkName,
                                const unsigned char *pbKsn, uint32_t dwKsnLen,
                                const char *szKeyName, uint32_t dwFlags);
/* Key blocks (ANSI X9.143 / TR-31): QEFTExportTR31 writes the key under the KBPK, version B for a
 * triple-DES KBPK and D for an AES one, key version "00", no optional blocks. dwUsage holds the two
 * usage characters packed little-endian (first in the low byte: "B0" is 0x3042), dwMode and
 * dwExportability one character each (mode 85, U, is written as T); 0 takes the attributes the
 * key kept from its own key block, else D0, B and E. A combination the standard forbids answers
 * QL_ERR_BAD_ARGUMENT, a key without QL_KEY_EXPORTABLE QL_ERR_NOT_EXPORTABLE, a key stronger than
 * the KBPK or not a DES, triple-DES or AES key QL_ERR_BAD_KEY_USAGE. The block is NUL-terminated
 * text; *pdwKeyBlockLen counts the NUL (QL_ERR_BUFFER_TOO_SMALL with that length).
 * QEFTImportTR31 reads versions B and D (A and C: QL_ERR_NOT_SUPPORTED), checks header, lengths
 * and MAC (QL_ERR_BAD_TAG) and keeps the key as szKeyName with the block's usage, mode and
 * exportability (N: not exportable); dwFlags 0 or QL_KEY_TEMPORARY; dwKeyBlockLen may count the
 * NUL. Rights: a use right on the KBPK and on the exported key; ACL_OBJ_CREATE to import. */
QLAPI_EXPORT int QEFTExportTR31(HSESSIONCTX hSession, const char *szKbpkName, const char *szKeyName,
                                uint32_t dwUsage, uint32_t dwMode, uint32_t dwExportability,
                                char *szKeyBlock, uint32_t *pdwKeyBlockLen, uint32_t dwFlags);
QLAPI_EXPORT int QEFTImportTR31(HSESSIONCTX hSession, const char *szKbpkName, const char *szKeyName,
                                const char *szKeyBlock, uint32_t dwKeyBlockLen, uint32_t dwFlags);

/* ===========================================================================================
 * SPB messages
 */
/* SPB secure messages: flags and the security header.
 * An institution is named by its 8-digit ISPB. In both directions the first ISPB is the local
 * institution (its private key signs or opens C14), the second the counterpart. The body is CBC
 * with a zero IV under a session key made in the HSM for each message, PKCS#7 padded; Cont gives
 * whole blocks and the piece that reaches dwMessageLen adds the padding, so the last Cont's
 * output may be up to 16 bytes longer than its input. End always releases the message.
 * Decoding output must be discarded unless QSPBDecodeEnd answers 0: a tampered C14, C15 or body
 * all answer QL_ERR_BAD_SIGNATURE there and nowhere earlier. C03 and C04 are outside the
 * signature, as in the network's layout. */
#define QL_SPB_CERT_ACTIVATE 1     /* QSPBImportCertificate/PKCS12: make the certificate active */
#define QL_SPB_GEN01 2             /* QSPBEncodeInit: sign only, the body in the clear, C07 0 */
#define QL_SPB_V3 4                /* encode: version 3 (else 2); decode: refuse version 2 */
#define QL_SPB_PAD 8               /* QSPBDecodeInit: the output keeps its padding */
#define QL_SPB_KEY_SELF_SIGNED 256 /* QSPBGenerateKey: and a self-signed active certificate */
#define QL_SPB_CSR_SHA1 1          /* QSPBGenerateCSR: signed with SHA-1 (else SHA-256) */
#define QL_SPB_CSR_DER 2           /* QSPBGenerateCSR: DER (else PEM) */

#pragma pack(push, 1)
typedef struct QL_SPB_HEADER_ {
  unsigned char C01[2];   /* at 0: the header's length, 588, big-endian */
  unsigned char C02;      /* at 2: version, 2 or 3 */
  unsigned char C03;      /* at 3: error code (the caller's) */
  unsigned char C04;      /* at 4: special treatment (the caller's) */
  unsigned char C05;      /* at 5: 0 */
  unsigned char C06;      /* at 6: the destination's key, 2 (RSA-2048) */
  unsigned char C07;      /* at 7: cipher: 1 3DES-168 (v2), 2 AES-256 (v3), 0 none */
  unsigned char C08;      /* at 8: the sender's key, 2 (RSA-2048) */
  unsigned char C09;      /* at 9: hash: 2 SHA-1 (v2), 3 SHA-256 (v3) */
  unsigned char C10;      /* at 10: 0 */
  unsigned char C11[32];  /* at 11: the destination certificate's serial, right-aligned */
  unsigned char C12;      /* at 43: 0 */
  unsigned char C13[32];  /* at 44: the sender certificate's serial, right-aligned */
  unsigned char C14[256]; /* at 76: the session key under the destination's key (PKCS#1 v1.5) */
  unsigned char C15[256]; /* at 332: the sender's PKCS#1 v1.5 signature over the plain body */
} QL_SPB_HEADER;
#pragma pack(pop)
QL_STATIC_ASSERT(sizeof(QL_SPB_HEADER) == 588, "QL_SPB_HEADER is 588 bytes");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C02) == 2, "QL_SPB_HEADER.C02");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C07) == 7, "QL_SPB_HEADER.C07");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C09) == 9, "QL_SPB_HEADER.C09");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C11) == 11, "QL_SPB_HEADER.C11");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C12) == 43, "QL_SPB_HEADER.C12");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C13) == 44, "QL_SPB_HEADER.C13");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C14) == 76, "QL_SPB_HEADER.C14");
QL_STATIC_ASSERT(offsetof(QL_SPB_HEADER, C15) == 332, "QL_SPB_HEADER.C15");

QLAPI_EXPORT int QSPBEncodeInit(HSESSIONCTX hSession, const char *szSrcIspb, const char *szDstIspb,
                                uint32_t dwMessageLen, unsigned char bC3, unsigned char bC4,
                                HSPBMSGCTX *phMsg, uint32_t dwFlags);
QLAPI_EXPORT int QSPBEncodeCont(HSPBMSGCTX hMsg, const unsigned char *pbIn, uint32_t dwInLen,
                                unsigned char *pbOut, uint32_t *pdwOutLen);
/* Writes the 588-byte security header; releases and clears *phMsg. */
#define QL_SPB_HEADER_LEN 588
QLAPI_EXPORT int QSPBEncodeEnd(HSPBMSGCTX *phMsg, unsigned char *pbOut, uint32_t *pdwOutLen);
QLAPI_EXPORT int QSPBDecodeInit(HSESSIONCTX hSession, const char *szSrcIspb, const char *szDstIspb,
                                const unsigned char *pbHeader, uint32_t dwHeaderLen,
                                uint32_t dwMessageLen, unsigned char bAcceptExpired,
                                unsigned char bAutoUpdateCert, HSPBMSGCTX *phMsg, uint32_t dwFlags);
QLAPI_EXPORT int QSPBDecodeCont(HSPBMSGCTX hMsg, const unsigned char *pbIn, uint32_t dwInLen,
                                unsigned char *pbOut, uint32_t *pdwOutLen);
QLAPI_EXPORT int QSPBDecodeEnd(HSPBMSGCTX *phMsg);
QLAPI_EXPORT int QSPBGenerateKey(HSESSIONCTX hSession, const char *szIspb, char *szKeyName,
                                 uint32_t *pdwKeyNameLen, uint32_t dwFlags);
QLAPI_EXPORT int QSPBGenerateCSR(HSESSIONCTX hSession, const char *szIspb, const char *szKeyName,
                                 const char *szSubjectDn, unsigned char **ppbCsr,
                                 uint32_t *pdwCsrLen, uint32_t dwFlags);
QLAPI_EXPORT int QSPBImportCertificate(HSESSIONCTX hSession, const unsigned char *pbCert,
                                       uint32_t dwCertLen, uint32_t dwFlags);
QLAPI_EXPORT int QSPBImportPKCS12(HSESSIONCTX hSession, const char *szPkcs12File,
                                  const char *szPassword, const char *szIspb, uint32_t dwFlags);
QLAPI_EXPORT int QSPBActivateCertificate(HSESSIONCTX hSession, const char *szIspb,
                                         const char *szDomain, const char *szSerial,
                                         uint32_t dwFlags);

/* ===========================================================================================
 * PIX
 */
/* PIX message signatures (QPIXSign, QPIXVerify, QPIXDictSign, QPIXDictVerify): RSA-SHA256,
 * SHA-256 and Exclusive C14N, the signer named by X509IssuerSerial and found in the chain object
 * when checked. QL_PIX_REMOVE_NS: the root's default namespace declaration is removed before
 * signing and before checking. */
#define QL_PIX_REMOVE_NS 0x1
QLAPI_EXPORT int QPIXSign(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                          const unsigned char *pbXml, uint32_t dwXmlLen, unsigned char **ppbOut,
                          uint32_t *pdwOutLen, uint32_t dwFlags);
QLAPI_EXPORT int QPIXVerify(HSESSIONCTX hSession, const char *szChainName, const char *szCrlName,
                            const unsigned char *pbXml, uint32_t dwXmlLen, uint32_t dwFlags);
QLAPI_EXPORT int QPIXDictSign(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                              const unsigned char *pbXml, uint32_t dwXmlLen, unsigned char **ppbOut,
                              uint32_t *pdwOutLen, uint32_t dwFlags);
QLAPI_EXPORT int QPIXDictVerify(HSESSIONCTX hSession, const char *szChainName,
                                const char *szCrlName, const unsigned char *pbXml,
                                uint32_t dwXmlLen, uint32_t dwFlags);
/* JSON Web Signatures in compact form (QPIXJWSSign, QPIXJWSCheck): RS256, PS256 or ES256 as the
 * header's "alg" says (it must fit the key; "none" is refused). QL_JWS_ADD_X5C: the header gets
 * "x5c" with the key's associated certificate (the header is then re-serialised compactly);
 * QL_JWS_DETACHED: the payload part is left empty. QPIXJWSCheck takes the signer from "x5c" and
 * checks a complete JWS: a detached one is checked with its payload put back (base64url) in the
 * middle part; it accepts the same two flags so that one value serves both calls. */
#define QL_JWS_ADD_X5C 0x1
#define QL_JWS_DETACHED 0x2
QLAPI_EXPORT int QPIXJWSSign(HSESSIONCTX hSession, const char *szKeyName, const char *szHeader,
                             const unsigned char *pbPayload, uint32_t dwPayloadLen, char **ppszJws,
                             uint32_t *pdwJwsLen, uint32_t dwFlags);
QLAPI_EXPORT int QPIXJWSCheck(HSESSIONCTX hSession, const char *szChainName, const char *szCrlName,
                              const char *szJws, uint32_t dwJwsLen, uint32_t dwFlags);
/* One HTTPS request to the PIX service through the HSM, signed with its key and certificate.
 * The answer body in a buffer from QAlloc and the HTTP status in *pdwHttpStatus. */
QLAPI_EXPORT int QPIXPost(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                          const char *szChainName, const char *szUrl, const char *szHeaders,
                          const unsigned char *pbBody, uint32_t dwBodyLen, uint32_t dwTimeoutMs,
                          unsigned char **ppbAnswer, uint32_t *pdwAnswerLen,
                          uint32_t *pdwHttpStatus, uint32_t dwFlags);
QLAPI_EXPORT int QPIXGet(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                         const char *szChainName, const char *szUrl, const char *szHeaders,
                         uint32_t dwTimeoutMs, unsigned char **ppbAnswer, uint32_t *pdwAnswerLen,
                         uint32_t *pdwHttpStatus, uint32_t dwFlags);
QLAPI_EXPORT int QPIXPut(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                         const char *szChainName, const char *szUrl, const char *szHeaders,
                         const unsigned char *pbBody, uint32_t dwBodyLen, uint32_t dwTimeoutMs,
                         unsigned char **ppbAnswer, uint32_t *pdwAnswerLen, uint32_t *pdwHttpStatus,
                         uint32_t dwFlags);
QLAPI_EXPORT int QPIXDelete(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                            const char *szChainName, const char *szUrl, const char *szHeaders,
                            uint32_t dwTimeoutMs, unsigned char **ppbAnswer, uint32_t *pdwAnswerLen,
                            uint32_t *pdwHttpStatus, uint32_t dwFlags);

/* ===========================================================================================
 * Tokenisation vault
 */
typedef struct QL_SVAULT_TOKEN_INFO_ {
  unsigned char bType;           /* 1 token, 2 secret */
  unsigned char bMaskType;       /* 0 none, 1 cpf, 2 cnpj, 3 pan, 4 iel */
  unsigned char bChecksum;       /* 0 a random token per call, 1 tkr2 (one token per secret) */
  unsigned char bRepresentation; /* 10, 16, 26, 52, 62 */
} QL_SVAULT_TOKEN_INFO;
/* The vault keeps no table: szKeyName (an AES key, used with the use right) seals the secret
 * and its token into the blob, which alone gives the secret back. bType 1: a token of the
 * secret's length and form (separators kept; with a check kind the kind's digits, its kept
 * parts, and check digits that pass its check); bType 2: 32 characters of the base for any text
 * of 1 to 4096 bytes. szToken receives the token and a NUL (*pdwTokenLen: capacity with the NUL
 * in, the token's length out); pbBlob the blob. When either buffer is null or too short both
 * lengths receive what is needed and the call answers QL_ERR_BUFFER_TOO_SMALL. dwFlags 0. */
QLAPI_EXPORT int QSVaultGenToken(HSESSIONCTX hSession, const char *szKeyName,
                                 const QL_SVAULT_TOKEN_INFO *pInfo, const char *szSecret,
                                 char *szToken, uint32_t *pdwTokenLen, unsigned char *pbBlob,
                                 uint32_t *pdwBlobLen, uint32_t dwFlags);
/* dwWhat 1 the secret, 2 the token, into szOut with a NUL (lengths as for the token above);
 * QL_ERR_BAD_TAG for another key or a changed blob. dwFlags QL_SVAULT_MASKED masks the secret
 * with '*' but its last 4 characters (a PAN: its first 6 and last 4). */
#define QL_SVAULT_MASKED 1
QLAPI_EXPORT int QSVaultGetData(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwWhat,
                                const unsigned char *pbBlob, uint32_t dwBlobLen, char *szOut,
                                uint32_t *pdwOutLen, uint32_t dwFlags);

/* ===========================================================================================
 * Blockchain keys
 */
/* Blockchain keys: hash modes (QBchainHashData; the digest's origin elsewhere), signature types,
 * public key forms. */
#define QL_BCHAIN_HASH_SHA256 1      /* SHA-256 */
#define QL_BCHAIN_HASH_SHA256D 2     /* SHA-256 of SHA-256 */
#define QL_BCHAIN_HASH_HASH160 3     /* RIPEMD-160 of SHA-256 (20 bytes) */
#define QL_BCHAIN_HASH_MESSAGE 4     /* BIP137 signed-message hash */
#define QL_BCHAIN_SIG_COMPACT 1      /* ECDSA, 65 bytes: header 31 + recovery id, r, s */
#define QL_BCHAIN_SIG_DER 2          /* ECDSA, strict DER, low S */
#define QL_BCHAIN_SIG_SCHNORR 3      /* BIP340, 64 bytes */
#define QL_BCHAIN_PBK_COMPRESSED 1   /* SEC1, 33 bytes */
#define QL_BCHAIN_PBK_UNCOMPRESSED 2 /* SEC1, 65 bytes */
#define QL_BCHAIN_PBK_XONLY 3        /* BIP340, 32 bytes */
/* Blockchain keys: how QBchainCreateXPrv makes a key (dwType), what QBchainGetKeyInfo says a key
 * is (dwType), the forms of QBchainPkExport/QBchainPkImport (dwFormat), address types and the
 * version words. Keys made or imported are stored with QL_KEY_BLOCKCHAIN; only the QBchain*
 * calls use them (the generic sign and cipher calls answer QL_ERR_BAD_KEY_USAGE). */
#define QL_BCHAIN_XPRV_BIP32 1          /* BIP32 master of a 16 to 64-byte seed, mainnet */
#define QL_BCHAIN_XPRV_BIP32_TESTNET 2  /* the same, testnet */
#define QL_BCHAIN_XPRV_MINIKEY 3        /* a mini private key's text (22 or 30 characters) */
#define QL_BCHAIN_KEY_EXTENDED 1        /* a BIP32 key with its private half */
#define QL_BCHAIN_KEY_EXTENDED_PUBLIC 2 /* a BIP32 public-only key (derives normal children) */
#define QL_BCHAIN_KEY_PLAIN 3           /* a private key without BIP32 data (raw, WIF, mini key) */
#define QL_BCHAIN_FORMAT_RAW 1          /* the 32-byte private key */
#define QL_BCHAIN_FORMAT_WIF 2          /* Wallet Import Format text */
#define QL_BCHAIN_FORMAT_XPRV 3         /* BIP32 extended private key text */
#define QL_BCHAIN_FORMAT_XPUB 4         /* BIP32 extended public key text */
#define QL_BCHAIN_ADDR_P2PKH 1          /* Base58Check, HASH160 of the compressed key */
#define QL_BCHAIN_ADDR_P2PKH_UNCOMPRESSED 2
#define QL_BCHAIN_ADDR_P2WPKH 3     /* bech32 (BIP173) */
#define QL_BCHAIN_ADDR_P2TR 4       /* bech32m (BIP350), BIP86 key-path output key */
#define QL_BCHAIN_ADDR_MAINNET 0x00 /* QBchainGetAddress dwVersion: version byte, hrp "bc" */
#define QL_BCHAIN_ADDR_TESTNET 0x6F /* version byte, hrp "tb" */
#define QL_BCHAIN_WIF_MAINNET 0x80  /* QBchainPkExport WIF dwVersion (0: the key's network) */
#define QL_BCHAIN_WIF_TESTNET 0xEF
#define QL_BCHAIN_XPRV_MAIN 0x0488ADE4 /* BIP32 versions (0: the key's, or the parent's) */
#define QL_BCHAIN_XPUB_MAIN 0x0488B21E
#define QL_BCHAIN_XPRV_TEST 0x04358394
#define QL_BCHAIN_XPUB_TEST 0x043587CF
typedef struct QL_BCHAIN_KEY_INFO_ {
  uint32_t dwType;
  uint32_t dwVersion;
  uint32_t dwDepth;
  uint32_t dwIndex;
  unsigned char pbParentFingerprint[4];
  unsigned char pbChainCode[32];
  unsigned char pbPublicKey[65];
  uint32_t dwPublicKeyLen;
} QL_BCHAIN_KEY_INFO;
/* The key calls: making or importing a key needs ACL_OBJ_CREATE (none for QL_KEY_TEMPORARY in
 * dwAttributes, with QL_KEY_EXPORTABLE the only other bit); using one (sign, info, public key,
 * address, export) the right to use it. A bad seed or digest length: QL_ERR_BAD_LENGTH; a key out
 * of range (an invalid child: take the next index): QL_ERR_BCHAIN_INVALID_KEY; a malformed text:
 * QL_ERR_BCHAIN_BAD_ENCODING; a hardened child, signature or private form of a public-only key, or
 * BIP32 data of a plain key: QL_ERR_BAD_KEY_USAGE; a private form of a key made without
 * QL_KEY_EXPORTABLE: QL_ERR_NOT_EXPORTABLE. QBchainCreateBip32Ckd's dwVersion 0 keeps the
 * parent's network, and pInfo (may be null) receives the child's data. QBchainGetAddress writes
 * the text with its NUL; szHrp null or empty: "bc" or "tb" by dwVersion. QBchainPkExport hands out
 * the raw key or the text (no NUL) in a buffer from QAlloc. */
QLAPI_EXPORT int QBchainCreateXPrv(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                   const unsigned char *pbData, uint32_t dwDataLen,
                                   uint32_t dwAttributes);
QLAPI_EXPORT int QBchainCreateBip32Ckd(HSESSIONCTX hSession, const char *szParentName,
                                       const char *szDstName, uint32_t dwVersion, uint32_t dwIndex,
                                       uint32_t dwAttributes, QL_BCHAIN_KEY_INFO *pInfo);
QLAPI_EXPORT int QBchainGetAddress(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                   uint32_t dwVersion, const char *szHrp, char *szAddress,
                                   uint32_t *pdwAddressLen);
QLAPI_EXPORT int QBchainVerify(HSESSIONCTX hSession, uint32_t dwType, uint32_t dwHashMode,
                               const unsigned char *pbHash, uint32_t dwHashLen,
                               const unsigned char *pbSignature, uint32_t dwSignatureLen,
                               uint32_t dwPubKeyType, const unsigned char *pbPubKey,
                               uint32_t dwPubKeyLen);
QLAPI_EXPORT int QBchainRecoverPbkFromSignature(HSESSIONCTX hSession, uint32_t dwType,
                                                uint32_t dwHashMode, const unsigned char *pbHash,
                                                uint32_t dwHashLen,
                                                const unsigned char *pbSignature,
                                                uint32_t dwSignatureLen, unsigned char *pbPubKey,
                                                uint32_t *pdwPubKeyLen);
QLAPI_EXPORT int QBchainSignHash(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                 uint32_t dwHashMode, const unsigned char *pbHash,
                                 uint32_t dwHashLen, unsigned char *pbSignature,
                                 uint32_t *pdwSignatureLen);
QLAPI_EXPORT int QBchainHashData(HSESSIONCTX hSession, uint32_t dwHashMode,
                                 const unsigned char *pbData, uint32_t dwDataLen,
                                 unsigned char *pbHash, uint32_t *pdwHashLen);
QLAPI_EXPORT int QBchainGetKeyInfo(HSESSIONCTX hSession, const char *szKeyName,
                                   QL_BCHAIN_KEY_INFO *pInfo);
QLAPI_EXPORT int QBchainGetPubKey(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwType,
                                  unsigned char *pbPubKey, uint32_t *pdwPubKeyLen);
QLAPI_EXPORT int QBchainPkExport(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwFormat,
                                 uint32_t dwVersion, int bCompressed, unsigned char **ppbOut,
                                 uint32_t *pdwOutLen);
QLAPI_EXPORT int QBchainPkImport(HSESSIONCTX hSession, const char *szKeyName, uint32_t dwFormat,
                                 uint32_t dwAttributes, const unsigned char *pbData,
                                 uint32_t dwDataLen);

/* ===========================================================================================
 * Secret sharing
 */
/* Splits a secret into dwN parts of which any dwM recover it; the parts, each *pdwPartLen bytes,
 * follow each other in one buffer from QAlloc. */
QLAPI_EXPORT int QMofNSplit(HSESSIONCTX hSession, uint32_t dwM, uint32_t dwN,
                            const unsigned char *pbSecret, uint32_t dwSecretLen,
                            unsigned char **ppbParts, uint32_t *pdwPartLen);
QLAPI_EXPORT int QMofNRecover(HSESSIONCTX hSession, const unsigned char *pbParts,
                              uint32_t dwPartCount, uint32_t dwPartLen, unsigned char **ppbSecret,
                              uint32_t *pdwSecretLen);
QLAPI_EXPORT int QSKeepNewSecret(HSESSIONCTX hSession, const char *szId, uint32_t dwSecLevel,
                                 uint32_t dwAuthType);
QLAPI_EXPORT int QSKeepRemoveSecret(HSESSIONCTX hSession, const char *szId, uint32_t dwSecLevel,
                                    uint32_t dwAuthType);
QLAPI_EXPORT int QSKeepSplitSecret(HSESSIONCTX hSession, const char *szId, uint32_t dwSecLevel,
                                   uint32_t dwAuthType, uint32_t dwM, uint32_t dwN,
                                   unsigned char **ppbShares, uint32_t *pdwShareLen);
QLAPI_EXPORT int QSKeepProbeSecret(HSESSIONCTX hSession, const char *szId, uint32_t *pdwResult);
QLAPI_EXPORT int QSKeepMatchSecret(HSESSIONCTX hSession, const char *szId,
                                   const unsigned char *pbShares, uint32_t dwShareCount,
                                   uint32_t dwShareLen);
QLAPI_EXPORT int QSKeepRecoverSecret(HSESSIONCTX hSession, const char *szId,
                                     const unsigned char *pbShares, uint32_t dwShareCount,
                                     uint32_t dwShareLen, uint32_t *pdwResult);
QLAPI_EXPORT int QSKeepCalcShareCks(const unsigned char *pbShare, uint32_t dwShareLen,
                                    uint32_t *pdwChecksum);

/* ===========================================================================================
 * Object metadata and PKCS#11 maps
 */
/* PKI: the option ids of object-metadata records. */
#define QL_META_LABEL 1       /* text */
#define QL_META_ID 2          /* bytes; QAssociatePKCS11Key writes SHA-1 of the public key */
#define QL_META_SUBJECT 3     /* a certificate's subject name, DER */
#define QL_META_START_DATE 4  /* "YYYYMMDD" */
#define QL_META_END_DATE 5    /* "YYYYMMDD" */
#define QL_META_APPLICATION 6 /* text */
/* A record is built in the library (no HSM call): QCreateObjMetadata (dwParam 0) makes an empty
 * one, QSetObjMetadata sets one id's value (1 to 1024 bytes; a date "YYYYMMDD" that exists, a
 * subject one DER Name, a text without NUL bytes; QL_ERR_BAD_ARGUMENT otherwise, an unknown id
 * too), QGetObjMetadata copies one value out (its bytes as set, no NUL added; pvData null or too
 * small: QL_ERR_BUFFER_TOO_SMALL with the length; an id not in the record QL_ERR_OBJ_NOT_FOUND),
 * QDestroyObjMetadata releases it and clears the handle.
 * QManageObjMetadata works on the object szObjName: 1 reads its records into hOut (replacing
 * what hOut held; a use right), 2 writes hIn's records in place of all of its records, 3 merges
 * hIn's into them (an id in hIn replaces the object's, the others stay), 4 removes the ids hIn
 * holds (hIn null or empty: every record); 2 to 4 need ACL_OBJ_UPDATE. dwParam 0.
 * QGetObjMetadataTypeInfoList calls back once per id with "<id> <name> <type>" (type text,
 * bytes, der or date), then the final call; it asks the HSM nothing. */
QLAPI_EXPORT int QCreateObjMetadata(HOBJMETACTX *phMeta, uint32_t dwParam);
QLAPI_EXPORT int QSetObjMetadata(HOBJMETACTX hMeta, uint32_t dwOption, const void *pvData,
                                 uint32_t dwDataLen, uint32_t dwParam);
QLAPI_EXPORT int QGetObjMetadata(HOBJMETACTX hMeta, uint32_t dwOption, void *pvData,
                                 uint32_t *pdwDataLen, uint32_t dwParam);
QLAPI_EXPORT int QDestroyObjMetadata(HOBJMETACTX *phMeta, uint32_t dwParam);
/* dwOperation 1 read into hOut, 2 write hIn, 3 update with hIn, 4 remove. */
QLAPI_EXPORT int QManageObjMetadata(HSESSIONCTX hSession, uint32_t dwOperation,
                                    const char *szObjName, HOBJMETACTX hIn, HOBJMETACTX hOut,
                                    uint32_t dwParam);
QLAPI_EXPORT int QGetObjMetadataTypeInfoList(HSESSIONCTX hSession, PQL_LIST_CALLBACK pfnCallback,
                                             void *pvParam);
/* An object's metadata as JSON text. The HSM keeps one JSON object per object (dwType
 * QL_JSON_METADATA_OBJECT; any other type answers QL_ERR_BAD_ARGUMENT); an object whose metadata
 * was never written reads "{}". QGetJsonObjMetadata hands the text out in a buffer from QAlloc,
 * NUL-terminated, with its length without the NUL in *pdwJsonLen; it needs the right to use the
 * object (any of ACL_OBJ_DEL, ACL_OBJ_READ, ACL_OBJ_CREATE), and reads a blocked object's metadata
 * too. QSetJsonObjMetadata replaces it with dwJsonLen bytes of szJson (0: up to its NUL), which
 * must be one JSON object (RFC 8259) in UTF-8 of at most QL_MAX_JSON_METADATA bytes: anything else
 * answers QL_ERR_BAD_JSON (QL_ERR_BAD_LENGTH when longer); it needs ACL_OBJ_UPDATE. The text is
 * kept as it was written. Both answer QL_ERR_OBJ_NOT_FOUND for a missing object, after the
 * right. */
#define QL_JSON_METADATA_OBJECT 0
#define QL_MAX_JSON_METADATA 65536
QLAPI_EXPORT int QGetJsonObjMetadata(HSESSIONCTX hSession, const char *szObjName, uint32_t dwType,
                                     char **ppszJson, uint32_t *pdwJsonLen);
QLAPI_EXPORT int QSetJsonObjMetadata(HSESSIONCTX hSession, const char *szObjName,
                                     const char *szJson, uint32_t dwJsonLen);

/* A map object (QL_OBJ_MAP) names the private key, public key and certificate a PKCS#11 module
 * shows as one identity (empty names: none; at least one). QGenerateMapObj (dwFlags 0) needs
 * ACL_OBJ_CREATE; each name must exist (QL_ERR_OBJ_NOT_FOUND) and be of its kind (a private key,
 * an asymmetric key, an X.509 certificate: QL_ERR_BAD_KEY_USAGE otherwise). QRemoveMapObj removes
 * maps only (QL_ERR_BAD_KEY_USAGE for other objects), with ACL_OBJ_DEL. QGetPkcs11Map reads the
 * full names ("owner/name") back with a use right. */
typedef struct QL_PKCS11_MAP_ {
  char szPrivateKey[QL_MAX_OBJ_NAME + 1];
  char szPublicKey[QL_MAX_OBJ_NAME + 1];
  char szCertificate[QL_MAX_OBJ_NAME + 1];
} QL_PKCS11_MAP;
QLAPI_EXPORT int QGenerateMapObj(HSESSIONCTX hSession, const char *szMapName,
                                 const QL_PKCS11_MAP *pMap, uint32_t dwFlags);
QLAPI_EXPORT int QRemoveMapObj(HSESSIONCTX hSession, const char *szMapName);
QLAPI_EXPORT int QGetPkcs11Map(HSESSIONCTX hSession, const char *szMapName, QL_PKCS11_MAP *pMap);

#ifdef __cplusplus
}
#endif

#endif /* QLAPI_H_ */
