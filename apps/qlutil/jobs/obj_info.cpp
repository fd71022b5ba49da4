#include "jobs/obj_info.h"

#include <cstdio>
#include <cstring>

#include "param_options.h"

namespace {

bool IsObjectType(uint32_t type) {
  return (type >= QL_OBJ_FILE && type <= QL_OBJ_DPG03) || type == QL_OBJ_MAP;
}

std::string CsvField(const std::string &text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

int ObjInfo::UpdateObjAttributes(HSESSIONCTX session) {
  QL_OBJ_INFO info{};
  const int rc = QGetObjInfo(session, name_.c_str(), &info);
  has_attr_ = rc == 0;
  if (has_attr_) {
    type_ = info.dwType;
    flags_ = info.dwFlags;
    owner_ = info.szOwner;
  }
  return rc;
}

std::string ObjInfo::TypeWord(uint32_t type) {
  switch (type) {
    case QL_OBJ_FILE:
      return "file";
    case QL_OBJ_X509:
      return "x509";
    case QL_OBJ_PKCS7:
      return "pkcs7";
    case QL_OBJ_CRL:
      return "crl";
    case QL_OBJ_HOTP:
      return "hotp";
    case QL_OBJ_DPG03:
      return "dpg03";
    case QL_OBJ_MAP:
      return "map";
    default:
      return "key";
  }
}

std::string ObjInfo::AlgorithmWord(uint32_t type) {
  if (IsObjectType(type)) return "-";
  // The key words of the general table run from "des" to the last curve; hashes, modes and
  // blob types share its numbers, so only that stretch names a key.
  bool in_keys = false;
  for (int i = 0; i < kAlgOptionsRows; ++i) {
    const char *word = kAlgOptions[i].pszStringId;
    if (strcmp(word, "des") == 0) in_keys = true;
    if (strcmp(word, "publicKeyBlob") == 0) break;
    if (in_keys && strncmp(word, "p11", 3) != 0 && strcmp(word, "csp") != 0 &&
        static_cast<uint32_t>(kAlgOptions[i].nId) == type) {
      return word;
    }
  }
  return std::to_string(type);
}

std::string ObjInfo::GetStringHeader(bool csv, bool attr) {
  if (csv) return attr ? "name,type,algorithm,flags,owner" : "name";
  if (!attr) return "Name";
  char line[256];
  snprintf(line, sizeof line, "%-40s %-8s %-16s %-10s %s", "Name", "Type", "Algorithm", "Flags",
           "Owner");
  return line;
}

std::string ObjInfo::GetString(bool csv, bool attr) const {
  if (!attr) return csv ? CsvField(name_) : name_;
  const std::string type = has_attr_ ? TypeWord(type_) : "?";
  const std::string alg = has_attr_ ? AlgorithmWord(type_) : "?";
  char flags[16] = "?";
  if (has_attr_) snprintf(flags, sizeof flags, "0x%08X", flags_);
  const std::string owner = has_attr_ ? owner_ : "?";
  if (csv) {
    return CsvField(name_) + "," + type + "," + alg + "," + flags + "," + CsvField(owner);
  }
  char line[512];
  snprintf(line, sizeof line, "%-40s %-8s %-16s %-10s %s", name_.c_str(), type.c_str(), alg.c_str(),
           flags, owner.c_str());
  return line;
}
