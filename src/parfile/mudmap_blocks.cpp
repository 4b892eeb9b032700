// Ties the random effects of the traits to the covariance blocks.
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "parfile/mudmap_build.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <utility>

namespace tarvex {

namespace {

// Number of the random effect of this name in trait iq, 0 if it is not fitted. Names count up to their bracket.
int effect_number(const std::string& name, int iq) {
    const std::string plain = name.substr(0, name.find('('));
    for (int i = 1; i <= model.nrnd(iq); ++i) {
        const std::string& whole = model.random(i, iq);
        if (whole.substr(0, whole.find('(')) == plain) return i;
    }
    return 0;
}

void tie_effect(int i, int iq, int irand, int place) {
    auto& m = mudmap;
    // 0: not tied yet
    if (m.rn_irand(i, iq) != 0) {
        print_list(screen(), " Random effect in more than one covariance block : ", model.random(i, iq));
        stoptarvex();
    }
    m.rn_irand(i, iq) = irand;
    m.rn_place(i, iq) = place;
}

// A line for each animal: with sires as levels the records of one sire are those of different animals.
bool line_is_subject() { return options.siremodel && mudmap.alltraits; }

void check_rrorder(int irand, int iq, int order) {
    const std::string& name = model.krandom(irand);
    if (order == 0) stop_with("Miss-specification of RR ? \"" + name + "\"");
    if (order == model.kkfit(irand)) return;
    write(screen(), "(a,i2,i3,4h vs.,30i3)   ", "Miss-match RR order of fit \"" + name + "\"", iq, order,
          model.kkfit(irand));
    stoptarvex();
}

void block_option(int irand, covariance_kind opt) {
    covariance_kind& kov = mudmap.kovrnd(irand);
    // all traits of a block have one structure
    if (opt == covariance_kind::none || (kov != covariance_kind::none && kov != opt)) {
        print_list(screen(), "invalid cov option ", model.krandom(irand));
        stoptarvex();
    }
    kov = opt;
}

void check_traits(int irand) {
    if (mudmap.nnq(irand) == model.kkfit(irand)) return;
    print_list(screen(), "Order of covariance matrix is not the no. of traits with the effect : ", model.krandom(irand),
               model.kkfit(irand), mudmap.nnq(irand));
    tvx_notyet();
}

// Ties one name of a pair of correlated effects; returns the number of traits that fit it.
int tie_correlated(int irand, const std::string& name, int which, int before) {
    auto& m = mudmap;
    int n = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        const int i = effect_number(name, iq);
        if (i == 0) continue;
        // a covariance between effects needs one matrix for the levels of both: that of the pedigree
        if (model.rnd_opt(i, iq) != covariance_kind::nrm) {
            print_list(screen(), "Invalid cov option 2 ", name);
            stoptarvex();
        }
        ++n;
        const int place = before + n;
        tie_effect(i, iq, irand, place);
        // one place too many is told by the caller, with the counts
        if (place <= m.rn_trait.upper(1)) {
            m.rn_trait(place, irand) = iq;
            m.rn_which(place, irand) = which;
        }
        m.ksfit(irand, iq) += 1;
        // the animal is the subject, unless something else has been named
        if (m.subj_dcolno(iq) < 0 && !line_is_subject()) m.subj_dcolno(iq) = m.rn_dcolno(i, iq);
    }
    return n;
}

// Columns that hold the codes of a block: trait, name, column, second column.
std::vector<std::array<int, 4>> block_columns(int irand) {
    std::vector<std::array<int, 4>> columns;
    const auto& m = mudmap;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (m.rn_irand(i, iq) == irand)
                columns.push_back({iq, m.rn_which(m.rn_place(i, iq), irand), m.rn_dcolno(i, iq), m.rn_dcolno2(i, iq)});
    return columns;
}

// Blocks with the NRM share a matrix only if they find the same codes in every trait.
void number_matrices() {
    auto& m = mudmap;
    // by columns, not by codes: these are known only behind the scan of the data
    std::vector<std::vector<std::array<int, 4>>> known;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (m.kovrnd(irand) != covariance_kind::nrm) continue;
        const auto columns = block_columns(irand);
        const auto at = std::find(known.begin(), known.end(), columns);
        m.iranno(irand) = static_cast<int>(at - known.begin()) + 1;
        if (at == known.end()) known.push_back(columns);
    }
    // matrices to be made
    m.nrunno = static_cast<int>(known.size());
}

