#pragma once
// String helpers shared by the tools: hex strings.

#include <string>
#include <string_view>
#include <vector>

// Reads a hex string into bytes.
//
// Rules:
//  - Digits 0-9, a-f and A-F; two digits make one byte, the first is the high nibble.
//  - One optional "0x" or "0X" prefix at the very start is skipped.
//  - Separators ' ', '\t', ':' and '-' may stand between bytes (any number of them), never
//    inside one: "0a:1b", "0a 1b", "0A-1B" are accepted, "0:a1b" is not.
//  - An odd number of digits, a separator inside a byte, or any other character makes the
//    whole string invalid.
// Returns false (and leaves *pOut empty) for an invalid string; "" (and "0x") gives true and no
// bytes.
bool TryConvertHexStrToByteVector(std::string_view hex, std::vector<unsigned char> *pOut);

// The same, giving an empty vector for an invalid string.
std::vector<unsigned char> ConvertHexStrToByteVector(std::string_view hex);

// Bytes as upper-case hex digits without separators.
std::string ConvertByteVectorToHexStr(const unsigned char *pbData, size_t cbData);
