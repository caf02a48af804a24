#include "table.h"

#include <algorithm>
#include <numeric>

namespace korcommon::cli {
namespace {

bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

size_t displayWidth(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return !continuesCharacter(byte); }));
}

// The first `width` characters of `text`, never splitting one.
std::string firstCharacters(const std::string& text, size_t width) {
  size_t end = 0;
  for (size_t seen = 0; end < text.size(); ++end) {
    if (!continuesCharacter(text[end]) && seen++ == width) break;
  }
  return text.substr(0, end);
}

// `text` cut to `width` characters, ending in "..." when anything was cut.
std::string cutTo(const std::string& text, size_t width) {
  if (displayWidth(text) <= width) return text;
  constexpr size_t kEllipsis = 3;
  if (width <= kEllipsis) return firstCharacters(text, width);
  return firstCharacters(text, width - kEllipsis) + "...";
}

}  // namespace

std::vector<std::string> layOutTable(const std::vector<std::vector<std::string>>& rows,
                                     size_t max_width, const std::vector<size_t>& shrinkable) {
  if (rows.empty()) return {};
  const size_t column_count = rows.front().size();
  std::vector<size_t> widths(column_count, 0);
  for (const auto& row : rows) {
    for (size_t column = 0; column < column_count; ++column) {
      widths[column] = std::max(widths[column], displayWidth(row[column]));
    }
  }
  constexpr size_t kGap = 2;
  const size_t total =
      std::accumulate(widths.begin(), widths.end(), size_t{0}) + kGap * (column_count - 1);
  size_t excess = max_width > 0 && total > max_width ? total - max_width : 0;
  for (const size_t column : shrinkable) {
    const size_t narrowest = displayWidth(rows.front()[column]);
    const size_t given_up = std::min(excess, widths[column] - std::min(widths[column], narrowest));
    widths[column] -= given_up;
    excess -= given_up;
  }

  std::vector<std::string> lines;
  for (const auto& row : rows) {
    std::string line;
    for (size_t column = 0; column < column_count; ++column) {
      const std::string cell = cutTo(row[column], widths[column]);
      line += cell;
      if (column + 1 < column_count) line.append(widths[column] - displayWidth(cell) + kGap, ' ');
    }
    lines.push_back(max_width > 0 ? firstCharacters(line, max_width) : line);
  }
  return lines;
}

}  // namespace korcommon::cli
