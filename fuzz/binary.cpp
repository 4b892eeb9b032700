// Scratch files of an earlier run, and BestPoint. The first byte chooses the file and whether the seal of what the
// fuzzer has made of it is put right: then only the tests of the content stand between the file and the run. A file
// whose seal does not hold must leave no trace: log L at the start is that of a fresh folder.
#include "support/seal.h"
#include "workplace.h"

#include <cstring>
#include <map>

using namespace tarvex;

namespace {

const std::vector<std::string> names{"nrminvers1.bin", "inbreed.bin",  "cholnrm1.bin", "adjacency.bin",
                                     "eqnsorder.bin",  "symbfact.bin", "BestPoint"};
const std::vector<std::string> arguments{"--super", "--aireml1", "model"};

std::map<std::string, std::string> sound; // the files of a run in a fresh folder

void bring_inputs() {
    fuzz::bring("data.dat", fuzz::records());
    fuzz::bring("ped.dat", fuzz::pedigree());
    fuzz::bring("model.par", fuzz::two_traits());
}

void first_run() {
    fuzz::clear_folder();
    bring_inputs();
    if (fuzz::analyse(arguments) != 0) fuzz::found("the sound run stops");
    for (const auto& name : names) sound[name] = fuzz::content(name);
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

} // namespace

// Bytes 2 and 3: where the input is laid over the sound file; the rest of that is kept.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return -1;
    if (sound.empty()) first_run();
    for (const auto& [name, text] : sound)
        if (!text.empty()) fuzz::bring(name, text);
    const std::string& name = names[data[0] % names.size()];
    const bool reseal = data[0] >= 128 && name != "BestPoint";
    const std::string& before = sound[name];
    std::string body = before.substr(0, before.size() - (reseal ? std::min(seal_bytes, before.size()) : 0));
    const std::size_t at = std::min<std::size_t>(data[1] + 256u * data[2], body.size());
    body.replace(at, std::min(size - 3, body.size() - at), reinterpret_cast<const char*>(data + 3), size - 3);
    if (data[0] / 7 % 2 == 1) body.resize(std::min(body.size(), at + size - 3)); // a cut
    fuzz::bring(name, reseal ? resealed(before, body) : body);
    const int status = fuzz::analyse(arguments);
    if (reseal) return 0;
    if (status != 0) fuzz::found("a spoilt file stops the run");
    if (fuzz::content("BestPoint") != sound["BestPoint"]) fuzz::found("a spoilt file changes the result");
    return 0;
}
