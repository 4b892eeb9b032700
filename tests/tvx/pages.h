// Pages of docs/ as programs. A page is taken apart into its blocks, fenced by three backquotes, and run from top to
// bottom in the working directory with the programs of this build:
//   sh [status]      commands, which end with this status (0); a directory they go to is that of the next block
//   file NAME        makes the file NAME
//   output [NAME]    lines that stand in this order in what the last commands printed, or in the file. Words are the
//                    same, numbers agree in the figures quoted; "..." stands for any words or, alone, for any lines
//   show             not run: forms with places to fill in
// A comment <!-- sh ... --> is run but not seen by readers.
#pragma once
#include "tvx/companion.h"

namespace tvx_tests {

struct page_block {
    std::string kind, name; // "sh", "file", "output" or "show"; what stands behind
    std::string text;
    int line; // of the page
};

struct page_blocks {
    std::vector<page_block> blocks;
    std::vector<std::string> faults; // fences left open, blocks of no kind, blocks that are only indented
};
page_blocks blocks_of(const std::string& page);

// The number word agrees in the figures that are quoted: to one and a half units of the last, or to 2 in 10000.
bool same_figure(const std::string& quoted, const std::string& word);
// Why the quoted lines do not stand in the text; empty: they do.
std::string missing_line(const std::string& quoted, const std::string& text);
// Runs all blocks; what does not hold, with lines of the page.
std::vector<std::string> faults_of(const std::string& page);

} // namespace tvx_tests
