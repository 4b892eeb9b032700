// Places of pairs in the store that are not kept because they would take too much memory: passes then search for them.
#include "control/numbers.h"
#include "control/options.h"
#include "equations/mmmatrix.h"
#include "likelihood/buildmmm.h"
#include "likelihood/derivatives.h"
#include "likelihood/likelihood.h"
#include "likelihood/subjectchunks.h"
#include "parameters/parvec.h"
#include "support/em_fixture.h"

#include <algorithm>

namespace tarvex {
namespace {

using places_test = tarvex_test;

struct derived {
    double logl;
    std::vector<double> gradient, information;
};

std::vector<double> values(const array<double>& a) { return {a.begin(), a.end()}; }

// An evaluation that fills the stores, and one that may read them.
derived evaluated() {
    program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    forget_likelihoods();
    derived d;
    d.logl = program_logl(estimates.parvec, 1);
    average_info();
    derivatives_mmm();
    jacob_var2chol(0);
    d.gradient = values(derivs.der1);
    d.information = values(derivs.der2);
    return d;
}

void keep_at_most(std::size_t pairs) {
    places = {};
    places.most = pairs;
    places.look_every = 5;
    forget_likelihoods();
}

std::size_t pairs_held() {
    std::size_t n = places.subjects.place.size();
    for (const place_store& s : places.blocks) n += s.place.size();
    return n;
}

// Sums are formed in the same order, by the same places: no digit changes.
void expect_same(const derived& d, const derived& kept) {
    EXPECT_EQ(d.logl, kept.logl);
    EXPECT_EQ(d.gradient, kept.gradient);
    EXPECT_EQ(d.information, kept.information);
}

void expect_truth(const small_model& m, const derived& d) {
    const double want = dense_logl(m, estimates.parvec);
    EXPECT_NEAR(d.logl, want, 1.0e-8 * std::fabs(want));
    const std::vector<double> slopes = difference_gradient(estimates.parvec);
    double largest = 0.0;
    for (double g : slopes) largest = std::max(largest, std::fabs(g));
    ASSERT_EQ(slopes.size(), d.gradient.size());
    for (std::size_t i = 0; i < slopes.size(); ++i) EXPECT_NEAR(d.gradient[i], slopes[i], 1.0e-5 * largest) << i + 1;
}

void expect_the_same_without_places(const small_model& m) {
    set_up(m);
    keep_at_most(1'000'000);
    const derived kept = evaluated();
    expect_truth(m, kept);
    ASSERT_TRUE(places.subjects.complete);
    const std::size_t of_subjects = places.subjects.place.size();
    ASSERT_GT(of_subjects, 0u);
    ASSERT_GT(pairs_held(), of_subjects) << "the effects have no pairs";

    keep_at_most(0); // as many as the factor allows
    expect_same(evaluated(), kept);
    EXPECT_TRUE(places.subjects.complete && places.blocks(1).complete);

    keep_at_most(1); // none
    const derived none = evaluated();
    EXPECT_TRUE(places.subjects.dropped && places.blocks(1).dropped);
    EXPECT_EQ(pairs_held(), 0u);
    expect_same(none, kept);
    expect_truth(m, none);

    keep_at_most(of_subjects); // those of the subjects, and of no effect
    const derived some = evaluated();
    EXPECT_TRUE(places.subjects.complete && places.blocks(1).dropped);
    EXPECT_EQ(pairs_held(), of_subjects);
    expect_same(some, kept);
}

TEST_F(places_test, dropped_for_memory_leave_all_digits_of_traits) { expect_the_same_without_places(with_dams()); }

TEST_F(places_test, dropped_for_memory_leave_all_digits_of_random_regressions) {
    expect_the_same_without_places(growth(true));
}

TEST_F(places_test, dropped_for_memory_leave_all_digits_of_repeated_records) {
    expect_the_same_without_places(animal_model(1, {1.3}, {2.1}, 0.0, 12, 20));
}

TEST_F(places_test, dropped_for_memory_are_not_missed_by_threads) {
    const small_model m = with_dams();
    set_up(m);
    keep_at_most(1'000'000);
    places.together = 3;
    const derived kept = evaluated();
    keep_at_most(1);
    places.together = 3;
    options.threads = 3;
    program_logl(estimates.parvec, 1); // marks where the chunks begin
    ASSERT_GT(shared_chunks(), 1);
    forget_likelihoods();
    const derived threaded = evaluated();
    options.threads = 1;
    EXPECT_TRUE(places.subjects.dropped);
    expect_same(threaded, kept);
}

} // namespace
} // namespace tarvex
