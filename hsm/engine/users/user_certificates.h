// Users' certificates: the second factor of a certificate login. A user holds at most one; a
// password login of that user must come over a TLS connection whose client presented exactly
// that certificate (and proved its key in the handshake). Certificates are public, so they are
// stored as DER without sealing. Mirrored in memory.
//
// Thread safe: every method may be called from any thread.
#pragma once

#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "engine/secure/secure.h"
#include "engine/store/store.h"

namespace qlhsm::users {

class UserCertificates {
 public:
  explicit UserCertificates(store::Store &store) : store_(store) {}

  // Loads every binding from the store. Call once before use.
  Status Load();

  bool Has(std::string_view user) const;
  // The user's certificate (DER), or nullopt.
  std::optional<secure::Bytes> Get(std::string_view user) const;
  // Binds `der` to the user, replacing the one it held.
  Status Assign(std::string_view user, const secure::Bytes &der);
  // Removes the user's certificate; nothing when it holds none.
  Status Unassign(std::string_view user);
  // The user was removed (the store dropped its row with it).
  void Forget(std::string_view user);

 private:
  store::Store &store_;
  mutable std::shared_mutex mu_;
  std::unordered_map<std::string, secure::Bytes> certs_;
};

}  // namespace qlhsm::users
