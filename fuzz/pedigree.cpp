// Pedigree: reduction, list, pruning and inverse. The first byte chooses options.
#include "workplace.h"

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return -1;
    static const std::vector<std::string> options[] = {{"model"}, {"--nopru", "model"}, {"--self", "model"}};
    fuzz::bring_input("data.dat", fuzz::records());
    fuzz::bring_input("ped.dat", fuzz::parts_of(data + 1, size - 1, 1)[0]);
    std::string text = fuzz::one_trait();
    if (data[0] / 3 % 2 == 1) text.replace(text.find("ped.dat"), 7, "ped.dat SIRE");
    fuzz::bring_input("model.par", text);
    if (fuzz::one_in(8, data, size)) {
        (void)fuzz::walk(run_stage::data, options[data[0] % 3]);
    } else {
        (void)fuzz::read_model(options[data[0] % 3], [] {
            fuzz::read_pedigree();
            fuzz::read_data();
        });
    }
    return 0;
}
