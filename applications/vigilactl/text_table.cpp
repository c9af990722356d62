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

std::string TextTable::Render(size_t width) const {
  std::vector<size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(row[i]));
  }
  size_t others = 0;
  for (size_t i = 1; i < widths.size(); ++i) others += 2 + widths[i];
  // A first column that leaves the others no room is as wide as its heading.
  const size_t room = width > others ? width - others : 0;
  if (!widths.empty() && widths[0] > room) {
    const size_t heading = rows_[0].empty() ? 0 : DisplayWidth(rows_[0][0]);
    widths[0] = 0;
    for (const auto& row : rows_) {
      const size_t cell = row.empty() ? 0 : DisplayWidth(row[0]);
      if (cell <= std::max(room, heading)) widths[0] = std::max(widths[0], cell);
    }
  }
  std::string out;
  for (const auto& row : rows_) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      if (DisplayWidth(row[i]) > widths[i]) {
        out += row[i] + '\n';
        line.append(widths[i] + 2, ' ');
        continue;
      }
      line += row[i];
      line.append(widths[i] - DisplayWidth(row[i]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
  }
  return out;
}

}  // namespace vigilactl
