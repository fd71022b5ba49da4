// The embedded signing identity of the XML and PIX signature tests. Made once with openssl:
// a self-signed RSA-2048 CA "CN=qlutil test CA" and a leaf "CN=qlutil XML signer" (serial
// 0x1001, digitalSignature), exported as PKCS#12 with AES-256-CBC and a SHA-256 MAC.
#include "signing_identity.h"

#include <cstring>
#include <string>

#include "Output.h"

const char kSigningIdentityPassword[] = "24681357";

const char kSigningIdentityPkcs12Base64[] =
    "MIIKLwIBAzCCCeUGCSqGSIb3DQEHAaCCCdYEggnSMIIJzjCCBEIGCSqGSIb3DQEHBqCCBDMwggQv"
    "AgEAMIIEKAYJKoZIhvcNAQcBMFcGCSqGSIb3DQEFDTBKMCkGCSqGSIb3DQEFDDAcBAgZPMep2tu/"
    "TwICCAAwDAYIKoZIhvcNAgkFADAdBglghkgBZQMEASoEEFzOffXhNUPWHIbNws+RTEOAggPAJbc1"
    "Kjkl39h168M+XvYurbQScUBivemz+r8VUNBeIQvHQfzad/HCGu3c7j8rhjIH5MMRmHuEMft/dPP+"
    "4PLD1U/WuA1nJ5WEFQGJXubfEEeioiIrcFuspU3+tufiRAblyaI+6ms7V32S46J8LHAe13MoNYLr"
    "Bf4Nqo/BO958SSywJ6S+c+K1MHzuXPd2FmTHSwwD/NdRWrQgbbx97jkOsFCRagblVpzIEXvstiFU"
    "4eZAlKzOE9X4kt71p99b2gPb1jVQQt01WCnI2wBO07HkQtMSN06XEMnVz+I0P1fbRlMZzMA7lGYK"
    "Bu4+HEmspiH0+RHXoUo5xmAhfbhGVVm2DsTu6HMJoueVDWav+MKR6JjIvewH5ryuZlNE/cFBmIwo"
    "IhiLG5+V0mzU90axOqr8Yd4la/QYM0sSYRgdlpsEOQTSb+zNq1hK3BNpNxtR5yhd31j409qgd55m"
    "ji5iZIhYBt1usvt9CDHN1LY4P1/cIayv3UOW1vGMitU9E1C6TzKz4LB+MqGt9NgJlKy+M+kJTrA6"
    "RqM04OtlbNCq8kOk8gSRNFy3CjUZ/zA8tzxrPigViosKGQWSwmw2O2uzZnf6DyW9WOnvS7XLWaak"
    "BoXQJq1mEXoCmmz6VcQZLQscZR1oRX683xAegKDmHQtGugvHS3OzMEUtqb/OqmDmo0WoW4DIuM4s"
    "7K/S26HZSVYYkmGxyrpjQI93qAgQrAc0TgpHBpvrliAwZviJDBHFpLgTy+Q+9BJwZldroe60tQB7"
    "dQSV0NVEiE5AR3WfVqR1AO7719Grt379vZ7E0Gaxee5uFmTYPKc6knd7MuAB9MjWQOUMjjD06THN"
    "DyN1J1t9K8ZwkDSpRg97xkgd6Ka5qydVwIVAMFPSl89rG79efBFfe17uecAARukP6ZjQWqfh4iRA"
    "XcR6zP1b+3A5P5Hlth4cG2G5LV3MWBgecTeR0iQkHdlsYFkIVhlvezS+lc3bqQnYb5bLngrWwbt4"
    "93TY9Nza0YK5NEeuUtdXza19LCjhgW0VHJfWJKVTvOElA0fH96639zCst2v/rg2oehEhXIKowyP2"
    "YL3VWlfXbR+HkFJgXhw1pyOzIIdnurrPcd9fAVM60sUdngyc9KOc82eIdCmz4rAunJzs32eMMqMC"
    "yKzku3D8iLHw21xupbldTsxxDAt9vzFsZqt9IJdux0JLf41beRR2YsPbmCMJADjQZ3h9tlQxn0j1"
    "wnA4gsjVwW2OgCR+u4wQ20Aj9p2cNkYHtKi6gdxWmLZ9mvW9Ps7QLFKy9xhmMIIFhAYJKoZIhvcN"
    "AQcBoIIFdQSCBXEwggVtMIIFaQYLKoZIhvcNAQwKAQKgggUxMIIFLTBXBgkqhkiG9w0BBQ0wSjAp"
    "BgkqhkiG9w0BBQwwHAQIvtGT70bTQVkCAggAMAwGCCqGSIb3DQIJBQAwHQYJYIZIAWUDBAEqBBDN"
    "vxMcB0C/JGvf1YfxyfCaBIIE0A7ifNn3uHX/fU50XOemdyLxI2S6ueJSooGXUCcydb1+jdPUIWaJ"
    "c3znv/5bdobGt5XZd/giwOQ3wxrQfbIYwcmkd9F6+bMyvNvtXB3ksoilyY5o8ajqYLVfGl9JwF3E"
    "rwDN0+7Z28ZOdmnvFfUEhUtsnzxTsI4pcSZALu98iI6qTLp8t5Pdq5NURcKePtRYpz1b6YW2voXy"
    "nvma928G27WfO2t6whqxvwOKr7GhTwaE6nn32uU5veIOPc1YxHxWfgbZyUVRP2lgI8S6DSQSwLlQ"
    "Yr2BKPnLjf9+0/ZWzTIJ/s32+ddpDhZs3fpj5684vay7y2tH+L+l0Kv55cLFkr0tjTx17j8/O8ST"
    "52GzGR58wcVW9cF9AuNqLPCQG0U+msJKiEcf0U+VdpguzCtYCvkxexokzJwYJx2klXEOm4tc5oZX"
    "eUeh/GnxAybK9AQBeu+Cv2DyGfA5VDgn31TNOZSNfDGKvrN7ef9MYVeEUMp2KG+qgsKKVOZfP6NZ"
    "ma7VgC8CvjDFgObp+10caXO8WZ/sJPpQ0cPTnEeTABh/+AdUENhsDklzX1t49z5CiK8HPEgPIUrs"
    "wiH9bVRsY+ZT0YXdHxOzTeXiesfyvX5bj0gXM9EJZKkdCZGb1cbtmm50vKTg24xN67Bte40hqzrZ"
    "qP8zTPCn3n6eg6aSylgwidQtHH+nSs3Aqxgi5QnEo0+hJkAsvlxSASicgjyokLJBiWftUokEN2iz"
    "EbmE+MlOsX+m9kHsJFM5Z4D6LfokwpGmu6k5Y3tgLEB/pElTTV9ZpGQF9+lHIhwuletkGd8EHaCr"
    "3t1/bA1rwsXx/L2A7tXd4vjK9uwY15cfGQyks422I2xxYayAa1ec2uXe3tpINpZpM2UnUhU9G4ud"
    "dwMtCJlNLjLUDN7MOFVhQ04oHL3HNUprc8VbXQatPtz2E7DpPFNQz01blDNNrqtCf2eqLxTG/0YV"
    "LGArAww43lRuowGOU19F0bkUpiCh01/McZU3hpDAuMIDxLaNdI3kXKTDWtWxtueQxUvH2m8RNfQx"
    "FItd8eAvNYNTNuriFLbfdun7B77xQjTxHeZY7Og2ew7xq1C3eClz0somCdtqlV3GPIi7iJ1F7qhR"
    "QTUMcm6xhBJuR1GrzTMVot3Jq+0W4dsrTysTQeHAne/uLQvj4Y4PR6cYBXmO7R9YnCWpab9XWXWj"
    "eZQRg8KIJQGqiXe/d6FVPN4RHvNCVPDbXwP5FvUbj/mTsOt/tAPzuJf+zgt83PMU2KSZ3BwEWSn0"
    "f3rADMGXTR+CXw3O6ruxQVjD69RZwHoOihrHXG0LhD8j/PF9DNeiw+1UId2CNqQRDSSRq3VA6afe"
    "PyccXJBSql/yHF7fCN6UZSqE6w8ZAb8xWIz87KGWwMOMdyhKNee5o2eunFkZANQzLI2+NvXQYZA0"
    "BkrHlNUjaIsVDmC4hxTJ3f73jc/r7k94FaK+SwVSUEZVGh4bUHQ/LSDFT6tXycsltJ6yNrsJ8MiL"
    "qZ8pZDIQUIM1SUMQnYVoZ+XrswG8AxUXeNE7gQl1t3PRPcGquq7rfntd2tfhmFiSoCg4z+uj0q4G"
    "ClhEoB5ALvsNAaWREWg7GvLjqEMV7Ee2ocCGXDGz4QzeWseyx798I6MjrY2uOMpFQR3pjmKIMSUw"
    "IwYJKoZIhvcNAQkVMRYEFG3Vzqc7hpkShiNyUA6CVF2ibSIOMEEwMTANBglghkgBZQMEAgEFAAQg"
    "KLnDWB+zUBt/hf6nb1bnVCCsgI/sZU6/FXX6uX1C6gMECLUHSRaYdcixAgIIAA==";

