#include "support/dense_rank.h"

#include <Eigen/Dense>

namespace oracle {

std::vector<int> dependent_columns(const dense& x, double least) {
    const auto n = static_cast<Eigen::Index>(x.size()), m = static_cast<Eigen::Index>(x.empty() ? 0 : x[0].size());
    Eigen::MatrixXd a(n, m);
    for (Eigen::Index i = 0; i < n; ++i)
        for (Eigen::Index j = 0; j < m; ++j) a(i, j) = x[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)];
    for (Eigen::Index j = 0; j < m; ++j)
        if (a.col(j).norm() > 0.0) a.col(j).normalize();
    std::vector<int> list;
    Eigen::Index before = 0;
    for (Eigen::Index j = 1; j <= m; ++j) {
        Eigen::ColPivHouseholderQR<Eigen::MatrixXd> qr;
        qr.setThreshold(least);
        const Eigen::Index rank = qr.compute(a.leftCols(j)).rank();
        if (rank == before) list.push_back(static_cast<int>(j));
        before = rank;
    }
    return list;
}

} // namespace oracle
