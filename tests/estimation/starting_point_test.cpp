// What a search says of the point at which it starts.
#include "estimation/estimates.h"
#include "estimation/iteratelog.h"
#include "parfile/model.h"
#include "support/em_fixture.h"

namespace tarvex {
namespace {

using starting_point_test = tarvex_test;

TEST_F(starting_point_test, invalid_first_point_stops_the_run) {
    set_up(repeats_with_peq(), {"--emalg"});
    estimates.parvec(1) = 1.0; // the sum of residual and repeat variance below the latter
    estimates.parvec(2) = 1.5;
    EXPECT_STOP(get_estimates(), "mixed model matrix is not positive definite !!!\n"
                                 "      Residual covariance matrix without an inverse at the starting values\n");
    EXPECT_EQ(screen_text().find("unidentified dependency"), std::string::npos);
}

TEST_F(starting_point_test, invalid_first_point_is_named_by_its_matrix) {
    set_up(animal_model(2, {1.0, 0.0, 1.0e-7}, {2.1, 0.4, 1.9}), {"--aireml"});
    EXPECT_STOP(get_estimates(), "      Covariance matrix without an inverse at the starting values : \"animal\"\n");
}

TEST_F(starting_point_test, covariances_held_at_zero_are_told_by_the_names_of_their_traits) {
    set_up(animal_model(2, {1.3, 0.5, 1.8}, {2.1, 0.0, 1.9}), {"--aireml2"});
    clear_screen();
    get_estimates();
    EXPECT_NE(screen_text().find("Residual covariance of \"" + model.trait(1) + "\" and \"" + model.trait(2) +
                                 "\" is held at 0 (it starts there)\n"),
              std::string::npos)
        << screen_text();
    EXPECT_FALSE(model.trait(1).empty());
}

} // namespace
} // namespace tarvex
