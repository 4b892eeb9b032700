#include "estimation/bestpoint.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "dense/numroutines.h"
#include "estimation/estimates.h"
#include "estimation/modelsums.h"
#include "parameters/parunits.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/plain_text.h"
#include "support/record_file.h"
#include "support/replace_file.h"

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

namespace {

// Covariances of block irand at the best point, in the layout of model.cov.
std::vector<double> get_cov(int irand) {
    std::vector<double> all;
    const int steps = steps_of(irand), n = model.kkfit(irand);
    for (int step = 1; step <= steps; ++step) {
        const array<double> cc = covariances_at(bestpoint.parbest, irand, step).cc;
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j) all.push_back(cc(ihmssf(i, j, n)));
    }
    return all;
}

// The stored sum of residual and PEQ matrix less the latter.
void subtract_peq(std::vector<double>& res, const std::vector<double>& peq) {
    std::size_t k = 0;
    for (const peq_place& p : peq_places()) res[p.residual - 1] -= peq[k++];
}

constexpr int most_numbered = 999; // three digits behind the name
constexpr std::string_view sums_mark = "sums", content_mark = " content ";

digest content_sum(std::string_view text, std::string_view line) {
    digest_maker sum;
    sum.add(text);
    sum.add(line);
    return sum.value();
}

// BestPoint as it stands: its records, and the sums of its last line by name.
struct stored_point {
    std::string text;
    std::map<std::string, digest> sums;
};

// False: there is no file, it has no sums, or it is not what was written.
bool read_stored(stored_point& point) {
    std::ifstream in(filenames.bestfile, std::ios::binary);
    if (!in && file_exists(filenames.bestfile)) stop_with("Error reading file \"" + filenames.bestfile + "\"");
    if (!in) return false;
    const std::string whole{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) stop_with("Error reading file \"" + filenames.bestfile + "\"");
    // the sums are the last line; a file cut off within it has no line end
    const std::size_t at = whole.rfind("\n" + std::string(sums_mark) + " ");
    if (at == std::string::npos || !whole.ends_with('\n')) return false;
    point.text = whole.substr(0, at + 1);
    const std::string_view line = std::string_view(whole).substr(at + 1, whole.size() - at - 2);
    const std::size_t end = line.rfind(content_mark);
    digest content;
    if (end == std::string::npos || !from_hex(line.substr(end + content_mark.size()), content)) return false;
    if (content != content_sum(point.text, line.substr(0, end))) return false;
    std::istringstream words{std::string(line.substr(sums_mark.size(), end - sums_mark.size()))};
    for (std::string name, value; words >> name >> value;)
        if (!from_hex(value, point.sums[name])) return false;
    return true;
}

std::string parts_that_differ(const stored_point& point, bool of_inputs) {
    std::string names;
    // an empty sum of inputs: this run has not read them, and cannot object
    for (const sum_part& part : sum_parts) {
        const digest mine = modelsums.*part.sum;
        if (part.of_inputs != of_inputs || (of_inputs && mine == digest{})) continue;
        const auto theirs = point.sums.find(std::string(part.name));
        if (theirs == point.sums.end() || theirs->second != mine)
            names += (names.empty() ? "" : ", ") + std::string(part.name);
    }
    return names;
}

// A point of another model would be read as numbers without their meaning.
void check_model(const stored_point& point) {
    const std::string names = parts_that_differ(point, false);
    if (names.empty()) return;
    print_list(screen(), "***** ERROR : \"" + filenames.bestfile + "\" belongs to another model");
    print_list(screen(), "      Different :", names);
    print_list(screen(), "      Go back to that model, or run without \"-c\" (\"--best\")");
    stoptarvex();
}

bool same_inputs(const stored_point& point) {
    const std::string names = parts_that_differ(point, true);
    if (names.empty()) return true;
    print_list(screen(), "\"" + filenames.bestfile + "\" is of the same model on other input (different : " + names +
                             ") - its log L does not count");
    return false;
}

