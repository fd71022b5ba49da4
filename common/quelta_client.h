#pragma once
// QueltaClient: one library session with the record that opens it, and the HSM operations the
// jobs need, taking names instead of handles and filling standard containers. Every member
// returns the library's code unchanged (0 success) and prints nothing; every handle a member
// acquires is released before it returns, unless it is handed to the caller.
//
// One client per thread. Movable, not copyable: it owns its session, which the destructor
// gives back (QCloseSession with flags 0).

#include <cstdint>
#include <string>
#include <vector>

#include "ql_client_helper.h"
#include "qlapi.h"

using ByteVector = std::vector<unsigned char>;

class QueltaClient {
 public:
  // Unconnected; QInitialize has been called once for the process.
  QueltaClient();
  // Anonymous login to hsm_address (port 4433).
  QueltaClient(const char *hsm_address, bool load_balance_bypass, bool cache_bypass,
               bool encrypted);
  // User and password login to hsm_address (port 4433).
  QueltaClient(const char *hsm_address, const char *user_name, const char *user_pwd,
               bool load_balance_bypass, bool cache_bypass, bool encrypted);
  // Access-token login.
  QueltaClient(const AUTH_ATOKEN &atoken, bool load_balance_bypass, bool cache_bypass,
               bool encrypted);
  // A record of the given kind as the thread descriptor holds it. The flags are not kept: such a
  // client opens with session flags 0 (TLS with the session cache).
  QueltaClient(uint32_t auth_type, const void *data, uint32_t data_len, uint32_t flags);
  ~QueltaClient();

  QueltaClient(const QueltaClient &) = delete;
  QueltaClient &operator=(const QueltaClient &) = delete;
  QueltaClient(QueltaClient &&other) noexcept;
  QueltaClient &operator=(QueltaClient &&other) noexcept;

  // QInitialize(0) once per process (a plain flag: the first construction happens on the main
  // thread).
  static void Initialize();

  void SetupConnectionParams(const char *hsm_address, const char *user_name, const char *user_pwd,
                             bool load_balance_bypass, bool cache_bypass, bool encrypted,
                             bool is_anonymous);
  void SetupAtokenParams(const AUTH_ATOKEN &atoken, bool load_balance_bypass, bool cache_bypass,
                         bool encrypted);
  // Copies the record for kinds 1 and 16 (>= 180 bytes), 32 (>= 164) and 128 (>= 132); for
  // those kinds the kind is taken even when the record was too short to copy. Null data: no
  // change.
  void SetupConnectionParams(uint32_t auth_type, const void *data, uint32_t data_len,
                             uint32_t flags);
  // 1 when encrypted else 4; +8 bypassing load balancing; +16 bypassing the session cache.
  static uint32_t CalculateSessionFlags(bool load_balance_bypass, bool cache_bypass,
                                        bool encrypted);
  // The record QOpenSession gets: the token record when a token was set up, the credential
  // record for kind 128, else the user/password record.
  const void *GetAuthData(uint32_t *data_len) const;

  int Connect();
  int Connect(const char *hsm_address, const char *user_name, const char *user_pwd,
              bool load_balance_bypass, bool cache_bypass, bool encrypted);
  int ConnectAnonymous(const char *hsm_address, bool load_balance_bypass, bool cache_bypass,
                       bool encrypted);
  int Connect(const AUTH_ATOKEN &atoken, bool load_balance_bypass, bool cache_bypass,
              bool encrypted);
  // Closes the session (physical: the connection too, flag 8) and forgets it even when closing
  // failed. A borrowed session is only forgotten.
  int Disconnect(bool physical);
  // Forgets the session without closing it.
  void Detach();

  HSESSIONCTX GetSession() const { return session_; }
  bool IsConnected() const { return session_ != nullptr; }
  uint32_t GetConnType() const { return conn_type_; }
  uint32_t GetSessionFlags() const { return session_flags_; }

  static const char *GetErrorDesc(int ret_code);
  static void Free(void *buffer);
  // 1 exportable, 4 temporary, 5 both.
  static uint32_t CalcKeyAttributes(bool is_exportable, bool is_temporary);

  // Handles.
  int GetKeyHandle(const char *key_name, HKEYCTX *key_handle);
  int GetObjectHandle(const char *object_name, HKEYCTX *object_ctx);
  // Built from the object's full name without a round trip; object_name is not used.
  int GetObjectHandleOffline(const char *object_name, const char *key_info, HKEYCTX *object_ctx);
  int DestroyObjectHandle(HKEYCTX object_ctx, bool remove_from_hsm);
  int DestroyKeyHandle(HKEYCTX key_handle, bool remove_from_hsm = false);

