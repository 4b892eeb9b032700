// Threads, through one library. What a pool computes never depends on how many threads it has: callers cut their work
// into pieces that do not depend on each other, and add up what the pieces leave in a fixed order.
#pragma once
#include <functional>
#include <memory>

namespace tarvex {

// As many threads as this process may use.
int usable_threads();

class task_pool {
public:
    // Starts all the threads that it will ever use: as many of `threads` - 1 as the system grants. Without any (1, or
    // all refused) everything is done in turn by the caller.
    explicit task_pool(int threads);
    ~task_pool();
    task_pool(const task_pool&) = delete;
    task_pool& operator=(const task_pool&) = delete;

    int threads() const { return threads_; }
    // What was asked for: more than threads() where the system has refused.
    int wanted() const { return wanted_; }
    // Calls f; only inside it do the routines below share work out: the threads stand ready from its beginning to its
    // end. An exception of f goes to the caller.
    void run(const std::function<void()>& f);
    // Number of the calling thread, 0..threads-1: no other thread at work has the same.
    int slot() const;
    // body(arg, i, slot) for i = 0..count-1, in any order; returns when all are done. The caller takes part; pieces of
    // pieces are done in turn. An exception of a piece is thrown again when all pieces have ended.
    using piece = void (*)(const void* arg, int i, int slot);
    void each(int count, piece body, const void* arg);
    // Has f done some time, by any thread; f must not throw. finish() waits for all that was started.
    void start(std::function<void()> f);
    void finish();
    // Returns when done() is true, which another thread at work is about to bring about.
    static void wait_for(const std::function<bool()>& done);

    struct team;

private:
    int wanted_, threads_;
    std::unique_ptr<team> team_;
};

} // namespace tarvex
