#pragma once
// Key and hash handles (HKEYCTX, HHASHCTX).

#include <openssl/evp.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "api_common.h"

namespace qlapi {

struct KeyHandle : HandleBase {
  KeyHandle() : HandleBase(kKeyMagic) {}
  std::shared_ptr<SessionCore> core;
  std::mutex mu;        // guards the lazy open of an offline handle
  uint64_t server = 0;  // the HSM's handle; 0 until an offline handle is first used
  std::string name;     // offline handles: the full name to open
  uint32_t algorithm = 0;
  uint32_t flags = 0;
  uint32_t key_length = 0;
};

// The HSM handle of a key, opening an offline handle on its first use (where a refusal shows).
Status ResolveKey(KeyHandle &key, uint64_t *server);
// The key behind an HKEYCTX with its HSM handle resolved, or a failure.
Status KeyFor(HKEYCTX h, KeyHandle **key, uint64_t *server);
// Fills a KeyRef with a resolved handle.
inline void SetKeyRef(pb::KeyRef *ref, uint64_t server) {
  ref->set_handle(server);
}
// A new registered key handle for the HSM's answer.
HKEYCTX NewKeyHandle(const std::shared_ptr<SessionCore> &core, const pb::KeyHandleReply &reply);

struct EvpMdCtxDeleter {
  void operator()(EVP_MD_CTX *ctx) const { EVP_MD_CTX_free(ctx); }
};

struct HashHandle : HandleBase {
  HashHandle() : HandleBase(kHashMagic) {}
  std::shared_ptr<SessionCore> core;
  uint32_t algorithm = 0;
  std::unique_ptr<EVP_MD_CTX, EvpMdCtxDeleter> md;  // hashes computed here
  uint64_t server = 0;                              // HMAC and CMAC, computed in the HSM
  std::string message;                              // QL_ALG_IDFUNC: the message itself
  std::optional<std::string> set_value;             // a value given with QSetHashParam
};

// The hash's current value without ending it (reading never consumes a hash).
Status HashValue(HashHandle &hash, std::string *value);

// The OpenSSL digest of a hash algorithm computed in the library, or null.
const EVP_MD *LocalDigest(uint32_t algorithm);

}  // namespace qlapi
