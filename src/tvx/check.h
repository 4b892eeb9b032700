// Checks of an analysis before it is run: all faults in one pass, and what the program would take without a word though
// nobody wants it. The parameter file is read by the program's own reader.
#pragma once
#include <cstdint>
#include <string>
#include <unordered_set>
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

// What the analysis will cost, as the program tells it after its set-up, which is made beside the inputs and taken away
// again; blank if it tells nothing. A program that stops there is one more finding.
std::string forecast_of(const std::string& file, const std::vector<std::string>& options,
                        std::vector<finding>& findings);

// The findings as lines of text.
std::string findings_text(const std::vector<finding>& findings);

// Adds a case to the findings.
void add_case(std::vector<finding>& findings, const std::string& code, const std::string& text,
              const std::string& example);

// Parts: the modules of the parameter file are filled, the working directory is that of the analysis.
void check_model(std::vector<finding>& findings, const std::string& parfile);
void check_data(std::vector<finding>& findings);
// Leaves the codes of the animals that have a line or offspring in the pedigree.
void check_pedigree(std::vector<finding>& findings, std::unordered_set<long long>& listed);
// Codes of the data in effects with relationships that are not among them.
void check_strangers(std::vector<finding>& findings, const std::unordered_set<long long>& listed);

} // namespace tvx
