#include "quelta_client.h"

#include <cstring>
#include <utility>

namespace {

constexpr int kBufferTooSmall = 1005;
constexpr int kUserExists = 5013;
constexpr int kDefaultPort = 4433;

bool g_initialized = false;

// Runs a library call that fills a caller buffer, first asking for the size (null buffer), then
// filling the vector, which ends at the length written.
template <typename Call>
int FillVector(ByteVector *out, Call call) {
  uint32_t len = 0;
  int rc = call(nullptr, &len);
  if (rc == kBufferTooSmall) {
    out->resize(len);
    rc = call(out->data(), &len);
  }
  if (rc == 0) out->resize(len);
  return rc;
}

// Copies a library-allocated buffer into the vector and gives the buffer back.
void TakeLibraryBuffer(unsigned char *buffer, uint32_t len, ByteVector *out) {
  if (buffer != nullptr) out->assign(buffer, buffer + len);
  QFree(buffer);
}

int AppendName(void *param, const char *name, int last) {
  if (!last && name != nullptr) static_cast<std::vector<std::string> *>(param)->emplace_back(name);
  return 0;
}

int AppendChunk(void *param, const unsigned char *chunk, uint32_t len) {
  auto *out = static_cast<ByteVector *>(param);
  out->insert(out->end(), chunk, chunk + len);
  return 0;
}

// Shares laid side by side, as the library takes them. All shares have the first one's length.
ByteVector JoinShares(const std::vector<ByteVector> &shares, uint32_t *share_len) {
  ByteVector joined;
  *share_len = shares.empty() ? 0 : static_cast<uint32_t>(shares.front().size());
  for (const ByteVector &share : shares) joined.insert(joined.end(), share.begin(), share.end());
  return joined;
}

void SplitShares(unsigned char *buffer, uint32_t share_len, uint32_t count,
                 std::vector<ByteVector> *out) {
  out->clear();
  if (buffer != nullptr) {
    for (uint32_t i = 0; i < count; ++i) {
      out->emplace_back(buffer + i * share_len, buffer + (i + 1) * share_len);
    }
  }
  QFree(buffer);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and connection

void QueltaClient::ResetState() {
  is_atoken_ = false;
  session_ = nullptr;
  no_disconnect_ = false;
  session_flags_ = 0;
  Initialize();
}

QueltaClient::QueltaClient() {
  ResetState();
}

QueltaClient::QueltaClient(const char *hsm_address, bool load_balance_bypass, bool cache_bypass,
                           bool encrypted) {
  ResetState();
  SetupConnectionParams(hsm_address, nullptr, nullptr, load_balance_bypass, cache_bypass, encrypted,
                        true);
}

QueltaClient::QueltaClient(const char *hsm_address, const char *user_name, const char *user_pwd,
                           bool load_balance_bypass, bool cache_bypass, bool encrypted) {
  ResetState();
  SetupConnectionParams(hsm_address, user_name, user_pwd, load_balance_bypass, cache_bypass,
                        encrypted, false);
}

QueltaClient::QueltaClient(const AUTH_ATOKEN &atoken, bool load_balance_bypass, bool cache_bypass,
                           bool encrypted) {
  ResetState();
  SetupAtokenParams(atoken, load_balance_bypass, cache_bypass, encrypted);
}

QueltaClient::QueltaClient(uint32_t auth_type, const void *data, uint32_t data_len,
                           uint32_t flags) {
  ResetState();
  SetupConnectionParams(auth_type, data, data_len, flags);
}

QueltaClient::~QueltaClient() {
  Disconnect(false);
}

QueltaClient::QueltaClient(QueltaClient &&other) noexcept
    : conn_type_(other.conn_type_),
      auth_pwd_(other.auth_pwd_),
      auth_atoken_(other.auth_atoken_),
      auth_win_credential_(other.auth_win_credential_),
      is_atoken_(other.is_atoken_),
      session_(std::exchange(other.session_, nullptr)),
      no_disconnect_(other.no_disconnect_),
      session_flags_(other.session_flags_) {}

QueltaClient &QueltaClient::operator=(QueltaClient &&other) noexcept {
  if (this != &other) {
    Disconnect(false);
    conn_type_ = other.conn_type_;
    auth_pwd_ = other.auth_pwd_;
    auth_atoken_ = other.auth_atoken_;
    auth_win_credential_ = other.auth_win_credential_;
    is_atoken_ = other.is_atoken_;
    session_ = std::exchange(other.session_, nullptr);
    no_disconnect_ = other.no_disconnect_;
    session_flags_ = other.session_flags_;
  }
  return *this;
}

void QueltaClient::Initialize() {
  if (g_initialized) return;
  QInitialize(0);
  g_initialized = true;
}

void QueltaClient::SetupConnectionParams(const char *hsm_address, const char *user_name,
                                         const char *user_pwd, bool load_balance_bypass,
                                         bool cache_bypass, bool encrypted, bool is_anonymous) {
  auth_pwd_ = AUTH_PWD_EX{};
  conn_type_ = is_anonymous ? QL_AUTH_ANONYMOUS : QL_AUTH_USER_PWD;
  is_atoken_ = false;
  CopyFixedField(auth_pwd_.szAddr, sizeof auth_pwd_.szAddr, hsm_address);
  CopyFixedField(auth_pwd_.szUserId, sizeof auth_pwd_.szUserId, user_name);
  CopyFixedField(auth_pwd_.szPassword, sizeof auth_pwd_.szPassword, user_pwd);
  auth_pwd_.nPort = kDefaultPort;
  auth_pwd_.dwAuthType = 0;
  session_flags_ = CalculateSessionFlags(load_balance_bypass, cache_bypass, encrypted);
}

void QueltaClient::SetupAtokenParams(const AUTH_ATOKEN &atoken, bool load_balance_bypass,
                                     bool cache_bypass, bool encrypted) {
  conn_type_ = QL_AUTH_ATOKEN;
  auth_atoken_ = atoken;
  is_atoken_ = true;
  session_flags_ = CalculateSessionFlags(load_balance_bypass, cache_bypass, encrypted);
}

void QueltaClient::SetupConnectionParams(uint32_t auth_type, const void *data, uint32_t data_len,
                                         uint32_t /*flags: not kept, see the header*/) {
  if (data == nullptr) return;
  switch (auth_type) {
    case QL_AUTH_ANONYMOUS:
    case QL_AUTH_USER_PWD:
      if (data_len >= sizeof auth_pwd_) memcpy(&auth_pwd_, data, sizeof auth_pwd_);
      break;
    case QL_AUTH_ATOKEN:
      if (data_len >= sizeof auth_atoken_) memcpy(&auth_atoken_, data, sizeof auth_atoken_);
      break;
    case QL_AUTH_WIN_CREDENTIAL:
      if (data_len >= sizeof auth_win_credential_) {
        memcpy(&auth_win_credential_, data, sizeof auth_win_credential_);
      }
      break;
    default:
      return;
  }
  conn_type_ = auth_type;
}

uint32_t QueltaClient::CalculateSessionFlags(bool load_balance_bypass, bool cache_bypass,
                                             bool encrypted) {
  uint32_t flags = encrypted ? QL_SESSION_ENCRYPTED : QL_SESSION_UNENCRYPTED;
  if (load_balance_bypass) flags += QL_SESSION_BYPASS_LB;
  if (cache_bypass) flags += QL_SESSION_BYPASS_CACHE;
  return flags;
}

const void *QueltaClient::GetAuthData(uint32_t *data_len) const {
  if (is_atoken_) {
    *data_len = sizeof auth_atoken_;
    return &auth_atoken_;
  }
  if (conn_type_ == QL_AUTH_WIN_CREDENTIAL) {
    *data_len = sizeof auth_win_credential_;
    return &auth_win_credential_;
  }
  *data_len = sizeof auth_pwd_;
  return &auth_pwd_;
}

int QueltaClient::Connect() {
  uint32_t data_len = 0;
  const void *data = GetAuthData(&data_len);
  return QOpenSession(&session_, conn_type_, const_cast<void *>(data), data_len, session_flags_);
}

int QueltaClient::Connect(const char *hsm_address, const char *user_name, const char *user_pwd,
                          bool load_balance_bypass, bool cache_bypass, bool encrypted) {
  SetupConnectionParams(hsm_address, user_name, user_pwd, load_balance_bypass, cache_bypass,
                        encrypted, false);
  return Connect();
}

int QueltaClient::ConnectAnonymous(const char *hsm_address, bool load_balance_bypass,
                                   bool cache_bypass, bool encrypted) {
  SetupConnectionParams(hsm_address, nullptr, nullptr, load_balance_bypass, cache_bypass, encrypted,
                        true);
  return Connect();
}

int QueltaClient::Connect(const AUTH_ATOKEN &atoken, bool load_balance_bypass, bool cache_bypass,
                          bool encrypted) {
  SetupAtokenParams(atoken, load_balance_bypass, cache_bypass, encrypted);
  return Connect();
}

int QueltaClient::Disconnect(bool physical) {
  if (no_disconnect_) {
    Detach();
    return 0;
  }
  const int rc = QCloseSession(&session_, physical ? QL_CLOSE_PHYSICAL : 0);
  session_ = nullptr;
  return rc;
}

void QueltaClient::Detach() {
  session_ = nullptr;
}

const char *QueltaClient::GetErrorDesc(int ret_code) {
  return QGetReturnCodeString(ret_code, 2);
}

void QueltaClient::Free(void *buffer) {
  QFree(buffer);
}

uint32_t QueltaClient::CalcKeyAttributes(bool is_exportable, bool is_temporary) {
  return (is_exportable ? QL_KEY_EXPORTABLE : 0u) | (is_temporary ? QL_KEY_TEMPORARY : 0u);
}

// ---------------------------------------------------------------------------------------------
// Handles

int QueltaClient::GetKeyHandle(const char *key_name, HKEYCTX *key_handle) {
  return QGetUserKey(session_, key_name, 0, key_handle);
}

int QueltaClient::GetObjectHandle(const char *object_name, HKEYCTX *object_ctx) {
  return QGetUserKey(session_, object_name, 0, object_ctx);
}

int QueltaClient::GetObjectHandleOffline(const char * /*object_name*/, const char *key_info,
                                         HKEYCTX *object_ctx) {
  return QGetUserKey(session_, key_info, QL_GETKEY_OFFLINE, object_ctx);
}

int QueltaClient::DestroyObjectHandle(HKEYCTX object_ctx, bool remove_from_hsm) {
  return QDestroyKey(&object_ctx, remove_from_hsm ? QL_DESTROY_REMOVE : 0);
}

int QueltaClient::DestroyKeyHandle(HKEYCTX key_handle, bool remove_from_hsm) {
  return QDestroyKey(&key_handle, remove_from_hsm ? QL_DESTROY_REMOVE : 0);
}

// ---------------------------------------------------------------------------------------------
// Objects and keys

int QueltaClient::GetObjType(const char *object_name, uint32_t *key_type) {
  HKEYCTX ctx = nullptr;
  int rc = GetObjectHandle(object_name, &ctx);
  if (rc != 0) return rc;
  rc = GetObjDwordParam(ctx, QKP_ALGID, key_type);
  // A failed read leaves the handle open, as callers have always expected.
  if (rc == 0) DestroyObjectHandle(ctx, false);
  return rc;
}

int QueltaClient::HasKey(const char *object_name) {
  HKEYCTX ctx = nullptr;
  const int rc = GetObjectHandle(object_name, &ctx);
  if (rc == 0) DestroyObjectHandle(ctx, false);
  return rc;
}

int QueltaClient::GetObjStats(const char *object_name, QL_OBJ_STATS *stats) {
  QLUniquePtr<HKEYCTX, &::DestroyKeyHandle> obj;
  const int rc = GetObjectHandle(object_name, obj.Put());
  if (rc != 0) return rc;
  return GetObjStats(obj.Get(), stats);
}

int QueltaClient::GetObjStats(HKEYCTX obj, QL_OBJ_STATS *stats) {
  uint32_t len = sizeof *stats;
  return QGetKeyParam(obj, QKP_STATS, stats, &len, 0);
}

int QueltaClient::GetObjId(HKEYCTX object_ctx, std::string *object_id) {
  ByteVector text;
  const int rc = FillVector(&text, [&](unsigned char *buf, uint32_t *len) {
    return QGetKeyParam(object_ctx, QKP_OBJ_ID, buf, len, 0);
  });
  if (rc == 0)
    object_id->assign(reinterpret_cast<const char *>(text.data()),
                      strnlen(reinterpret_cast<const char *>(text.data()), text.size()));
  return rc;
}

int QueltaClient::GetObjDwordParam(HKEYCTX object_ctx, uint32_t option, uint32_t *value) {
  uint32_t len = sizeof *value;
  return QGetKeyParam(object_ctx, option, value, &len, 0);
}

int QueltaClient::GetObjFlags(HKEYCTX object_ctx, uint32_t *data) {
  return GetObjDwordParam(object_ctx, QKP_FLAGS, data);
}

int QueltaClient::GetKeyAlgId(HKEYCTX key_handle, uint32_t *alg_id) {
  return GetObjDwordParam(key_handle, QKP_ALGID, alg_id);
}

int QueltaClient::ExportKey(const char *key_id, const char *kek_id, uint32_t type,
                            ByteVector *key_data) {
  QLUniquePtr<HKEYCTX, &::DestroyKeyHandle> key;
  QLUniquePtr<HKEYCTX, &::DestroyKeyHandle> kek;
  int rc = GetKeyHandle(key_id, key.Put());
  if (rc != 0) return rc;
  if (kek_id != nullptr) {
    rc = GetKeyHandle(kek_id, kek.Put());
    if (rc != 0) return rc;
  }
  return ExportKey(key.Get(), kek.Get(), type, key_data);
}

int QueltaClient::ExportKey(HKEYCTX key, HKEYCTX kek, uint32_t type, ByteVector *key_data) {
  return FillVector(key_data, [&](unsigned char *buf, uint32_t *len) {
    return QExportKey(key, kek, type, 0, buf, len);
  });
}

int QueltaClient::ExportPublicKey(const char *priv_key, ByteVector *pub_key) {
  return ExportKey(priv_key, nullptr, QL_PUBLICKEY_BLOB, pub_key);
}

int QueltaClient::ExportPublicKey(HKEYCTX priv_handle, ByteVector *pub_key) {
  return ExportKey(priv_handle, nullptr, QL_PUBLICKEY_BLOB, pub_key);
}

int QueltaClient::ExportPlaintextKey(const char *key_id, ByteVector *key_data) {
  return ExportKey(key_id, nullptr, QL_PLAINTEXTKEY_BLOB, key_data);
}

int QueltaClient::ExportPlaintextKey(HKEYCTX key, ByteVector *key_data) {
  return ExportKey(key, nullptr, QL_PLAINTEXTKEY_BLOB, key_data);
}

int QueltaClient::ImportKey(const ByteVector &key, const char *key_id, HKEYCTX kek_ctx,
                            uint32_t blob_type, uint32_t alg_id, uint32_t flags, HKEYCTX *key_ctx) {
  return QImportKey(session_, key_id, kek_ctx, key.data(), static_cast<uint32_t>(key.size()),
                    blob_type, alg_id, flags, key_ctx);
}

int QueltaClient::ImportPublicKey(const ByteVector &pub_key, const char *key_id, uint32_t alg_id,
                                  uint32_t flags, HKEYCTX *pub_key_handle) {
  return ImportKey(pub_key, key_id, nullptr, QL_PUBLICKEY_BLOB, alg_id, flags, pub_key_handle);
}

int QueltaClient::ImportHSMPublicKey(const ByteVector &pub_key, const char *key_id, uint32_t alg_id,
                                     uint32_t flags, HKEYCTX *pub_key_handle) {
  return ImportKey(pub_key, key_id, nullptr, QL_PUBLICKEY_BLOB_HSM, alg_id, flags, pub_key_handle);
}

int QueltaClient::GetPublicKey(HKEYCTX priv_handle, HKEYCTX *pub_handle) {
  ByteVector blob;
  int rc = ExportKey(priv_handle, nullptr, QL_PUBLICKEY_BLOB, &blob);
  if (rc != 0) return rc;
  uint32_t alg_id = 0;
  rc = GetKeyAlgId(priv_handle, &alg_id);
  if (rc != 0) return rc;
  return ImportKey(blob, nullptr, nullptr, QL_PUBLICKEY_BLOB, alg_id | QL_ALG_PUBLIC_KEY_BIT,
                   QL_KEY_EXPORTABLE, pub_handle);
}

int QueltaClient::ExportPkcs8(const char *id, const char *pwd, unsigned char **data,
                              uint32_t *data_len) {
  return QPKCS8ExportKey(session_, id, pwd, data, data_len);
}

int QueltaClient::ExportPkcs8(const char *id, const char *pwd, ByteVector *data) {
  unsigned char *buffer = nullptr;
  uint32_t len = 0;
  const int rc = ExportPkcs8(id, pwd, &buffer, &len);
  TakeLibraryBuffer(buffer, len, data);
  return rc;
}

int QueltaClient::ReadObject(const char *object_name, ByteVector *object_data) {
  object_data->clear();
  return QReadFile(session_, object_name, AppendChunk, object_data);
}

int QueltaClient::SetKeyParam(HKEYCTX key_handle, uint32_t option, const void *data,
                              uint32_t data_len) {
  return QSetKeyParam(key_handle, option, data, data_len, 0);
}

int QueltaClient::SetKeyBlockStatus(const char *key_name, bool blocked) {
  HKEYCTX handle = nullptr;
  int rc = GetKeyHandle(key_name, &handle);
  if (rc != 0) return rc;
  const uint32_t value = blocked ? 1 : 0;
  rc = QSetKeyParam(handle, QKP_BLOCKED, &value, sizeof value, 0);
  DestroyKeyHandle(handle);
  return rc;
}

int QueltaClient::RemoveObject(const char *key_name) {
  return QRemoveObj(session_, key_name);
}

int QueltaClient::GenerateKey(const char *key_name, uint32_t alg_id, uint32_t flags,
                              HKEYCTX *key_handle) {
  HKEYCTX handle = nullptr;
  const int rc = QGenerateKey(session_, key_name, alg_id, flags, &handle);
  if (rc != 0) return rc;
  if (key_handle != nullptr) {
    *key_handle = handle;
  } else {
    QDestroyKey(&handle, 0);
  }
  return rc;
}

int QueltaClient::GenerateKey(const char *key_name, uint32_t alg_id, bool exportable,
                              bool temporary, HKEYCTX *key_handle) {
  return GenerateKey(key_name, alg_id, CalcKeyAttributes(exportable, temporary), key_handle);
}

int QueltaClient::GenerateKey(const char *key_name, uint32_t alg_id, bool exportable,
                              bool temporary) {
  return GenerateKey(key_name, alg_id, exportable, temporary, nullptr);
}

int QueltaClient::GenRandomData(ByteVector *data, uint32_t data_len) {
  data->resize(data_len);
  return QGetRandom(session_, data->data(), data_len);
}

int QueltaClient::ListObjects(std::vector<std::string> *obj_list) {
  return QListObjs(session_, AppendName, obj_list);
}

// ---------------------------------------------------------------------------------------------
// Users

namespace {
QL_USER_INFO UserRecord(const char *user, const char *pwd, uint32_t acl) {
  QL_USER_INFO record{};
  CopyFixedField(record.szUserId, sizeof record.szUserId, user);
  CopyFixedField(record.szPassword, sizeof record.szPassword, pwd);
  record.dwAcl = acl;
  return record;
}
}  // namespace

int QueltaClient::CreateUser(const char *user, const char *pwd, uint32_t auth_mask) {
  const QL_USER_INFO record = UserRecord(user, pwd, auth_mask);
  return QCreateUser(session_, &record);
}

int QueltaClient::CreateUser(const char *user, const char *pwd, uint32_t auth_mask,
                             bool force_creation) {
  int rc = CreateUser(user, pwd, auth_mask);
  if (rc == kUserExists && force_creation) {
    rc = RemoveUser(user);
    if (rc != 0) return rc;
    rc = CreateUser(user, pwd, auth_mask);
  }
  return rc;
}

int QueltaClient::RemoveUser(const char *user) {
  return QRemoveUser(session_, user);
}

int QueltaClient::ListUsers(std::vector<std::string> *users_list) {
  return QListUsers(session_, AppendName, users_list);
}

int QueltaClient::GetUserAcl(const char *user, uint32_t *acl) {
  // The 38-byte user record: the name in its first 17 bytes, the mask read back at offset 34.
  unsigned char record[sizeof(QL_USER_INFO)] = {};
  CopyFixedField(reinterpret_cast<char *>(record), 17, user);
  uint32_t len = sizeof record;
  const int rc = QGetUserParam(session_, QL_UP_ACL, record, &len);
  if (rc == 0) memcpy(acl, record + offsetof(QL_USER_INFO, dwAcl), sizeof *acl);
  return rc;
}

int QueltaClient::SetUserAcl(const char *user, uint32_t acl) {
  const QL_USER_INFO record = UserRecord(user, nullptr, acl);
  return SetUserParam(QL_UP_ACL, &record, sizeof record);
}

int QueltaClient::SetUserPassword(const char *pwd) {
  return SetUserParam(QL_UP_PASSWORD, pwd, static_cast<uint32_t>(strlen(pwd)));
}

int QueltaClient::SetUserParam(uint32_t param, const void *data, uint32_t data_len) {
  return QSetUserParam(session_, param, data, data_len);
}

int QueltaClient::GetUserParam(uint32_t param, void *data, uint32_t *data_len) {
  return QGetUserParam(session_, param, data, data_len);
}

int QueltaClient::GetUserObjCount(uint32_t *count) {
  uint32_t len = sizeof *count;
  return GetUserParam(QL_UP_OBJ_COUNT, count, &len);
}

int QueltaClient::BlockUser(const char *user) {
  const QL_USER_INFO record = UserRecord(user, nullptr, 0);
  return SetUserParam(QL_UP_BLOCK, &record, sizeof record);
}

int QueltaClient::UnblockUser(const char *user) {
  const QL_USER_INFO record = UserRecord(user, nullptr, 0);
  return SetUserParam(QL_UP_UNBLOCK, &record, sizeof record);
}

// ---------------------------------------------------------------------------------------------
// HSM

int QueltaClient::GetHsmOpMode(uint32_t *op_mode) {
  uint32_t len = sizeof *op_mode;
  return QGetSessionParam(session_, QL_SP_OPERATING_MODE, op_mode, &len, 0);
}

int QueltaClient::GetLogEvents(PQL_LOG_EVENT_CALLBACK cb, void *param) {
  return QGetLogEvents(session_, cb, param);
}

// ---------------------------------------------------------------------------------------------
// Cryptography

int QueltaClient::SignHash(const char *key_name, uint32_t padding, const unsigned char *hash,
                           uint32_t hash_size, uint32_t hash_alg, ByteVector *signature,
                           uint32_t flags) {
  return FillVector(signature, [&](unsigned char *buf, uint32_t *len) {
    return QSignHashedData(session_, key_name, padding, hash, hash_size, hash_alg, buf, len, flags);
  });
}

int QueltaClient::SignHash(const char *key_name, uint32_t padding, const unsigned char *hash,
                           uint32_t hash_size, uint32_t hash_alg, unsigned char *signature,
                           uint32_t *signature_len, uint32_t flags) {
  return QSignHashedData(session_, key_name, padding, hash, hash_size, hash_alg, signature,
                         signature_len, flags);
}

namespace {
int SetCipherParams(HKEYCTX key, const ByteVector *iv, uint32_t mode, uint32_t padding) {
  int rc = QSetKeyParam(key, QKP_MODE, &mode, sizeof mode, 0);
  if (rc == 0) rc = QSetKeyParam(key, QKP_PADDING, &padding, sizeof padding, 0);
  if (rc == 0 && iv != nullptr && !iv->empty()) {
    rc = QSetKeyParam(key, QKP_IV, iv->data(), static_cast<uint32_t>(iv->size()), 0);
  }
  return rc;
}
}  // namespace

int QueltaClient::Encrypt(HKEYCTX key_handle, const ByteVector *iv, uint32_t mode, uint32_t padding,
                          bool final, uint32_t flags, ByteVector *data) {
  int rc = SetCipherParams(key_handle, iv, mode, padding);
  if (rc != 0) return rc;
  const uint32_t in_len = static_cast<uint32_t>(data->size());
  // Room for a padding block or a tag; a larger output (RSA) is asked for and retried.
  data->resize(in_len + 32);
  uint32_t len = in_len;
  rc = QEncrypt(key_handle, nullptr, final, flags, data->data(), &len,
                static_cast<uint32_t>(data->size()));
  if (rc == kBufferTooSmall) {
    const uint32_t needed = len;
    data->resize(needed);
    len = in_len;
    rc = QEncrypt(key_handle, nullptr, final, flags, data->data(), &len, needed);
  }
  data->resize(rc == 0 ? len : in_len);
  return rc;
}

int QueltaClient::Encrypt(const char *key_id, const ByteVector *iv, uint32_t mode, uint32_t padding,
                          bool final, uint32_t flags, ByteVector *data) {
  QLUniquePtr<HKEYCTX, &::DestroyKeyHandle> key;
  const int rc = GetKeyHandle(key_id, key.Put());
  if (rc != 0) return rc;
  return Encrypt(key.Get(), iv, mode, padding, final, flags, data);
}

int QueltaClient::Decrypt(HKEYCTX key_handle, const ByteVector *iv, uint32_t mode, uint32_t padding,
                          bool final, uint32_t flags, ByteVector *data) {
  int rc = SetCipherParams(key_handle, iv, mode, padding);
  if (rc != 0) return rc;
  uint32_t len = static_cast<uint32_t>(data->size());
  rc = QDecrypt(key_handle, nullptr, final, flags, data->data(), &len);
  if (rc == 0) data->resize(len);
  return rc;
}

int QueltaClient::Decrypt(const char *key_id, const ByteVector *iv, uint32_t mode, uint32_t padding,
                          bool final, uint32_t flags, ByteVector *data) {
  QLUniquePtr<HKEYCTX, &::DestroyKeyHandle> key;
  const int rc = GetKeyHandle(key_id, key.Put());
  if (rc != 0) return rc;
  return Decrypt(key.Get(), iv, mode, padding, final, flags, data);
}

int QueltaClient::EncryptRSA(HKEYCTX key_handle, uint32_t padding, unsigned char *data,
                             uint32_t *data_len, uint32_t buff_len) {
  const int rc = QSetKeyParam(key_handle, QKP_PADDING, &padding, sizeof padding, 0);
  if (rc != 0) return rc;
  return QEncrypt(key_handle, nullptr, 1, 0, data, data_len, buff_len);
}

int QueltaClient::DecryptRSA(HKEYCTX key_handle, uint32_t padding, unsigned char *data,
                             uint32_t *data_len) {
  const int rc = QSetKeyParam(key_handle, QKP_PADDING, &padding, sizeof padding, 0);
  if (rc != 0) return rc;
  return QDecrypt(key_handle, nullptr, 1, 0, data, data_len);
}

// ---------------------------------------------------------------------------------------------
// Metadata and maps

int QueltaClient::GetPKCS11Map(const char *map_name, QL_PKCS11_MAP *pkcs11_map) {
  return QGetPkcs11Map(session_, map_name, pkcs11_map);
}

int QueltaClient::ManageObjMetadata(uint32_t op, const char *obj_name, HOBJMETACTX in_meta,
                                    HOBJMETACTX out_meta, uint32_t param) {
  return QManageObjMetadata(session_, op, obj_name, in_meta, out_meta, param);
}

int QueltaClient::UpdateObjMetadata(const char *obj_name, HOBJMETACTX in_meta, uint32_t param) {
  return ManageObjMetadata(3, obj_name, in_meta, nullptr, param);
}

int QueltaClient::GetObjMetadataJson(const char *id, uint32_t type, std::string *json) {
  char *buffer = nullptr;
  uint32_t len = 0;
  const int rc = QGetJsonObjMetadata(session_, id, type, &buffer, &len);
  if (rc == 0 && buffer != nullptr) json->assign(buffer, len);
  QFree(buffer);
  return rc;
}

int QueltaClient::SetObjMetadataJson(const char *id, const std::string &json) {
  return SetObjMetadataJson(id, json.c_str(), static_cast<uint32_t>(json.size()));
}

int QueltaClient::SetObjMetadataJson(const char *id, const char *json, uint32_t json_len) {
  return QSetJsonObjMetadata(session_, id, json, json_len);
}

// ---------------------------------------------------------------------------------------------
// Blockchain keys

int QueltaClient::BchainCreateXPrv(const char *id, uint32_t type, const unsigned char *data,
                                   uint32_t data_len, bool is_exportable, bool is_temporary) {
  return QBchainCreateXPrv(session_, id, type, data, data_len,
                           CalcKeyAttributes(is_exportable, is_temporary));
}

int QueltaClient::BchainCreateXPrvBip32(const char *id, uint32_t version, const unsigned char *seed,
                                        uint32_t seed_len, bool is_exportable, bool is_temporary) {
  const bool testnet = version == QL_BCHAIN_XPRV_TEST || version == QL_BCHAIN_XPUB_TEST;
  return BchainCreateXPrv(id, testnet ? QL_BCHAIN_XPRV_BIP32_TESTNET : QL_BCHAIN_XPRV_BIP32, seed,
                          seed_len, is_exportable, is_temporary);
}

int QueltaClient::BchainCreateXPrvBtcMinikey(const char *id, const char *minikey,
                                             bool is_exportable, bool is_temporary) {
  if (minikey == nullptr) return QL_ERR_BAD_ARGUMENT;
  return BchainCreateXPrv(id, QL_BCHAIN_XPRV_MINIKEY,
                          reinterpret_cast<const unsigned char *>(minikey),
                          static_cast<uint32_t>(std::strlen(minikey)), is_exportable, is_temporary);
}

int QueltaClient::BchainCreateBip32Ckd(const char *par_id, const char *dst_id, uint32_t version,
                                       uint32_t index, bool is_exportable, bool is_temporary,
                                       QL_BCHAIN_KEY_INFO *key_info) {
  return QBchainCreateBip32Ckd(session_, par_id, dst_id, version, index,
                               CalcKeyAttributes(is_exportable, is_temporary), key_info);
}

int QueltaClient::BchainGetAddress(const char *pk_id, uint32_t type, uint32_t version,
                                   const char *hrp, std::string *address) {
  ByteVector text;
  const int rc = FillVector(&text, [&](unsigned char *buf, uint32_t *len) {
    return QBchainGetAddress(session_, pk_id, type, version, hrp, reinterpret_cast<char *>(buf),
                             len);
  });
  if (rc == 0) {
    address->assign(reinterpret_cast<const char *>(text.data()),
                    strnlen(reinterpret_cast<const char *>(text.data()), text.size()));
  }
  return rc;
}

int QueltaClient::BchainVerify(uint32_t type, uint32_t hash_mode, const ByteVector &hash,
                               const ByteVector &sig, uint32_t pbk_type, const ByteVector &pbk) {
  return QBchainVerify(session_, type, hash_mode, hash.data(), static_cast<uint32_t>(hash.size()),
                       sig.data(), static_cast<uint32_t>(sig.size()), pbk_type, pbk.data(),
                       static_cast<uint32_t>(pbk.size()));
}

int QueltaClient::BchainRecoverPbk(uint32_t type, uint32_t hash_mode, const ByteVector &hash,
                                   const ByteVector &sig, ByteVector *pbk) {
  return FillVector(pbk, [&](unsigned char *buf, uint32_t *len) {
    return QBchainRecoverPbkFromSignature(session_, type, hash_mode, hash.data(),
                                          static_cast<uint32_t>(hash.size()), sig.data(),
                                          static_cast<uint32_t>(sig.size()), buf, len);
  });
}

int QueltaClient::BchainSignHash(const char *pk_id, uint32_t type, uint32_t hash_mode,
                                 const ByteVector &hash, ByteVector *sig) {
  return FillVector(sig, [&](unsigned char *buf, uint32_t *len) {
    return QBchainSignHash(session_, pk_id, type, hash_mode, hash.data(),
                           static_cast<uint32_t>(hash.size()), buf, len);
  });
}

int QueltaClient::BchainSignData(const char *pk_id, uint32_t type, uint32_t hash_mode,
                                 const ByteVector &data, ByteVector *sig) {
  ByteVector hash;
  const int rc = BchainHashData(hash_mode, data, &hash);
  if (rc != 0) return rc;
  return BchainSignHash(pk_id, type, hash_mode, hash, sig);
}

int QueltaClient::BchainHashData(uint32_t mode, const ByteVector &data, ByteVector *hash) {
  return FillVector(hash, [&](unsigned char *buf, uint32_t *len) {
    return QBchainHashData(session_, mode, data.data(), static_cast<uint32_t>(data.size()), buf,
                           len);
  });
}

int QueltaClient::BchainGetKeyInfo(const char *id, QL_BCHAIN_KEY_INFO *info) {
  return QBchainGetKeyInfo(session_, id, info);
}

int QueltaClient::BchainGetPubKey(const char *id, uint32_t type, ByteVector *data) {
  return FillVector(data, [&](unsigned char *buf, uint32_t *len) {
    return QBchainGetPubKey(session_, id, type, buf, len);
  });
}

int QueltaClient::BchainExportPk(const char *id, uint32_t format, uint32_t version,
                                 bool is_compressed, ByteVector *data) {
  unsigned char *buffer = nullptr;
  uint32_t len = 0;
  const int rc =
      QBchainPkExport(session_, id, format, version, is_compressed ? 1 : 0, &buffer, &len);
  TakeLibraryBuffer(buffer, len, data);
  return rc;
}

int QueltaClient::BchainImportPk(const char *id, uint32_t format, uint32_t attr,
                                 const ByteVector &data) {
  return QBchainPkImport(session_, id, format, attr, data.data(),
                         static_cast<uint32_t>(data.size()));
}

int QueltaClient::BchainImportPk(const char *id, uint32_t format, bool is_exportable,
                                 bool is_temporary, const ByteVector &data) {
  return BchainImportPk(id, format, CalcKeyAttributes(is_exportable, is_temporary), data);
}

// ---------------------------------------------------------------------------------------------
// Secret sharing

int QueltaClient::MofNSplit(uint32_t m, uint32_t n, const ByteVector &secret,
                            std::vector<ByteVector> *parts) {
  unsigned char *buffer = nullptr;
  uint32_t part_len = 0;
  const int rc = QMofNSplit(session_, m, n, secret.data(), static_cast<uint32_t>(secret.size()),
                            &buffer, &part_len);
  SplitShares(rc == 0 ? buffer : nullptr, part_len, n, parts);
  if (rc != 0) QFree(buffer);
  return rc;
}

int QueltaClient::MofNRecover(const std::vector<ByteVector> &parts, ByteVector *secret) {
  uint32_t part_len = 0;
  const ByteVector joined = JoinShares(parts, &part_len);
  unsigned char *buffer = nullptr;
  uint32_t len = 0;
  const int rc = QMofNRecover(session_, joined.data(), static_cast<uint32_t>(parts.size()),
                              part_len, &buffer, &len);
  TakeLibraryBuffer(buffer, len, secret);
  return rc;
}

int QueltaClient::ByokExport(const char *id, const char *kek, uint32_t type, const ByteVector &data,
                             ByteVector *out_data) {
  unsigned char *buffer = nullptr;
  uint32_t len = 0;
  const int rc = QByokExport(session_, id, kek, type, data.data(),
                             static_cast<uint32_t>(data.size()), &buffer, &len);
  TakeLibraryBuffer(buffer, len, out_data);
  return rc;
}

int QueltaClient::SKeepNewSecret(const char *id, uint32_t sec_level, uint32_t auth_type) {
  return QSKeepNewSecret(session_, id, sec_level, auth_type);
}

int QueltaClient::SKeepRemoveSecret(const char *id, uint32_t sec_level, uint32_t auth_type) {
  return QSKeepRemoveSecret(session_, id, sec_level, auth_type);
}

int QueltaClient::SKeepSplitSecret(const char *id, uint32_t sec_level, uint32_t auth_type,
                                   uint32_t m, uint32_t n, std::vector<ByteVector> *shares) {
  unsigned char *buffer = nullptr;
  uint32_t share_len = 0;
  const int rc = QSKeepSplitSecret(session_, id, sec_level, auth_type, m, n, &buffer, &share_len);
  SplitShares(rc == 0 ? buffer : nullptr, share_len, n, shares);
  if (rc != 0) QFree(buffer);
  return rc;
}

int QueltaClient::SKeepProbeSecret(const char *id, uint32_t *ret) {
  return QSKeepProbeSecret(session_, id, ret);
}

int QueltaClient::SKeepMatchSecret(const char *id, const std::vector<ByteVector> &shares) {
  uint32_t share_len = 0;
  const ByteVector joined = JoinShares(shares, &share_len);
  return QSKeepMatchSecret(session_, id, joined.data(), static_cast<uint32_t>(shares.size()),
                           share_len);
}

int QueltaClient::SKeepRecoverSecret(const char *id, const std::vector<ByteVector> &shares,
                                     uint32_t *ret) {
  uint32_t share_len = 0;
  const ByteVector joined = JoinShares(shares, &share_len);
  return QSKeepRecoverSecret(session_, id, joined.data(), static_cast<uint32_t>(shares.size()),
                             share_len, ret);
}

int QueltaClient::SKeepCalcShareCks(const ByteVector &share, uint32_t *ret) {
  return QSKeepCalcShareCks(share.data(), static_cast<uint32_t>(share.size()), ret);
}

// ---------------------------------------------------------------------------------------------
// ObjMetadata

ObjMetadata::~ObjMetadata() {
  if (meta_ctx_ != nullptr) QDestroyObjMetadata(&meta_ctx_, 0);
}

int ObjMetadata::Init(uint32_t param) {
  if (meta_ctx_ != nullptr) QDestroyObjMetadata(&meta_ctx_, 0);
  return QCreateObjMetadata(&meta_ctx_, param);
}

int ObjMetadata::Set(uint32_t option, const void *option_data, uint32_t option_data_len,
                     uint32_t param) {
  return QSetObjMetadata(meta_ctx_, option, option_data, option_data_len, param);
}

int ObjMetadata::Get(uint32_t option, void *option_data, uint32_t *option_data_len,
                     uint32_t param) {
  return QGetObjMetadata(meta_ctx_, option, option_data, option_data_len, param);
}

int ObjMetadata::DestroyObjMetadata(HOBJMETACTX *meta, uint32_t param) {
  const int rc = QDestroyObjMetadata(meta, param);
  if (meta != nullptr && *meta == nullptr && meta == &meta_ctx_) meta_ctx_ = nullptr;
  return rc;
}
