#include "sparse/sparse.h"

#include "support/stop.h"

#include <string>

namespace tarvex {

namespace {

const char* name_of(store_state s) {
    switch (s) {
    case store_state::empty:
        return "nothing";
    case store_state::assembled:
        return "the matrix";
    case store_state::factor:
        return "the factor";
    case store_state::inverse:
        return "the inverse";
    case store_state::derivative:
        return "the derivative";
    }
    return "";
}

} // namespace

void need_state(const sparse_store& s, store_state wanted, const char* routine) {
    if (s.state == wanted) return;
    stop(std::string("programming error: \"") + routine + "\" needs " + name_of(wanted) + ", the store holds " +
         name_of(s.state));
}

} // namespace tarvex
