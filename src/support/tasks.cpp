#include "support/tasks.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <oneapi/tbb/concurrent_queue.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <thread>
#include <vector>

namespace tarvex {

namespace {

namespace tbb = oneapi::tbb;

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

// The helpers, all started beforehand and with every place of the arena kept for them: the library itself starts no
// thread. Where the system refuses it one in the middle of its work, it ends the program or waits for ever.
struct task_pool::team {
    explicit team(int helpers_wanted) {
        try {
            for (int k = 0; k < helpers_wanted; ++k) helpers.emplace_back([this] { serve(); });
        } catch (const std::exception&) { // fewer, then
        }
    }
    ~team() {
        tell([this] { ended = true; });
        for (std::thread& t : helpers) t.join();
    }
    template <class F> void tell(const F& what) {
        {
            const std::lock_guard<std::mutex> lock(at_rest);
            what();
        }
        news.notify_all();
    }
    // Sleeps between the runs. One that finds no memory for its place in the arena goes: nobody counts on it.
    void serve() {
        try {
            while (called()) arena.execute([this] { help(); });
        } catch (const std::exception&) {
        }
    }
    bool called() {
        std::unique_lock<std::mutex> lock(at_rest);
        news.wait(lock, [this] { return ended || !over.load(); });
        return !ended;
    }
    void help() noexcept {
        const int slot = tbb::this_task_arena::current_thread_index();
        for (short_wait wait; !over.load();) {
            if (help_with_pieces(slot) || do_started())
                wait.reset();
            else
                wait.pause();
        }
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

    tbb::task_arena arena;
    int owner = -1;               // slot of the thread that has called run()
    std::atomic<bool> over{true}; // set to false under `at_rest`
    bool ended = false;
    std::mutex at_rest;
    std::condition_variable news;
    std::atomic<shared_pieces*> pieces{nullptr};
    std::atomic<int> within{0}; // helpers that may be at the pieces
    tbb::concurrent_queue<std::function<void()>> started;
    std::atomic<int> unfinished{0}; // of those started
    std::vector<std::thread> helpers;
};

int usable_threads() { return tbb::info::default_concurrency(); }

task_pool::task_pool(int threads) : wanted_(threads), threads_(1) {
    if (threads < 2) return;
    team_ = std::make_unique<team>(threads - 1);
    threads_ += static_cast<int>(team_->helpers.size());
    if (threads_ > 1)
        team_->arena.initialize(threads_, static_cast<unsigned>(threads_));
    else
        team_.reset();
}
task_pool::~task_pool() = default;

void task_pool::run(const std::function<void()>& f) {
    // a run within a run: the threads are at work already
    if (!team_ || !team_->over.load()) return f();
    std::exception_ptr failure;
    team_->arena.execute([&] {
        // only the owner's pieces are shared: those of helpers stay with them
        team_->owner = slot();
        team_->tell([this] { team_->over = false; });
        try {
            f();
        } catch (...) {
            failure = std::current_exception();
        }
        // what was started and not yet waited for
        finish();
        team_->over = true;
        team_->owner = -1;
    });
    if (failure) std::rethrow_exception(failure);
}

int task_pool::slot() const { return team_ ? std::max(tbb::this_task_arena::current_thread_index(), 0) : 0; }

void task_pool::each(int count, piece body, const void* arg) {
    // one set of pieces at a time
    if (!team_ || count < 2 || slot() != team_->owner || team_->pieces.load()) {
        for (int i = 0; i < count; ++i) body(arg, i, slot());
        return;
    }
    shared_pieces work{count, body, arg};
    team_->pieces = &work;
    work.take_part(team_->owner);
    team_->pieces = nullptr;
    // the pieces are on this stack: nobody may be at them any more
    for (short_wait wait; team_->within.load() != 0;) wait.pause();
    if (work.failed.load() != 0) std::rethrow_exception(work.failure);
}

void task_pool::start(std::function<void()> f) {
    if (!team_) return f();
    ++team_->unfinished;
    try {
        team_->started.push(std::move(f));
    } catch (...) {
        --team_->unfinished;
        throw;
    }
}

void task_pool::wait_for(const std::function<bool()>& done) {
    for (short_wait wait; !done();) wait.pause();
}

void task_pool::finish() {
    if (!team_) return;
    for (short_wait wait; team_->unfinished.load() != 0;)
        if (team_->do_started())
            wait.reset();
        else
            wait.pause();
}

} // namespace tarvex
