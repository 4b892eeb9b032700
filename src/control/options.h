// Run flags. Set by the run options (runoptions.h), by the parameter file (readparfile.h) or during the run, as marked.
#pragma once
#include <array>

namespace tarvex {

struct options_module {
    bool aireml = false;        // the plan begins with steps of AI-REML
    bool algorithm_set = false; // an option has chosen the algorithm
    bool bestonly = false;      // report the stored best point only
    bool blup = false;          // solutions at given covariances
    bool continew = false;      // start from the stored best point
    bool details = false;       // most talkative; an error dies by an arithmetic fault
    bool devtrace = false;      // trace of the options
    bool emai = false;
    bool emalgorithm = true;     // the plan begins with EM, or BLUP: covariances are the parameters
    bool limits = false;         // the limits are told and the run ends
    std::array<int, 8> logdia{}; // by block, 0 residual: diagonals on the log scale
    bool mmmposdef = false;      // an indefinite coefficient matrix is an error
    bool nologd = false;         // never switch to log diagonals
    bool nopru = false;          // no pruning of pedigrees
    bool allped = false;         // animals that no record needs stay in the pedigree
    bool optim_ai = false;
    bool print_times = false;
    bool pxai = true;
    bool pxem = true;
    bool reco_set = false;
    bool reconstruct = true; // rebuild the parameters from the best point after an accepted step
    bool selfing = false;    // sire and dam of an animal may be the same
    bool setup_only = false;
    bool simulation = false;
    bool sure = true;          // a search that ends short of a maximum goes on (off: the stated plan alone)
    bool strict_ai = true;     // an AI step must raise log L
    bool superai = false;      // work through the relationship matrix, not its inverse
    bool write_factor = false; // leave the factor of the relationship matrix in a file (--super)
    bool tensor_ai = false;
    int threads = 1; // that take part; 0: as many as the process may use
    bool terse = false;
    bool verbose = false;
    bool werbose = false;
    bool wide = false;
    bool json = false;  // write Results.json
    bool sevars = true; // sampling errors in the report (off with --best)

    // From the parameter file and the model.
    bool comment = false;   // a COM line was given
    bool pedigrees = false; // a PED line was given
    bool siremodel = false;
    bool start_vals = false;  // starting values come from a file
    bool equal_model = false; // all traits have the same model
    bool randreg = false;     // random regression analysis
    bool principal = false;   // reduced rank, factor scale
    bool sigam = false;       // some random effects are correlated
    bool pseudofix = false;   // levels of random effects treated as fixed
    bool renumbered = false;  // trait numbers of the data are renumbered
};
inline options_module options;

} // namespace tarvex
