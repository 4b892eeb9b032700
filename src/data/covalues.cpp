// Regression values of covariables.
#include "basis/legendre.h"
#include "basis/splines.h"
#include "data/data.h"
#include "data/levels.h"
#include "parfile/mudmap.h"
#include "support/stop.h"

#include <vector>

namespace tarvex {

void covariable_row(int icov, int iq, double x, std::span<double> row) {
    const basis_kind type = mudmap.cv_type(icov, iq);
    const std::size_t order = mudmap.cv_order(icov, iq);
    if (type == basis_kind::pol) {
        // powers 1, 2, .. of deviations from the mean: less collinear than raw ones
        const double dev = x - covmeans.cv_xbar(icov, iq);
        double power = 1.0;
        for (std::size_t k = 0; k < order; ++k) row[k] = power *= dev;
    } else if (type == basis_kind::leg) {
        const double cmin = covmeans.cv_min(icov, iq), cmax = covmeans.cv_max(icov, iq);
        std::vector<double> all(order + 1);
        legendre_row(-1.0 + 2.0 * (x - cmin) / (cmax - cmin), all);
        for (std::size_t k = 0; k < order; ++k) row[k] = all[k + 1]; // the constant would repeat the mean
    } else if (type == basis_kind::bsp) {
        const int isp = splines.cv_spline(icov, iq);
        const int a = bspline_place(isp, x);
        for (std::size_t k = 0; k < order; ++k) row[k] = splines.bspmat(isp)(a, k + 1);
    } else {
        stop("option not yet implemented");
    }
}

} // namespace tarvex
