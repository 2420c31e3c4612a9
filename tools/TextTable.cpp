#include "tools/TextTable.h"

#include <algorithm>

#include "tools/TerminalText.h"

namespace kelvo::kelvoctl {

namespace {

constexpr const char* kGap = "  ";

// Columns a terminal gives `text` (UTF-8): one per code point. Continuation bytes (10xxxxxx)
// belong to the code point before them.
std::size_t displayWidth(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0u) != 0x80u;
    }));
}

}  // namespace

TextTable::TextTable(std::vector<std::string> headings, std::vector<std::size_t> rightAligned)
    : right_(headings.size(), false) {
    for (std::size_t column : rightAligned)
        if (column < right_.size()) right_[column] = true;
    addRow(std::move(headings));
}

void TextTable::addRow(std::vector<std::string> cells) {
    const std::size_t columns = rows_.empty() ? cells.size() : rows_.front().size();
    cells.resize(columns);
    for (std::string& cell : cells) cell = terminalSafe(cell);
    rows_.push_back(std::move(cells));
}

std::string TextTable::text() const {
    if (rows_.empty()) return {};
    const std::size_t columns = rows_.front().size();
    std::vector<std::size_t> widths(columns, 0);
    for (const auto& row : rows_)
        for (std::size_t c = 0; c < columns; ++c)
            widths[c] = std::max(widths[c], displayWidth(row[c]));
    std::string out;
    for (const auto& row : rows_) {
        std::string line;
        for (std::size_t c = 0; c < columns; ++c) {
            const std::string pad(widths[c] - displayWidth(row[c]), ' ');
            if (c > 0) line += kGap;
            line += right_[c] ? pad + row[c] : row[c] + pad;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out += line + '\n';
    }
    return out;
}

void TextTable::print(std::FILE* stream) const {
    const std::string all = text();
    std::fwrite(all.data(), 1, all.size(), stream);
}

}  // namespace kelvo::kelvoctl
