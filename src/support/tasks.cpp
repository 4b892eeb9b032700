#include "support/tasks.h"

#include <atomic>
#include <exception>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

// ThreadSanitizer does not see what the library, which is not built with it, does to order memory: what stands before a
// task is started comes before the task, and the task before what follows the wait for it. Here it is told.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#define TVX_NOT_WATCHED __attribute__((no_sanitize("thread")))
#else
#define TVX_NOT_WATCHED
#endif

namespace tarvex {

namespace {

namespace tbb = oneapi::tbb;

void before([[maybe_unused]] void* what) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(what);
#endif
}
void after([[maybe_unused]] void* what) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(what);
#endif
}

// A task of the library: a call of what `task` points to, which says when it has started and ended.
template <class Task> struct task_call {
    Task* task;
    TVX_NOT_WATCHED void operator()() const { task->run(); }
};

// Pieces are handed out by a counter. All that the pieces read was written before it was made, and all that they wrote
// is seen by who has counted them out.
struct shared_pieces {
    int count;
    task_pool::piece body;
    const void* arg;
    std::atomic<int> next{0}, ended{0};
    std::atomic<int> failed{0};
    std::exception_ptr failure{};
    const task_pool* pool = nullptr;

    void run() { // by a helper
        after(this);
        take_part(pool->slot());
        before(this);
    }
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

namespace {

// A piece of work that waits for a thread.
struct started_task {
    std::function<void()> f;
    void* pool;
    void run() {
        after(this);
        f();
        before(pool);
        delete this;
    }
};

} // namespace

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
    work.pool = this;
    tbb::this_task_arena::isolate([&] { // while waiting no other work is taken up, which could be long
        tbb::task_group helpers;
        before(&work);
        for (int k = 1; k < threads_ && k < count; ++k) helpers.run(task_call<shared_pieces>{&work});
        work.take_part(slot());
        helpers.wait();
        after(&work);
    });
    work.ended.load(std::memory_order_acquire);
    if (work.failed.load(std::memory_order_acquire) != 0) std::rethrow_exception(work.failure);
}

void task_pool::start(std::function<void()> f) {
    if (!library_) return f();
    auto* task = new started_task{std::move(f), this};
    before(task);
    library_->group.run(task_call<started_task>{task});
}

void task_pool::finish() {
    if (!library_) return;
    library_->group.wait();
    after(this);
}

} // namespace tarvex
