#include "engine/services/vault.h"

#include "crypto/algorithms.h"
#include "crypto/vault.h"
#include "engine/crypto_result.h"
#include "wire_values.h"

namespace qlhsm {

using cryptomap::FromCrypto;
using sessions::Session;
namespace vault = crypto::vault;

namespace {

constexpr size_t kMaxSecret = 4096;

std::string_view AuditName(const KeyArg &arg) {
  return arg.name.empty() ? std::string_view("-") : std::string_view(arg.name);
}

Status CheckTokenArgs(const VaultTokenArgs &a) {
  if (a.type != 1 && a.type != 2) return Status::Error(Code::kBadArgument, "token type is 1 or 2");
  if (a.mask_type > static_cast<uint32_t>(vault::CheckKind::kVoterId))
    return Status::Error(Code::kBadArgument, "unknown check kind");
  if (a.checksum > 1) return Status::Error(Code::kBadArgument, "token kind is 0 or 1");
  if (vault::Alphabet(a.representation).empty())
    return Status::Error(Code::kBadArgument, "bases are 10, 16, 26, 52 and 62");
  if (a.secret.empty() || a.secret.size() > kMaxSecret)
    return Status::Error(Code::kBadLength, "a secret is 1 to 4096 bytes");
  return Status::Ok();
}

crypto::ByteView View(const std::string &s) {
  return {reinterpret_cast<const uint8_t *>(s.data()), s.size()};
}

}  // namespace

Result<crypto::KeyPtr> VaultService::VaultKey(const KeysService::KeyTarget &target) {
  Result<KeysService::UsableKey> k = keys_.Usable(target);
  if (!k.ok()) return k.status();
  const crypto::KeyPtr &key = k->key;
  const std::string_view family = key->info().ossl_name ? key->info().ossl_name : "";
  if (key->kind() != crypto::KeyKind::kSymmetric || family.substr(0, 3) != "AES")
    return Status::Error(Code::kBadKeyUsage, "the vault key is an AES key");
  return key;
}

Result<VaultToken> VaultService::GenToken(Session &s, const KeyArg &key,
                                          const VaultTokenArgs &args) {
  KeysService::KeyTarget target;
  Op op{"vault-gen-token", AuditName(key), KeysService::UseRight(s, key), AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(CheckTokenArgs(args));
        return keys_.Target(s, key, &target);
      },
      [&](const users::UserInfo &) -> Result<VaultToken> {
        Result<crypto::KeyPtr> k = VaultKey(target);
        if (!k.ok()) return k.status();
        const crypto::ByteView key_bytes = (*k)->secret();
        vault::TokenSource source = vault::TokenSource::Random();
        if (args.checksum == 1) {
          crypto::Result<vault::TokenSource> keyed =
              vault::TokenSource::Keyed(key_bytes, View(args.secret));
          if (!keyed.ok()) return FromCrypto(keyed.status());
          source = std::move(keyed.value());
        }
        crypto::Result<std::string> token =
            args.type == 1 ? vault::FormatPreservingToken(
                                 args.secret, static_cast<vault::CheckKind>(args.mask_type),
                                 args.representation, source)
                           : vault::TextToken(args.representation, source);
        if (!token.ok()) return FromCrypto(token.status());
        vault::VaultRecord record;
        record.type = static_cast<uint8_t>(args.type);
        record.mask_type = static_cast<uint8_t>(args.mask_type);
        record.checksum = static_cast<uint8_t>(args.checksum);
        record.representation = static_cast<uint8_t>(args.representation);
        record.secret = args.secret;
        record.token = *token;
        crypto::Result<crypto::Bytes> blob = vault::SealVaultBlob(key_bytes, record);
        if (!blob.ok()) return FromCrypto(blob.status());
        return VaultToken{std::move(token.value()), secure::Bytes(blob->begin(), blob->end())};
      });
}

Result<std::string> VaultService::GetData(Session &s, const KeyArg &key, uint32_t what,
                                          const secure::Bytes &blob, uint32_t flags) {
  KeysService::KeyTarget target;
  Op op{"vault-get-data", AuditName(key), KeysService::UseRight(s, key), AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (what != 1 && what != 2)
          return Status::Error(Code::kBadArgument, "ask for the secret (1) or the token (2)");
        if ((flags & ~qlproto::kVaultMasked) != 0)
          return Status::Error(Code::kBadFlags, "unknown vault flags");
        if (blob.empty()) return Status::Error(Code::kBadArgument, "empty vault blob");
        return keys_.Target(s, key, &target);
      },
      [&](const users::UserInfo &) -> Result<std::string> {
        Result<crypto::KeyPtr> k = VaultKey(target);
        if (!k.ok()) return k.status();
        crypto::Result<vault::VaultRecord> record =
            vault::OpenVaultBlob((*k)->secret(), crypto::ByteView(blob.data(), blob.size()));
        // A blob cut short or with a changed header is as foreign as one with a changed body.
        if (!record.ok() && record.status().code() == crypto::Code::kBadData)
          return Status::Error(Code::kBadTag, "the vault blob does not open under this key");
        if (!record.ok()) return FromCrypto(record.status());
        if (what == 2) return record->token;
        if (flags & qlproto::kVaultMasked)
          return vault::MaskSecret(record->secret,
                                   static_cast<vault::CheckKind>(record->mask_type));
        return record->secret;
      });
}

}  // namespace qlhsm
