#include "support/tasks.h"

#include <atomic>
#include <exception>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

namespace tarvex {

namespace {

namespace tbb = oneapi::tbb;

// Pieces are handed out by a counter. All that the pieces read was written before it was made, and all that they wrote
// is seen by who has counted them out.
struct shared_pieces {
    int count;
    task_pool::piece body;
    const void* arg;
    std::atomic<int> next{0}, ended{0};
    std::atomic<int> failed{0};
    std::exception_ptr failure{};

    void take_part(int slot) {
        for (int i; (i = next.fetch_add(1, std::memory_order_acq_rel)) < count;
             ended.fetch_add(1, std::memory_order_acq_rel)) {
            try {
                body(arg, i, slot);
            } catch (...) {
                if (failed.exchange(1, std::memory_order_acq_rel) == 0) failure = std::current_exception();
            }
        }
    }
};

} // namespace

struct task_pool::threads_of_library {
    explicit threads_of_library(int n)
        : allowed(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(n)), arena(n) {}
    tbb::global_control allowed;
    tbb::task_arena arena;
    tbb::task_group group;
};

int usable_threads() { return tbb::info::default_concurrency(); }

task_pool::task_pool(int threads) : threads_(threads) {
    if (threads > 1) library_ = std::make_unique<threads_of_library>(threads);
}
task_pool::~task_pool() = default;

void task_pool::run(const std::function<void()>& f) {
    if (!library_) return f();
    std::exception_ptr failure;
    library_->arena.execute([&] {
        try {
            f();
        } catch (...) {
            failure = std::current_exception();
        }
    });
    if (failure) std::rethrow_exception(failure);
}

int task_pool::slot() const { return library_ ? tbb::this_task_arena::current_thread_index() : 0; }

void task_pool::each(int count, piece body, const void* arg) {
    if (!library_ || count < 2) {
        for (int i = 0; i < count; ++i) body(arg, i, slot());
        return;
    }
    shared_pieces work{count, body, arg};
    tbb::this_task_arena::isolate([&] { // while waiting no other work is taken up, which could be long
        tbb::task_group helpers;
        for (int k = 1; k < threads_ && k < count; ++k) helpers.run([&] { work.take_part(slot()); });
        work.take_part(slot());
        helpers.wait();
    });
    work.ended.load(std::memory_order_acquire);
    if (work.failed.load(std::memory_order_acquire) != 0) std::rethrow_exception(work.failure);
}

void task_pool::start(std::function<void()> f) {
    if (!library_) return f();
    library_->group.run(std::move(f));
}

void task_pool::finish() {
    if (library_) library_->group.wait();
}

} // namespace tarvex
