#ifndef VIGILACTL_TEXT_TABLE_H_
#define VIGILACTL_TEXT_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vigilactl {

// Rows of texts as aligned columns, two blanks between them. Cells are made printable here, so no
// caller can forget to.
class TextTable {
 public:
  static constexpr size_t kAnyWidth = SIZE_MAX;

  explicit TextTable(std::vector<std::string> headings = {});
  void AddRow(std::vector<std::string> cells);
  // One line per row, headings first, no blanks at the ends of lines. Where lines would be longer
  // than `width`, a first cell that is too long for its column stands in a line of its own above
  // the others; no cell is cut.
  std::string Render(size_t width = kAnyWidth) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace vigilactl

#endif  // VIGILACTL_TEXT_TABLE_H_
