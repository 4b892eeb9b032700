#include "reports/residuals.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/datavecs.h"
#include "data/units.h"
#include "equations/orders.h"
#include "likelihood/solutions.h"
#include "likelihood/subjects.h"
#include "support/screen.h"

#include <vector>

namespace tarvex {

void write_residuals() {
    text_out out;
    if (!out.open(filenames.residsfile)) stop_with("Error opening file \"" + filenames.residsfile + "\"");
    array<double, 2> ssres;
    ssres.allocate(numbers.nq, numbers.nq);
    subject_stream subjects;
    std::vector<double> yy;
    const subject_record& record = subjects.record();
    // in the order of the recoded records, subject by subject
    while (subjects.next()) {
        const subject_design& d = subjects.design();
        yy.assign(d.nobs, 0.0);
        for (int i = 0; i < d.nobs; ++i) {
            const auto row = static_cast<std::size_t>(i);
            double fit = 0.0;
            for (auto k = static_cast<std::size_t>(d.first[row]); k < static_cast<std::size_t>(d.first[row + 1]); ++k)
                // solutions of the best point, by old numbers
                fit += d.weight[k] * solutions.solsave(orders.ieqold(d.eq[d.local[k]]));
            yy[row] = record.yvec(i + 1) - fit;
            const double unit = trait_unit(record.ynq(i + 1));
            yy[row] *= unit;
            // observed value and residual in the units of the data
            print_list(out, record.yvec(i + 1) * unit, yy[row]);
        }
        for (int i = 0; i < d.nobs; ++i)
            for (int j = 0; j < d.nobs; ++j) {
                const int iq = record.ynq(i + 1), jq = record.ynq(j + 1);
                if (i != j && iq == jq) continue; // no products between repeated records of a trait
                ssres(iq, jq) += yy[i] * yy[j];
            }
    }
    if (!options.details) return;
    print_list(screen(), "SS residuals");
    for (int iq = 1; iq <= numbers.nq; ++iq) print_list(screen(), ssres(iq, iq));
}

} // namespace tarvex
