#ifndef VIGILACTL_TEXT_TABLE_H_
#define VIGILACTL_TEXT_TABLE_H_

#include <string>
#include <vector>

namespace vigilactl {

// Rows of texts as aligned columns, two blanks between them. Cells are made printable here, so no
// caller can forget to.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> headings = {});
  void AddRow(std::vector<std::string> cells);
  // One line per row, headings first, no blanks at the ends of lines.
  std::string Render() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace vigilactl

#endif  // VIGILACTL_TEXT_TABLE_H_
