// A small LDAP client (libldap, LDAPv3, simple bind) for the directory binding: it publishes
// one entry, replacing one already there, and removes it. Each call opens its own connection
// with a bounded network and operation timeout, so a silent directory costs at most that long.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/status.h"

namespace qlhsm::ldap {

// "ldap://host:port/BASE-DN" or "ldaps://...": the server's URI (scheme, host, port) and the
// base DN under which the entry goes.
struct Target {
  std::string server;   // "ldap://host:port"
  std::string base_dn;  // never empty
};

// kBadArgument for another scheme, no host, no base DN, or a URL that does not parse.
Result<Target> ParseUrl(std::string_view url);

// One attribute and its values.
using Attribute = std::pair<std::string, std::vector<std::string>>;

struct Entry {
  std::string dn;
  std::vector<Attribute> attributes;
};

// `value` as one RDN value of a DN (RFC 4514 escapes).
std::string EscapeDnValue(std::string_view value);

struct Credentials {
  std::string bind_dn;
  std::string password;
};

// Binds and adds `entry`; an entry of that DN already there has its attributes replaced.
// A refused bind is kDirectoryBindRefused; an unreachable directory, a timeout or a refused
// add kDirectoryFailed, with the directory's own text in the status.
Status Publish(const Target &target, const Credentials &who, const Entry &entry,
               std::chrono::milliseconds timeout);

// Binds and deletes `dn`; an entry already gone counts as removed.
Status Remove(const Target &target, const Credentials &who, const std::string &dn,
              std::chrono::milliseconds timeout);

}  // namespace qlhsm::ldap
