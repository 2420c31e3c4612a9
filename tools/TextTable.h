// A table for the terminal whose columns are as wide as their widest cell, so that a long fan
// label or a GPU's long device path never pushes the cells after it out from under their
// headings. Cells are made terminal-safe before they are measured.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kelvo::kelvoctl {

class TextTable {
public:
    // `headings` fixes the number of columns; a column listed in `rightAligned` (by index) lines
    // its cells up on the right, as numbers read best.
    explicit TextTable(std::vector<std::string> headings,
                       std::vector<std::size_t> rightAligned = {});

    // A row with fewer cells than headings is filled out with empty ones; extra cells are
    // dropped.
    void addRow(std::vector<std::string> cells);

    // The headings, then every row, one line each, without trailing spaces.
    std::string text() const;
    void print(std::FILE* stream) const;

private:
    std::vector<std::vector<std::string>> rows_;  // the headings first
    std::vector<bool> right_;
};

}  // namespace kelvo::kelvoctl
