// Data simulated from the estimates of a run, and analyses of them.
#pragma once
#include "tvx/results.h"

#include <string>
#include <vector>

namespace tvx {

// Writes NNN data files simulated from the estimates of run `r` into `folder`/data, in the layout of the run's data
// file with the simulated values in place of the observed ones. Returns their names (with folder).
std::vector<std::string> simulate_data(const run_results& r, const std::string& folder, int n, unsigned seed);

// Makes the folder of one job: parameter file `par` of run `r` (its text) as analysis.par with the data file, and the
// other files that the analysis reads. A job that is there already with the same data is not touched.
void make_job(const run_results& r, const std::string& par_text, const std::string& data, const std::string& folder);

// Parameter file of a run.
std::string par_file_of(const run_results& r);

// The text of the parameter file with the run's estimates as starting values.
std::string at_estimates(const run_results& r, const std::string& par_text);

} // namespace tvx
