// The directory binding: the HSM publishes an entry for itself (address, port, TLS fingerprint,
// version) in an LDAP directory, keeps the binding in the store (the password sealed under the
// master key) to renew the entry at every start, and removes both on unbind.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "engine/core.h"
#include "engine/guard.h"
#include "engine/services/ldap_client.h"

namespace qlhsm {

// The binding, sealed under the master key (hex), in the settings table.
inline constexpr const char *kDirectorySetting = "ds_binding";
// How long one directory call may take (connect, bind, then each operation).
inline constexpr std::chrono::milliseconds kDirectoryTimeout{5000};

// What the entry says about the HSM; the daemon sets it once it listens.
struct Advertisement {
  std::string name;     // the entry's cn: the host name
  std::string address;  // the address the daemon listens on
  uint16_t port = 0;
  std::string fingerprint;  // SHA-256 of the TLS certificate, hex
};

class DirectoryService {
 public:
  DirectoryService(Core &core, Guard &guard) : core_(core), guard_(guard) {}

  void SetAdvertisement(Advertisement ad);

  // Publishes the entry under the URL's base DN as `bind_dn`, then keeps the binding (replacing
  // one kept before). Flags must be 0 (1004); a URL other than ldap:// or ldaps:// with a base DN
  // is 1001; the bind refused QL_ERR_DIRECTORY_BIND_REFUSED; the directory unreachable or
  // refusing the entry QL_ERR_DIRECTORY_FAILED. Nothing is kept unless the entry was published.
  Status Bind(sessions::Session &s, std::string_view url, std::string_view bind_dn,
              std::string_view password, uint32_t flags);
  // Removes the entry and the kept binding. Nothing bound: 5004. When the directory fails the
  // binding stays, so that the unbind can be tried again.
  Status Unbind(sessions::Session &s, uint32_t flags);

  // Publishes the entry again by the kept binding (at start); nothing bound is Ok.
  Status Renew();

 private:
  struct Binding {
    std::string url;
    ldap::Credentials who;
  };
  Result<Binding> Kept();
  Status Keep(const Binding &b);
  Status Forget();
  ldap::Entry EntryFor(const ldap::Target &target);
  Status Publish(const Binding &b);

  Core &core_;
  Guard &guard_;
  std::mutex mu_;  // the advertisement; one bind or unbind at a time
  Advertisement ad_;
};

}  // namespace qlhsm
