// Inbreeding coefficients of pedigrees in which many sires are swept together.
#include "relations/inbreeding.h"

#include "relations/inbreeding_cuts.h"
#include "relations/sweep_order.h"
#include "support/pedigree_model.h"

namespace tarvex {
namespace {

struct family_book {
    std::vector<int> sire, dam;
    std::vector<double> f;
    int add(int s, int d, double coefficient) {
        sire.push_back(s);
        dam.push_back(d);
        f.push_back(coefficient);
        return static_cast<int>(sire.size());
    }
};

// Generations one behind the other: founders, full sibs, their offspring, back-crosses of these to their grandfather's
// son, selfings of the back-crosses.
TEST(inbreeding, thousands_of_families_side_by_side) {
    constexpr int families = 2500;
    family_book book;
    std::vector<int> bull(families), cow(families), son(families), daughter(families), inbred(families), back(families);
    for (auto& i : bull) i = book.add(0, 0, 0.0);
    for (auto& i : cow) i = book.add(0, 0, 0.0);
    for (std::size_t k = 0; k < families; ++k) son[k] = book.add(bull[k], cow[k], 0.0);
    for (std::size_t k = 0; k < families; ++k) daughter[k] = book.add(bull[k], cow[k], 0.0);
    for (std::size_t k = 0; k < families; ++k) inbred[k] = book.add(son[k], daughter[k], 0.25);
    for (std::size_t k = 0; k < families; ++k) back[k] = book.add(son[k], inbred[k], 0.375); // a = (1 + 1/2) / 2
    for (std::size_t k = 0; k < families; ++k) book.add(back[k], back[k], 0.6875);           // a = 1 + 3/8
    for (std::size_t k = 1; k < families; ++k) book.add(inbred[k], inbred[k - 1], 0.0);      // of two families
    int last = 0;
    const std::vector<double> f = inbreeding(book.sire, book.dam, [&](int s) { EXPECT_EQ(s, ++last); });
    EXPECT_EQ(f, book.f) << "halves and quarters are exact";
    EXPECT_EQ(last, static_cast<int>(book.sire.size())) << "every number is told once";
}

// Groups of one sire, of a few and of many, in generations of all sizes; selfing, unknown parents.
TEST(inbreeding, generations_of_different_size_equal_the_tabular_method) {
    std::mt19937 rng(17);
    for (const int sires : {1, 2, 5, 9, 30}) {
        family_book book;
        const auto draw = [&](int from, int n) { return from + static_cast<int>(rng() % static_cast<unsigned>(n)); };
        for (int g = 0; g < 6; ++g) {
            const int from = 70 * (g - 1) + 1;
            for (int k = 0; k < 70; ++k) {
                const int s = g > 0 && rng() % 9 > 0 ? draw(from, sires) : 0,
                          d = g > 0 && rng() % 9 > 0 ? draw(from, 70) : 0;
                book.add(s, d, 0.0);
            }
        }
        const dense a = tabular(book.sire, book.dam);
        const std::vector<double> f = inbreeding(book.sire, book.dam);
        for (std::size_t i = 0; i < f.size(); ++i) EXPECT_NEAR(f[i], a[i][i] - 1.0, 1e-14) << sires << " sires, " << i;
    }
}

// D of an animal must not be used before the coefficients of its parents are final: sires with sons of their own
// among the youngest sires.
TEST(inbreeding, sires_of_overlapping_generations) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::vector<int> sire{0, 0, 0}, dam{0, 0, 0};
        for (int i = 4; i <= 200; ++i) {
            const int back = seed % 2 == 0 ? 4 : 60, from = std::max(1, i - back);
            sire.push_back(from + static_cast<int>(rng() % static_cast<unsigned>(i - from)));
            dam.push_back(1 + static_cast<int>(rng() % static_cast<unsigned>(i - 1)));
        }
        const dense a = tabular(sire, dam);
        const std::vector<double> f = inbreeding(sire, dam);
        for (std::size_t i = 0; i < f.size(); ++i) EXPECT_NEAR(f[i], a[i][i] - 1.0, 1e-13) << seed << " " << i;
    }
}

