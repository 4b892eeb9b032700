// Runs from starting values that are multiples of those of a case, and how they end.
#pragma once
#include "cases/case_run.h"
#include "support/edit_form.h"
#include "support/screen.h"

#include <sstream>

namespace tarvex {

class poor_starts : public case_run {
protected:
    // Multiplies the starting values of a block, of all for "".
    void scale_block(const std::string& block, double factor) {
        std::istringstream in(read_file(name_ + ".par"));
        std::string text, line;
        for (bool inside = false; std::getline(in, line); text += line + "\n") {
            const auto words = words_of(line);
            if (words.empty()) continue;
            const bool numbers = words[0].find_first_not_of("0123456789.-+eE") == std::string::npos;
            if (words[0] == "VAR")
                inside = block.empty() || words[1] == block;
            else if (!numbers)
                inside = false;
            else if (inside) {
                line.clear();
                for (const auto& w : words) line += " " + list_item(std::stod(w) * factor);
            }
        }
        write_file(name_ + ".par", text);
    }
    static std::string last_verdict(const std::string& output) {
        const std::size_t at = output.rfind("Verdict: ");
        return at == std::string::npos ? "" : output.substr(at, output.find('\n', at) - at);
    }
};

} // namespace tarvex
