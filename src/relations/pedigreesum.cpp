#include "relations/pedigreesum.h"

#include "control/filenames.h"
#include "control/options.h"
#include "data/pedigreelist.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

namespace tarvex {

digest pedigree_sum(int irun) {
    digest_maker sum;
    const std::size_t nan = pedigreelist.nannew(irun);
    sum.add(options.siremodel ? "sires" : "animals");
    for (const auto* list : {&pedigreelist.idwec(irun), &pedigreelist.sire(irun), &pedigreelist.dam(irun)})
        sum.add(std::span<const int>(list->data(), std::min(nan, list->size())));
    return sum.value();
}

digest all_pedigrees_sum() {
    digest_maker sum;
    sum.add(filenames.pedfile);
    for (int irun = 1; irun <= pedigreelist.nrunno; ++irun) sum.add(pedigree_sum(irun));
    return sum.value();
}

} // namespace tarvex