// Generations of `size`, the first `sires` of each its males; one parent in 13 unknown, one in 40 from any generation.
family_book generations(int count, int size, int sires, unsigned seed) {
    std::mt19937 rng(seed);
    family_book book;
    const auto draw = [&](int from, int n) { return from + static_cast<int>(rng() % static_cast<unsigned>(n)); };
    for (int g = 0; g < count; ++g)
        for (int k = 0; k < size; ++k) {
            const int from = size * ((rng() % 40 == 0 ? draw(0, std::max(g, 1)) : g - 1)) + 1;
            const bool s = g > 0 && rng() % 13 > 0, d = g > 0 && rng() % 13 > 0;
            book.add(s ? draw(from, sires) : 0, d ? draw(from, size) : 0, 0.0);
        }
    return book;
}

TEST(inbreeding, stretches_that_end_anywhere_equal_the_tabular_method) {
    for (const unsigned seed : {1u, 2u, 3u}) {
        const family_book book = generations(9, 50, 25, seed);
        const int n = static_cast<int>(book.sire.size());
        const dense a = tabular(book.sire, book.dam);
        for (const std::vector<int>& last :
             {std::vector<int>{n}, {200, n}, {50, 100, 237, n}, {1, 7, 90, 91, 399, n}}) {
            std::vector<int> told;
            const std::vector<double> f =
                inbreeding_by_cuts(book.sire, book.dam, last, [&](int m) { told.push_back(m); });
            EXPECT_EQ(told, last);
            double inbred = 0.0;
            for (std::size_t i = 0; i < f.size(); ++i) {
                ASSERT_NEAR(f[i], a[i][i] - 1.0, 1e-13) << last.size() << " stretches, animal " << i + 1;
                inbred += f[i];
            }
            EXPECT_GT(inbred, 1.0);
        }
    }
}

// Relationships of few generations are dyadic fractions, which neither sums nor products round.
TEST(inbreeding, coefficients_of_few_generations_are_exact) {
    const family_book book = generations(8, 60, 30, 21);
    const dense a = tabular(book.sire, book.dam);
    for (const int cut : {60, 150, 240, 300, 471}) {
        const std::vector<double> f = inbreeding_by_cuts(book.sire, book.dam, {cut, 480});
        for (std::size_t i = 0; i < f.size(); ++i) ASSERT_EQ(f[i], a[i][i] - 1.0) << cut << " " << i + 1;
    }
}

// Borders and stretches of so many generations that fractions need 16 bits, 16 and then 32, 32 throughout, or 64.
TEST(inbreeding, coefficients_of_twenty_generations_are_exact) {
    const family_book book = generations(20, 30, 15, 22);
    const dense a = tabular(book.sire, book.dam);
    for (const int cut : {30, 90, 120, 149, 150, 210, 241, 270, 330, 390, 450}) {
        const std::vector<double> f = inbreeding_by_cuts(book.sire, book.dam, {cut, 600});
        for (std::size_t i = 0; i < f.size(); ++i) ASSERT_EQ(f[i], a[i][i] - 1.0) << cut << " " << i + 1;
    }
}

// Ancestors and descendants of the border that are few at first and then outnumber the animals of a generation.
TEST(inbreeding, coefficients_are_exact_where_lines_of_descent_become_many) {
    const family_book book = generations(12, 150, 75, 31);
    const int n = static_cast<int>(book.sire.size());
    const dense a = tabular(book.sire, book.dam);
    for (const int cut : {150, 420, 750, 1000, 1350}) {
        const std::vector<double> f = inbreeding_by_cuts(book.sire, book.dam, {cut, n});
        for (std::size_t i = 0; i < f.size(); ++i) ASSERT_EQ(f[i], a[i][i] - 1.0) << cut << " " << i + 1;
    }
}

