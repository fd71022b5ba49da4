#include "section_table.h"

#include <cmath>
#include <cstdio>
#include <memory>

SectionTable::SectionTable(const std::string &title, size_t name_width)
    : title_(title), max_name_length_(name_width) {}

void SectionTable::AddTitle(const std::string &title) {
  title_ = title;
}

void SectionTable::AddRow(const std::string &name, const char *format, ...) {
  va_list args;
  va_start(args, format);
  AddRowV(name, format, args);
  va_end(args);
}

void SectionTable::AddRowV(const std::string &name, const char *format, va_list args) {
  char value[kMaxValueLen] = {};
  vsnprintf(value, sizeof(value), format, args);
  Row row{name, value};
  if (row.name.size() > max_name_length_) {
    max_name_length_ = row.name.size();
  }
  if (row.value.size() > max_value_length_) {
    max_value_length_ = row.value.size();
  }
  rows_.push_back(std::move(row));
}

void SectionTable::Print() const {
  const size_t name_edge = left_margin_ + max_name_length_;
  const size_t separator_end = name_edge + separator_.size();
  // The title's middle stands over the end of the separator; at least one blank leads it.
  const float half = std::ceil(static_cast<float>(title_.size()) / 2.0f);
  int pad = static_cast<int>(static_cast<float>(separator_end) - half);
  if (pad < 1) {
    pad = 1;
  }
  printf("%*s%s\r\n\r\n", pad, " ", title_.c_str());
  for (const Row &row : rows_) {
    printf("%*s%s%s\r\n", static_cast<int>(name_edge), row.name.c_str(), separator_.c_str(),
           row.value.c_str());
  }
}
