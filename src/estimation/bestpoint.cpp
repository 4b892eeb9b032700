#include "estimation/bestpoint.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/estimates.h"
#include "parameters/parunits.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace tarvex {

namespace {

// Covariances of block irand at the best point, in the layout of model.cov.
std::vector<double> get_cov(int irand) {
    std::vector<double> all;
    array<double> cc;
    array<double, 2> vv;
    const int steps = irand == 0 ? model.rr_resteps : 1, n = model.kkfit(irand);
    for (int step = 1; step <= steps; ++step) {
        int ifail = 0;
        parvec2covs(bestpoint.parbest, irand, step, cc, vv, ifail);
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= (model.diagonal(irand) ? i : n); ++j) all.push_back(cc(ihmssf(i, j, n)));
    }
    return all;
}

// The stored sum of residual and PEQ matrix less the latter.
void subtract_peq(std::vector<double>& res, const std::vector<double>& peq) {
    std::size_t k = 0;
    for (const peq_place& p : peq_places()) res[static_cast<std::size_t>(p.residual - 1)] -= peq[k++];
}

std::string copy_name(int iround) {
    std::string digits = std::to_string(iround);
    return filenames.bestfile + std::string(3 - digits.size(), '0') + digits;
}

} // namespace

std::vector<double> best_covariances(int irand) {
    const array<int, 1, 0> marks = estimates.switchlog; // the marks belong to the iterate in progress
    std::vector<double> cov = get_cov(irand);
    if (irand == 0 && residualvars.peqsum) subtract_peq(cov, get_cov(residualvars.ipeq));
    estimates.switchlog = marks;
    const std::vector<double> units = block_units(irand);
    for (std::size_t k = 0; k < units.size(); ++k) cov[k] *= units[k];
    return cov;
}

void writebestpoint(int iround, text_out* extra) {
    if (iround >= 1000) return;
    std::vector<std::vector<double>> blocks;
    for (int irand = 0; irand <= numbers.krand; ++irand) blocks.push_back(best_covariances(irand));

    const std::string name = iround == 0 ? filenames.bestfile : copy_name(iround);
    const std::string temporary = name + ".tmp";
    text_out out;
    if (!out.open(temporary)) return;
    const auto put = [&](text_out& to) {
        print_list(to, bestpoint.xbest, estimates.nparm);
        for (const auto& block : blocks) {
            std::string line;
            for (double x : block) line += (line.empty() ? "" : " ") + list_item(x);
            to.line(line);
        }
    };
    put(out);
    if (out.close()) // else the earlier one is better than a part of this
        std::rename(temporary.c_str(), name.c_str());
    if (extra) put(*extra);
}

bool readbestpoint(bool quiet) {
    bestpoint.xlike_file = invalid_logl;
    std::ifstream in(filenames.bestfile);
    double xlike = 0.0;
    int nprm = 0;
    if (!in || !(in >> xlike >> nprm)) return false;
    if (estimates.nparm > 0 && nprm != estimates.nparm) return false;
    std::vector<std::vector<double>> blocks;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        blocks.emplace_back(static_cast<std::size_t>(cov_length(irand)));
        for (double& x : blocks.back())
            if (!(in >> x)) return false;
    }
    if (!quiet && !options.terse) {
        print_list(screen(), "\"BestPoint\" from previous run  successfully read");
        print_list(screen(), " maximum of log L so far =", xlike);
    }
    for (int irand = 0; irand <= numbers.krand; ++irand)
        for (int k = 1; k <= cov_length(irand); ++k)
            model.cov(k, irand) = blocks[static_cast<std::size_t>(irand)][static_cast<std::size_t>(k - 1)];
    bestpoint.xlike_file = xlike;
    bestpoint.from_best = true;
    return true;
}

} // namespace tarvex