// Too many generations for fractions of 32 bits; so many relatives that whole runs are touched.
TEST(inbreeding, stretches_of_deep_pedigrees_equal_the_tabular_method) {
    for (const int size : {6, 14, 33}) {
        const family_book book = generations(30, size, size / 2, 3);
        const int n = static_cast<int>(book.sire.size());
        const dense a = tabular(book.sire, book.dam);
        std::vector<int> last;
        for (int at = 5 * size + 2; at < n; at += 4 * size + 1) last.push_back(at);
        last.push_back(n);
        const std::vector<double> f = inbreeding_by_cuts(book.sire, book.dam, last);
        for (std::size_t i = 0; i < f.size(); ++i) ASSERT_NEAR(f[i], a[i][i] - 1.0, 1e-13) << size << " " << i + 1;
    }
}

// Parents of any age and both sexes in one, unknown ones, matings of parent and offspring and with itself.
TEST(inbreeding, stretches_of_overlapping_generations_equal_the_tabular_method) {
    for (unsigned seed = 1; seed <= 30; ++seed) {
        std::mt19937 rng(seed);
        const auto draw = [&](int to) { return static_cast<int>(rng() % static_cast<unsigned>(to)); };
        const int back = seed % 3 == 0 ? 250 : 15 + 10 * static_cast<int>(seed);
        std::vector<int> sire, dam, last;
        for (int i = 1; i <= 250; ++i) {
            const auto parent = [&] { return draw(12) == 0 || i == 1 ? 0 : i - 1 - draw(std::min(i - 1, back)); };
            sire.push_back(parent());
            dam.push_back(draw(25) == 0 ? sire.back() : parent());
        }
        for (int at = 1 + draw(90); at < 250; at += 20 + draw(60)) last.push_back(at);
        last.push_back(250);
        const dense a = tabular(sire, dam);
        const std::vector<double> f = inbreeding_by_cuts(sire, dam, last);
        for (std::size_t i = 0; i < f.size(); ++i) ASSERT_NEAR(f[i], a[i][i] - 1.0, 1e-13) << seed << " " << i + 1;
    }
}

// Nobody stands before a parent or in one run with it, and no column is given on before the run of the last offspring
// is over.
TEST(inbreeding, places_and_slots_of_a_stretch) {
    const family_book book = generations(7, 40, 20, 8);
    const int n = static_cast<int>(book.sire.size());
    for (const int first : {1, 90, 161, 200}) {
        const sweep_order o = order_stretch(book.sire, book.dam, first, n);
        std::vector<int> holder(static_cast<std::size_t>(o.slots) + 1), border;
        int used = 0;
        for (std::size_t r = 0; r + 1 < o.run.size(); ++r) {
            for (int k = o.run[r]; k < o.run[r + 1]; ++k) {
                const swept& x = o.at[k];
                EXPECT_EQ(o.place[o.animal[k]], k);
                EXPECT_EQ(r >= o.young, o.animal[k] >= first);
                for (const auto& [p, slot] : {std::pair{x.sire, x.sire_slot}, std::pair{x.dam, x.dam_slot}}) {
                    EXPECT_LT(p, o.run[r]);
                    EXPECT_EQ(p > 0 ? holder[slot] : 0, p);
                    if (r >= o.young && p > 0 && o.animal[p] < first) border.push_back(p);
                }
                EXPECT_EQ(x.sire, o.place[book.sire[o.animal[k] - 1]]);
                EXPECT_EQ(x.dam, o.place[book.dam[o.animal[k] - 1]]);
            }
            for (int k = o.run[r]; k < o.run[r + 1]; ++k)
                if (o.at[k].slot > 0) holder[o.at[k].slot] = k, ++used;
        }
        std::sort(border.begin(), border.end());
        border.erase(std::unique(border.begin(), border.end()), border.end());
        EXPECT_EQ(o.border, border);
        EXPECT_GT(used, o.slots) << "slots are given on";
    }
}

