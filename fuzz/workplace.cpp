#include "workplace.h"

#include "app/choices.h"
#include "app/new_analysis.h"
#include "app/runoptions.h"
#include "control/options.h"
#include "control/runlock.h"
#include "control/tvxroutines.h"
#include "data/data.h"
#include "data/pedigrees.h"
#include "data/reducepeds.h"
#include "data/remarks.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "relations/nrminverse.h"
#include "support/screen.h"
#include "support/stop.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <new>
#include <numeric>
#include <sstream>

namespace tarvex::fuzz {

namespace {

std::string last_screen;
std::map<std::string, std::string, std::less<>> inputs; // files that no run writes, as they lie in the folder

// Also keeps the program from waiting for an answer of the operator.
void enter_folder() {
    static const bool entered = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string name = std::string(tmp ? tmp : "/tmp") + "/fuzzXXXXXX";
        if (!mkdtemp(name.data())) found("no folder to work in");
        std::filesystem::current_path(name);
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(std::filesystem::current_path(), ec);
        });
        if (!std::freopen("/dev/null", "r", stdin)) found("no empty input");
        return true;
    }();
    (void)entered;
}

std::vector<const char*> pointers_to(const std::vector<std::string>& arguments) {
    std::vector<const char*> list{"tarvex"};
    for (const auto& a : arguments) list.push_back(a.c_str());
    return list;
}

} // namespace

void bring(const std::string& name, std::string_view text) {
    enter_folder();
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) found("cannot write " + name);
}

void bring_input(const std::string& name, std::string_view text) {
    const auto at = inputs.find(name);
    if (at != inputs.end() && at->second == text) return;
    bring(name, text);
    inputs.insert_or_assign(name, std::string(text));
}

void take_away(const std::string& name) {
    enter_folder();
    if (inputs.erase(name) != 0) std::filesystem::remove(name);
}

std::string content(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void clear_folder() {
    enter_folder();
    inputs.clear();
    for (const auto& entry : std::filesystem::directory_iterator(".")) std::filesystem::remove_all(entry.path());
}

namespace {

// Does `steps` in new modules and tells how it ended.
bool in_new_modules(const std::function<void()>& steps) {
    enter_folder();
    std::ostringstream sink;
    std::ostream* before = screen().redirect(sink);
    new_analysis();
    bool good = true, reason = true;
    try {
        steps();
    } catch (const program_stop& stopped) {
        good = false;
        screen().line(stopped.text);
        reason = !sink.str().empty() || !stopped.text.empty();
    } catch (const std::bad_alloc&) {
        good = false;
    }
    flush_all();
    unlock_folder();
    screen().redirect(before ? *before : std::cout);
    last_screen = sink.str();
    if (!reason) found("a stop without a word");
    return good;
}

} // namespace

bool walk(run_stage last, const std::vector<std::string>& arguments, const std::function<void()>& then) {
    const auto list = pointers_to(arguments);
    return in_new_modules([&] {
        (void)run_to(last, static_cast<int>(list.size()), list.data());
        if (then) then();
    });
}

bool read_model(const std::vector<std::string>& arguments, const std::function<void()>& then) {
    const auto list = pointers_to(arguments);
    return in_new_modules([&] {
        tvxtimes(1);
        if (!runoptions(static_cast<int>(list.size()), list.data())) return;
        read_parfile();
        choose_algorithm();
        choose_reconstruct();
        model2mudmap();
        if (then) then();
    });
}

void read_pedigree() {
    if (!options.allped) reducepeds();
    pedigree_list();
    secateurs();
}

void read_data() {
    data_scan1st();
    remark_on_input();
    gen_inverses();
}

bool one_in(unsigned n, const std::uint8_t* data, std::size_t size) {
    return std::accumulate(data, data + size, 0u) % n == 0;
}

int analyse(const std::vector<std::string>& arguments) {
    enter_folder();
    const auto list = pointers_to(arguments);
    std::ostringstream sink;
    const int status = run_phases(static_cast<int>(list.size()), list.data(), {"", &sink});
    last_screen = sink.str();
    if (status != 0 && last_screen.empty()) found("a stop without a word");
    return status;
}

const std::string& told() { return last_screen; }

std::vector<std::string> parts_of(const std::uint8_t* data, std::size_t size, std::size_t n) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> parts;
    while (parts.size() + 1 < n) {
        const auto at = rest.find("%%\n");
        parts.emplace_back(rest.substr(0, at));
        rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + 3);
    }
    parts.emplace_back(rest);
    return parts;
}

void found(const std::string& what) {
    std::cerr << "FOUND: " << what << "\n" << last_screen << std::endl;
    std::abort();
}

std::string pedigree() { return "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 3 0\n6 3 4\n7 5 6\n8 5 4\n"; }

std::string records() {
    return "1 1 20 4.5 10.1\n2 2 21 2.9 12.5\n3 1 25 3.9 11.0\n4 2 30 3.5 -999\n5 1 31 5.0 9.5\n6 2 22 4.1 10.7\n"
           "7 1 27 3.2 11.9\n8 2 24 4.8 -999\n8 2 29 4.0 10.2\n";
}

std::string two_traits() {
    return "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 99\n herd 9\n age 40\n y1\n y2\nEND\nMOD EQ\n FIX herd\n"
           " COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 0.4 0.1 0.5\n"
           "VAR residual 2\n 0.6 0.2 0.7\n";
}

std::string one_trait() {
    return "PED ped.dat\nANA UNI\nDAT data.dat\n animal 99\n herd 9\n age 40\n y1\n y2\nEND\nMOD\n FIX herd\n"
           " RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n 0.4\nVAR residual 1\n 0.6\n";
}

} // namespace tarvex::fuzz
