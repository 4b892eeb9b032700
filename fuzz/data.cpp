// Data file: scans, recoding and the rank of the fixed part. The first byte chooses the model, and whether the run goes
// on to the end of the set-up of its equations.
#include "data/recodedata.h"
#include "equations/equations.h"
#include "equations/lsqfixed.h"
#include "estimation/covs2parvec.h"
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return -1;
    fuzz::bring("data.dat", fuzz::parts_of(data + 1, size - 1, 1)[0]);
    fuzz::bring("ped.dat", fuzz::pedigree());
    fuzz::bring("model.par", data[0] % 2 == 0 ? fuzz::one_trait() : fuzz::two_traits());
    if (data[0] / 2 % 4 == 0)
        (void)fuzz::walk(run_stage::equations, {"model"});
    else
        (void)fuzz::walk(run_stage::data, {"model"}, [] {
            equation_nos();
            data_recode(starts_of_equations());
            covs2parvec();
            lsq_fixed();
        });
    return 0;
}
