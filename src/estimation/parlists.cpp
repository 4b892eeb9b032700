#include "estimation/parlists.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "likelihood/derivatives.h"
#include "parameters/parunits.h"
#include "parameters/parvec.h"
#include "parfile/model.h"
#include "support/edit_form.h"
#include "support/screen.h"

#include <string>
#include <vector>

namespace tarvex {

void write_listofcovs() {
    constexpr edit_form item{"(i4,2x,a,g20.8)"};
    if (options.details) print_list(screen(), "Covariances to be estimated & their starting values");
    text_out out;
    const bool open = out.open(filenames.covlstfile);
    std::vector<double> all;
    // a variance function of the control variable: no residual covariances
    for (int irand = estimates.nnparm(0) > 0 ? 0 : 1; irand <= numbers.krand; ++irand)
        for (int k = 1; k <= cov_length(irand); ++k) all.push_back(model.cov(k, irand));
    for (const auto& sum : usrdefcovs.addcov) {
        double x = 0.0;
        for (const auto& t : sum)
            // terms of sums count covariances in the order of this list
            if (t.isig >= 1 && t.isig <= static_cast<int>(all.size())) x += t.factor * all[t.isig - 1];
        all.push_back(x);
    }
    for (int k = 1; k <= static_cast<int>(all.size()); ++k) {
        const double x = all[k - 1];
        if (open) write(out, item, k, estimates.covnames(k), x);
        if (options.details) write(screen(), item, k, estimates.covnames(k), x);
    }
}

void list_parameters() {
    constexpr edit_form item{"(i5,2x,a,g20.8)"};
    if (!options.verbose) return;
    print_list(screen(), "Parameters to be estimated & their starting values");
    for (int i = 1; i <= estimates.nparm; ++i) write(screen(), item, i, estimates.parnames(i), estimates.parvec(i));
}

void write_avinfo(double xlike) {
    const auto put = [xlike](const std::string& name, const array<double>& a, const std::vector<double>& unit,
                             double sign) {
        text_out out;
        if (!out.open(name)) return;
        print_list(out, xlike);
        for (int i = 1; i <= estimates.nparm; ++i)
            for (int j = i; j <= estimates.nparm; ++j)
                print_list(out, i, j,
                           // by parameters in the units of the data; a logarithm has factor 1
                           sign * a(ihmssf(i, j, estimates.nparm)) / (unit[i - 1] * unit[j - 1]));
    };
    std::vector<double> factors;
    for (const auto& u : parameter_units()) factors.push_back(u.factor);
    put(filenames.aiparsfile, derivs.der2, factors, 1.0);
    if (!options.principal) put(filenames.aicovsfile, derivs.devl2, covariance_units(), -1.0);
}

} // namespace tarvex
