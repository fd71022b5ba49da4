// Ciphers: encryption and decryption in place, in pieces, with the chaining state in the HSM's
// key handle.
#include "key_handle.h"

using namespace qlapi;

namespace {

template <typename Body>
int Cipher(HKEYCTX hKey, HHASHCTX hHash, unsigned char *pbData, uint32_t *pdwDataLen,
           uint32_t capacity, Body fill) {
  if (pdwDataLen == nullptr || (pbData == nullptr && *pdwDataLen > 0)) return QL_ERR_BAD_ARGUMENT;
  if (hHash != nullptr) return QL_ERR_NOT_SUPPORTED;  // hashing while ciphering is not built
  KeyHandle *key = nullptr;
  uint64_t server = 0;
  QL_RETURN_CODE_IF_ERROR(KeyFor(hKey, &key, &server));
  pb::Request request;
  fill(request, server);
  pb::Response response;
  Status st = AskCore(*key->core, request, &response);
  if (st.code() == QL_ERR_BUFFER_TOO_SMALL) return TooSmall(response, pdwDataLen).code();
  QL_RETURN_CODE_IF_ERROR(st);
  if (!response.has_cipher()) return QL_ERR_PROTOCOL;
  const std::string &out = response.cipher().data();
  if (out.size() > capacity) return QL_ERR_PROTOCOL;  // the HSM ignored the capacity it was given
  if (!out.empty()) std::memcpy(pbData, out.data(), out.size());
  *pdwDataLen = static_cast<uint32_t>(out.size());
  return QL_OK;
}

}  // namespace

extern "C" int QEncrypt(HKEYCTX hKey, HHASHCTX hHash, int bFinal, uint32_t dwFlags,
                        unsigned char *pbData, uint32_t *pdwDataLen, uint32_t dwBufLen) {
  return Guard([&] {
    if (pdwDataLen && *pdwDataLen > dwBufLen) return QL_ERR_BAD_ARGUMENT;
    return Cipher(hKey, hHash, pbData, pdwDataLen, dwBufLen, [&](pb::Request &r, uint64_t key) {
      auto *enc = r.mutable_cipher();
      SetKeyRef(enc->mutable_key(), key);
      enc->set_final(bFinal != 0);
      enc->set_flags(dwFlags);
      enc->set_data(pbData, *pdwDataLen);
      enc->set_out_capacity(dwBufLen);
    });
  });
}

extern "C" int QDecrypt(HKEYCTX hKey, HHASHCTX hHash, int bFinal, uint32_t dwFlags,
                        unsigned char *pbData, uint32_t *pdwDataLen) {
  return Guard([&] {
    if (pdwDataLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    const uint32_t capacity = *pdwDataLen;
    return Cipher(hKey, hHash, pbData, pdwDataLen, capacity, [&](pb::Request &r, uint64_t key) {
      auto *dec = r.mutable_cipher();
      dec->set_decrypt(true);
      SetKeyRef(dec->mutable_key(), key);
      dec->set_final(bFinal != 0);
      dec->set_flags(dwFlags);
      dec->set_data(pbData, *pdwDataLen);
      dec->set_out_capacity(capacity);
    });
  });
}
