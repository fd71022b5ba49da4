#pragma once
// Base64 (RFC 4648, standard alphabet) for QBase642ByteArray, QByteArray2Base64 and the
// credential store.

#include <string>
#include <string_view>

namespace qlapi {

std::string Base64Encode(std::string_view data);
// Decodes text; white space is skipped and padding is optional. False on any other character,
// on misplaced padding, or on a dangling single character.
bool Base64Decode(std::string_view text, std::string *out);

}  // namespace qlapi
