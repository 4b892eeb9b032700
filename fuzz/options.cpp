// Options: the lines up to one with "%%" are arguments, those behind it RunOptions.
#include "workplace.h"

#include <algorithm>

using namespace tarvex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::parts_of(data, size, 2);
    // the developer's option "-d" ends a stopped run by an arithmetic fault on purpose
    if (parts[0].find("-d") != std::string::npos || parts[1].find("-d") != std::string::npos) return -1;
    std::vector<std::string> arguments;
    for (std::size_t from = 0; from < parts[0].size() && arguments.size() < 20;) {
        const auto to = std::min(parts[0].find('\n', from), parts[0].size());
        arguments.push_back(parts[0].substr(from, to - from));
        from = to + 1;
    }
    fuzz::bring_input("data.dat", fuzz::records());
    fuzz::bring_input("ped.dat", fuzz::pedigree());
    fuzz::bring_input("model.par", fuzz::two_traits());
    fuzz::bring_input("RunOptions", parts[1]);
    arguments.push_back("model");
    if (fuzz::one_in(8, data, size))
        (void)fuzz::walk(run_stage::model, arguments);
    else
        (void)fuzz::read_model(arguments);
    return 0;
}
