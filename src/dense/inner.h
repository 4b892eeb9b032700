// Inner products.
#pragma once
#include <cstddef>
#include <span>

namespace tarvex {

// a'b, summed from the first element on; b has as many elements as a.
inline double inner(std::span<const double> a, std::span<const double> b) {
    double s = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
}

} // namespace tarvex
