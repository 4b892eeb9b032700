// Inbreeding coefficients of pedigrees in which many sires are swept together.
#include "relations/inbreeding.h"

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

} // namespace
} // namespace tarvex
