// One-time passwords computed locally (RFC 4226 HOTP, RFC 6238 TOTP with HMAC-SHA-1, -SHA-256 or
// -SHA-512): the seed is the caller's, so nothing needs the HSM.
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "api_common.h"

extern "C" int QGenerateHOTPOffline(const unsigned char *pbSeed, uint32_t dwSeedLen,
                                    uint32_t dwType, uint64_t qwMovingFactor, uint32_t dwTimeStep,
                                    uint64_t qwT0, uint32_t dwDigits, char *szOtp) {
  return qlapi::Guard([&] {
    if (pbSeed == nullptr || dwSeedLen == 0 || szOtp == nullptr || dwDigits < 6 || dwDigits > 8) {
      return QL_ERR_BAD_ARGUMENT;
    }
    // Bits 8 to 11 of the type choose the HMAC's hash.
    const EVP_MD *md = nullptr;
    switch ((dwType >> 8) & 0xF) {
      case 0:
        md = EVP_sha1();
        break;
      case 1:
        md = EVP_sha256();
        break;
      case 2:
        md = EVP_sha512();
        break;
      default:
        return QL_ERR_BAD_ARGUMENT;
    }
    if ((dwType & ~0xF00u) != 2 && (dwType & ~0xF00u) != 3) return QL_ERR_BAD_ARGUMENT;
    dwType &= 0xFF;
    uint64_t counter = qwMovingFactor;
    if (dwType == 3) {  // time based
      if (dwTimeStep == 0 || qwMovingFactor < qwT0) return QL_ERR_BAD_ARGUMENT;
      counter = (qwMovingFactor - qwT0) / dwTimeStep;
    } else if (dwType != 2) {
      return QL_ERR_BAD_ARGUMENT;
    }
    unsigned char msg[8];
    for (int i = 7; i >= 0; --i) {
      msg[i] = static_cast<unsigned char>(counter & 0xFF);
      counter >>= 8;
    }
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int mac_len = 0;
    if (HMAC(md, pbSeed, static_cast<int>(dwSeedLen), msg, sizeof msg, mac, &mac_len) == nullptr ||
        mac_len < 20) {
      return QL_ERR_LIB_INTERNAL;
    }
    const unsigned offset = mac[mac_len - 1] & 0x0F;
    uint32_t code = ((uint32_t{mac[offset]} & 0x7F) << 24) | (uint32_t{mac[offset + 1]} << 16) |
                    (uint32_t{mac[offset + 2]} << 8) | uint32_t{mac[offset + 3]};
    uint32_t modulus = 1;
    for (uint32_t i = 0; i < dwDigits; ++i) modulus *= 10;
    code %= modulus;
    for (int i = static_cast<int>(dwDigits) - 1; i >= 0; --i) {
      szOtp[i] = static_cast<char>('0' + code % 10);
      code /= 10;
    }
    szOtp[dwDigits] = '\0';
    return QL_OK;
  });
}
