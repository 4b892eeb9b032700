// Work space of the routines of a sparse system, owned by the caller and kept between calls.
#pragma once
#include "sparse/dense_kernels.h"
#include "sparse/supernodes.h"

#include <memory>
#include <new>
#include <vector>

namespace tarvex {

// Space on cache lines, not cleared: what is never used takes no memory.
struct free_aligned {
    void operator()(double* p) const { ::operator delete (p, std::align_val_t{64}); }
};
using work_space = std::unique_ptr<double, free_aligned>;
inline work_space make_space(std::ptrdiff_t size) {
    return work_space(static_cast<double*>(
        ::operator new (static_cast<std::size_t>(size + 2 * lane) * sizeof(double), std::align_val_t{64})));
}

struct sparse_work {
    const dense_kernels_table* dense = nullptr; // instruction set in use, nullptr: the best of this processor
    // Column kernel: columns waiting for a row; next unused place of each column; updates of the current column.
    std::vector<int> link, first;
    std::vector<double> temp;
    // Supernodes: the partition of a structure (supernodes()), and what the dense kernels pack.
    supernode_tree tree;
    work_space packing;
};

const dense_kernels_table& dense_of(sparse_work& w);
// The space of the dense kernels for one caller at a time.
kernel_space packing_of(sparse_work& w);

} // namespace tarvex
