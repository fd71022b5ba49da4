// Hashes: MD5, SHA-1, SHA-2 and SHA-3 here with OpenSSL; HMAC and CMAC in the HSM, since they
// need a key; QL_ALG_IDFUNC keeps the message for EdDSA, which signs it whole.
#include "key_handle.h"

using namespace qlapi;

namespace qlapi {

namespace {

// A digest fetched from its provider once for the process (kept until exit): handed EVP_sha256()
// and the like, EVP_DigestInit_ex looks the implementation up again on every call.
const EVP_MD *Fetched(const EVP_MD *builtin) {
  EVP_MD *md = EVP_MD_fetch(nullptr, EVP_MD_get0_name(builtin), nullptr);
  return md ? md : builtin;
}

}  // namespace

const EVP_MD *LocalDigest(uint32_t algorithm) {
  static const EVP_MD
      *const md5 = Fetched(EVP_md5()),
             *const sha1 = Fetched(EVP_sha1()), *const sha224 = Fetched(EVP_sha224()),
             *const sha256 = Fetched(EVP_sha256()), *const sha384 = Fetched(EVP_sha384()),
             *const sha512 = Fetched(EVP_sha512()), *const sha3_224 = Fetched(EVP_sha3_224()),
             *const sha3_256 = Fetched(EVP_sha3_256()), *const sha3_384 = Fetched(EVP_sha3_384()),
             *const sha3_512 = Fetched(EVP_sha3_512());
  switch (algorithm) {
    case QL_ALG_MD5:
      return md5;
    case QL_ALG_SHA1:
      return sha1;
    case QL_ALG_SHA224:
      return sha224;
    case QL_ALG_SHA256:
      return sha256;
    case QL_ALG_SHA384:
      return sha384;
    case QL_ALG_SHA512:
      return sha512;
    case QL_ALG_SHA3_224:
      return sha3_224;
    case QL_ALG_SHA3_256:
      return sha3_256;
    case QL_ALG_SHA3_384:
      return sha3_384;
    case QL_ALG_SHA3_512:
      return sha3_512;
    default:
      return nullptr;
  }
}

Status HashValue(HashHandle &hash, std::string *value) {
  if (hash.set_value) {
    *value = *hash.set_value;
    return Status::Ok();
  }
  if (hash.algorithm == QL_ALG_IDFUNC) {
    *value = hash.message;
    return Status::Ok();
  }
  if (hash.md) {
    // Finish a copy, so the hash itself goes on; the copy's context is the calling thread's.
    thread_local std::unique_ptr<EVP_MD_CTX, EvpMdCtxDeleter> copy(EVP_MD_CTX_new());
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!copy || EVP_MD_CTX_copy_ex(copy.get(), hash.md.get()) != 1 ||
        EVP_DigestFinal_ex(copy.get(), md, &len) != 1) {
      return Status(QL_ERR_LIB_INTERNAL);
    }
    value->assign(reinterpret_cast<char *>(md), len);
    return Status::Ok();
  }
  pb::Request request;
  request.mutable_get_hash_value()->set_hash(hash.server);
  pb::Response response;
  Status st = AskCore(*hash.core, request, &response);
  if (!st.ok()) return st;
  if (!response.has_blob()) return Status(QL_ERR_PROTOCOL);
  *value = response.blob().data();
  return Status::Ok();
}

}  // namespace qlapi

namespace {

bool IsKeyedHash(uint32_t algorithm) {
  return (algorithm >= QL_ALG_HMAC_MD5 && algorithm <= QL_ALG_HMAC_SHA3_512) ||
         algorithm == QL_ALG_CMAC_AES || algorithm == QL_ALG_CMAC_DES;
}

HashHandle *HashOf(HHASHCTX h) {
  return AsHandle<HashHandle>(h, kHashMagic);
}

}  // namespace

