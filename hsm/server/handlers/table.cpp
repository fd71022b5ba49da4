// The request table: which handler serves which request kind. One row per request.
#include <array>

#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

namespace {

struct Row {
  pb::Request::BodyCase kind;
  Handler handler;
};

using R = pb::Request;

constexpr Row kRows[] = {
    // users and logins
    {R::kLogin, Login},
    {R::kLogout, Logout},
    {R::kCreateUser, CreateUser},
    {R::kRemoveUser, RemoveUser},
    {R::kListUsers, ListUsers},
    {R::kSetUserParam, SetUserParam},
    {R::kGetUserParam, GetUserParam},
    {R::kGetUserAcl, GetUserAcl},
    {R::kManageAtoken, ManageToken},
    {R::kManageAtokenCache, ManageTokenCache},
    // objects and files
    {R::kListObjs, ListObjects},
    {R::kRemoveObj, RemoveObject},
    {R::kRenameObj, RenameObject},
    {R::kGetObjInfo, GetObjectInfo},
    {R::kReadFile, ReadFile},
    {R::kWriteFile, WriteFile},
    {R::kGetObjMetadataJson, GetObjectMetadata},
    {R::kSetObjMetadataJson, SetObjectMetadata},
    // keys
    {R::kGenerateKey, GenerateKey},
    {R::kOpenKey, OpenKey},
    {R::kImportKey, ImportKey},
    {R::kExportKey, ExportKey},
    {R::kDestroyKey, DestroyKey},
    {R::kSetKeyParam, SetKeyParam},
    {R::kGetKeyParam, GetKeyParam},
    {R::kPkcs8Export, Pkcs8Export},
    {R::kPkcs8Import, Pkcs8Import},
    {R::kGenerateKeyMaterial, GenerateKeyMaterial},
    {R::kGenEcdhKey, GenEcdhKey},
    // hashes
    {R::kCreateHash, CreateHash},
    {R::kHashData, HashData},
    {R::kGetHashValue, GetHashValue},
    {R::kDestroyHash, DestroyHash},
    // signatures and ciphers
    {R::kSignHash, SignHash},
    {R::kVerifySignature, VerifySignature},
    {R::kBatchSign, BatchSign},
    {R::kCipher, Cipher},
    // the HSM itself
    {R::kGetSessionParam, GetSessionParam},
    {R::kAdmOperation, AdmOperation},
    {R::kGetHsmInfo, GetHsmInfo},
    {R::kGetNetInfo, GetNetInfo},
    {R::kListModules, ListModules},
    {R::kGetStatInfo, GetStatInfo},
    {R::kGetStatLogSize, GetStatLogSize},
    {R::kGetTlsCert, GetTlsCert},
    {R::kGetRandom, GetRandom},
    {R::kBackup, Backup},
    {R::kUpackPush, PushUpdatePackage},
    {R::kIpFilter, IpFilter},
    // the audit log
    {R::kLogOpen, LogOpen},
    {R::kLogPage, LogPage},
    {R::kTruncateLog, TruncateLog},
    {R::kFollowLog, FollowLog},
    // certificates and signing identities
    {R::kImportPkcs12, ImportPkcs12},
    {R::kExportPkcs12, ExportPkcs12},
    {R::kAssociatePkcs11Key, AssociatePkcs11Key},
    {R::kGeneratePkcs10, GeneratePkcs10},
    {R::kPkcs7Sign, Pkcs7Sign},
    // payment
    {R::kGenerateCvv, GenerateCvv},
    {R::kVerifyCvv, VerifyCvv},
    {R::kGeneratePin, GeneratePin},
    {R::kVerifyPinBlock, VerifyPinBlock},
    {R::kTranslatePinBlock, TranslatePinBlock},
    {R::kGenerateDukpt, GenerateDukpt},
    {R::kExportKeyBlock, ExportKeyBlock},
    {R::kImportKeyBlock, ImportKeyBlock},
    {R::kEftdAuthorize, EftdAuthorize},
    {R::kEftdInfo, EftdInfo},
    {R::kEftdReset, EftdReset},
    {R::kEftdSetConf, EftdSetConf},
    // the tokenisation vault
    {R::kVaultGenToken, VaultGenToken},
    {R::kVaultGetData, VaultGetData},
    // OATH token blobs
    {R::kOathCheckBlob, OathCheckBlob},
    {R::kOathBlobInfo, OathBlobInfo},
    // OATH tokens of users
    {R::kAssignToken, AssignToken},
    {R::kUnassignToken, UnassignToken},
    {R::kOathResync, OathResync},
    // M-of-N sharing
    {R::kMofnSplit, MofNSplit},
    {R::kMofnRecover, MofNRecover},
    // blockchain signatures without a key
    {R::kBchainVerify, BchainVerify},
    {R::kBchainRecoverPbk, BchainRecoverPbk},
    // SPB secure messages
    {R::kSpbGenerateKey, SpbGenerateKey},
    {R::kSpbGenerateCsr, SpbGenerateCsr},
    {R::kSpbImportCertificate, SpbImportCertificate},
    {R::kSpbImportPkcs12, SpbImportPkcs12},
    {R::kSpbActivateCertificate, SpbActivateCertificate},
    {R::kSpbEncodeInit, SpbEncodeInit},
    {R::kSpbEncodeCont, SpbEncodeCont},
    {R::kSpbEncodeEnd, SpbEncodeEnd},
    {R::kSpbDecodeInit, SpbDecodeInit},
    {R::kSpbDecodeCont, SpbDecodeCont},
    {R::kSpbDecodeEnd, SpbDecodeEnd},
    // XML signatures
    {R::kVerifyCertSignature, VerifyCertSignature},
    // secret keeping
    {R::kSkeepNew, SKeepNew},
    {R::kSkeepRemove, SKeepRemove},
    {R::kSkeepSplit, SKeepSplit},
    {R::kSkeepProbe, SKeepProbe},
    {R::kSkeepMatch, SKeepMatch},
    {R::kSkeepRecover, SKeepRecover},
    // key export for cloud imports
    {R::kByokExport, ByokExport},
    // blockchain keys
    {R::kBchainCreateXprv, BchainCreateXprv},
    {R::kBchainDeriveChild, BchainDeriveChild},
    {R::kBchainKeyInfo, BchainKeyInfo},
    {R::kBchainGetPubkey, BchainGetPubKey},
    {R::kBchainGetAddress, BchainGetAddress},
    {R::kBchainSignHash, BchainSignHash},
    {R::kBchainExportPk, BchainExportPk},
    {R::kBchainImportPk, BchainImportPk},
    // JSON Web Signatures
    {R::kJwsSign, JwsSign},
    {R::kJwsCheck, JwsCheck},
    // PIX requests over mutual TLS
    {R::kPixRequest, PixRequest},
    // metadata records, PKCS#11 maps and information
    {R::kManageObjRecords, ManageObjRecords},
    {R::kGenerateMap, GenerateMap},
    {R::kRemoveMap, RemoveMap},
    {R::kGetMap, GetMap},
    {R::kGetP11Info, GetP11Info},
    {R::kListP11Mechanisms, ListP11Mechanisms},
    // tools run by the HSM
    {R::kHsmTool, HsmTool},
    // directory binding
    {R::kDirectoryBind, DirectoryBind},
    {R::kDirectoryUnbind, DirectoryUnbind},
};

// Request kinds are the body's field numbers, all below this.
constexpr size_t kMaxKind = 512;

constexpr std::array<Handler, kMaxKind> MakeIndex() {
  std::array<Handler, kMaxKind> index{};
  for (const Row &row : kRows) {
    if (static_cast<size_t>(row.kind) >= kMaxKind) throw "a request kind past the index";
    index[static_cast<size_t>(row.kind)] = row.handler;
  }
  return index;
}

constexpr std::array<Handler, kMaxKind> kIndex = MakeIndex();

}  // namespace

Handler Find(pb::Request::BodyCase kind) {
  size_t k = static_cast<size_t>(kind);
  return k < kMaxKind ? kIndex[k] : nullptr;
}

}  // namespace qlhsm::server::handlers
