// The inverses of all random effects, made once and kept in scratch files that later runs in the same directory take
// over.
#include "relations/nrminverse.h"
#include "parfile/randasfix.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "data/pedigreelist.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/animalnrm.h"
#include "relations/geninverse.h"
#include "relations/inbreeding.h"
#include "relations/linkedlist.h"
#include "relations/pedigreesum.h"
#include "support/edit_form.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <cstdint>
#include <set>

namespace tarvex {

namespace {

// Running number of an original code in a pruned pedigree list, 0 if it is not there.
int find_level(int code, int irun) {
    const auto& idwec = pedigreelist.idwec(irun);
    const auto at = std::lower_bound(idwec.begin(), idwec.end(), code);
    return at != idwec.end() && *at == code ? static_cast<int>(at - idwec.begin()) + 1 : 0;
}

// Marks the levels of the effect that are treated as fixed, for its relationship matrix irun.
void pseudo_fix(int irand, text_out& out, int nan, int irun) {
    allocate("alloc asfix", randasfix.asfix, nan);
    if (!options.pseudofix) return;
    if (!randasfix.nasfix.allocated()) allocate("alloc asfix", randasfix.nasfix, numbers.krand);
    if (!randasfix.iasfix.allocated()) allocate("alloc asfix", randasfix.iasfix, numbers.krand);
    const auto& names = randasfix.psfixname;
    randasfix.iasfix(irand) = std::find(names.begin(), names.end(), model.krandom(irand)) != names.end() ? 1 : 0;
    int nn = 0;
    if (randasfix.iasfix(irand) != 0) {
        out.line("");
        out.line(" Levels treated as \"fixed\" ");
        for (int i = 1; i <= randasfix.npsfix; ++i) {
            const std::string& name = randasfix.psfixname[i - 1];
            if (name != model.krandom(irand)) continue;
            const int code = randasfix.psfixcode[i - 1], j = find_level(code, irun);
            if (j == 0) {
                warn("level to be treated as fixed that is not in the pedigree",
                     "level " + std::to_string(code) + " of \"" + name +
                         "\", to be treated as fixed, is not in the pedigree");
                continue;
            }
            write(out, "(i4,2x,a,i15,i7,i15)", i, name, code, j, pedigreelist.idwec(irun)[j - 1]);
            if (randasfix.asfix(j) == 0) ++nn; // a level may be named twice
            randasfix.asfix(j) = 1;
        }
    }
    print_list(out, " No. of levels to be treated as fixed =", nn);
    randasfix.nasfix(irand) = nn;
}

void no_match(bool& lex) {
    screen().line("File with NRM-inverse found - but no match for analysis !");
    lex = false;
}

// Of what the inverse in hand is made: the pedigree and the levels treated as fixed.
digest inverse_sum(int irun) {
    digest_maker sum;
    sum.add(pedigree_sum(irun));
    sum.add(options.pseudofix ? 1 : 0);
    if (options.pseudofix) {
        sum.add(randasfix.asfix.prefix(randasfix.asfix.size()));
        sum.add(randasfix.psfixfact);
    }
    return sum.value();
}

// Tests whether an existing file belongs to this analysis: its seal, size, first and last code, and indices of all
// elements. Leaves nnrm and detl, and in `note` the count of inbred animals and the sum of their coefficients.
void check_nrmhead(record_reader& in, bool& lex, int irand, const std::string& name, inbreeding_sums& inbred) {
    lex = true;
    const int irun = mudmap.iranno(irand);
    const auto& idwec = pedigreelist.idwec(irun);
    std::int32_t nan = 0, ian1 = 0, ian2 = 0, sm = 0, nnrm = 0;
    double detl = 0.0;
    seal s;
    if (!read_seal(name, s) || s.made_from != inverse_sum(irun)) return no_match(lex);
    if (!in.record(nan, ian1, ian2, sm) || nan != pedigreelist.nannew(irun)) return no_match(lex);
    if (nan < 1 || ian1 != idwec.front() || ian2 != idwec.back()) return no_match(lex);
    if (!in.record(nnrm, detl) || nnrm < nan) return no_match(lex); // each animal has a diagonal
    if (!in.next()) return no_match(lex);
    for (int k = 1; k <= nnrm; ++k) {
        std::int32_t icol = 0, irow = 0;
        double xx = 0.0;
        // every element is looked at: assembly takes them as they come
        if (!in.record(icol, irow, xx) || icol < 1 || icol > irow || irow > nan) return no_match(lex);
    }
    nrminverse.nnrm = nnrm;
    nrminverse.detl = detl;
    inbred = {static_cast<int>(s.note[0]), s.note[1]};
}

void write_nrm(record_writer& iun, int irand, int nan, int jj) {
    const auto& ll = linked_list;
    const auto& idwec = pedigreelist.idwec(jj);
    iun.record(std::int32_t{nan}, std::int32_t{nan > 0 ? idwec.front() : 0}, std::int32_t{nan > 0 ? idwec.back() : 0},
               std::int32_t{options.siremodel});
    iun.record(std::int32_t{nrminverse.nnrm}, nrminverse.detl);
    iun.record(nrminverse.nrmdiag.prefix(nan));
    for (int irow = 1; irow <= nan; ++irow)
        for (int ij = ll.ifirst(irow); ij > 0; ij = ll.inext(ij))
            iun.record(std::int32_t{ll.ivcol(ij)}, std::int32_t{irow}, ll.zhz(ij));
    if (!options.verbose) return;
    print_list(screen(), "NRM Inverse no. :", mudmap.iranno(irand), "  \"" + model.krandom(irand) + "\"");
    print_list(screen(), "No. of elements =", nrminverse.nnrm, "  log determinant =", nrminverse.detl);
    if (options.siremodel) screen().line("Sire model !");
}

// Inverse of a relationship matrix from the pedigree, by the rules for animals or for sires, into the open file.
inbreeding_sums nrm_inverse(int irand, record_writer& iun, text_out& sumped) {
    inbreeding_sums inbred;
    const int jj = mudmap.iranno(irand), nan = pedigreelist.nannew(jj);
    allocate(options.siremodel ? "alloc nrmdiag" : "alloc nrmdia", nrminverse.nrmdiag, nan);
    if (!options.siremodel) inbred = inbreed_coeffs(jj, nan, sumped);
    pseudo_fix(irand, sumped, nan, jj);
    if (options.siremodel) {
        sire_nrm(jj, nan);
    } else {
        // a pass without values finds the size: some 25 elements an animal, more where need be
        nnrm_count_growing(jj, nan, static_cast<int>(std::min<std::int64_t>(std::int64_t{25} * nan, maxelements)));
        animal_nrm(jj, nan);
    }
    write_nrm(iun, irand, nan, jj);
    deall_store();
    nrminverse.nrmdiag.deallocate();
    return inbred;
}

// The lines that a run which makes the inverse has in its summary of the pedigree.
void summary_of_taken_over(int irun, const inbreeding_sums& inbred, text_out& sumped) {
    if (!options.siremodel) write_inbreeding(sumped, irun, pedigreelist.nannew(irun), inbred);
}

// Makes the inverse of an effect, or takes over the file of an earlier run or of another effect on the same pedigree.
void one_inverse(int irand, text_out& sumped) {
    const int iirand = mudmap.iranno(irand);
    const std::string name = nrminv_name(iirand);
    bool lex = false;
    // levels treated as fixed may have changed: then it is always made anew
    if (!options.pseudofix && file_exists(name)) {
        record_reader in;
        inbreeding_sums inbred;
        if (in.open(name))
            check_nrmhead(in, lex, irand, name, inbred);
        else
            no_match(lex);
        if (lex && !options.terse) print_list(screen(), "NRM inverse found", irand, iirand);
        if (lex) summary_of_taken_over(iirand, inbred, sumped);
    }
    if (!lex) {
        record_writer iun;
        if (!iun.open(name, true)) stop_with("Cannot open file \"" + name + "\"");
        if (options.verbose && options.siremodel) screen().line("sire model");
        const inbreeding_sums inbred = nrm_inverse(irand, iun, sumped);
        const seal s{inverse_sum(iirand), {static_cast<double>(inbred.count), inbred.total}};
        randasfix.asfix.deallocate();
        if (!iun.close(s)) stop_with("Cannot write file \"" + name + "\"");
    }
    geninverse.detginv(irand) = nrminverse.detl;
    geninverse.nnginv(irand) = nrminverse.nnrm;
}

// Effects on one relationship matrix share one file: they must have the same levels treated as fixed.
void check_shared_marks() {
    if (!options.pseudofix) return;
    for (const std::string& name : randasfix.psfixname) {
        bool found = false;
        for (int irand = 1; irand <= numbers.krand; ++irand)
            found = found || (model.krandom(irand) == name && mudmap.kovrnd(irand) == covariance_kind::nrm);
        if (!found) stop_with("No random effect with a relationship matrix has levels to be fixed : \"" + name + "\"");
    }
    const auto codes = [](int irand) {
        std::set<int> found;
        for (int i = 0; i < randasfix.npsfix; ++i)
            if (randasfix.psfixname[i] == model.krandom(irand)) found.insert(randasfix.psfixcode[i]);
        return found;
    };
    for (int i = 1; i <= numbers.krand; ++i)
        for (int j = i + 1; j <= numbers.krand; ++j)
            if (mudmap.iranno(i) > 0 && mudmap.iranno(i) == mudmap.iranno(j) && codes(i) != codes(j)) tvx_notyet();
}

void allocate_inbreed() {
    int m = 0, n = 0;
    for (int irun = 1; irun <= pedigreelist.nrunno; ++irun) m = std::max(m, pedigreelist.nannew(irun));
    for (int irand = 1; irand <= numbers.krand; ++irand) n = std::max(n, mudmap.iranno(irand));
    allocate("alloc inbreed", nrminverse.inbreed, m, n);
    allocate("alloc inbreed", nrminverse.ifin, n);
}

// Coefficients of the pedigrees whose inverse was taken over: from the file of an earlier run, or computed.
void restore_inbreed() {
    auto& ifin = nrminverse.ifin;
    if (std::find(ifin.begin(), ifin.end(), 0) == ifin.end()) return;
    int m = 0, n = 0, nan = 0;
    record_reader in;
    // one file for all pedigrees: greatest number of animals, pedigrees, animals of the first
    const bool known = !options.siremodel && sealed(filenames.inbrdfile, all_pedigrees_sum()) &&
                       in.open(filenames.inbrdfile) && in.record(m, n, nan) && m == nrminverse.inbreed.upper(1) &&
                       n == nrminverse.inbreed.upper(2) &&
                       in.record(nrminverse.inbreed.prefix(nrminverse.inbreed.size()));
    if (known)
        ifin.fill(1);
    else if (!options.siremodel)
        for (int irun = 1; irun <= static_cast<int>(ifin.upper()); ++irun) compute_inbreeding(irun);
}

// Keeps the coefficients for a simulation.
void write_inbreed() {
    const auto& ifin = nrminverse.ifin;
    const int n = static_cast<int>(ifin.upper());
    // only a complete table is of use
    if (n < 1 || std::find(ifin.begin(), ifin.end(), 0) != ifin.end()) return;
    const digest made_from = all_pedigrees_sum();
    if (sealed(filenames.inbrdfile, made_from)) return;
    // 30 columns, as names of files are
    std::string pedfile = filenames.pedfile;
    pedfile.resize(30, ' ');
    record_writer iun;
    if (!iun.open(filenames.inbrdfile, true)) stop_with("Cannot open file \"" + filenames.inbrdfile + "\"");
    iun.record(static_cast<std::int32_t>(nrminverse.inbreed.upper(1)), std::int32_t{n},
               std::int32_t{pedigreelist.nannew(1)}, pedfile);
    iun.record(nrminverse.inbreed.prefix(nrminverse.inbreed.size()));
    if (!iun.close({made_from, {}})) stop_with("Cannot write file \"" + filenames.inbrdfile + "\"");
}

} // namespace

void gen_inverses() {
    text_out sumped;
    const std::string& name = filenames.sumpedfile;
    if (!(options.pedigrees ? sumped.open_append(name) : sumped.open(name)))
        stop_with("Cannot open file \"" + name + "\"");
    if (options.pedigrees) write(sumped, "(/1x,a)", "Relationship matrices and their inverses");
    const bool keep = options.superai || options.simulation;
    if (keep) allocate_inbreed();
    allocate("alloc giv", geninverse.detginv, numbers.krand);
    allocate("alloc giv", geninverse.nwithout, numbers.krand);
    allocate("alloc giv", geninverse.nnginv, numbers.krand);
    check_shared_marks();
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        const covariance_kind kov = mudmap.kovrnd(irand);
        if (kov == covariance_kind::gin)
            check_ginverse(irand);
        else if (kov == covariance_kind::nrm)
            one_inverse(irand, sumped);
        else
            continue;
        print_list(sumped, " random effect no. =", irand, kov);
        print_list(sumped, " no. of elements in NRM/GIN inverse ", geninverse.nnginv(irand));
        print_list(sumped, " log determinant   =", geninverse.detginv(irand));
    }
    if (options.details) screen().line("END gen_inverses");
    write_tvxbottom(sumped, options.wide);
    if (!keep) return;
    restore_inbreed();
    write_inbreed();
}

} // namespace tarvex
