// Work space of the routines of a sparse system, owned by the caller and kept between calls.
#pragma once
#include "sparse/dense_kernels.h"
#include "sparse/supernodes.h"
#include "support/tasks.h"

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
    return work_space(static_cast<double*>(::operator new ((size + 2 * lane) * sizeof(double), std::align_val_t{64})));
}

struct sparse_work {
    const dense_kernels_table* dense = nullptr; // instruction set in use, nullptr: the best of this processor
    // Column kernel: columns waiting for a row; next unused place of each column; updates of the current column.
    std::vector<int> link, first;
    std::vector<double> temp;
    // Supernodes: the partition of a structure (supernodes()), and what the dense kernels pack.
    supernode_tree tree;
    double few_operations = 5e7; // below it the tree is one piece: some 10 ms
    work_space packing;
    // Threads that take part, none: the caller alone. Each that has been at work has a space to pack in.
    std::unique_ptr<task_pool> pool;
    std::vector<work_space> of_thread;
};

// The kernels in use; where none have been chosen, w.dense becomes the best set of this processor.
const dense_kernels_table& dense_of(sparse_work& w);
// The space of the dense kernels for one caller at a time.
kernel_space packing_of(sparse_work& w);

// Threads of w at work on one system: the kernels that get packing(true) hand pieces to them.
class shared_work {
public:
    explicit shared_work(sparse_work& w);
    int threads() const { return pool_ ? pool_->threads() : 1; }
    int slot() const { return pool_ ? pool_->slot() : 0; }
    task_pool* pool() const { return pool_; }
    // Of the caller; shared: with pieces that other threads take.
    kernel_space packing(bool shared);
    // Of the thread in this slot, for work of its own.
    kernel_space packing_of_slot(int slot);

private:
    static void share(void* self, int count, kernel_space::piece body, const void* arg);
    sparse_work& w_;
    task_pool* pool_;
};

// f(i, scratch) for i = 0..count-1, shared where the space is.
template <class F> void share_out(const kernel_space& k, int count, const F& f) {
    if (count > 1 && k.each) {
        k.each(
            k.pool, count, [](const void* g, int i, double* scratch) { (*static_cast<const F*>(g))(i, scratch); }, &f);
        return;
    }
    for (int i = 0; i < count; ++i) f(i, k.scratch);
}

} // namespace tarvex
