#include "engine/services/byok.h"

#include <string>

#include "crypto/algorithms.h"
#include "crypto/cipher.h"
#include "crypto/key.h"
#include "engine/crypto_result.h"
#include "wire_values.h"

namespace qlhsm {

using cryptomap::FromCrypto;
using sessions::Session;

namespace {

constexpr size_t kMinKekBits = 2048;

}  // namespace

Result<secure::Bytes> ByokService::Export(Session &s, std::string_view key, std::string_view kek,
                                          uint32_t type, const secure::Bytes &label) {
  const KeyArg key_arg{0, std::string(key)};
  const KeyArg kek_arg{0, std::string(kek)};
  KeysService::KeyTarget target, wrapping;
  Op op{"byok-export", key, KeysService::UseRight(s, key_arg), AuditMode::kRead,
        KeysService::UseRight(s, kek_arg)};
  return guard_.Run(
      s, op,
      [&] {
        QL_RETURN_IF_ERROR(keys_.Target(s, key_arg, &target));
        QL_RETURN_IF_ERROR(keys_.Target(s, kek_arg, &wrapping));
        if (type != kByokRsaAesKeyWrap && type != kByokRsaOaep)
          return Status::Error(Code::kBadArgument, "type: 1 RSA-AES key wrap, 2 RSA-OAEP");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<secure::Bytes> {
        Result<KeysService::UsableKey> k = keys_.Usable(target);
        if (!k.ok()) return k.status();
        Result<KeysService::UsableKey> w = keys_.Usable(wrapping);
        if (!w.ok()) return w.status();
        if (w->key->kind() != crypto::KeyKind::kRsa || w->key->length_bytes() * 8 < kMinKekBits)
          return Status::Error(Code::kBadKeyUsage, "the KEK is an RSA key of 2048 bits or more");
        if ((k->flags & qlproto::kKeyExportable) == 0)
          return Status::Error(Code::kNotExportable, "the key is not exportable");
        const crypto::ByteView label_view(label.data(), label.size());
        if (type == kByokRsaOaep) {
          if (!k->key->is_secret())
            return Status::Error(Code::kBadKeyUsage, "RSA-OAEP carries a symmetric key only");
          crypto::Result<crypto::Bytes> out =
              crypto::RsaOaepSha256Encrypt(*w->key, label_view, k->key->secret());
          if (!out.ok()) return FromCrypto(out.status());
          return secure::Bytes(out->begin(), out->end());
        }
        crypto::SecretBytes material;
        if (k->key->is_secret()) {
          const crypto::ByteView secret = k->key->secret();
          material.assign(secret.begin(), secret.end());
        } else {
          crypto::Result<crypto::SecretBytes> der = k->key->Pkcs8Der();
          if (!der.ok()) return Status::Error(Code::kBadKeyUsage, "a public key has no secret");
          material = std::move(der.value());
        }
        crypto::Result<crypto::SecretBytes> aes = crypto::RandomBytes(32);
        if (!aes.ok()) return FromCrypto(aes.status());
        crypto::Result<crypto::KeyPtr> aes_key =
            crypto::Key::FromSecret(crypto::alg::kAes256, crypto::ByteView(aes->data(), 32));
        if (!aes_key.ok()) return FromCrypto(aes_key.status());
        crypto::Result<crypto::Bytes> head =
            crypto::RsaOaepSha256Encrypt(*w->key, label_view, crypto::ByteView(aes->data(), 32));
        if (!head.ok()) return FromCrypto(head.status());
        crypto::Result<crypto::Bytes> tail =
            crypto::KeyWrap(*aes_key, true, crypto::ByteView(material.data(), material.size()));
        if (!tail.ok()) return FromCrypto(tail.status());
        secure::Bytes out(head->begin(), head->end());
        out.insert(out.end(), tail->begin(), tail->end());
        return out;
      });
}

}  // namespace qlhsm
