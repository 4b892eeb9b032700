// Scratch files: those of an earlier run, BestPoint, and the recoded records of the run itself. The first byte chooses
// the file and whether what vouches for its content is put right: then only the tests of the content stand between the
// file and the run. A file whose sums do not hold must leave no trace: log L at the start is that of a fresh folder, or
// the run stops.
#include "data/recodedata.h"
#include "data/recodedsums.h"
#include "equations/eqnorders.h"
#include "equations/equations.h"
#include "equations/lsqfixed.h"
#include "estimation/bestpoint.h"
#include "estimation/covs2parvec.h"
#include "estimation/estimates.h"
#include "estimation/modelsums.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "likelihood/setups.h"
#include "relations/cholnrm.h"
#include "support/seal.h"
#include "workplace.h"

#include <algorithm>
#include <cstring>
#include <map>

using namespace tarvex;

namespace {

const std::vector<std::string> names{"nrminvers1.bin", "inbreed.bin", "cholnrm1.bin", "adjacency.bin", "eqnsorder.bin",
                                     "symbfact.bin",   "BestPoint",   "recoded1.bin", "recoded3.bin"};

std::map<std::string, std::string> sound; // the files of a run in a fresh folder
modelsums_module sums;
double truth = 0.0;

// Log L at the start, and a pass for derivatives. `before` is done in front of it. False: the run has stopped.
bool start(const std::vector<std::string>& options, double& xlike, const std::function<void()>& before = {}) {
    auto arguments = options;
    arguments.insert(arguments.end(), {"--super", "--aireml", "model"});
    return fuzz::walk(run_stage::stores, arguments, [&] {
        if (before) before();
        xlike = loglike(estimates.parvec, 1).xlike;
    });
}

// The same by the steps that read or make scratch files alone.
bool start_shortly(double& xlike, const std::function<void()>& before = {}) {
    return fuzz::read_model({"--super", "--aireml", "model"}, [&] {
        fuzz::read_pedigree();
        fuzz::read_data();
        cholnrm_animal();
        equation_nos();
        data_recode(starts_of_equations());
        covs2parvec();
        lsq_fixed();
        eqnorders();
        new_eqnnos();
        setup4like();
        setup4mmm();
        if (before) before();
        xlike = loglike(estimates.parvec, 1).xlike;
    });
}

void first_run() {
    fuzz::clear_folder();
    fuzz::bring("data.dat", fuzz::records());
    fuzz::bring("ped.dat", fuzz::pedigree());
    fuzz::bring("model.par", fuzz::two_traits());
    if (fuzz::analyse({"--super", "--aireml1", "model"}) != 0) fuzz::found("the sound run stops");
    for (const auto& name : names) sound[name] = fuzz::content(name);
    if (!start({}, truth, [] { sums = modelsums; })) fuzz::found("the sound run stops");
    for (const char* name : {"recoded1.bin", "recoded3.bin"}) sound[name] = fuzz::content(name);
    double xlike = 0.0;
    if (!start_shortly(xlike) || xlike != truth) fuzz::found("the short way ends elsewhere");
}

std::string resealed(const std::string& file, const std::string& body) {
    if (file.size() < seal_bytes) return body;
    seal s;
    const char* old = file.data() + file.size() - seal_bytes;
    std::memcpy(&s.made_from, old + 8, sizeof s.made_from);
    std::memcpy(s.note, old + 8 + sizeof s.made_from, sizeof s.note);
    digest_maker sum;
    sum.bytes(body.data(), body.size());
    return body + seal_text(s, sum);
}

std::string resummed(const std::string& body) {
    modelsums = sums;
    const std::string text = body.substr(0, body.rfind("\nsums ") + 1);
    return text + bestpoint_sums(text);
}

// The recoded records change between two passes of a run.
void spoil_records(const std::string& name, const std::string& body, bool forget, bool whole) {
    double xlike = 0.0;
    const auto spoil = [&] {
        fuzz::bring(name, body);
        if (!forget) return;
        recoded_sums = {};
    };
    const bool good = whole ? start({}, xlike, spoil) : start_shortly(xlike, spoil);
    // bytes behind the last record are none of them
    if (good && !forget && (xlike != truth || body.compare(0, sound[name].size(), sound[name]) != 0))
        fuzz::found("changed records are taken");
}

} // namespace

// Bytes 2 and 3: where the input is laid over the sound file; the rest of that is kept.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return -1;
    if (sound.empty()) first_run();
    for (const auto& [name, text] : sound)
        if (!text.empty()) fuzz::bring(name, text);
    const bool whole = fuzz::one_in(8, data, size);
    const std::string& name = names[data[0] % names.size()];
    const std::string& before = sound[name];
    const bool point = name == "BestPoint", records = name.starts_with("recoded"), put_right = data[0] >= 128;
    std::string body = before;
    if (put_right && !point && !records) body.resize(before.size() - std::min(seal_bytes, before.size()));
    const std::size_t at = std::min<std::size_t>(data[1] + 256u * data[2], body.size());
    body.replace(at, std::min(size - 3, body.size() - at), reinterpret_cast<const char*>(data + 3), size - 3);
    if (data[0] / 9 % 2 == 1) body.resize(std::min(body.size(), at + size - 3)); // a cut
    if (records) {
        spoil_records(name, body, put_right, whole);
        return 0;
    }
    if (put_right) body = point ? resummed(body) : resealed(before, body);
    fuzz::bring(name, body);
    // A file that its seal does not vouch for is refused by one test, in every reader: one in eight is run with.
    if (seal s; !put_right && !point && !whole && !read_seal(name, s)) return 0;
    double xlike = 0.0;
    const bool good = point ? start({"-c"}, xlike) : whole ? start({}, xlike) : start_shortly(xlike);
    if (put_right || body == before) return 0;
    if (point && !good) { // a decimal comma
        if (fuzz::told().find("Comma between two digits in \"BestPoint\"") == std::string::npos)
            fuzz::found("a spoilt point stops the run");
        return 0;
    }
    if (!good) fuzz::found("a spoilt file stops the run");
    if (xlike != truth) fuzz::found("a spoilt file changes the result");
    return 0;
}
