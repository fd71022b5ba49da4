#pragma once
// Detached JSON Web Signatures: the HSM checks a JWS whole, so a detached one (its payload part
// empty) is checked after its payload is put back in place as base64url.

#include <cstddef>
#include <string>

// Puts `payload` (base64url, no padding) into the empty middle part of a detached compact JWS.
// A JWS whose middle part is not empty is left as it is. False when the text is not three parts.
bool AttachJwsPayload(std::string *jws, const unsigned char *payload, size_t len);
