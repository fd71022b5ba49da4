#include "engine/services/directory.h"

#include <unistd.h>

#include <iostream>

#include "crypto/bytes.h"
#include "engine/secure/secure.h"
#include "engine/services/system.h"
#include "engine/store/store.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

constexpr std::string_view kBindingAad = "qlhsm directory binding";

// The binding as the sealed setting holds it: URL, bind DN and password, each after its length
// (4 bytes, big-endian).
void PutField(secure::Bytes *out, std::string_view field) {
  const auto n = static_cast<uint32_t>(field.size());
  for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<uint8_t>(n >> shift));
  out->insert(out->end(), field.begin(), field.end());
}

bool TakeField(const secure::Bytes &in, size_t *at, std::string *field) {
  if (in.size() - *at < 4) return false;
  uint32_t n = 0;
  for (int i = 0; i < 4; ++i) n = n << 8 | in[*at + i];
  *at += 4;
  if (in.size() - *at < n) return false;
  field->assign(reinterpret_cast<const char *>(in.data() + *at), n);
  *at += n;
  return true;
}

// The directory's own words go to the daemon's log; the caller gets the code.
Status Logged(Status st) {
  if (!st.ok() && (st.code() == Code::kDirectoryFailed || st.code() == Code::kDirectoryBindRefused))
    std::cerr << "qlhsmd: directory: " << st.message() << "\n";
  return st;
}

}  // namespace

void DirectoryService::SetAdvertisement(Advertisement ad) {
  std::lock_guard<std::mutex> lock(mu_);
  if (ad.name.empty()) {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0')
      ad.name = "qlhsmd";
    else
      ad.name = host;
  }
  ad_ = std::move(ad);
}

ldap::Entry DirectoryService::EntryFor(const ldap::Target &target) {
  ldap::Entry e;
  e.dn = "cn=" + ldap::EscapeDnValue(ad_.name) + "," + target.base_dn;
  const std::string port = std::to_string(ad_.port);
  std::string host = ad_.address;
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  e.attributes = {
      {"objectClass", {"device", "labeledURIObject"}},
      {"cn", {ad_.name}},
      {"description",
       {"address=" + ad_.address, "port=" + port, "tls-sha256=" + ad_.fingerprint,
        std::string("version=") + kHsmVersion}},
      {"labeledURI", {"qlhsm://" + host + ":" + port + " qlhsmd"}},
  };
  return e;
}

Status DirectoryService::Publish(const Binding &b) {
  Result<ldap::Target> target = ldap::ParseUrl(b.url);
  if (!target.ok()) return target.status();
  return Logged(ldap::Publish(*target, b.who, EntryFor(*target), kDirectoryTimeout));
}

Result<DirectoryService::Binding> DirectoryService::Kept() {
  Result<std::string> hex = core_.store->GetSetting(kDirectorySetting);
  if (!hex.ok()) return hex.status();
  secure::Bytes sealed;
  if (!secure::FromHex(hex.value(), &sealed))
    return Status::Error(Code::kInternal, "an unreadable directory binding in the settings");
  Result<secure::Bytes> plain = secure::Open(core_.master_key, sealed, kBindingAad);
  if (!plain.ok()) return plain.status();
  Binding b;
  size_t at = 0;
  if (!TakeField(*plain, &at, &b.url) || !TakeField(*plain, &at, &b.who.bind_dn) ||
      !TakeField(*plain, &at, &b.who.password) || at != plain->size())
    return Status::Error(Code::kInternal, "a damaged directory binding in the settings");
  return b;
}

Status DirectoryService::Keep(const Binding &b) {
  secure::Bytes plain;
  PutField(&plain, b.url);
  PutField(&plain, b.who.bind_dn);
  PutField(&plain, b.who.password);
  Result<secure::Bytes> sealed = secure::Seal(core_.master_key, plain, kBindingAad);
  crypto::WipeMemory(plain.data(), plain.size());
  if (!sealed.ok()) return sealed.status();
  return core_.store->SetSetting(kDirectorySetting, secure::Hex(sealed.value()));
}

Status DirectoryService::Forget() {
  return core_.store->Locked([](store::Connection &conn) -> Status {
    Result<store::Statement> st = conn.Prepare("DELETE FROM settings WHERE key = ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, std::string(kDirectorySetting));
    return st->Run();
  });
}

Status DirectoryService::Bind(Session &s, std::string_view url, std::string_view bind_dn,
                              std::string_view password, uint32_t flags) {
  Op op{"ds-bind", url, Request::kAdminister, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (flags != 0) return Status::Error(Code::kBadFlags, "ds-bind takes no flags");
        if (bind_dn.empty()) return Status::Error(Code::kBadArgument, "no bind DN");
        return ldap::ParseUrl(url).status();
      },
      [&](const users::UserInfo &) -> Status {
        std::lock_guard<std::mutex> lock(mu_);
        Binding b{std::string(url), {std::string(bind_dn), std::string(password)}};
        QL_RETURN_IF_ERROR(Publish(b));
        return Keep(b);
      });
}

Status DirectoryService::Unbind(Session &s, uint32_t flags) {
  Op op{"ds-unbind", "-", Request::kAdminister, AuditMode::kChange};
  return guard_.Run(
      s, op,
      [&] {
        if (flags != 0) return Status::Error(Code::kBadFlags, "ds-unbind takes no flags");
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Status {
        std::lock_guard<std::mutex> lock(mu_);
        Result<Binding> b = Kept();
        if (!b.ok()) return b.status();  // nothing bound: kObjectNotFound
        Result<ldap::Target> target = ldap::ParseUrl(b->url);
        if (!target.ok()) return target.status();
        QL_RETURN_IF_ERROR(
            Logged(ldap::Remove(*target, b->who, EntryFor(*target).dn, kDirectoryTimeout)));
        return Forget();
      });
}

Status DirectoryService::Renew() {
  std::lock_guard<std::mutex> lock(mu_);
  Result<Binding> b = Kept();
  if (!b.ok()) return b.status().code() == Code::kObjectNotFound ? Status::Ok() : b.status();
  return Publish(*b);
}

}  // namespace qlhsm
