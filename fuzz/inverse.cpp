// Supplied inverse, and behind a line "%%" the file of codes.
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::parts_of(data, size, 2);
    fuzz::bring_input("data.dat", fuzz::records());
    fuzz::bring_input("herd.gin", parts[0]);
    if (!parts[1].empty())
        fuzz::bring_input("herd.codes", parts[1]);
    else
        fuzz::take_away("herd.codes");
    fuzz::bring_input("model.par",
                      "ANA UNI\nDAT data.dat\n animal 99\n herd 9\n age 40\n y1\n y2\nEND\nMOD\n RAN herd GIN\n MEA\n"
                      " TR y1 1 -999\nEND\nVAR herd 1\n 0.4\nVAR residual 1\n 0.6\n");
    if (fuzz::one_in(8, data, size))
        (void)fuzz::walk(run_stage::stores, {"model"});
    else
        (void)fuzz::read_model({"model"}, fuzz::read_data);
    return 0;
}