extern "C" int QCreateHash(HSESSIONCTX hSession, uint32_t dwAlgId, HKEYCTX hKey, uint32_t dwFlags,
                           HHASHCTX *phHash) {
  return Guard([&] {
    if (phHash == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phHash = nullptr;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    auto core = CoreOf(hSession);
    if (!core) return QL_ERR_BAD_HANDLE;
    auto hash = std::make_unique<HashHandle>();
    hash->core = core;
    hash->algorithm = dwAlgId;
    if (const EVP_MD *md = LocalDigest(dwAlgId)) {
      hash->md.reset(EVP_MD_CTX_new());
      if (!hash->md || EVP_DigestInit_ex(hash->md.get(), md, nullptr) != 1) {
        return QL_ERR_LIB_INTERNAL;
      }
    } else if (IsKeyedHash(dwAlgId)) {
      KeyHandle *key = nullptr;
      uint64_t server = 0;
      if (hKey == nullptr) return QL_ERR_BAD_ARGUMENT;
      QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
      pb::Request request;
      request.mutable_create_hash()->set_algorithm(dwAlgId);
      SetKeyRef(request.mutable_create_hash()->mutable_key(), server);
      pb::Response response;
      QL_RETURN_CODE_IF_ERROR(AskCore(*key->core, request, &response));
      if (!response.has_number()) return QL_ERR_PROTOCOL;
      hash->server = response.number().value();
    } else if (dwAlgId != QL_ALG_IDFUNC) {
      return QL_ERR_BAD_ALGORITHM;
    }
    RegisterHandle(hash.get());
    *phHash = hash.release();
    return QL_OK;
  });
}

extern "C" int QHashData(HHASHCTX hHash, const unsigned char *pbData, uint32_t dwDataLen,
                         uint32_t dwFlags) {
  return Guard([&] {
    HashHandle *hash = HashOf(hHash);
    if (hash == nullptr) return QL_ERR_BAD_HANDLE;
    if ((pbData == nullptr && dwDataLen > 0) || dwFlags != 0) return QL_ERR_BAD_ARGUMENT;
    if (hash->set_value) {
      // A value set from outside ends that message; new data starts a fresh one.
      hash->set_value.reset();
      hash->message.clear();
      if (hash->md && EVP_DigestInit_ex(hash->md.get(), nullptr, nullptr) != 1) {
        return QL_ERR_LIB_INTERNAL;
      }
    }
    if (hash->md) {
      return EVP_DigestUpdate(hash->md.get(), pbData, dwDataLen) == 1 ? QL_OK : QL_ERR_LIB_INTERNAL;
    }
    if (hash->algorithm == QL_ALG_IDFUNC) {
      hash->message.append(reinterpret_cast<const char *>(pbData), dwDataLen);
      return QL_OK;
    }
    pb::Request request;
    request.mutable_hash_data()->set_hash(hash->server);
    if (dwDataLen) request.mutable_hash_data()->set_data(pbData, dwDataLen);
    return AskCore(*hash->core, request).code();
  });
}

extern "C" int QGetHashParam(HHASHCTX hHash, uint32_t dwParam, unsigned char *pbData,
                             uint32_t *pdwDataLen, uint32_t dwFlags) {
  return Guard([&] {
    HashHandle *hash = HashOf(hHash);
    if (hash == nullptr) return QL_ERR_BAD_HANDLE;
    if (pdwDataLen == nullptr || dwFlags != 0) return QL_ERR_BAD_ARGUMENT;
    if (dwParam == QHP_ALGID) return NumberOut(hash->algorithm, 4, pbData, pdwDataLen).code();
    if (dwParam != QHP_HASHVAL && dwParam != QHP_HASHSIZE) return QL_ERR_BAD_ARGUMENT;
    std::string value;
    QL_RETURN_CODE_IF_ERROR(HashValue(*hash, &value));
    if (dwParam == QHP_HASHSIZE) {
      return NumberOut(static_cast<uint32_t>(value.size()), 4, pbData, pdwDataLen).code();
    }
    return CopyOut(value, pbData, pdwDataLen).code();
  });
}

extern "C" int QSetHashParam(HHASHCTX hHash, uint32_t dwParam, const unsigned char *pbData,
                             uint32_t dwDataLen, uint32_t dwFlags) {
  return Guard([&] {
    HashHandle *hash = HashOf(hHash);
    if (hash == nullptr) return QL_ERR_BAD_HANDLE;
    if (dwParam != QHP_HASHVAL || pbData == nullptr || dwFlags != 0) return QL_ERR_BAD_ARGUMENT;
    if (hash->server != 0) return QL_ERR_NOT_SUPPORTED;  // a MAC is made with its key only
    if (hash->md && dwDataLen != static_cast<uint32_t>(EVP_MD_CTX_get_size(hash->md.get()))) {
      return QL_ERR_BAD_LENGTH;
    }
    hash->set_value.emplace(reinterpret_cast<const char *>(pbData), dwDataLen);
    return QL_OK;
  });
}

extern "C" int QDestroyHash(HHASHCTX *phHash) {
  return Guard([&] {
    if (phHash == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (*phHash == nullptr) return QL_OK;
    HashHandle *hash = HashOf(*phHash);
    if (hash == nullptr || !UnregisterHandle(hash)) return QL_ERR_BAD_HANDLE;
    std::unique_ptr<HashHandle> owned(hash);
    *phHash = nullptr;
    if (owned->server == 0) return QL_OK;
    pb::Request request;
    request.mutable_destroy_hash()->set_hash(owned->server);
    Status st = AskCore(*owned->core, request);
    return st.code() == QL_ERR_SESSION_CLOSED ? QL_OK : st.code();
  });
}
