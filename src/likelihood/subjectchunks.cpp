#include "likelihood/subjectchunks.h"

#include "control/numbers.h"
#include "equations/orders.h"

#include <algorithm>

namespace tarvex {

int subject_chunks() { return std::max(1, chunk_of(numbers.nsubject) + 1); }

int shared_chunks() {
    const place_store& store = places.subjects;
    const bool marked = store.marked && store.nsymb == orders.nsymb;
    const int chunks = subject_chunks();
    if (!marked || chunks < 2 || static_cast<int>(store.marks.size()) < chunks) return 0;
    return threads_at_work() ? chunks : 0;
}

void chunk_stream::start(int chunk) {
    const int before = chunk * places.together;
    stream_.go_to(places.subjects.marks[chunk].files, before);
    left_ = std::min(places.together, numbers.nsubject - before);
}

} // namespace tarvex
