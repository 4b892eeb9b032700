#include "data/pedcounts.h"

#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/pedigreelist.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"
#include "support/stop.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string>

namespace tarvex {

namespace {

constexpr edit_form fmt{"(1x,a,t45,1h=,i10)"};
constexpr edit_form fmt2{"(1x,a,t45,1h=,i10,f7.1,1h%)"};
constexpr edit_form fmt3{"(1x,a,i2,a,t45,1h=,i10,f7.1,1h%) "};

// The pedigree in hand. Animals are numbered from 1, 0 is the unknown parent.
struct ped_view {
    int nan, jj;
    const std::vector<int>&nrec, &sire, &dam;
    double xx, yy; // per cent of one animal, among those with records and among all
    int records(int i) const { return i > 0 ? nrec[i - 1] : 0; }
    template <class P> int count(P&& holds) const {
        int n = 0;
        for (int i = 1; i <= nan; ++i)
            if (holds(i)) ++n;
        return n;
    }
};

// Distinct codes above 0 in a list, of those animals for which `counts` holds.
int count_codes(const ped_view& v, const std::vector<int>& list, const std::function<bool(int)>& counts) {
    std::vector<char> mask(v.nan + 1);
    for (int i = 1; i <= v.nan; ++i)
        if (list[i - 1] > 0 && counts(i)) mask[list[i - 1]] = 1;
    return static_cast<int>(std::count(mask.begin(), mask.end(), char{1}));
}

// Adds the known parents of parent ii of animal i to the counters ngp(1:2).
void count_granps(const ped_view& v, int i, int ii, int* ngp) {
    if (ii < 1) return;
    const int granps[2] = {v.sire[ii - 1], v.dam[ii - 1]};
    for (int k = 0; k < 2; ++k) {
        if (granps[k] < 1) continue;
        // an animal cannot be its parent's parent
        if (granps[k] == i) {
            print_list(screen(), "animal & grandparent identical", pedigreelist.idwec(v.jj)[i - 1]);
            print_list(screen(), "  ... animal no. ", i);
            print_list(screen(), "  ... parent no. ", ii);
            stop("Pedigree error ??");
        }
        ++ngp[k];
    }
}

void write_head(text_out& out, const ped_view& v, int irand) {
    std::string head(78, '*');
    head.replace(5, 45, "Pedigree Structure for random effect :  " + edit_i(irand, 5));
    write(out, "(/a)", head);
    write(out, fmt, "Original no. of animals ", pedigreelist.nanim);
    write(out, fmt, "No. of animals after pruning", v.nan);
    write(out, "(a,t45,1h=,f10.1/)  ", " ... proportion (%) remaining",
          pedigreelist.nanim > 0 ? 100.0 * v.nan / pedigreelist.nanim : 0.0);
}

void write_records(text_out& out, const ped_view& v) {
    const auto between = [&](int lo, int hi) {
        return v.count([&](int i) { return v.records(i) >= lo && v.records(i) <= hi; });
    };
    const int nwith = v.count([&](int i) { return v.records(i) > 0; });
    write(out, fmt, "No. of levels w/out records", v.nan - nwith);
    write(out, fmt2, "No. of levels with records", nwith, 100.0);
    for (int i = 1; i <= 6; ++i)
        if (const int n = between(i, i)) write(out, fmt3, " ... ", i, " record(s) ", n, v.xx * n);
    if (const int n = between(7, 10)) write(out, fmt2, " ... 7-10 record(s) ", n, v.xx * n);
    if (const int n = between(11, 20)) write(out, fmt2, " ... 11-20 record(s) ", n, v.xx * n);
    if (const int n = v.count([&](int i) { return v.records(i) > 20; }))
        write(out, fmt2, " ... >20 record(s) ", n, v.xx * n);
    out.line("");
}

// Animals on which at least kfit records tell something: own, of a parent, of sibs.
void write_informed(text_out& out, const ped_view& v, int kfit) {
    const auto enough = [&](int i) { return i > 0 && v.records(i) >= kfit; };
    std::vector<char> parent(v.nan + 1); // has progeny with enough records
    for (int i = 1; i <= v.nan; ++i)
        // also marks 0, the unknown parent, which is cleared behind
        if (enough(i)) parent[v.sire[i - 1]] = parent[v.dam[i - 1]] = 1;
    parent[0] = 0;
    const int nown = v.count(enough);
    const auto near = [&](int i) { return enough(i) || enough(v.sire[i - 1]) || enough(v.dam[i - 1]); };
    // a parent with such progeny stands for sibs
    const auto sibs = [&](int i) { return near(i) || parent[v.sire[i - 1]] != 0 || parent[v.dam[i - 1]] != 0; };
    const int nsibs = v.count(sibs), ndata = v.count([&](int i) { return sibs(i) && v.records(i) > 0; });
    write(out, fmt, "Minimum no. of records specified", kfit);
    write(out, fmt3, "No. of animals with at least ", kfit, " records", nown, v.xx * nown);
    write(out, "(a,i2,a)", " No. of parents which have  progeny which ");
    write(out, "(a,i2,a,t45,1h=,i10)", "    have at least ", kfit, " records",
          static_cast<int>(std::count(parent.begin(), parent.end(), char{1})));
    write(out, "(a,i2,a)", " No. of animals with at least ", kfit, " records");
    write(out, fmt, "   themselves or on a parent ", v.count(near));
    write(out, fmt2, "   themselves, on a parent or sib(s)", nsibs, v.yy * nsibs);
    write(out, fmt2, "   ... in the data", ndata, v.yy * ndata);
}

void write_parentage(text_out& out, const ped_view& v) {
    // place 0 takes the unknown parents and is not looked at
    std::vector<char> parent(v.nan + 1);
    for (int i = 1; i <= v.nan; ++i) parent[v.sire[i - 1]] = parent[v.dam[i - 1]] = 1;
    const auto offspring = [&](int i) { return parent[i] != 0; };
    const auto data = [&](int i) { return v.records(i) > 0; };
    const auto nosire = [&](int i) { return v.sire[i - 1] == 0; };
    const auto nodam = [&](int i) { return v.dam[i - 1] == 0; };
    const int nwith = v.count(offspring), nrecs = v.count([&](int i) { return offspring(i) && data(i); });
    write(out, fmt2, "No. of animals w/out offspring", v.nan - nwith, v.yy * (v.nan - nwith));
    write(out, fmt2, "No. of animals with offspring", nwith, v.yy * nwith);
    write(out, fmt2, " ... and records ", nrecs, v.yy * nrecs);
    write(out, fmt, "No. of animals with unknown sire", v.count(nosire));
    write(out, fmt, "No. of animals with unknown dam", v.count(nodam));
    write(out, fmt, "No. of animals with both parents unknown", v.count([&](int i) { return nosire(i) && nodam(i); }));
    write(out, fmt, "No. of animals with records", v.count(data));
    write(out, fmt, " ... and unknown sire", v.count([&](int i) { return data(i) && nosire(i); }));
    write(out, fmt, " ... and unknown dam", v.count([&](int i) { return data(i) && nodam(i); }));
    write(out, fmt, " ... and both parents unknown", v.count([&](int i) { return data(i) && nosire(i) && nodam(i); }));
    const auto parents = [&](const char* label, const std::vector<int>& list) {
        write(out, fmt, label, count_codes(v, list, [](int) { return true; }));
        write(out, fmt, " ... with progeny in the data", count_codes(v, list, data));
        // records of the animal and of the parent it names
        write(out, fmt, " ... with records & progeny in data",
              count_codes(v, list, [&](int i) { return data(i) && data(list[i - 1]); }));
    };
    parents("No. of sires", v.sire);
    parents("No. of dams", v.dam);
}

void write_granps(text_out& out, const ped_view& v) {
    int ngp[4] = {};
    for (int i = 1; i <= v.nan; ++i) {
        count_granps(v, i, v.sire[i - 1], ngp);
        count_granps(v, i, v.dam[i - 1], ngp + 2);
    }
    write(out, "(/a)", " No. of animals with known/unpruned grand-parents");
    write(out, fmt, " ... with paternal grandsire ", ngp[0]);
    write(out, fmt, " ... with paternal granddam ", ngp[1]);
    write(out, fmt, " ... with maternal grandsire ", ngp[2]);
    write(out, fmt, " ... with maternal granddam ", ngp[3]);
}

// Distinct orders of fit of an effect, ascending.
std::set<int> orders_of_fit(int irand) {
    std::set<int> kfit;
    if (options.randreg)
        for (int iq = 1; iq <= numbers.nq; ++iq)
            for (int i = 1; i <= model.nrnd(iq); ++i)
                if (mudmap.rn_irand(i, iq) == irand) kfit.insert(mudmap.kfitrnd(i, iq));
    if (kfit.empty()) kfit.insert(1);
    return kfit;
}

} // namespace

void ped_counts(text_out& out, int irand, int jj, const std::vector<int>& nrec) {
    const int nan = pedigreelist.nannew(jj);
    const auto ndata = std::count_if(nrec.begin(), nrec.end(), [](int n) { return n > 0; });
    const ped_view v{nan,
                     jj,
                     nrec,
                     pedigreelist.sire(jj),
                     pedigreelist.dam(jj),
                     ndata > 0 ? 100.0 / static_cast<double>(ndata) : 0.0,
                     nan > 0 ? 100.0 / nan : 0.0};
    write_head(out, v, irand);
    write_records(out, v);
    for (const int kfit : orders_of_fit(irand)) write_informed(out, v, kfit);
    out.line("");
    write_parentage(out, v);
    write_granps(out, v);
}

} // namespace tarvex