void allocate_blocks() {
    auto& m = mudmap;
    const int krand = numbers.krand;
    int most = 1;
    for (int irand = 1; irand <= krand; ++irand) most = std::max(most, model.kkfit(irand));
    for (auto* a : {&m.iranno, &m.nnq, &m.nnq2}) allocate("alloc iranno", *a, krand);
    allocate("alloc kovrnd", m.kovrnd, krand);
    allocate("alloc ksfit", m.ksfit, krand, numbers.nq);
    for (auto* a : {&m.rn_trait, &m.rn_which}) allocate("alloc rn_trait", *a, most, krand);
}

// Files of solutions and curves bear the names of effects.
void check_file_name(const std::string& effect) {
    if (effect.find('/') != std::string::npos)
        stop_with("Name of an effect cannot be part of the name of a file : \"" + effect + "\"");
}

// Every random effect needs its covariances.
void check_effects() {
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        for (int i = 1; i <= model.nrnd(iq); ++i) check_file_name(model.random(i, iq));
        for (int i = 1; i <= model.ncov(iq); ++i) check_file_name(model.covar(i, iq));
    }
    for (int iq = 1; iq <= numbers.nq; ++iq)
        for (int i = 1; i <= model.nrnd(iq); ++i)
            if (mudmap.rn_irand(i, iq) == 0) {
                print_list(screen(), "No covariances given for random effect : ", model.random(i, iq));
                stoptarvex();
            }
}

// One repeat effect can go into R, and only where R is formed by pattern of records.
void check_repeat_effects() {
    const auto n = std::count(mudmap.kovrnd.begin(), mudmap.kovrnd.end(), covariance_kind::peq);
    if (n > 1 || (n == 1 && options.randreg)) tvx_notyet();
    if (n == 1 && mudmap.subject != subject_rule::effect)
        stop_with("PEQ is an effect of the subject : it cannot be fitted with \"SUBject\" !");
}

} // namespace

void random_regular(int irand) {
    auto& m = mudmap;
    int order = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        const int i = effect_number(model.krandom(irand), iq);
        if (i == 0) continue;
        const covariance_kind opt = model.rnd_opt(i, iq);
        block_option(irand, opt);
        order = m.kfitrnd(i, iq);
        if (options.randreg) check_rrorder(irand, iq, order);
        m.ksfit(irand, iq) = order;
        // random regression: a trait has all coefficients; else one place a trait
        const int first = options.randreg ? 1 : m.nnq(irand) + 1;
        ++m.nnq(irand);
        tie_effect(i, iq, irand, first);
        for (int place = first; place < first + order && place <= m.rn_trait.upper(1); ++place) {
            m.rn_trait(place, irand) = iq;
            m.rn_which(place, irand) = 1;
        }
        // the animal, or the only random effect: its level is the subject
        const bool decides = opt == covariance_kind::nrm || model.nrnd(iq) == 1;
        if (m.subj_dcolno(iq) < 0 && decides && !line_is_subject()) m.subj_dcolno(iq) = m.rn_dcolno(i, iq);
    }
    if (!options.randreg)
        check_traits(irand);
    else if (order == 0)
        check_rrorder(irand, 1, 0);
}

void random_sigam(int irand) {
    auto& m = mudmap;
    // "first+second": the block is named by both effects
    const std::string& name = model.krandom(irand);
    const auto plus = name.find(plus_char);
    if (plus == std::string::npos) {
        if (model.correlated(irand) != 0) {
            print_list(screen(), "Correlated effects are given in one block, named by both with a \"+\" : ", name);
            tvx_notyet();
        }
        random_regular(irand);
        return;
    }
    if (options.randreg) tvx_notyet();
    const std::string name1 = name.substr(0, plus), name2 = name.substr(plus + 1);
    if (name1 == name2) {
        print_list(screen(), "Correlated REs same ? ", name);
        stoptarvex();
    }
    m.nnq(irand) = tie_correlated(irand, name1, 1, 0);
    m.nnq2(irand) = tie_correlated(irand, name2, 2, m.nnq(irand));
    if (m.nnq(irand) == 0 || m.nnq2(irand) == 0) {
        print_list(screen(), "Correlated effects are not both in the model : ", name);
        tvx_notyet();
    }
    if (m.nnq(irand) + m.nnq2(irand) != model.kkfit(irand)) {
        print_list(screen(), "Sigam :Mismatch in order of fit ? ", m.nnq(irand), m.nnq2(irand), model.kkfit(irand),
                   name);
        stoptarvex();
    }
    // both are animals of one pedigree
    m.kovrnd(irand) = covariance_kind::nrm;
    print_list(screen(), "Option for covariances between random effects had very");
    print_list(screen(), " little testing !!!");
    tvx_caution();
}

// Steps through the blocks in their order.
void tie_blocks() {
    allocate_blocks();
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (options.sigam)
            random_sigam(irand);
        else
            random_regular(irand);
    }
    check_effects();
    check_repeat_effects();
    number_matrices();
}

} // namespace tarvex
