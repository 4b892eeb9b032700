// Whole runs, twice in one folder: parameter file, data and pedigree parted by lines "%%".
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::parts_of(data, size, 3);
    fuzz::clear_folder();
    fuzz::bring("model.par", parts[0]);
    fuzz::bring("data.dat", parts[1]);
    fuzz::bring("ped.dat", parts[2]);
    if (fuzz::analyse({"--aireml2", "model"}) != 0) return 0;
    const std::string point = fuzz::content("BestPoint");
    if (fuzz::analyse({"--aireml2", "model"}) != 0)
        fuzz::found("a run stops in the folder in which it has ended before");
    if (fuzz::content("BestPoint") != point) fuzz::found("the second run ends elsewhere");
    return 0;
}