// A decimal comma, of another hand: what it stands for is not guessed.
bool has_comma() {
    std::ifstream in(filenames.bestfile);
    int nline = 0;
    for (std::string line; std::getline(in, line);) {
        ++nline;
        const int column = comma_in_number(line);
        if (column == 0) continue;
        print_list(screen(), "Comma between two digits in \"" + filenames.bestfile + "\" : line", nline, "column",
                   column);
        return true;
    }
    return false;
}

[[noreturn]] void cannot_write() {
    print_list(screen(), "Cannot write file \"" + filenames.bestfile + "\"");
    print_list(screen(),
               "      Make room on the disk (or allow writing) & go on with option \"-c\" : the point before stands");
    stoptarvex();
}

} // namespace

std::vector<double> best_covariances(int irand) {
    std::vector<double> cov = get_cov(irand);
    if (irand == 0 && residualvars.peqsum) subtract_peq(cov, get_cov(residualvars.ipeq));
    // in the units of the data, whatever the traits are worked out in
    const std::vector<double> units = block_units(irand);
    for (std::size_t k = 0; k < units.size(); ++k) cov[k] *= units[k];
    return cov;
}

std::string bestpoint_copy(int iround) {
    const std::string digits = std::to_string(iround);
    return filenames.bestfile + std::string(3 - digits.size(), '0') + digits;
}

void writebestpoint(int iround, text_out* extra) {
    if (iround > most_numbered) return;
    // shortest texts that read back equal: a continued run starts from the same bits
    std::string text = list_item(bestpoint.xbest) + " " + list_item(estimates.nparm) + "\n";
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        std::string line;
        for (double x : best_covariances(irand)) line += (line.empty() ? "" : " ") + list_item(x);
        text += line + "\n";
    }
    if (extra) extra->raw(text);
    const std::string name = iround == 0 ? filenames.bestfile : bestpoint_copy(iround);
    if (replace_file(name, text + bestpoint_sums(text))) return;
    if (iround == 0) cannot_write();
    outputs.failed = name;
}

std::string bestpoint_sums(std::string_view text) {
    std::string line(sums_mark);
    for (const sum_part& part : sum_parts) line += " " + std::string(part.name) + " " + hex(modelsums.*part.sum);
    return line + std::string(content_mark) + hex(content_sum(text, line)) + "\n";
}

bool readbestpoint(bool quiet) {
    bestpoint.xlike_file = invalid_logl;
    stored_point point;
    if (!read_stored(point)) return false;
    check_model(point);
    std::istringstream in(point.text);
    double xlike = 0.0;
    int nprm = 0;
    if (!(in >> xlike >> nprm)) return false;
    // 0: the parameters have not been laid out yet, the layout of model.cov is all there is
    if (estimates.nparm > 0 && nprm != estimates.nparm) return false;
    std::vector<std::vector<double>> blocks;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        blocks.emplace_back(cov_length(irand));
        for (double& x : blocks.back())
            if (!(in >> x)) return false;
    }
    if (!quiet && !options.terse) {
        print_list(screen(), "\"BestPoint\" from previous run  successfully read");
        print_list(screen(), " maximum of log L so far =", xlike);
    }
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (int k = 1; k <= cov_length(irand); ++k) model.cov(k, irand) = blocks[irand][k - 1];
    bestpoint.xlike_file = same_inputs(point) ? xlike : invalid_logl;
    bestpoint.from_best = true;
    return true;
}

void take_stored_point() {
    if (readbestpoint(false)) return;
    const bool comma = has_comma();
    if (!options.bestonly) {
        if (comma) stop_with("      Write a point in its place, or run without \"-c\"");
        print_list(screen(), "No usable \"" + filenames.bestfile + "\" found - estimation starts anew !");
        return;
    }
    print_list(screen(), "***** ERROR : No usable \"" + filenames.bestfile + "\" found - nothing to report !");
    stoptarvex();
}

} // namespace tarvex
