#include "relations/inverse_stream.h"

#include "control/filenames.h"
#include "control/tvxroutines.h"
#include "data/levels.h"
#include "data/pedigreelist.h"
#include "parfile/mudmap.h"
#include "relations/geninverse.h"
#include "relations/nrminverse.h"
#include "support/record_file.h"

#include <cstdint>
#include <string>

namespace tarvex {

struct inverse_stream::impl {
    char kind = 'I'; // N: binary file, G: elements in memory, I: identity
    record_reader file;
    std::string name;
    std::int32_t nan = 0, nnrm = 0;
    int irand = 0, k = 0; // elements handed out
    int nlev = 0;
};

namespace {

[[noreturn]] void unreadable(const std::string& name) { stop_with("Error reading file \"" + name + "\""); }

} // namespace

inverse_stream::inverse_stream(int irand) : p_(new impl) {
    p_->irand = irand;
    const covariance_kind kov = mudmap.kovrnd(irand);
    if (kov == covariance_kind::nrm) {
        p_->kind = 'N';
        p_->name = nrminv_name(mudmap.iranno(irand));
        if (!p_->file.open(p_->name)) unreadable(p_->name);
    } else if (kov == covariance_kind::gin) {
        p_->kind = 'G';
        logdet_ = geninverse.detginv(irand);
        if (gin_store.elements.size() < irand) unreadable(name_of(kov));
    } else {
        p_->nlev = levels.rn_nlev(irand);
    }
    rewind();
}

inverse_stream::~inverse_stream() { delete p_; }

void inverse_stream::rewind() {
    p_->k = 0;
    if (p_->kind != 'N') return;
    p_->file.rewind();
    std::int32_t ian1 = 0, ian2 = 0, sm = 0;
    // head of the file: order, first and last code, kind of model; elements and log|A|; diagonal of D^-1
    if (!p_->file.record(p_->nan, ian1, ian2, sm) || !p_->file.record(p_->nnrm, logdet_) || !p_->file.next() ||
        p_->nan != pedigreelist.nannew(mudmap.iranno(p_->irand)))
        unreadable(p_->name);
}

bool inverse_stream::next(inverse_element& e) {
    if (p_->kind == 'N') {
        if (p_->k >= p_->nnrm) return false;
        std::int32_t icol = 0, irow = 0;
        if (!p_->file.record(icol, irow, e.value) || icol < 1 || icol > irow || irow > p_->nan) unreadable(p_->name);
        e.col = icol;
        e.row = irow;
    } else if (p_->kind == 'G') {
        const auto& elements = gin_store.elements(p_->irand);
        if (p_->k >= static_cast<int>(elements.size())) return false;
        e = elements[p_->k];
    } else {
        if (p_->k >= p_->nlev) return false;
        e = {p_->k + 1, p_->k + 1, 1.0};
    }
    ++p_->k;
    return true;
}

} // namespace tarvex
