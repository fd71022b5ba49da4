// The numbered metadata records of an object (QL_META_* ids): which ids exist, the kind of value
// each holds, and whether a value is well formed. The library checks a value when it is set in a
// record being built, the daemon again when it is written.
#pragma once

#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>

#include "wire_values.h"

namespace qlproto {

enum class MetaKind { kText, kBytes, kDerName, kDate };

struct MetaType {
  uint32_t id;
  const char *name;
  MetaKind kind;
  const char *kind_name;
};

inline constexpr MetaType kMetaTypes[] = {
    {kMetaLabel, "label", MetaKind::kText, "text"},
    {kMetaId, "id", MetaKind::kBytes, "bytes"},
    {kMetaSubject, "subject", MetaKind::kDerName, "der"},
    {kMetaStartDate, "start_date", MetaKind::kDate, "date"},
    {kMetaEndDate, "end_date", MetaKind::kDate, "date"},
    {kMetaApplication, "application", MetaKind::kText, "text"},
};

// Longest value of any record.
inline constexpr size_t kMaxMetaValue = 1024;

inline const MetaType *FindMetaType(uint32_t id) {
  for (const MetaType &t : kMetaTypes)
    if (t.id == id) return &t;
  return nullptr;
}

// A calendar date "YYYYMMDD" (years 0001 to 9999, Gregorian leap years).
inline bool ValidMetaDate(const uint8_t *v, size_t len) {
  if (len != 8) return false;
  int n[8];
  for (size_t i = 0; i < 8; ++i) {
    if (v[i] < '0' || v[i] > '9') return false;
    n[i] = v[i] - '0';
  }
  const int year = n[0] * 1000 + n[1] * 100 + n[2] * 10 + n[3];
  const int month = n[4] * 10 + n[5];
  const int day = n[6] * 10 + n[7];
  if (year == 0 || month < 1 || month > 12 || day < 1) return false;
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

// Whether `v` may be the value of record `id`: a known id, 1 to kMaxMetaValue bytes, a date
// "YYYYMMDD", a subject one whole DER Name, a text without NUL bytes.
inline bool ValidMetaValue(uint32_t id, const uint8_t *v, size_t len) {
  const MetaType *t = FindMetaType(id);
  if (t == nullptr || v == nullptr || len == 0 || len > kMaxMetaValue) return false;
  switch (t->kind) {
    case MetaKind::kDate:
      return ValidMetaDate(v, len);
    case MetaKind::kDerName: {
      const unsigned char *p = v;
      X509_NAME *name = d2i_X509_NAME(nullptr, &p, static_cast<long>(len));
      const bool whole = name != nullptr && p == v + len;
      X509_NAME_free(name);
      return whole;
    }
    case MetaKind::kText:
      for (size_t i = 0; i < len; ++i)
        if (v[i] == 0) return false;
      return true;
    case MetaKind::kBytes:
      return true;
  }
  return false;
}

}  // namespace qlproto