TEST(inbreeding, threads_change_no_bit) {
    for (const int generation : {6, 40}) { // in 32 bits, and beyond them
        const family_book book = generations(generation, 300, 150, 3);
        const int n = static_cast<int>(book.sire.size());
        const std::vector<int> last{n / 3, 2 * n / 3, n};
        const std::vector<double> one = inbreeding_by_cuts(book.sire, book.dam, last);
        EXPECT_GT(*std::max_element(one.begin(), one.end()), 0.0);
        for (const int threads : {2, 3, 8})
            EXPECT_EQ(inbreeding_by_cuts(book.sire, book.dam, last, {}, threads), one) << generation << " " << threads;
    }
}

TEST(inbreeding, selfing_and_backcrosses_over_a_border) {
    family_book book;
    const int a = book.add(0, 0, 0.0), b = book.add(0, 0, 0.0);
    const int c = book.add(a, b, 0.0), e = book.add(c, c, 0.5);
    const int g = book.add(a, c, 0.25), h = book.add(e, c, 0.5); // a(e,c) = a(c,c) = 1
    book.add(h, g, 0.375);                                       // a(h,g) = a(c,g) = (1/2 + 1) / 2
    const int n = static_cast<int>(book.sire.size());
    for (int cut = 1; cut < n; ++cut) {
        const std::vector<double> f = inbreeding_by_cuts(book.sire, book.dam, {cut, n});
        for (std::size_t i = 0; i < f.size(); ++i) EXPECT_EQ(f[i], book.f[i]) << cut << " " << i;
    }
}

TEST(inbreeding, the_list_is_cut_where_steps_are_saved) {
    const family_book book = generations(20, 400, 200, 11);
    const int n = static_cast<int>(book.sire.size());
    const pedigree_cuts cuts = cut_pedigree(book.sire, book.dam);
    EXPECT_GT(cuts.last.size(), 1u);
    EXPECT_EQ(cuts.last.back(), n);
    EXPECT_TRUE(std::is_sorted(cuts.last.begin(), cuts.last.end()));
    EXPECT_LT(2 * cuts.steps, sweep_steps(book.sire, book.dam));
    const family_book dairy = generations(20, 400, 4, 11);
    EXPECT_GT(cut_pedigree(dairy.sire, dairy.dam).steps, sweep_steps(dairy.sire, dairy.dam)) << "few sires are swept";
}

// Half of each generation are sires: animals twice as many take four times the steps by sires, and less than three
// times by stretches.
TEST(inbreeding, steps_do_not_grow_with_the_square_of_the_sires) {
    std::int64_t before = 0, by_sires = 0;
    for (const int size : {2500, 5000, 10000}) {
        const family_book book = generations(20, size, size / 2, 11);
        const std::int64_t steps = cut_pedigree(book.sire, book.dam).steps, sweeps = sweep_steps(book.sire, book.dam);
        if (before > 0) {
            EXPECT_LT(steps, 3 * before) << size;
            EXPECT_GT(2 * sweeps, 7 * by_sires) << size;
        }
        before = steps;
        by_sires = sweeps;
    }
    EXPECT_LT(8 * before, by_sires); // of 200000 animals
}

TEST(inbreeding, a_large_pedigree_takes_the_stretches_and_tells_each_number_once) {
    const family_book book = generations(20, 1400, 700, 5);
    const int n = static_cast<int>(book.sire.size());
    int last = 0;
    const std::vector<double> f = inbreeding(book.sire, book.dam, [&](int s) { EXPECT_EQ(s, ++last); });
    EXPECT_EQ(last, n);
    EXPECT_EQ(f, inbreeding_by_cuts(book.sire, book.dam, cut_pedigree(book.sire, book.dam).last));
    const std::vector<double> g = inbreeding_by_sires(book.sire, book.dam);
    for (std::size_t i = 0; i < f.size(); ++i) ASSERT_NEAR(f[i], g[i], 1e-13) << i;
}

} // namespace
} // namespace tarvex
