#include "engine/services/ldap_client.h"

#include <ldap.h>
#include <sys/time.h>

#include <memory>

namespace qlhsm::ldap {

namespace {

struct UrlDescFree {
  void operator()(LDAPURLDesc *d) const { ldap_free_urldesc(d); }
};

struct LdapClose {
  void operator()(LDAP *ld) const { ldap_unbind_ext_s(ld, nullptr, nullptr); }
};
using Connection = std::unique_ptr<LDAP, LdapClose>;

Status DirectoryError(const char *what, int rc) {
  return Status::Error(Code::kDirectoryFailed, std::string(what) + ": " + ldap_err2string(rc));
}

// Opens a connection to the target and binds; the password never leaves this function.
Result<Connection> Bind(const Target &target, const Credentials &who,
                        std::chrono::milliseconds timeout) {
  LDAP *raw = nullptr;
  int rc = ldap_initialize(&raw, target.server.c_str());
  if (rc != LDAP_SUCCESS) return DirectoryError("directory address", rc);
  Connection ld(raw);
  const int version = LDAP_VERSION3;
  timeval limit{};
  limit.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  limit.tv_usec = static_cast<suseconds_t>(timeout.count() % 1000 * 1000);
  if (ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &limit) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &limit) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF) != LDAP_OPT_SUCCESS)
    return Status::Error(Code::kInternal, "libldap refused a connection option");
  berval password{};
  password.bv_val = const_cast<char *>(who.password.data());
  password.bv_len = who.password.size();
  rc = ldap_sasl_bind_s(ld.get(), who.bind_dn.c_str(), LDAP_SASL_SIMPLE, &password, nullptr,
                        nullptr, nullptr);
  if (rc == LDAP_INVALID_CREDENTIALS || rc == LDAP_INAPPROPRIATE_AUTH ||
      rc == LDAP_INSUFFICIENT_ACCESS || rc == LDAP_INVALID_DN_SYNTAX ||
      rc == LDAP_UNWILLING_TO_PERFORM)
    return Status::Error(Code::kDirectoryBindRefused,
                         "bind as " + who.bind_dn + " refused: " + ldap_err2string(rc));
  if (rc != LDAP_SUCCESS) return DirectoryError("bind", rc);
  return ld;
}

// The modifications of `entry`, all with `op`, pointing into `entry`'s strings.
class Mods {
 public:
  Mods(const Entry &entry, int op) {
    values_.reserve(entry.attributes.size());
    mods_.reserve(entry.attributes.size());
    for (const Attribute &a : entry.attributes) {
      std::vector<char *> &v = values_.emplace_back();
      for (const std::string &s : a.second) v.push_back(const_cast<char *>(s.c_str()));
      v.push_back(nullptr);
      LDAPMod m{};
      m.mod_op = op;
      m.mod_type = const_cast<char *>(a.first.c_str());
      m.mod_values = v.data();
      mods_.push_back(m);
    }
    for (LDAPMod &m : mods_) list_.push_back(&m);
    list_.push_back(nullptr);
  }
  LDAPMod **get() { return list_.data(); }

 private:
  std::vector<std::vector<char *>> values_;
  std::vector<LDAPMod> mods_;
  std::vector<LDAPMod *> list_;
};

}  // namespace

Result<Target> ParseUrl(std::string_view url) {
  const std::string text(url);
  if (text.rfind("ldap://", 0) != 0 && text.rfind("ldaps://", 0) != 0)
    return Status::Error(Code::kBadArgument, "the directory URL is ldap:// or ldaps://");
  LDAPURLDesc *raw = nullptr;
  if (ldap_url_parse(text.c_str(), &raw) != LDAP_URL_SUCCESS)
    return Status::Error(Code::kBadArgument, "the directory URL does not parse");
  std::unique_ptr<LDAPURLDesc, UrlDescFree> desc(raw);
  if (desc->lud_host == nullptr || *desc->lud_host == '\0')
    return Status::Error(Code::kBadArgument, "the directory URL names no host");
  if (desc->lud_dn == nullptr || *desc->lud_dn == '\0')
    return Status::Error(Code::kBadArgument, "the directory URL names no base DN");
  std::string host = desc->lud_host;
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  Target t;
  t.server = std::string(desc->lud_scheme) + "://" + host;
  if (desc->lud_port != 0) t.server += ":" + std::to_string(desc->lud_port);
  t.base_dn = desc->lud_dn;
  return t;
}

std::string EscapeDnValue(std::string_view value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    const bool special = c == ',' || c == '+' || c == '"' || c == '\\' || c == '<' || c == '>' ||
                         c == ';' || c == '=' || (c == '#' && i == 0) ||
                         (c == ' ' && (i == 0 || i + 1 == value.size()));
    if (special) out += '\\';
    out += c;
  }
  return out;
}

Status Publish(const Target &target, const Credentials &who, const Entry &entry,
               std::chrono::milliseconds timeout) {
  Result<Connection> ld = Bind(target, who, timeout);
  if (!ld.ok()) return ld.status();
  Mods add(entry, LDAP_MOD_ADD);
  int rc = ldap_add_ext_s(ld->get(), entry.dn.c_str(), add.get(), nullptr, nullptr);
  if (rc == LDAP_ALREADY_EXISTS) {
    Mods replace(entry, LDAP_MOD_REPLACE);
    rc = ldap_modify_ext_s(ld->get(), entry.dn.c_str(), replace.get(), nullptr, nullptr);
    if (rc != LDAP_SUCCESS) return DirectoryError(("replacing " + entry.dn).c_str(), rc);
    return Status::Ok();
  }
  if (rc != LDAP_SUCCESS) return DirectoryError(("adding " + entry.dn).c_str(), rc);
  return Status::Ok();
}

Status Remove(const Target &target, const Credentials &who, const std::string &dn,
              std::chrono::milliseconds timeout) {
  Result<Connection> ld = Bind(target, who, timeout);
  if (!ld.ok()) return ld.status();
  const int rc = ldap_delete_ext_s(ld->get(), dn.c_str(), nullptr, nullptr);
  if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT)
    return DirectoryError(("removing " + dn).c_str(), rc);
  return Status::Ok();
}

}  // namespace qlhsm::ldap
