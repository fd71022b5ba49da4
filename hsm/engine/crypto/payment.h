// payment.h: the cryptography of card payments, on raw key bytes: card verification values,
// PIN blocks and natural PINs, derived unique keys per transaction, and interchange key blocks.
//
// Every function is pure (no store, no session) and answers a Result. The refusals:
//   kBadLength    a key, KSN or identifier of the wrong length
//   kBadArgument  a PAN, expiry, service code or PIN with other characters or lengths, a DUKPT
//                 counter the standard does not allow, a key block attribute combination the
//                 standard forbids
//   kBadData      a PIN block whose control field, PIN length, fill or PAN field is wrong, or a
//                 key block whose text does not parse (the engine answers a bad PIN block or a
//                 bad argument for these)
//   kBadTag       a key block whose MAC does not verify
//   kNotSupported key block versions A and C
// Triple-DES keys are 16 bytes (K1|K2|K1) or 24; an 8-byte key is single DES (run as K|K|K).
#ifndef QLHSM_CRYPTO_PAYMENT_H_
#define QLHSM_CRYPTO_PAYMENT_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "crypto/bytes.h"
#include "crypto/status.h"

namespace qlhsm::crypto::payment {

// ---------------------------------------------------------------------------------------------
// Block cipher steps on raw keys (whole blocks, no padding).

Result<SecretBytes> TdesEcb(ByteView key, ByteView data, bool encrypt);
Result<SecretBytes> AesEcb(ByteView key, ByteView data, bool encrypt);
// CBC with the given IV (a block long).
Result<SecretBytes> TdesCbc(ByteView key, ByteView iv, ByteView data, bool encrypt);
Result<SecretBytes> AesCbc(ByteView key, ByteView iv, ByteView data, bool encrypt);
// CMAC (NIST SP 800-38B) with triple DES (8 bytes) or AES (16 bytes).
Result<Bytes> TdesCmac(ByteView key, ByteView data);
Result<Bytes> AesCmac(ByteView key, ByteView data);

// True when the two are equal, in time that depends only on their lengths.
bool EqualInConstantTime(std::string_view a, std::string_view b);

// ---------------------------------------------------------------------------------------------
// Card verification values: the two-key DES method. PAN 12 to 19 digits, expiry YYMM, service
// code 3 digits ("000" for CVV2, "999" for iCVV). Key A and key B are single DES keys (8 bytes
// each). Answers the three digits.
Result<std::string> CardVerificationValue(ByteView key_a, ByteView key_b, std::string_view pan,
                                          std::string_view expiry, std::string_view service_code);

// ---------------------------------------------------------------------------------------------
// PIN blocks (ISO 9564-1): formats 0, 1 and 3 are 8 bytes under triple DES; format 4 is 16
// bytes under AES. PINs are 4 to 12 digits; PANs 12 to 19 digits (formats 0 and 3 use the 12
// digits left of the check digit; format 4 the whole PAN). Format 1 does not use the PAN.

enum class PinBlockFormat : uint8_t { k0 = 0, k1 = 1, k3 = 3, k4 = 4 };

// True for 0, 1, 3 and 4.
bool IsPinBlockFormat(unsigned value);

// The enciphered PIN block. `fill` supplies the random nibbles and bytes the format needs
// (formats 1, 3 and 4; empty: drawn from the generator); tests pass fixed bytes to reproduce
// published blocks. Its bytes are used in order: format 1 and 3 take one byte a fill nibble
// (format 3 maps it onto A to F), format 4 takes eight bytes of random field.
Result<Bytes> EncipherPinBlock(PinBlockFormat format, ByteView key, std::string_view pin,
                               std::string_view pan, ByteView fill = {});

// The PIN in a PIN block, checked against its format (control field, PIN length 4 to 12, the
// fill of formats 0, 3 and 4) and, for formats 0, 3 and 4, the PAN (kBadData when any of these
// is wrong).
Result<std::string> DecipherPinBlock(PinBlockFormat format, ByteView key, ByteView block,
                                     std::string_view pan);

// The clear PIN field and PAN field of formats 0, 1 and 3 XOR-ed (the block before triple DES),
// as published examples give it.
Result<Bytes> ClearPinBlock(PinBlockFormat format, std::string_view pin, std::string_view pan,
                            ByteView fill = {});

// The natural PIN of the offset method with a zero offset: the validation data "0000" followed
// by the 12 PAN digits left of the check digit, enciphered under the PIN generation key (triple
// DES), written in hex, each hex digit replaced through the 16-digit decimalisation table, the
// first `length` digits (4 to 12).
Result<std::string> NaturalPin(ByteView pgk, std::string_view pan, std::string_view decimalisation,
                               unsigned length);

// ---------------------------------------------------------------------------------------------
// Derived unique key per transaction: the triple-DES scheme (10-byte KSN, double-length BDK)
// and the AES scheme (12-byte KSN: 8-byte initial key ID and 32-bit counter; AES-128, 192 or
// 256 BDK, keys of the BDK's length).

enum class DukptKey : uint8_t {
  kInitial = 0,      // the initial key of the KSN's device (counter ignored)
  kTransaction = 1,  // the key of the KSN's counter
  kPin = 2,          // its PIN encryption key
  kMac = 3,          // its MAC key (requests)
  kData = 4,         // its data encryption key (requests)
};

// Counters of 0, or with more one-bits than the scheme allows (10 for triple DES, 16 for AES),
// are refused for every key but the initial one (kBadArgument).
Result<SecretBytes> DukptTdes(ByteView bdk, ByteView ksn, DukptKey which);
Result<SecretBytes> DukptAes(ByteView bdk, ByteView ksn, DukptKey which);

// ---------------------------------------------------------------------------------------------
// Interchange key blocks: version B (triple-DES key block protection key, 16 or 24 bytes) and
// version D (AES KBPK), key derivation by CMAC (NIST SP 800-108 counter mode), CBC encryption
// under the MAC as IV.

struct KeyBlockHeader {
  char version = 'D';              // 'B' or 'D'
  std::string usage = "D0";        // two characters
  char algorithm = 'A';            // 'T' triple DES, 'A' AES, 'D' DES, ...
  char mode = 'B';                 // mode of use
  std::string key_version = "00";  // two characters
  char exportability = 'E';        // 'E', 'N' or 'S'
  std::string optional_blocks;     // as they stand in the block, after the 16-character header
  unsigned optional_block_count = 0;
};

// True when the standard allows the usage, algorithm and mode together (the usages and modes
// this HSM writes: B0-B2, C0, D0-D2, E0-E6, I0, K0-K3, M0-M8, P0, S0-S2, V0-V4).
bool IsAllowedKeyBlock(std::string_view usage, char algorithm, char mode);

// The key block text. `padding` supplies the random padding (empty: drawn from the generator);
// a key block is then reproducible for tests.
Result<std::string> WrapKeyBlock(ByteView kbpk, const KeyBlockHeader &header, ByteView key,
                                 ByteView padding = {});

struct UnwrappedKeyBlock {
  KeyBlockHeader header;
  SecretBytes key;
};

Result<UnwrappedKeyBlock> UnwrapKeyBlock(ByteView kbpk, std::string_view block);

}  // namespace qlhsm::crypto::payment

#endif  // QLHSM_CRYPTO_PAYMENT_H_
