#include "auth_records.h"

#include <cstring>

#include "credential_store.h"

namespace qlapi {
namespace {

// A one-time password's digits.
constexpr int32_t kMinOtpDigits = 6;
constexpr int32_t kMaxOtpDigits = 8;
// A PEM key and certificate (with room for a large RSA key and a chain).
constexpr int32_t kMaxIdentityPem = 64 * 1024;

Status ReadAddress(const char *addr, int32_t port, Credentials *creds) {
  creds->host = FieldText(addr, QL_MAX_ADDR);
  if (creds->host.empty()) return Status(QL_ERR_BAD_ARGUMENT);
  if (port > 65535) return Status(QL_ERR_BAD_ARGUMENT);
  creds->port = port <= 0 ? QL_DEFAULT_PORT : port;
  return Status::Ok();
}

}  // namespace

std::string FieldText(const char *field, std::size_t size) {
  return std::string(field, strnlen(field, size));
}

Status CheckSessionFlags(uint32_t flags, bool *tls) {
  if ((flags & ~uint32_t{QL_SESSION_ALL_FLAGS}) != 0) return Status(QL_ERR_BAD_FLAGS);
  // Flags 1 and 4 together are contradictory; the safe reading is the encrypted one.
  *tls = (flags & QL_SESSION_UNENCRYPTED) == 0 || (flags & QL_SESSION_ENCRYPTED) != 0;
  return Status::Ok();
}

Status CredentialsFromRecord(uint32_t kind, const void *record, uint32_t record_len,
                             Credentials *creds) {
  if (record == nullptr) return Status(QL_ERR_BAD_ARGUMENT);
  switch (kind) {
    case QL_AUTH_ANONYMOUS:
    case QL_AUTH_USER_PWD: {
      if (record_len < sizeof(AUTH_PWD_EX)) return Status(QL_ERR_BAD_ARGUMENT);
      AUTH_PWD_EX r;
      std::memcpy(&r, record, sizeof r);  // the caller's record may be unaligned
      if (r.dwAuthType == 0) {
        if (r.pbStrongAuth != nullptr || r.nStrongAuthLen != 0) return Status(QL_ERR_BAD_ARGUMENT);
      } else if ((r.dwAuthType != QL_STRONG_AUTH_OTP && r.dwAuthType != QL_STRONG_AUTH_X509) ||
                 kind != QL_AUTH_USER_PWD || r.pbStrongAuth == nullptr) {
        return Status(QL_ERR_BAD_ARGUMENT);
      } else if (r.dwAuthType == QL_STRONG_AUTH_OTP &&
                 (r.nStrongAuthLen < kMinOtpDigits || r.nStrongAuthLen > kMaxOtpDigits)) {
        return Status(QL_ERR_BAD_ARGUMENT);
      } else if (r.dwAuthType == QL_STRONG_AUTH_X509 &&
                 (r.nStrongAuthLen <= 0 || r.nStrongAuthLen > kMaxIdentityPem)) {
        return Status(QL_ERR_BAD_ARGUMENT);
      }
      Status st = ReadAddress(r.szAddr, r.nPort, creds);
      if (!st.ok()) return st;
      creds->kind = kind;
      if (r.dwAuthType == QL_STRONG_AUTH_OTP) {
        creds->strong_auth_type = QL_STRONG_AUTH_OTP;
        creds->otp.assign(reinterpret_cast<const char *>(r.pbStrongAuth),
                          static_cast<std::size_t>(r.nStrongAuthLen));
      } else if (r.dwAuthType == QL_STRONG_AUTH_X509) {
        // A certificate is presented in the TLS handshake: a plain connection cannot carry it.
        if (!creds->tls) return Status(QL_ERR_BAD_AUTH_KIND);
        auto identity =
            ClientIdentity::FromPem(std::string(reinterpret_cast<const char *>(r.pbStrongAuth),
                                                static_cast<std::size_t>(r.nStrongAuthLen)));
        if (!identity.ok()) return identity.status();
        creds->strong_auth_type = QL_STRONG_AUTH_X509;
        creds->identity = std::move(identity.value());
      }
      if (kind == QL_AUTH_USER_PWD) {
        creds->user = FieldText(r.szUserId, sizeof r.szUserId);
        creds->secret = FieldText(r.szPassword, sizeof r.szPassword);
      }
      return Status::Ok();
    }
    case QL_AUTH_ATOKEN: {
      if (record_len < sizeof(AUTH_ATOKEN)) return Status(QL_ERR_BAD_ARGUMENT);
      AUTH_ATOKEN r;
      std::memcpy(&r, record, sizeof r);
      Status st = ReadAddress(r.szAddr, r.nPort, creds);
      if (!st.ok()) return st;
      creds->kind = QL_AUTH_ATOKEN;
      creds->user = FieldText(r.stAToken.pcUserName, sizeof r.stAToken.pcUserName);
      creds->secret.assign(reinterpret_cast<const char *>(r.stAToken.pbKey),
                           sizeof r.stAToken.pbKey);
      return Status::Ok();
    }
    case QL_AUTH_WIN_CREDENTIAL: {
      if (record_len < sizeof(AUTH_WIN_CREDENTIAL)) return Status(QL_ERR_BAD_ARGUMENT);
      AUTH_WIN_CREDENTIAL r;
      std::memcpy(&r, record, sizeof r);
      Status st = ReadAddress(r.szAddr, r.nPort, creds);
      if (!st.ok()) return st;
      auto path = credstore::DefaultPath();
      if (!path.ok()) return path.status();
      auto cred = credstore::Read(path.value(), creds->host);
      if (!cred.ok()) return cred.status();
      creds->kind = QL_AUTH_USER_PWD;  // on the wire it is a user and password login
      creds->user = cred.value().user;
      creds->secret = cred.value().password;
      return Status::Ok();
    }
    default:
      return Status(QL_ERR_BAD_AUTH_KIND);
  }
}

}  // namespace qlapi
