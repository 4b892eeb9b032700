// Parameter file, with sound data beside it: reading, choices and the tie between model and columns.
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::bring_input("data.dat", fuzz::records());
    fuzz::bring_input("ped.dat", fuzz::pedigree());
    fuzz::bring_input("model.par", fuzz::parts_of(data, size, 1)[0]);
    if (fuzz::one_in(8, data, size))
        (void)fuzz::walk(run_stage::model, {"model"});
    else
        (void)fuzz::read_model({"model"});
    return 0;
}
