// The report of a run: tables with the user's own names and one page with pictures.
#pragma once
#include "tvx/components.h"

#include <string>

namespace tvx {

// What the tables and the page show of the levels of one random effect and one trait (coefficient).
struct prediction {
    std::int64_t code = 0;
    std::string id;
    double solution = 0.0, se = 0.0, accuracy = 0.0; // NaN: none
    double inbreeding = 0.0;                         // NaN where the effect has no pedigree
    int records = -1;                                // -1: not known
    std::string sire, dam, birth;
};
struct prediction_list {
    std::string effect, trait; // trait with the coefficient in brackets
    bool animals = false;
    std::vector<prediction> levels;
};
std::vector<prediction_list> predictions_of(const run_results& r);

struct residual_record {
    std::int64_t line = 0; // of the user's table; of the data file outside studies
    int trait = 1;
    double observed = 0.0, residual = 0.0; // in the user's units
};
std::vector<residual_record> residuals_of(const run_results& r);

// Writes estimates.tsv, solutions_<effect>.tsv, fixed.tsv, residuals.tsv, curves.tsv (random regression), report.json
// and report.html into `folder`, which is made. Returns the name of the page.
std::string write_report(const run_results& r, const std::string& folder);

// Parts of it.
void write_tables(const run_results& r, const std::vector<prediction_list>& predictions,
                  const std::vector<residual_record>& residuals, const std::string& folder);
json report_summary(const run_results& r, const std::vector<prediction_list>& predictions,
                    const std::vector<residual_record>& residuals);
std::string page_of(const json& summary);

// Table of estimates with the verdict, for the screen.
std::string text_summary(const run_results& r);

} // namespace tvx