  // Objects and keys.
  int GetObjType(const char *object_name, uint32_t *key_type);
  int HasKey(const char *object_name);  // 0: the object exists
  int GetObjStats(const char *object_name, QL_OBJ_STATS *stats);
  int GetObjStats(HKEYCTX obj, QL_OBJ_STATS *stats);
  int GetObjId(HKEYCTX object_ctx, std::string *object_id);
  int GetObjDwordParam(HKEYCTX object_ctx, uint32_t option, uint32_t *value);
  int GetObjFlags(HKEYCTX object_ctx, uint32_t *data);
  int GetKeyAlgId(HKEYCTX key_handle, uint32_t *alg_id);
  int ExportKey(const char *key_id, const char *kek_id, uint32_t type, ByteVector *key_data);
  int ExportKey(HKEYCTX key, HKEYCTX kek, uint32_t type, ByteVector *key_data);
  int ExportPublicKey(const char *priv_key, ByteVector *pub_key);
  int ExportPublicKey(HKEYCTX priv_handle, ByteVector *pub_key);
  int ExportPlaintextKey(const char *key_id, ByteVector *key_data);
  int ExportPlaintextKey(HKEYCTX key, ByteVector *key_data);
  int ImportKey(const ByteVector &key, const char *key_id, HKEYCTX kek_ctx, uint32_t blob_type,
                uint32_t alg_id, uint32_t flags, HKEYCTX *key_ctx);
  int ImportPublicKey(const ByteVector &pub_key, const char *key_id, uint32_t alg_id,
                      uint32_t flags, HKEYCTX *pub_key_handle);
  int ImportHSMPublicKey(const ByteVector &pub_key, const char *key_id, uint32_t alg_id,
                         uint32_t flags, HKEYCTX *pub_key_handle);
  // A handle to a public-key object made from the private key's public part.
  int GetPublicKey(HKEYCTX priv_handle, HKEYCTX *pub_handle);
  int ExportPkcs8(const char *id, const char *pwd, unsigned char **data, uint32_t *data_len);
  int ExportPkcs8(const char *id, const char *pwd, ByteVector *data);
  int ReadObject(const char *object_name, ByteVector *object_data);
  int SetKeyParam(HKEYCTX key_handle, uint32_t option, const void *data, uint32_t data_len);
  int SetKeyBlockStatus(const char *key_name, bool blocked);
  int BlockKey(const char *key_name) { return SetKeyBlockStatus(key_name, true); }
  int UnblockKey(const char *key_name) { return SetKeyBlockStatus(key_name, false); }
  int RemoveObject(const char *key_name);
  int GenerateKey(const char *key_name, uint32_t alg_id, bool exportable, bool temporary,
                  HKEYCTX *key_handle);
  int GenerateKey(const char *key_name, uint32_t alg_id, bool exportable, bool temporary);
  int GenerateKey(const char *key_name, uint32_t alg_id, uint32_t flags, HKEYCTX *key_handle);
  int GenRandomData(ByteVector *data, uint32_t data_len);
  int ListObjects(std::vector<std::string> *obj_list);

  // Users.
  int CreateUser(const char *user, const char *pwd, uint32_t auth_mask);
  // With force_creation an existing user is removed and created again.
  int CreateUser(const char *user, const char *pwd, uint32_t auth_mask, bool force_creation);
  int RemoveUser(const char *user);
  int ListUsers(std::vector<std::string> *users_list);
  int GetUserAcl(const char *user, uint32_t *acl);
  int SetUserAcl(const char *user, uint32_t acl);
  int SetUserPassword(const char *pwd);
  int SetUserParam(uint32_t param, const void *data, uint32_t data_len);
  int GetUserParam(uint32_t param, void *data, uint32_t *data_len);
  int GetUserObjCount(uint32_t *count);
  int BlockUser(const char *user);
  int UnblockUser(const char *user);

  // HSM.
  int GetHsmOpMode(uint32_t *op_mode);
  int GetLogEvents(PQL_LOG_EVENT_CALLBACK cb, void *param);

  // Cryptography.
  int SignHash(const char *key_name, uint32_t padding, const unsigned char *hash,
               uint32_t hash_size, uint32_t hash_alg, ByteVector *signature, uint32_t flags = 0);
  int SignHash(const char *key_name, uint32_t padding, const unsigned char *hash,
               uint32_t hash_size, uint32_t hash_alg, unsigned char *signature,
               uint32_t *signature_len, uint32_t flags = 0);
  // Sets mode, padding and (when given) the IV on the handle, then encrypts data in place; the
  // vector grows to the output's length.
  int Encrypt(HKEYCTX key_handle, const ByteVector *iv, uint32_t mode, uint32_t padding, bool final,
              uint32_t flags, ByteVector *data);
  int Encrypt(const char *key_id, const ByteVector *iv, uint32_t mode, uint32_t padding, bool final,
              uint32_t flags, ByteVector *data);
  int Decrypt(HKEYCTX key_handle, const ByteVector *iv, uint32_t mode, uint32_t padding, bool final,
              uint32_t flags, ByteVector *data);
  int Decrypt(const char *key_id, const ByteVector *iv, uint32_t mode, uint32_t padding, bool final,
              uint32_t flags, ByteVector *data);
  int EncryptRSA(HKEYCTX key_handle, uint32_t padding, unsigned char *data, uint32_t *data_len,
                 uint32_t buff_len);
  int DecryptRSA(HKEYCTX key_handle, uint32_t padding, unsigned char *data, uint32_t *data_len);

