#pragma once
// One object of a listing ("list-obj"), and the words its attributes print as.
//
// Layout, original format (columns separated by one blank):
//   Name                                     Type     Algorithm        Flags      Owner
//   mykey                                    key      rsa2048          0x00000001 master
// Without attributes only the name column is written. The csv format writes the same fields
// separated by commas, with the header "name,type,algorithm,flags,owner" (or "name"); a field
// that holds a comma or a double quote is quoted, its quotes doubled.

#include <cstdint>
#include <string>

#include "qlapi.h"

class ObjInfo {
 public:
  explicit ObjInfo(std::string name) : name_(std::move(name)) {}

  // Reads the object's type, flags and owner on the session (QGetObjInfo). The library's code;
  // on failure the attribute columns print "?".
  int UpdateObjAttributes(HSESSIONCTX session);

  static std::string GetStringHeader(bool csv, bool attr);
  std::string GetString(bool csv, bool attr) const;

  const std::string &name() const { return name_; }

  // "key" for a key (its type is its algorithm), else the object word (file, x509, pkcs7, crl,
  // hotp, dpg03, map).
  static std::string TypeWord(uint32_t type);
  // The key's algorithm word of the general algorithm table (rsa2048, aes256, ecc_secp256r1,
  // ...), its number when the table has no key word for it, "-" for objects that are not keys.
  static std::string AlgorithmWord(uint32_t type);

 private:
  std::string name_;
  bool has_attr_ = false;
  uint32_t type_ = 0;
  uint32_t flags_ = 0;
  std::string owner_;
};
