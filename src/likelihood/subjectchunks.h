// Passes over the data, shared out to threads by chunks of subjects.
//
// Chunks are of places.together subjects, however many threads there are; a sum over the data is the sum over the
// chunks, in their order, of what each has added up. So it has the same last digit for any number of threads.
#pragma once
#include "likelihood/buildmmm.h"
#include "likelihood/factormmm.h"
#include "likelihood/subjects.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace tarvex {

// Of the subjects of the run, at least 1.
int subject_chunks();
inline int chunk_of(int isubj) { return (isubj - 1) / places.together; }

// Chunks that threads can start with: a pass over the structure in hand has marked where each begins, and there are
// threads. Else there are none, and the pass goes through the subjects in one go.
int shared_chunks();

// Of a thread at work on a chunk: a pass of its own, and the subjects left to it.
class chunk_stream {
public:
    explicit chunk_stream(const subject_stream& first) : stream_(first, subject_stream::beside{}) {}
    void start(int chunk);
    bool next() { return left_-- > 0 && stream_.next(); }
    const subject_stream& stream() const { return stream_; }

private:
    subject_stream stream_;
    int left_ = 0;
};

// work(worker, chunk) for chunks first..end-1, each by one thread; make() gives the worker of a thread.
template <class Make, class Work> void share_chunks(int first, int end, const Make& make, const Work& work) {
    task_pool& pool = *threads_at_work();
    std::vector<decltype(make())> workers(static_cast<std::size_t>(pool.threads()));
    const auto piece = [&](int i, int slot) {
        auto& mine = workers[slot];
        if (!mine) mine = make();
        work(*mine, first + i);
    };
    pool.run([&] {
        pool.each(
            end - first, [](const void* f, int i, int slot) { (*static_cast<const decltype(piece)*>(f))(i, slot); },
            &piece);
    });
}

} // namespace tarvex
