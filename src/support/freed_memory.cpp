#include "support/freed_memory.h"

#include <malloc.h>

namespace tarvex {

namespace {

// glibc lets its bound follow the largest array freed unless it is set. What is cut off the heap's end stays twice as
// large, else an array at its end would come and go with each evaluation.
void set_bound(int bytes) {
    mallopt(M_MMAP_THRESHOLD, bytes);
    mallopt(M_TRIM_THRESHOLD, 2 * bytes);
}

} // namespace

void return_freed_memory() { set_bound(1 << 20); }

void keep_freed_memory() { set_bound(4 << 20); }

} // namespace tarvex
