// Many runs of the program through Snakemake.
#pragma once
#include <map>
#include <string>
#include <vector>

namespace tvx {

struct job_settings {
    int jobs = 0;        // at a time; 0: as many as there are processors
    std::string profile; // of Snakemake, for a cluster; blank: this machine
};

// Runs jobs in folders below `folder`, each by its command, and returns the names of those that are done. A folder has
// the file analysis.par; its command ends with status 0. Jobs that are done are not run again. Snakemake that cannot
// be started is a fault; failed jobs are told.
std::vector<std::string> run_jobs(const std::string& folder, const std::map<std::string, std::string>& jobs,
                                  const job_settings& settings);

// Text in quotes for the shell.
std::string shell_quoted(const std::string& text);

// The inputs of a job are others than before: it is not done. (Snakemake looks at its parameter file only, and not
// where that has the same bytes.)
void job_is_new(const std::string& folder);

} // namespace tvx
