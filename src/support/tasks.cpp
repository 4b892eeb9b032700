#include "support/tasks.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <oneapi/tbb/concurrent_queue.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>
#include <system_error>
#include <thread>
#include <vector>

// ThreadSanitizer does not see what the library, which is not built with it, does to order memory: what stands before a
// helper is started comes before its work, and its work before what follows the wait for it. Here it is told.
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

// A wait for what other threads do within microseconds: a thread that sleeps takes longer to wake than many a front
// takes to be worked on. Only a long wait is slept through.
class short_wait {
public:
    void pause() {
        if (++turns_ < many)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    void reset() { turns_ = 0; }

private:
    static constexpr int many = 20000; // some milliseconds
    int turns_ = 0;
};

// Pieces are handed out by a counter. All that the pieces read was written before it was made, and all that they wrote
// is seen by who waits for the last to leave.
struct shared_pieces {
    int count;
    task_pool::piece body;
    const void* arg;
    std::atomic<int> next{0};
    std::atomic<int> failed{0};
    std::exception_ptr failure{};

    bool left() const { return next.load(std::memory_order_relaxed) < count; }
    void take_part(int slot) {
        for (int i; (i = next.fetch_add(1, std::memory_order_acq_rel)) < count;) {
            try {
                body(arg, i, slot);
            } catch (...) {
                // the first failure is kept; the other pieces are worked on all the same
                if (failed.exchange(1, std::memory_order_acq_rel) == 0) failure = std::current_exception();
            }
        }
    }
};

} // namespace

// Threads of the library, which stay at hand from the beginning of run() to its end.
struct task_pool::threads_of_library {
    explicit threads_of_library(int n)
        : allowed(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(n)), arena(n) {}

    void help() {
        after(this);
        const int slot = tbb::this_task_arena::current_thread_index();
        for (short_wait wait; !over.load();) {
            if (help_with_pieces(slot) || do_started())
                wait.reset();
            else
                wait.pause();
        }
        before(this);
    }
    bool help_with_pieces(int slot) {
        if (!pieces.load(std::memory_order_relaxed)) return false;
        ++within; // from here on the owner waits before the pieces go
        // read once more: they may have gone before `within` was counted up
        shared_pieces* p = pieces.load();
        const bool any = p && p->left();
        if (any) p->take_part(slot);
        --within;
        return any;
    }
    bool do_started() {
        std::function<void()> f;
        if (!started.try_pop(f)) return false;
        f();
        // what it holds goes before the owner may think it done
        f = nullptr;
        --unfinished;
        return true;
    }

    tbb::global_control allowed;
    tbb::task_arena arena;
    tbb::task_group helpers;
    int owner = -1; // slot of the thread that has called run()
    std::atomic<bool> over{true};
    std::atomic<shared_pieces*> pieces{nullptr};
    std::atomic<int> within{0}; // helpers that may be at the pieces
    tbb::concurrent_queue<std::function<void()>> started;
    std::atomic<int> unfinished{0}; // of those started
};

namespace {

struct helper_call {
    task_pool::threads_of_library* team;
    TVX_NOT_WATCHED void operator()() const { team->help(); }
};

} // namespace

int usable_threads() { return tbb::info::default_concurrency(); }

namespace {

// Whether n more threads can be had at once. The library waits for ever for one that the system refuses to start.
bool can_start(int n) {
    std::vector<std::thread> tried;
    std::atomic<bool> over{false};
    bool good = true;
    try {
        // all at once, as the library would have them
        for (int k = 0; k < n; ++k) tried.emplace_back([&over] { over.wait(false); });
    } catch (const std::system_error&) {
        good = false;
    }
    over = true;
    over.notify_all();
    for (std::thread& t : tried) t.join();
    return good;
}

} // namespace

task_pool::task_pool(int threads) : wanted_(threads), threads_(threads > 1 && can_start(threads - 1) ? threads : 1) {
    if (threads_ > 1) library_ = std::make_unique<threads_of_library>(threads_);
}
task_pool::~task_pool() = default;

void task_pool::run(const std::function<void()>& f) {
    // a run within a run: the threads are at work already
    if (!library_ || !library_->over.load()) return f();
    threads_of_library& team = *library_;
    std::exception_ptr failure;
    team.arena.execute([&] {
        // only the owner's pieces are shared: those of helpers stay with them
        team.owner = slot();
        team.over = false;
        before(&team);
        for (int k = 1; k < threads_; ++k) team.helpers.run(helper_call{&team});
        try {
            f();
        } catch (...) {
            failure = std::current_exception();
        }
        // what was started and not yet waited for
        finish();
        team.over = true;
        team.helpers.wait();
        after(&team);
        team.owner = -1;
    });
    if (failure) std::rethrow_exception(failure);
}

int task_pool::slot() const { return library_ ? tbb::this_task_arena::current_thread_index() : 0; }

void task_pool::each(int count, piece body, const void* arg) {
    // one set of pieces at a time
    if (!library_ || count < 2 || slot() != library_->owner || library_->pieces.load()) {
        for (int i = 0; i < count; ++i) body(arg, i, slot());
        return;
    }
    threads_of_library& team = *library_;
    shared_pieces work{count, body, arg};
    team.pieces = &work;
    work.take_part(team.owner);
    team.pieces = nullptr;
    // the pieces are on this stack: nobody may be at them any more
    for (short_wait wait; team.within.load() != 0;) wait.pause();
    if (work.failed.load() != 0) std::rethrow_exception(work.failure);
}

void task_pool::start(std::function<void()> f) {
    if (!library_) return f();
    ++library_->unfinished;
    library_->started.push(std::move(f));
}

void task_pool::wait_for(const std::function<bool()>& done) {
    for (short_wait wait; !done();) wait.pause();
}

void task_pool::finish() {
    if (!library_) return;
    for (short_wait wait; library_->unfinished.load() != 0;)
        if (library_->do_started())
            wait.reset();
        else
            wait.pause();
}

} // namespace tarvex
