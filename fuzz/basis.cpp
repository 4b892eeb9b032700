// Basis functions of the user, classes of residual variances and starting values, parted by lines "%%".
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::parts_of(data, size, 3);
    fuzz::bring_input("data.dat", fuzz::records());
    fuzz::bring_input("ped.dat", fuzz::pedigree());
    fuzz::bring_input("age_USR2.baf", parts[0]);
    fuzz::bring_input("MEVariances", parts[1]);
    fuzz::bring_input("start", parts[2]);
    fuzz::bring_input("model.par",
                      "STA start\nPED ped.dat\nANA RR\nDAT data.dat\n animal 99\n herd 9\n age 40\n y1\n y2\nEND\n"
                      "MOD\n RRC age\n FIX herd\n RAN animal(2,USR) NRM\n TR y1 1 -999\nEND\nVAR animal 2\n"
                      "VAR residual 1 IND 2\n");
    if (fuzz::one_in(8, data, size)) {
        (void)fuzz::walk(run_stage::data, {"model"});
    } else {
        (void)fuzz::read_model({"model"}, [] {
            fuzz::read_pedigree();
            fuzz::read_data();
        });
    }
    return 0;
}
