// Checks of an analysis before it is run: all faults in one pass, and what the program would take without a word though
// nobody wants it. The parameter file is read by the program's own reader.
#pragma once
#include <string>
#include <vector>

namespace tvx {

// Findings of one kind. Codes: P parameter file, D data, G pedigree (faults); W what is accepted in silence.
struct finding {
    std::string code;
    std::string text;                  // what it is
    std::vector<std::string> examples; // at most three, with file, line, column and text
    std::int64_t count = 0;            // 0: the finding has no cases
    bool fault() const { return code[0] != 'W'; }
};

// Checks the analysis of a parameter file ("NAME.par" or "NAME").
std::vector<finding> check_analysis(const std::string& place);

// The findings as lines of text.
std::string findings_text(const std::vector<finding>& findings);

// Adds a case to the findings.
void add_case(std::vector<finding>& findings, const std::string& code, const std::string& text,
              const std::string& example);

// Parts: the modules of the parameter file are filled, the working directory is that of the analysis.
void check_model(std::vector<finding>& findings, const std::string& parfile);
void check_data(std::vector<finding>& findings);
void check_pedigree(std::vector<finding>& findings);

} // namespace tvx
