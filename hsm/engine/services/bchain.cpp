#include "engine/services/bchain.h"

#include "crypto/bchain.h"
#include "engine/crypto_result.h"

namespace qlhsm {

using access::Request;
using cryptomap::FromCrypto;
using sessions::Session;
namespace bc = crypto::bchain;

namespace {

// The argument step shared by verification and recovery: a known signature type and hash mode,
// and a digest of 32 bytes (HASH160's 20 bytes are not a digest one signs).
Status SignatureArgs(const BchainSignatureArgs &sig) {
  if (sig.type < qlproto::kBchainSigCompact || sig.type > qlproto::kBchainSigSchnorr) {
    return Status::Error(Code::kBadAlgorithm, "unknown signature type");
  }
  if (sig.hash_mode < qlproto::kBchainHashSha256 || sig.hash_mode > qlproto::kBchainHashMessage) {
    return Status::Error(Code::kBadAlgorithm, "unknown hash mode");
  }
  if (sig.hash_mode == qlproto::kBchainHashHash160 || sig.hash.size() != 32) {
    return Status::Error(Code::kBadLength, "a digest of 32 bytes");
  }
  return Status::Ok();
}

// The length each public key form has.
size_t PublicKeyLength(uint32_t form) {
  switch (form) {
    case qlproto::kBchainPbkCompressed:
      return 33;
    case qlproto::kBchainPbkUncompressed:
      return 65;
    case qlproto::kBchainPbkXOnly:
      return 32;
    default:
      return 0;
  }
}

}  // namespace

Status BchainService::Verify(Session &s, const BchainSignatureArgs &sig, uint32_t pubkey_type,
                             const secure::Bytes &pubkey) {
  auto args = [&] {
    if (Status st = SignatureArgs(sig); !st.ok()) return st;
    const size_t length = PublicKeyLength(pubkey_type);
    if (length == 0) return Status::Error(Code::kBadAlgorithm, "unknown public key form");
    // An x-only key carries no parity: only BIP340 signatures are checked against one.
    if (pubkey.size() != length ||
        (pubkey_type == qlproto::kBchainPbkXOnly && sig.type != qlproto::kBchainSigSchnorr)) {
      return Status::Error(Code::kBchainBadEncoding, "the public key does not fit its form");
    }
    return Status::Ok();
  };
  return guard_.Run(s, Op{"bchain-verify", "-", Request::kFree, AuditMode::kRefusal}, args,
                    [&](const users::UserInfo &) -> Status {
                      crypto::Status st = bc::VerifyDigest(
                          crypto::ByteView(pubkey.data(), pubkey.size()),
                          crypto::ByteView(sig.hash.data(), sig.hash.size()),
                          static_cast<bc::SignatureType>(sig.type),
                          crypto::ByteView(sig.signature.data(), sig.signature.size()));
                      if (st.code() == crypto::Code::kBadArgument) {
                        return Status::Error(Code::kBchainBadEncoding, "not a curve point");
                      }
                      return FromCrypto(st);
                    });
}

Result<secure::Bytes> BchainService::RecoverPublicKey(Session &s, const BchainSignatureArgs &sig) {
  auto args = [&] {
    if (Status st = SignatureArgs(sig); !st.ok()) return st;
    if (sig.type != qlproto::kBchainSigCompact) {
      return Status::Error(Code::kBadAlgorithm, "only compact signatures carry a recovery id");
    }
    return Status::Ok();
  };
  return guard_.Run(s, Op{"bchain-recover-pbk", "-", Request::kFree, AuditMode::kRefusal}, args,
                    [&](const users::UserInfo &) -> Result<secure::Bytes> {
                      crypto::Result<crypto::Bytes> key = bc::RecoverPublicKey(
                          crypto::ByteView(sig.hash.data(), sig.hash.size()),
                          crypto::ByteView(sig.signature.data(), sig.signature.size()));
                      if (!key.ok()) return FromCrypto(key.status());
                      return std::move(key.value());
                    });
}

}  // namespace qlhsm
