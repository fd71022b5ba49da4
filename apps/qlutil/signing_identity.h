#pragma once
// The embedded signing identity of the XML and PIX signature tests: an RSA-2048 key with its
// certificate (PKCS#12, password "24681357") issued by an embedded test CA, both valid to 2049.

#include "harness/temp_names.h"
#include "qlapi.h"

extern const char kSigningIdentityPkcs12Base64[];
extern const char kSigningIdentityPassword[];
extern const char kSigningIdentityChainPem[];  // the certificate, then its CA

// The HSM objects of one installed identity, under temporary names.
struct SigningIdentityNames {
  char szKey[kTempKeyNameSize];
  char szCert[kTempKeyNameSize];
  char szChain[kTempKeyNameSize];  // the certificate and its CA: verifies the signer
};

// Imports the key and certificate, writes the chain as a typed object and associates key and
// certificate. Prints "[tag] Fail in <call>. rc = %d" on a failure, removes what it made and
// answers the code.
int InstallSigningIdentity(const char *tag, HSESSIONCTX hSession, SigningIdentityNames *names);
// Removes the objects of an installed identity (names left empty are skipped) and clears them.
void RemoveSigningIdentity(HSESSIONCTX hSession, SigningIdentityNames *names);
