// The numbers that travel inside the messages besides return codes: login kinds, user, session
// and key parameters, key flags, operations. The daemon reads them from here (it never includes
// the library's header); the library checks at compile time that each constant of qlapi.h named
// in the list has the value listed here.
//
//   X(daemon name, library constant, value)
#pragma once

#include <cstdint>

// clang-format off
#define QL_WIRE_VALUES(X)                                    \
  X(kDefaultPort,           QL_DEFAULT_PORT,           4433) \
  X(kAuthAnonymous,         QL_AUTH_ANONYMOUS,         1)    \
  X(kAuthUserPassword,      QL_AUTH_USER_PWD,          16)   \
  X(kAuthToken,             QL_AUTH_ATOKEN,            32)   \
  X(kStrongAuthOtp,         QL_STRONG_AUTH_OTP,        1)    \
  X(kStrongAuthX509,        QL_STRONG_AUTH_X509,       2)    \
  X(kKeyExportable,         QL_KEY_EXPORTABLE,         1)    \
  X(kKeyNoCrypt,            QL_KEY_NO_CRYPT,           2)    \
  X(kKeyTemporary,          QL_KEY_TEMPORARY,          4)    \
  X(kKeyRsaExp3,            QL_KEY_RSA_EXP3,           2048) \
  X(kKeyBlockchain,         QL_KEY_BLOCKCHAIN,         16384)\
  X(kAlgPublicKeyBit,       QL_ALG_PUBLIC_KEY_BIT,     0x80000000u) \
  X(kObjFile,               QL_OBJ_FILE,               12)   \
  X(kObjX509,               QL_OBJ_X509,               13)   \
  X(kPrivateKeyBlobStrict,  QL_PRIVATEKEY_BLOB_STRICT, 14)   \
  X(kKpAlgId,               QKP_ALGID,                 1)    \
  X(kKpIv,                  QKP_IV,                    2)    \
  X(kKpPadding,             QKP_PADDING,               3)    \
  X(kKpMode,                QKP_MODE,                  4)    \
  X(kKpAad,                 QKP_AAD,                   5)    \
  X(kKpTagLen,              QKP_TAG_LEN,               6)    \
  X(kKpFlags,               QKP_FLAGS,                 7)    \
  X(kKpKeyBits,             QKP_KEYBITS,               8)    \
  X(kKpKeyLen,              QKP_KEYLEN,                9)    \
  X(kKpObjId,               QKP_OBJ_ID,                10)   \
  X(kKpObjType,             QKP_OBJ_TYPE,              11)   \
  X(kKpBlocked,             QKP_BLOCKED,               12)   \
  X(kUpPassword,            QL_UP_PASSWORD,            1)    \
  X(kUpAcl,                 QL_UP_ACL,                 2)    \
  X(kUpBlock,               QL_UP_BLOCK,               3)    \
  X(kUpUnblock,             QL_UP_UNBLOCK,             4)    \
  X(kUpUserPassword,        QL_UP_USER_PASSWORD,       5)    \
  X(kUpObjCount,            QL_UP_OBJ_COUNT,           6)    \
  X(kUpBlocked,             QL_UP_BLOCKED,             7)    \
  X(kUpX509Assign,          QL_UP_X509_ASSIGN,         8)    \
  X(kUpX509Unassign,        QL_UP_X509_UNASSIGN,       9)    \
  X(kSpUserName,            QL_SP_USER_NAME,           1)    \
  X(kSpAcl,                 QL_SP_ACL,                 2)    \
  X(kSpSessionId,           QL_SP_SESSION_ID,          3)    \
  X(kSpTls,                 QL_SP_TLS,                 4)    \
  X(kSpOperatingMode,       QL_SP_OPERATING_MODE,      1024) \
  X(kOpModeNormal,          QL_OP_MODE_NORMAL,         1)    \
  X(kAdmSetDateTime,        QL_ADM_SET_DATE_TIME,      1)    \
  X(kAdmSetTlsBundle,       QL_ADM_SET_TLS_BUNDLE,     2)    \
  X(kAdmKeepAlive,          QL_ADM_KEEPALIVE,          4)    \
  X(kAdmProbe,              QL_ADM_PROBE,              5)    \
  X(kAdmLogCache,           QL_ADM_LOG_CACHE,          3)    \
  X(kAdmReplUpdate,         QL_ADM_REPL_UPDATE,        6)    \
  X(kAdmReplNodeMessage,    QL_ADM_REPL_NODE_MESSAGE,  7)    \
  X(kTokenIssue,            QL_ATOKEN_ISSUE,           1)    \
  X(kTokenRevoke,           QL_ATOKEN_REVOKE,          2)    \
  X(kTokenList,             QL_ATOKEN_LIST,            3)    \
  X(kTokenCacheCount,       QL_ATOKEN_CACHE_COUNT,     1)    \
  X(kTokenCacheGc,          QL_ATOKEN_CACHE_GC,        2)    \
  X(kWriteFileReplace,      QL_WRITE_FILE_REPLACE,     1)    \
  X(kJsonMetadataObject,    QL_JSON_METADATA_OBJECT,   0)    \
  X(kMaxJsonMetadata,       QL_MAX_JSON_METADATA,      65536)\
  X(kGenKeyKdfRawSecret,    QL_GEN_KEY_KDF_RAW_SECRET, 1)    \
  X(kGenKeyX963Sha256,      QL_GEN_KEY_X9_63_SHA256,   2)    \
  X(kIpFilterList,          QL_IPF_LIST,               1)    \
  X(kIpFilterAdd,           QL_IPF_ADD,                2)    \
  X(kIpFilterRemove,        QL_IPF_REMOVE,             3)    \
  X(kToolPing,              QL_HSM_TOOL_PING,          1)    \
  X(kToolTraceroute,        QL_HSM_TOOL_TRACEROUTE,    2)    \
  X(kToolCrossCheck,        QL_HSM_TOOL_CROSS_CHECK,   3)    \
  X(kToolTcpProbe,          QL_HSM_TOOL_TCP_PROBE,     1)    \
  X(kObjPkcs7,              QL_OBJ_PKCS7,              14)   \
  X(kObjCrl,                QL_OBJ_CRL,                15)   \
  X(kObjSkeep,              QL_OBJ_SKEEP,              60)   \
  X(kEncryptRsaPrivate,     QL_ENCRYPT_RSA_PRIVATE,    1)    \
  X(kWriteFileTyped,        QL_WRITE_FILE_TYPED,       2)    \
  X(kCertBlob,              QL_CERT_BLOB,              19)   \
  X(kMetaLabel,             QL_META_LABEL,             1)    \
  X(kMetaId,                QL_META_ID,                2)    \
  X(kMetaSubject,           QL_META_SUBJECT,           3)    \
  X(kMetaStartDate,         QL_META_START_DATE,        4)    \
  X(kMetaEndDate,           QL_META_END_DATE,          5)    \
  X(kMetaApplication,       QL_META_APPLICATION,       6)    \
  X(kObjMap,                QL_OBJ_MAP,                90)   \
  X(kDukptKeyMask,          QL_DUKPT_KEY_MASK,         0xF0000u) \
  X(kVaultMasked,           QL_SVAULT_MASKED,          1)    \
  X(kOathInfoRecord,        QL_OATH_INFO_RECORD,       1)    \
  X(kOathInfoSeed,          QL_OATH_INFO_SEED,         2)    \
  X(kOathMaxSeed,           QL_OATH_MAX_SEED,          64)   \
  X(kObjHotp,               QL_OBJ_HOTP,               16)   \
  X(kHotpBlob,              QL_HOTP_BLOB,              6)    \
  X(kBchainHashSha256,      QL_BCHAIN_HASH_SHA256,     1)    \
  X(kBchainHashHash160,     QL_BCHAIN_HASH_HASH160,    3)    \
  X(kBchainHashMessage,     QL_BCHAIN_HASH_MESSAGE,    4)    \
  X(kBchainSigCompact,      QL_BCHAIN_SIG_COMPACT,     1)    \
  X(kBchainSigSchnorr,      QL_BCHAIN_SIG_SCHNORR,     3)    \
  X(kBchainPbkCompressed,   QL_BCHAIN_PBK_COMPRESSED,  1)    \
  X(kBchainPbkUncompressed, QL_BCHAIN_PBK_UNCOMPRESSED, 2)   \
  X(kBchainPbkXOnly,        QL_BCHAIN_PBK_XONLY,       3)    \
  X(kBchainSigDer,          QL_BCHAIN_SIG_DER,         2)    \
  X(kBchainXprvBip32,       QL_BCHAIN_XPRV_BIP32,      1)    \
  X(kBchainXprvBip32Test,   QL_BCHAIN_XPRV_BIP32_TESTNET, 2) \
  X(kBchainXprvMinikey,     QL_BCHAIN_XPRV_MINIKEY,    3)    \
  X(kBchainKeyExtended,     QL_BCHAIN_KEY_EXTENDED,    1)    \
  X(kBchainKeyExtendedPublic, QL_BCHAIN_KEY_EXTENDED_PUBLIC, 2) \
  X(kBchainKeyPlain,        QL_BCHAIN_KEY_PLAIN,       3)    \
  X(kBchainFormatRaw,       QL_BCHAIN_FORMAT_RAW,      1)    \
  X(kBchainFormatWif,       QL_BCHAIN_FORMAT_WIF,      2)    \
  X(kBchainFormatXprv,      QL_BCHAIN_FORMAT_XPRV,     3)    \
  X(kBchainFormatXpub,      QL_BCHAIN_FORMAT_XPUB,     4)    \
  X(kBchainAddrP2pkh,       QL_BCHAIN_ADDR_P2PKH,      1)    \
  X(kBchainAddrP2tr,        QL_BCHAIN_ADDR_P2TR,       4)    \
  X(kBchainAddrMainnet,     QL_BCHAIN_ADDR_MAINNET,    0x00) \
  X(kBchainAddrTestnet,     QL_BCHAIN_ADDR_TESTNET,    0x6F) \
  X(kBchainWifMainnet,      QL_BCHAIN_WIF_MAINNET,     0x80) \
  X(kBchainWifTestnet,      QL_BCHAIN_WIF_TESTNET,     0xEF) \
  X(kJwsAddX5c,             QL_JWS_ADD_X5C,            1)    \
  X(kJwsDetached,           QL_JWS_DETACHED,           2)    \
  X(kSpbCertActivate,       QL_SPB_CERT_ACTIVATE,      1)    \
  X(kSpbGen01,              QL_SPB_GEN01,              2)    \
  X(kSpbV3,                 QL_SPB_V3,                 4)    \
  X(kSpbPad,                QL_SPB_PAD,                8)    \
  X(kSpbKeySelfSigned,      QL_SPB_KEY_SELF_SIGNED,    256)  \
  X(kSpbCsrSha1,            QL_SPB_CSR_SHA1,           1)    \
  X(kSpbCsrDer,             QL_SPB_CSR_DER,            2)
// clang-format on

namespace qlproto {

#define QL_WIRE_CONSTANT(daemon_name, library_name, value) \
  inline constexpr uint32_t daemon_name = value;
QL_WIRE_VALUES(QL_WIRE_CONSTANT)
#undef QL_WIRE_CONSTANT

}  // namespace qlproto
