#include "engine/users/user_certificates.h"

#include <mutex>

namespace qlhsm::users {

Status UserCertificates::Load() {
  return store_.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> st = conn.Prepare("SELECT name, cert FROM user_x509");
    if (!st.ok()) return st.status();
    std::unique_lock lock(mu_);
    certs_.clear();
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      certs_.emplace(st->Text(0), st->Blob(1));
    }
    return Status::Ok();
  });
}

bool UserCertificates::Has(std::string_view user) const {
  std::shared_lock lock(mu_);
  return certs_.count(std::string(user)) != 0;
}

std::optional<secure::Bytes> UserCertificates::Get(std::string_view user) const {
  std::shared_lock lock(mu_);
  auto it = certs_.find(std::string(user));
  if (it == certs_.end()) return std::nullopt;
  return it->second;
}

// Store first, then memory, both under the store's lock, so the two never disagree.
Status UserCertificates::Assign(std::string_view user, const secure::Bytes &der) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> st = conn.Prepare(
        "INSERT INTO user_x509(name, cert) VALUES(?1, ?2) "
        "ON CONFLICT(name) DO UPDATE SET cert = excluded.cert");
    if (!st.ok()) return st.status();
    st->Bind(1, user).BindBlob(2, der);
    QL_RETURN_IF_ERROR(st->Run());
    std::unique_lock lock(mu_);
    certs_[std::string(user)] = der;
    return Status::Ok();
  });
}

Status UserCertificates::Unassign(std::string_view user) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> st = conn.Prepare("DELETE FROM user_x509 WHERE name = ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, user);
    QL_RETURN_IF_ERROR(st->Run());
    std::unique_lock lock(mu_);
    certs_.erase(std::string(user));
    return Status::Ok();
  });
}

void UserCertificates::Forget(std::string_view user) {
  std::unique_lock lock(mu_);
  certs_.erase(std::string(user));
}

}  // namespace qlhsm::users
