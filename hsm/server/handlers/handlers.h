// The daemon's request handlers: one file per request family, each handler turning one message
// into one engine call and its answer back into a response. Handlers hold no rules of their own:
// every check (session, arguments, right, existence, state) is the engine's.
//
// A new request: its handler in its family's file, declared below, and its row in table.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "engine/engine.h"
#include "qlhsm.pb.h"
#include "server/request_handler.h"

namespace qlhsm::server::handlers {

namespace pb = qlhsm::v1;

// What a handler works with: the engine, the connection's session and state, the daemon's
// settings.
struct Call {
  Engine &engine;
  sessions::Session &session;
  ConnectionState &state;
  const HandlerConfig &config;
};

using Handler = void (*)(const pb::Request &request, Call &call, pb::Response *response);

// The handler of a request kind, or null for a kind nothing serves.
Handler Find(pb::Request::BodyCase kind);

// --- answers ---
void SetStatus(const Status &st, pb::Response *r);
// On success `fill` writes the value into the response; on failure the status goes out.
template <typename T, typename Fill>
void Reply(const Result<T> &res, pb::Response *r, Fill &&fill) {
  if (!res.ok()) return SetStatus(res.status(), r);
  fill(res.value());
  SetStatus(Status::Ok(), r);
}
// An empty success body (the library checks that one is there).
void ReplyEmpty(const Status &st, pb::Response *r);

secure::Bytes ToBytes(const std::string &s);
std::string ToString(const secure::Bytes &b);
KeyArg ToKeyArg(const pb::KeyRef &ref);
void SetKeyHandle(const KeyDesc &k, pb::Response *r);
void SetNames(const std::vector<std::string> &names, pb::Response *r);
// The most bytes of payload one answer may carry.
uint32_t FramePayload(const Call &c);

// --- users and logins (users.cpp) ---
void Login(const pb::Request &, Call &, pb::Response *);
void Logout(const pb::Request &, Call &, pb::Response *);
void CreateUser(const pb::Request &, Call &, pb::Response *);
void RemoveUser(const pb::Request &, Call &, pb::Response *);
void ListUsers(const pb::Request &, Call &, pb::Response *);
void SetUserParam(const pb::Request &, Call &, pb::Response *);
void GetUserParam(const pb::Request &, Call &, pb::Response *);
void GetUserAcl(const pb::Request &, Call &, pb::Response *);
void ManageToken(const pb::Request &, Call &, pb::Response *);
void ManageTokenCache(const pb::Request &, Call &, pb::Response *);

// --- objects and files (objects.cpp) ---
void ListObjects(const pb::Request &, Call &, pb::Response *);
void RemoveObject(const pb::Request &, Call &, pb::Response *);
void RenameObject(const pb::Request &, Call &, pb::Response *);
void GetObjectInfo(const pb::Request &, Call &, pb::Response *);
void ReadFile(const pb::Request &, Call &, pb::Response *);
void WriteFile(const pb::Request &, Call &, pb::Response *);
void GetObjectMetadata(const pb::Request &, Call &, pb::Response *);
void SetObjectMetadata(const pb::Request &, Call &, pb::Response *);

// --- keys (keys.cpp) ---
void GenerateKey(const pb::Request &, Call &, pb::Response *);
void OpenKey(const pb::Request &, Call &, pb::Response *);
void ImportKey(const pb::Request &, Call &, pb::Response *);
void ExportKey(const pb::Request &, Call &, pb::Response *);
void DestroyKey(const pb::Request &, Call &, pb::Response *);
void SetKeyParam(const pb::Request &, Call &, pb::Response *);
void GetKeyParam(const pb::Request &, Call &, pb::Response *);
void Pkcs8Export(const pb::Request &, Call &, pb::Response *);
void Pkcs8Import(const pb::Request &, Call &, pb::Response *);
void GenerateKeyMaterial(const pb::Request &, Call &, pb::Response *);
void GenEcdhKey(const pb::Request &, Call &, pb::Response *);

// --- hashes (hashes.cpp) ---
void CreateHash(const pb::Request &, Call &, pb::Response *);
void HashData(const pb::Request &, Call &, pb::Response *);
void GetHashValue(const pb::Request &, Call &, pb::Response *);
void DestroyHash(const pb::Request &, Call &, pb::Response *);

// --- signatures and ciphers (crypto.cpp) ---
void SignHash(const pb::Request &, Call &, pb::Response *);
void VerifySignature(const pb::Request &, Call &, pb::Response *);
void BatchSign(const pb::Request &, Call &, pb::Response *);
void Cipher(const pb::Request &, Call &, pb::Response *);

// --- the HSM itself: session, information, statistics, administration (system.cpp) ---
void GetSessionParam(const pb::Request &, Call &, pb::Response *);
void AdmOperation(const pb::Request &, Call &, pb::Response *);
void GetHsmInfo(const pb::Request &, Call &, pb::Response *);
void GetNetInfo(const pb::Request &, Call &, pb::Response *);
void ListModules(const pb::Request &, Call &, pb::Response *);
void GetStatInfo(const pb::Request &, Call &, pb::Response *);
void GetStatLogSize(const pb::Request &, Call &, pb::Response *);
void GetTlsCert(const pb::Request &, Call &, pb::Response *);
void GetRandom(const pb::Request &, Call &, pb::Response *);
void Backup(const pb::Request &, Call &, pb::Response *);
void PushUpdatePackage(const pb::Request &, Call &, pb::Response *);
void IpFilter(const pb::Request &, Call &, pb::Response *);

// --- the audit log (logs.cpp) ---
void LogOpen(const pb::Request &, Call &, pb::Response *);
void LogPage(const pb::Request &, Call &, pb::Response *);
void TruncateLog(const pb::Request &, Call &, pb::Response *);
void FollowLog(const pb::Request &, Call &, pb::Response *);
// --- certificates and signing identities (pki.cpp) ---
void ImportPkcs12(const pb::Request &, Call &, pb::Response *);
void ExportPkcs12(const pb::Request &, Call &, pb::Response *);
void AssociatePkcs11Key(const pb::Request &, Call &, pb::Response *);
void GeneratePkcs10(const pb::Request &, Call &, pb::Response *);
void Pkcs7Sign(const pb::Request &, Call &, pb::Response *);
// --- XML signatures: the signer's check (xmlsig.cpp) ---
void VerifyCertSignature(const pb::Request &, Call &, pb::Response *);
// --- JSON Web Signatures (jws.cpp) ---
void JwsSign(const pb::Request &, Call &, pb::Response *);
void JwsCheck(const pb::Request &, Call &, pb::Response *);

// --- PIX requests over mutual TLS (pix.cpp) ---
void PixRequest(const pb::Request &, Call &, pb::Response *);
// --- payment: card values, PINs, DUKPT, key blocks, the EFT daemon (payment.cpp) ---
void GenerateCvv(const pb::Request &, Call &, pb::Response *);
void VerifyCvv(const pb::Request &, Call &, pb::Response *);
void GeneratePin(const pb::Request &, Call &, pb::Response *);
void VerifyPinBlock(const pb::Request &, Call &, pb::Response *);
void TranslatePinBlock(const pb::Request &, Call &, pb::Response *);
void GenerateDukpt(const pb::Request &, Call &, pb::Response *);
void ExportKeyBlock(const pb::Request &, Call &, pb::Response *);
void ImportKeyBlock(const pb::Request &, Call &, pb::Response *);
void EftdAuthorize(const pb::Request &, Call &, pb::Response *);
void EftdInfo(const pb::Request &, Call &, pb::Response *);
void EftdReset(const pb::Request &, Call &, pb::Response *);
void EftdSetConf(const pb::Request &, Call &, pb::Response *);
// --- the tokenisation vault (vault.cpp) ---
void VaultGenToken(const pb::Request &, Call &, pb::Response *);
void VaultGetData(const pb::Request &, Call &, pb::Response *);

// --- SPB secure messages (spb.cpp) ---
void SpbGenerateKey(const pb::Request &, Call &, pb::Response *);
void SpbGenerateCsr(const pb::Request &, Call &, pb::Response *);
void SpbImportCertificate(const pb::Request &, Call &, pb::Response *);
void SpbImportPkcs12(const pb::Request &, Call &, pb::Response *);
void SpbActivateCertificate(const pb::Request &, Call &, pb::Response *);
void SpbEncodeInit(const pb::Request &, Call &, pb::Response *);
void SpbEncodeCont(const pb::Request &, Call &, pb::Response *);
void SpbEncodeEnd(const pb::Request &, Call &, pb::Response *);
void SpbDecodeInit(const pb::Request &, Call &, pb::Response *);
void SpbDecodeCont(const pb::Request &, Call &, pb::Response *);
void SpbDecodeEnd(const pb::Request &, Call &, pb::Response *);

// --- OATH token blobs (oath.cpp) ---
void OathCheckBlob(const pb::Request &, Call &, pb::Response *);
void OathBlobInfo(const pb::Request &, Call &, pb::Response *);
// --- OATH tokens of users (oath.cpp) ---
void AssignToken(const pb::Request &, Call &, pb::Response *);
void UnassignToken(const pb::Request &, Call &, pb::Response *);
void OathResync(const pb::Request &, Call &, pb::Response *);
// --- M-of-N sharing (sharing.cpp) ---
void MofNSplit(const pb::Request &, Call &, pb::Response *);
void MofNRecover(const pb::Request &, Call &, pb::Response *);

// --- blockchain signatures without a key (bchain.cpp) ---
void BchainVerify(const pb::Request &, Call &, pb::Response *);
void BchainRecoverPbk(const pb::Request &, Call &, pb::Response *);
// --- blockchain keys (bchain.cpp) ---
void BchainCreateXprv(const pb::Request &, Call &, pb::Response *);
void BchainDeriveChild(const pb::Request &, Call &, pb::Response *);
void BchainKeyInfo(const pb::Request &, Call &, pb::Response *);
void BchainGetPubKey(const pb::Request &, Call &, pb::Response *);
void BchainGetAddress(const pb::Request &, Call &, pb::Response *);
void BchainSignHash(const pb::Request &, Call &, pb::Response *);
void BchainExportPk(const pb::Request &, Call &, pb::Response *);
void BchainImportPk(const pb::Request &, Call &, pb::Response *);

// --- secret keeping (skeep.cpp) ---
void SKeepNew(const pb::Request &, Call &, pb::Response *);
void SKeepRemove(const pb::Request &, Call &, pb::Response *);
void SKeepSplit(const pb::Request &, Call &, pb::Response *);
void SKeepProbe(const pb::Request &, Call &, pb::Response *);
void SKeepMatch(const pb::Request &, Call &, pb::Response *);
void SKeepRecover(const pb::Request &, Call &, pb::Response *);

// --- key export for cloud imports (byok.cpp) ---
void ByokExport(const pb::Request &, Call &, pb::Response *);

// --- metadata records, PKCS#11 maps and information (p11.cpp) ---
void ManageObjRecords(const pb::Request &, Call &, pb::Response *);
void GenerateMap(const pb::Request &, Call &, pb::Response *);
void RemoveMap(const pb::Request &, Call &, pb::Response *);
void GetMap(const pb::Request &, Call &, pb::Response *);
void GetP11Info(const pb::Request &, Call &, pb::Response *);
void ListP11Mechanisms(const pb::Request &, Call &, pb::Response *);

// --- tools run by the HSM (tools.cpp) ---
void HsmTool(const pb::Request &, Call &, pb::Response *);
// --- directory binding (directory.cpp) ---
void DirectoryBind(const pb::Request &, Call &, pb::Response *);
void DirectoryUnbind(const pb::Request &, Call &, pb::Response *);

}  // namespace qlhsm::server::handlers
