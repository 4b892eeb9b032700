// Parameter file, with sound data beside it: reading, choices and the tie between model and columns.
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::bring("data.dat", fuzz::records());
    fuzz::bring("ped.dat", fuzz::pedigree());
    fuzz::bring("model.par", fuzz::parts_of(data, size, 1)[0]);
    (void)fuzz::walk(run_stage::model, {"model"});
    return 0;
}
