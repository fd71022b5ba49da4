#pragma once
// A labelled key/value report: a centred title over right-aligned names, " : " and the values.
//
//   SectionTable t("HSM", 10);
//   t.AddRow("Model", "%s", model);
//   t.Print();

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

class SectionTable {
 public:
  // Size of the buffer one value is formatted into; longer values are cut to 1023 characters.
  static constexpr size_t kMaxValueLen = 1024;

  struct Row {
    std::string name;
    std::string value;
  };

  // name_width: the minimum width of the name column.
  SectionTable(const std::string &title, size_t name_width);

  void AddTitle(const std::string &title);
  void AddRow(const std::string &name, const char *format, ...)
#if defined(__GNUC__) || defined(__clang__)
      __attribute__((format(printf, 3, 4)))
#endif
      ;
  void AddRowV(const std::string &name, const char *format, va_list args);

  // Writes the table to standard output.
  void Print() const;

  const std::vector<Row> &rows() const {
    return rows_;
  }
  size_t max_name_length() const {
    return max_name_length_;
  }
  size_t max_value_length() const {
    return max_value_length_;
  }

 private:
  std::string title_;
  std::string separator_ = " : ";
  size_t left_margin_ = 3;
  std::vector<Row> rows_;
  size_t max_name_length_;
  size_t max_value_length_ = 0;
};