// The chain object's content: the signer, then its CA (the anchor). The PIX checks find the
// signer in it by issuer and serial number.
const char kSigningIdentityChainPem[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIDVDCCAjygAwIBAgICEAEwDQYJKoZIhvcNAQELBQAwPDELMAkGA1UEBhMCQlIx\n"
    "FDASBgNVBAoMC3FsdXRpbCB0ZXN0MRcwFQYDVQQDDA5xbHV0aWwgdGVzdCBDQTAe\n"
    "Fw0yNjExMjQwNTUzMTRaFw00OTEyMzAwNTUzMTRaMD8xCzAJBgNVBAYTAkJSMRQw\n"
    "EgYDVQQKDAtxbHV0aWwgdGVzdDEaMBgGA1UEAwwRcWx1dGlsIFhNTCBzaWduZXIw\n"
    "ggEiMA0GCSqGSIb3DQEBAQUAA4IBDwAwggEKAoIBAQC2Gt8h7oWnpX8JeGa9CqpZ\n"
    "lY5u0cSWxjmDPci030RuoRjFCS0IuHoITkg6qb/vuctptpxwGDyhjXciUdkllhRB\n"
    "jnj9lA66SsqIJfKZIKNobsm3Y+G+wzGZ0YcRAH3vktWECVOiwSttrW81cXZenSvt\n"
    "FEqxlnWgkOJy9Jq00pAyVIeo335bEo1dhzcUJmXvheI3MYm+JoCtRFYy9kEdIleT\n"
    "QWE+onGdomgOe+XA8ZrFc9FR5l2hcOZfkQ8zQrg65GwW87tNiMdWvq2DQOFblgqR\n"
    "uVh4ZV+lR8m+1khLk6Nci7e+0jhOEaDKZq/GZ5DYc6dPhMN0e2Gsc+YOCvz2yD9R\n"
    "AgMBAAGjXTBbMAkGA1UdEwQCMAAwDgYDVR0PAQH/BAQDAgbAMB0GA1UdDgQWBBQt\n"
    "zjoGfG4+39bh2PnK3VY07W3CQTAfBgNVHSMEGDAWgBRgTB9mz1S8J9PD56IOEmqT\n"
    "LRH2zTANBgkqhkiG9w0BAQsFAAOCAQEAGNV0gXsMXt6HejALr1+XLyOj45qzSPFi\n"
    "Z/feRXdjKWC3KLDW4fHXVQUkm9thh8Qrb+SarpAH+5+UoR4x1qQ8AspW1USS6bVT\n"
    "IEliUU2ABodAiV51nwtd22OGORxd0U5oDi37rohxsGU06Ba2zEUfoMlv5kSrS0Ai\n"
    "bFDiDtLpstI2T1hDbwdh46MTPdd9ZUqyylGozPncYkyjDg/rbDp6D3LdHT46UuJE\n"
    "YQOLB6AHIlDEtnphddKIlH7LEIBwJuEsQ2KGrvPOoL0J9V3QvrGt6YMjy89fnMja\n"
    "CctGgPeXf7UKo0ZgPuZYx/eW7V4k/lemFUSxjO59EPXNvq6CB9t40A==\n"
    "-----END CERTIFICATE-----\n"
    "-----BEGIN CERTIFICATE-----\n"
    "MIIDaTCCAlGgAwIBAgIURN4VNoKvYSYVyqujY9icY4twg48wDQYJKoZIhvcNAQEL\n"
    "BQAwPDELMAkGA1UEBhMCQlIxFDASBgNVBAoMC3FsdXRpbCB0ZXN0MRcwFQYDVQQD\n"
    "DA5xbHV0aWwgdGVzdCBDQTAeFw0yNjExMjQwNTUzMTNaFw00OTEyMzEwNTUzMTNa\n"
    "MDwxCzAJBgNVBAYTAkJSMRQwEgYDVQQKDAtxbHV0aWwgdGVzdDEXMBUGA1UEAwwO\n"
    "cWx1dGlsIHRlc3QgQ0EwggEiMA0GCSqGSIb3DQEBAQUAA4IBDwAwggEKAoIBAQCp\n"
    "ZDSZlEzaKL2roJB0E1s7oJh7pXBU8wS+WyqKA4XE5TLSMOuhbUMjgpogYQTDPdYR\n"
    "Ma4cJ0W9kefua5VubmeGsDarUnhVT4P2q6T/2nwAvZw1TX95gFlCT/mo8qvWylRc\n"
    "RbSlNK3QZIuK+wSbOP/o4AR3N7Uj5I6r6LQZZeWFtZCUtc8mPJKN1fyEe4Fc2ebc\n"
    "d63ICNHMHTUkrEU+9UAxY5zcWp3ZREEmj4MlZ5u0lTdMFmWEFjxa8IXR0HEzX1HT\n"
    "QNrpkcy4J0P56kkQsW7T09EAyG3JCJJr01xH1hJwRzrJ9wTobsjL1bulBI3WgIuZ\n"
    "H+5fC3l1GBj7QZ4gcNr/AgMBAAGjYzBhMB0GA1UdDgQWBBRgTB9mz1S8J9PD56IO\n"
    "EmqTLRH2zTAfBgNVHSMEGDAWgBRgTB9mz1S8J9PD56IOEmqTLRH2zTAPBgNVHRMB\n"
    "Af8EBTADAQH/MA4GA1UdDwEB/wQEAwIBBjANBgkqhkiG9w0BAQsFAAOCAQEAgcKG\n"
    "wUs+Z6TQs3isWnhpROb1G2KfcXQM01v1No+iAmQr+o7ZUVuso9DX5M4cPnn8YNDV\n"
    "nZFqIPxRKlSbN9+v7isd/qTGEnEZUA0waEoGese28Nfg8wuoZ/wEDYQsn7nPHC4d\n"
    "rL0w9uHIN/mPFWHbySBx7ECCll9cTF9ihKcUOMF/p+1J48kBBik0Qp8ANZ/V/QVM\n"
    "8ibBMUbwnbt6Lkf/i+fo2l7vnqjA06eS8b4W0mrfl/NZ4nkqvqk6VfOaexUGd7yd\n"
    "G12YN6wqy0B3Z71os2X4qw6E5/TJa2/lVcAAXV5/erq+ukYGDpQHwcUIeY+y34zk\n"
    "x0wE4VqscxHXsHoKew==\n"
    "-----END CERTIFICATE-----\n";

namespace {

int Fail(const char *tag, const char *call, int rc) {
  ScreenOutput("[%s] Fail in %s. rc = %d\r\n", tag, call, rc);
  return rc;
}

}  // namespace

int InstallSigningIdentity(const char *tag, HSESSIONCTX hSession, SigningIdentityNames *names) {
  std::memset(names, 0, sizeof *names);
  int rc = 0;
  SigningIdentityNames made{};
  if (!GetTempKeyName(made.szKey, hSession, &rc) || !GetTempKeyName(made.szCert, hSession, &rc) ||
      !GetTempKeyName(made.szChain, hSession, &rc)) {
    return Fail(tag, "GetTempKeyName", rc);
  }
  unsigned char pfx[4096];
  uint32_t pfx_len = sizeof pfx;
  rc = QBase642ByteArray(kSigningIdentityPkcs12Base64,
                         static_cast<uint32_t>(std::strlen(kSigningIdentityPkcs12Base64)), pfx,
                         &pfx_len);
  if (rc != 0) return Fail(tag, "QBase642ByteArray", rc);
  rc = QImportPKCS12Buffer(hSession, pfx, pfx_len, kSigningIdentityPassword, made.szKey,
                           made.szCert, 0);
  if (rc != 0) return Fail(tag, "QImportPKCS12Buffer", rc);
  std::memcpy(names->szKey, made.szKey, sizeof made.szKey);
  std::memcpy(names->szCert, made.szCert, sizeof made.szCert);
  rc = QWriteFileBuffer(
      hSession, made.szChain, reinterpret_cast<const unsigned char *>(kSigningIdentityChainPem),
      static_cast<uint32_t>(std::strlen(kSigningIdentityChainPem)), QL_WRITE_FILE_TYPED);
  if (rc != 0) {
    RemoveSigningIdentity(hSession, names);
    return Fail(tag, "QWriteFileBuffer", rc);
  }
  std::memcpy(names->szChain, made.szChain, sizeof made.szChain);
  rc = QAssociatePKCS11Key(hSession, names->szKey, names->szCert, 0);
  if (rc != 0) {
    RemoveSigningIdentity(hSession, names);
    return Fail(tag, "QAssociatePKCS11Key", rc);
  }
  return 0;
}

void RemoveSigningIdentity(HSESSIONCTX hSession, SigningIdentityNames *names) {
  for (char *name : {names->szKey, names->szCert, names->szChain}) {
    if (name[0] != '\0' && hSession != nullptr) QRemoveObj(hSession, name);
    name[0] = '\0';
  }
}