  // Metadata and maps.
  int GetPKCS11Map(const char *map_name, QL_PKCS11_MAP *pkcs11_map);
  int ManageObjMetadata(uint32_t op, const char *obj_name, HOBJMETACTX in_meta,
                        HOBJMETACTX out_meta, uint32_t param);
  int UpdateObjMetadata(const char *obj_name, HOBJMETACTX in_meta, uint32_t param);
  int GetObjMetadataJson(const char *id, uint32_t type, std::string *json);
  int SetObjMetadataJson(const char *id, const std::string &json);
  int SetObjMetadataJson(const char *id, const char *json, uint32_t json_len);

  // Blockchain keys.
  int BchainCreateXPrv(const char *id, uint32_t type, const unsigned char *data, uint32_t data_len,
                       bool is_exportable, bool is_temporary);
  // A BIP32 master of a seed; version names the network (a testnet xprv or xpub version: type
  // 2, anything else: type 1).
  int BchainCreateXPrvBip32(const char *id, uint32_t version, const unsigned char *seed,
                            uint32_t seed_len, bool is_exportable, bool is_temporary);
  int BchainCreateXPrvBtcMinikey(const char *id, const char *minikey, bool is_exportable,
                                 bool is_temporary);
  int BchainCreateBip32Ckd(const char *par_id, const char *dst_id, uint32_t version, uint32_t index,
                           bool is_exportable, bool is_temporary, QL_BCHAIN_KEY_INFO *key_info);
  int BchainGetAddress(const char *pk_id, uint32_t type, uint32_t version, const char *hrp,
                       std::string *address);
  int BchainVerify(uint32_t type, uint32_t hash_mode, const ByteVector &hash, const ByteVector &sig,
                   uint32_t pbk_type, const ByteVector &pbk);
  int BchainRecoverPbk(uint32_t type, uint32_t hash_mode, const ByteVector &hash,
                       const ByteVector &sig, ByteVector *pbk);
  int BchainSignHash(const char *pk_id, uint32_t type, uint32_t hash_mode, const ByteVector &hash,
                     ByteVector *sig);
  int BchainSignData(const char *pk_id, uint32_t type, uint32_t hash_mode, const ByteVector &data,
                     ByteVector *sig);
  int BchainHashData(uint32_t mode, const ByteVector &data, ByteVector *hash);
  int BchainGetKeyInfo(const char *id, QL_BCHAIN_KEY_INFO *info);
  int BchainGetPubKey(const char *id, uint32_t type, ByteVector *data);
  int BchainExportPk(const char *id, uint32_t format, uint32_t version, bool is_compressed,
                     ByteVector *data);
  int BchainImportPk(const char *id, uint32_t format, uint32_t attr, const ByteVector &data);
  int BchainImportPk(const char *id, uint32_t format, bool is_exportable, bool is_temporary,
                     const ByteVector &data);

  // Secret sharing.
  int MofNSplit(uint32_t m, uint32_t n, const ByteVector &secret, std::vector<ByteVector> *parts);
  int MofNRecover(const std::vector<ByteVector> &parts, ByteVector *secret);
  int ByokExport(const char *id, const char *kek, uint32_t type, const ByteVector &data,
                 ByteVector *out_data);
  int SKeepNewSecret(const char *id, uint32_t sec_level, uint32_t auth_type);
  int SKeepRemoveSecret(const char *id, uint32_t sec_level, uint32_t auth_type);
  int SKeepSplitSecret(const char *id, uint32_t sec_level, uint32_t auth_type, uint32_t m,
                       uint32_t n, std::vector<ByteVector> *shares);
  int SKeepProbeSecret(const char *id, uint32_t *ret);
  int SKeepMatchSecret(const char *id, const std::vector<ByteVector> &shares);
  int SKeepRecoverSecret(const char *id, const std::vector<ByteVector> &shares, uint32_t *ret);
  int SKeepCalcShareCks(const ByteVector &share, uint32_t *ret);

 private:
  void ResetState();

  uint32_t conn_type_ = 0;
  AUTH_PWD_EX auth_pwd_{};
  AUTH_ATOKEN auth_atoken_{};
  AUTH_WIN_CREDENTIAL auth_win_credential_{};
  bool is_atoken_ = false;
  HSESSIONCTX session_ = nullptr;
  bool no_disconnect_ = false;
  uint32_t session_flags_ = 0;
};

// An object-metadata record of the library; released by DestroyObjMetadata or the destructor.
class ObjMetadata {
 public:
  ObjMetadata() = default;
  ~ObjMetadata();
  ObjMetadata(const ObjMetadata &) = delete;
  ObjMetadata &operator=(const ObjMetadata &) = delete;

  int Init(uint32_t param);
  int Set(uint32_t option, const void *option_data, uint32_t option_data_len, uint32_t param);
  int Get(uint32_t option, void *option_data, uint32_t *option_data_len, uint32_t param);
  int DestroyObjMetadata(HOBJMETACTX *meta, uint32_t param);
  HOBJMETACTX GetCtx() const { return meta_ctx_; }

 private:
  HOBJMETACTX meta_ctx_ = nullptr;
};
