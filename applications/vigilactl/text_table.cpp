#include "vigilactl/text_table.h"

#include <algorithm>
#include <utility>

#include "vigilactl/printable_text.h"

namespace vigilactl {

TextTable::TextTable(std::vector<std::string> headings) {
  if (!headings.empty()) AddRow(std::move(headings));
}

void TextTable::AddRow(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = Printable(cell);
  rows_.push_back(std::move(cells));
}

std::string TextTable::Render() const {
  std::vector<size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(row[i]));
  }
  std::string out;
  for (const auto& row : rows_) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      line.append(widths[i] - DisplayWidth(row[i]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
  }
  return out;
}

}  // namespace vigilactl
