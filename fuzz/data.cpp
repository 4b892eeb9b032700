// Data file: scans, recoding and the rank of the fixed part. The first byte chooses the model.
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return -1;
    fuzz::bring("data.dat", fuzz::parts_of(data + 1, size - 1, 1)[0]);
    fuzz::bring("ped.dat", fuzz::pedigree());
    fuzz::bring("model.par", data[0] % 2 == 0 ? fuzz::one_trait() : fuzz::two_traits());
    (void)fuzz::walk(run_stage::equations, {"model"});
    return 0;
}
