// Data file: scans, recoding and the rank of the fixed part. The first byte chooses the model; one input in eight goes
// on to the end of the set-up of its equations in a whole run.
#include "data/recodedata.h"
#include "equations/equations.h"
#include "equations/lsqfixed.h"
#include "estimation/covs2parvec.h"
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return -1;
    fuzz::bring_input("data.dat", fuzz::parts_of(data + 1, size - 1, 1)[0]);
    fuzz::bring_input("ped.dat", fuzz::pedigree());
    fuzz::bring_input("model.par", data[0] % 2 == 0 ? fuzz::one_trait() : fuzz::two_traits());
    if (fuzz::one_in(8, data, size))
        (void)fuzz::walk(run_stage::equations, {"model"});
    else
        (void)fuzz::read_model({"model"}, [] {
            fuzz::read_pedigree();
            fuzz::read_data();
            equation_nos();
            data_recode(starts_of_equations());
            covs2parvec();
            lsq_fixed();
        });
    return 0;
}
