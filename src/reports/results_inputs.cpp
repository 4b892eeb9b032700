// Sums over the input files of a run (XXH3, 128 bits).
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "reports/results_json.h"
#include "reports/results_parts.h"

#include <nlohmann/json.hpp>
#include <xxhash.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace tarvex {

namespace {

// False: no such file.
bool sum_file(input_file& f) {
    std::ifstream in(f.name, std::ios::binary);
    if (!in || !std::filesystem::is_regular_file(f.name)) return false;
    const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(), XXH3_freeState);
    XXH3_128bits_reset(state.get());
    std::vector<char> buffer(1 << 16);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const auto n = static_cast<std::size_t>(in.gcount());
        XXH3_128bits_update(state.get(), buffer.data(), n);
        f.bytes += static_cast<long long>(n);
    }
    if (in.bad()) stop_with("Error reading file \"" + f.name + "\"");
    XXH128_canonical_t bytes;
    // bytes in the order in which such sums are written everywhere
    XXH128_canonicalFromHash(&bytes, XXH3_128bits_digest(state.get()));
    for (const unsigned char c : bytes.digest) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", c);
        f.sum += hex;
    }
    return true;
}

void note(const std::string& role, const std::string& name) {
    if (name.empty()) return;
    input_file f{role, name, {}, 0};
    if (sum_file(f)) noted_inputs.files.push_back(f);
}

} // namespace

void note_inputs() {
    noted_inputs = {};
    if (!options.json) return;
    // results of an earlier run must not stand beside a run that fails
    std::error_code ignored;
    std::filesystem::remove(filenames.resultsfile, ignored);
    note("parameter file", filenames.parfile);
    note("run options", filenames.runopfile);
    note("data", filenames.datfile);
    note("pedigree", filenames.pedfile);
    note("starting values", filenames.stvalfile);
    if (model.me_type == residual_kind::ind) note("residual classes", filenames.me_varfile);
    if (options.continew) note("best point", filenames.bestfile);
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (mudmap.kovrnd(irand) != covariance_kind::gin) continue;
        note("inverse", model.krandom(irand) + ".gin");
        note("codes of inverse", model.krandom(irand) + ".codes");
    }
}

nlohmann::ordered_json input_sums() {
    auto list = nlohmann::ordered_json::array();
    for (const auto& f : noted_inputs.files)
        list.push_back({{"role", f.role}, {"name", f.name}, {"bytes", f.bytes}, {"xxh3_128", f.sum}});
    return list;
}

} // namespace tarvex
