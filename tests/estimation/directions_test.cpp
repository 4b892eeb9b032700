// The search by directions on functions given by hand: which points it asks for, and where it ends.
#include "control/maximise.h"
#include "control/numbers.h"
#include "estimation/powell.h"
#include "support/em_fixture.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace tarvex {
namespace {

using point = std::vector<double>;

class directions_test : public tarvex_test {
protected:
    using function = std::function<double(const point&)>;
    void from(const function& f, point start) {
        asked.clear();
        s = {};
        s.best = std::move(start);
        s.searched.assign(s.best.size(), 1);
        s.value = [this, f](const point& x) {
            asked.push_back(x);
            return f(x);
        };
    }
    // One search from 0 along the only coordinate.
    double along(const std::function<double(double)>& f, double first, double longest, double ztol = 1.0e-12) {
        from([f](const point& x) { return f(x[0]); }, {0.0});
        s.ztol = ztol;
        s.ffmin = f(0.0);
        curvature = -1.0;
        return s.dflmin({1.0}, first, longest, curvature);
    }
    void expect_asked(const std::vector<double>& want) const {
        ASSERT_EQ(asked.size(), want.size());
        for (std::size_t k = 0; k < want.size(); ++k) EXPECT_NEAR(asked[k][0], want[k], 1.0e-9) << k;
    }
    int rounds() const {
        const std::string log = std::filesystem::exists("Iterates") ? read_file("Iterates") : "";
        int n = 0;
        for (std::size_t at = log.find(" IT="); at != std::string::npos; at = log.find(" IT=", at + 1)) ++n;
        return n;
    }
    bool run(const function& f, const point& start, int most = 100) {
        for (const char* name : {"Iterates", "directions"}) std::remove(name);
        from(f, start);
        return search_by_directions(s, most);
    }
    powell_search s;
    std::vector<point> asked;
    double curvature = 0.0;
};

// ---- along a line

TEST_F(directions_test, parabola_is_met_after_two_trials) {
    EXPECT_NEAR(along([](double x) { return 3.0 * (x - 0.03) * (x - 0.03); }, 0.005, 0.1), 0.0027, 1.0e-12);
    expect_asked({0.005, 0.01, 0.03});
    EXPECT_NEAR(curvature, 3.0, 1.0e-6);
    EXPECT_NEAR(s.best[0], 0.03, 1.0e-9);
    along([](double x) { return 3.0 * (x + 0.02) * (x + 0.02); }, 0.005, 0.1);
    expect_asked({0.005, -0.005, -0.02}); // the other way
}

TEST_F(directions_test, first_trial_is_the_step_or_the_longest) {
    along([](double x) { return (x - 3.0) * (x - 3.0); }, -0.3, 5.0);
    EXPECT_NEAR(asked.at(0)[0], 0.3, 1.0e-12);
    along([](double x) { return (x - 3.0) * (x - 3.0); }, 9.0, 5.0);
    EXPECT_NEAR(asked.at(0)[0], 5.0, 1.0e-12);
}

TEST_F(directions_test, no_trial_is_more_than_ten_first_ones_off_the_best) {
    along([](double x) { return (x - 0.2) * (x - 0.2); }, 0.005, 0.1);
    expect_asked({0.005, 0.01, 0.06, 0.11, 0.16, 0.2});
}

TEST_F(directions_test, line_without_a_minimum_is_followed_downhill_for_twenty_turns) {
    const double h = 1.0 / 128.0; // exact in binary
    EXPECT_NEAR(along([](double x) { return -x; }, h, 0.1), 2.0 * h + 20.0 * 10.0 * h, 1.0e-12);
    EXPECT_EQ(asked.size(), 22u);
    EXPECT_EQ(asked.at(2)[0], 12.0 * h);
    EXPECT_EQ(curvature, 0.0);
    EXPECT_NEAR(along([](double x) { return x; }, h, 0.1), h + 20.0 * 10.0 * h, 1.0e-12);
    EXPECT_EQ(asked.at(2)[0], -11.0 * h);
}

// From 0 by 1 and 2 the parabola (x - 2 - e)^2 has e^2 left and has won (2 + e)^2 - e^2.
TEST_F(directions_test, gain_below_three_hundredths_of_what_is_won_is_left) {
    for (const double e : {0.40, 0.42}) {
        along([e](double x) { return (x - 2.0 - e) * (x - 2.0 - e); }, 1.0, 1.0);
        EXPECT_EQ(asked.size(), e * e > 0.03 * (4.0 + 4.0 * e) ? 3u : 2u) << e;
        EXPECT_NEAR(s.best[0], e > 0.41 ? 2.42 : 2.0, 1.0e-9);
    }
}

TEST_F(directions_test, minimum_within_twenty_accuracies_is_left) {
    for (const double m : {0.0299, 0.0301}) { // 0.0099 from 0.02, the first trial, or 0.04, the second
        along([m](double x) { return (x - m) * (x - m); }, 0.02, 0.1, 4.99e-4);
        EXPECT_EQ(asked.size(), 2u) << m;
    }
    along([](double x) { return (x - 0.0305) * (x - 0.0305); }, 0.02, 0.1, 4.7e-4);
    EXPECT_EQ(asked.size(), 3u); // 0.0095 of the 0.0094
    along([](double x) { return (x - 3.0) * (x - 3.0); }, 0.001, 0.1, 1.0e-3);
    EXPECT_NEAR(asked.at(0)[0], 0.02, 1.0e-12) << "no first step below";
}

TEST_F(directions_test, step_without_value_is_shortened_by_a_twentieth) {
    const auto wall = [](double x) { return x > 0.0042 ? powell_search::no_value : (x + 1.0) * (x + 1.0); };
    along(wall, 0.005, 0.1);
    ASSERT_GE(asked.size(), 6u);
    for (std::size_t k = 0; k < 5; ++k) EXPECT_NEAR(asked[k][0], 0.005 * std::pow(0.95, k), 1.0e-12) << k;
    EXPECT_NEAR(asked[5][0], -0.005 * std::pow(0.95, 4), 1.0e-12);
    // a later one towards the best point
    along([](double x) { return x > 0.055 ? powell_search::no_value : (x - 0.1) * (x - 0.1); }, 0.005, 0.1);
    ASSERT_GE(asked.size(), 5u);
    EXPECT_NEAR(asked[2][0], 0.06, 1.0e-12);
    EXPECT_NEAR(asked[3][0], 0.01 + 0.95 * 0.05, 1.0e-12);
    EXPECT_NEAR(asked[4][0], 0.01 + 0.95 * 0.95 * 0.05, 1.0e-12);
}

TEST_F(directions_test, level_line_is_tried_twice_as_far_up_to_ten_steps) {
    const auto level = [](double x) { return std::fabs(x) < 0.015 ? 1.0 : 1.0 - (std::fabs(x) - 0.015); };
    along(level, 0.005, 0.1);
    ASSERT_GE(asked.size(), 4u);
    for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(asked[k][0], 0.005 * std::pow(2.0, k), 1.0e-12);
    EXPECT_EQ(along([](double) { return 1.0; }, 0.005, 0.1), 0.0);
    expect_asked({0.005, 0.01, 0.02, 0.04});
    EXPECT_NE(screen_text().find("dflmin : max. change in parameter value does not\n"), std::string::npos);
}

TEST_F(directions_test, held_coordinates_stay) {
    from([](const point& x) { return (x[0] - 1.0) * (x[0] - 1.0) + (x[1] - 1.0) * (x[1] - 1.0); }, {0.5, 0.5});
    s.searched = {0, 1};
    s.ztol = 1.0e-12;
    s.ffmin = 0.5;
    s.dflmin({1.0, 1.0}, 0.1, 1.0, curvature);
    EXPECT_EQ(s.best[0], 0.5);
    EXPECT_NEAR(s.best[1], 1.0, 1.0e-9);
}

// ---- rounds

TEST_F(directions_test, one_value_is_asked_for_where_all_coordinates_are_held) {
    from([](const point& x) { return x[0] * x[0]; }, {0.5});
    s.searched = {0};
    EXPECT_FALSE(search_by_directions(s, 100));
    EXPECT_EQ(asked, (std::vector<point>{{0.5}}));
    EXPECT_EQ(s.ffmin, 0.25);
}

double bowl(const point& x) { return 4.0 * (x[0] - 0.03) * (x[0] - 0.03) + 1.0e4 * (x[1] - 0.02) * (x[1] - 0.02); }

TEST_F(directions_test, first_step_is_half_of_a_hundredth_times_the_scale) {
    for (const double scale : {1.0, 3.0}) {
        from(bowl, {0.0, 0.0});
        s.scale = scale;
        search_by_directions(s, 1);
        EXPECT_EQ(asked.at(0), (point{0.0, 0.0}));
        EXPECT_NEAR(asked.at(1)[0], 0.005 * scale, 1.0e-12);
    }
}

TEST_F(directions_test, directions_get_unit_curvature_and_steps_a_tenth_at_most) {
    EXPECT_FALSE(run(bowl, {0.0, 0.0}, 1));
    EXPECT_NEAR(s.dirs[0][0], 0.5, 1.0e-6);
    EXPECT_NEAR(s.step[0], 0.02, 1.0e-7);
    EXPECT_NEAR(s.dirs[1][1], 0.01, 1.0e-8);
    EXPECT_NEAR(s.step[1], 0.1, 1.0e-12); // 0.01 times 100 is more
    EXPECT_TRUE(run(bowl, {0.03, 0.02}, 1)) << "nothing to gain";
    EXPECT_EQ(s.dirs[0][0], 1.0);
    EXPECT_EQ(s.step[0], 0.01);
}

// A round is small if it gains less than 0.002; one along fresh directions ends the search.
TEST_F(directions_test, round_that_gains_a_five_hundredth_is_worth_another) {
    for (const double gain : {0.00199, 0.00201}) {
        const double m = 0.03, c = gain / (m * m);
        EXPECT_TRUE(run([&](const point& x) { return c * (x[0] - 1.0 - m) * (x[0] - 1.0 - m); }, {1.0}));
        EXPECT_EQ(rounds(), gain < 0.002 ? 1 : 3) << gain; // the second gains nothing, the third is along fresh ones
        EXPECT_NE(read_file("Iterates")
                      .find(gain < 0.002 ? "CONVERGENCE : CHANGE IN FUNCTION VALUE 0.002"
                                         : "CONVERGENCE : CHANGE IN PARAMETERS "),
                  std::string::npos);
    }
}

// Relative to the coordinate, not to 1.
TEST_F(directions_test, round_that_moves_nothing_by_a_ten_thousandth_is_small) {
    numbers.zero = 1.0e-14;
    for (const double share : {0.99e-4, 1.01e-4}) {
        const double from = 0.01, m = share * from, c = 0.5 / (m * m);
        EXPECT_TRUE(run([&](const point& x) { return c * (x[0] - from - m) * (x[0] - from - m); }, {from}));
        EXPECT_EQ(rounds(), share < 1.0e-4 ? 1 : 3) << share;
        const std::string log = read_file("Iterates");
        EXPECT_NE(log.find("CONVERGENCE : CHANGE IN PARAMETERS "), std::string::npos);
        EXPECT_NEAR(std::stod(log.substr(log.find("CH=") + 3)), 100.0 * share, 0.01 * 100.0 * share) << "per cent";
    }
}

TEST_F(directions_test, small_round_along_worn_directions_lays_out_fresh_ones) {
    EXPECT_FALSE(run(bowl, {0.0, 0.0}, 2));
    EXPECT_EQ(s.dirs[0], (point{1.0, 0.0}));
    EXPECT_EQ(s.dirs[1], (point{0.0, 1.0}));
    EXPECT_EQ(s.step[1], 0.01);
    EXPECT_NE(read_file("Iterates").find("*** POWELL : No convergence after 2 rounds\n"), std::string::npos);
    EXPECT_TRUE(run(bowl, {0.0, 0.0}, 3));
    EXPECT_EQ(read_file("Iterates").find("No convergence"), std::string::npos);
}

// Two directions win 1 each, and twice the round's move leads to 2 - w: the direction of the round is taken in if
// 2 (4 - w) < w^2, so for w above 2.
TEST_F(directions_test, direction_of_the_round_replaces_that_of_most_decrease_where_it_keeps_them_independent) {
    const double m = 0.03, c = 1.0 / (m * m);
    for (const double w : {-5.0, 1.9, 2.1}) {
        const auto f = [&](const point& x) {
            if (x[0] > 1.5 * m && x[1] > 1.5 * m) return 2.0 - w;
            return c * (x[0] - m) * (x[0] - m) + c * (x[1] - m) * (x[1] - m);
        };
        EXPECT_FALSE(run(f, {0.0, 0.0}, 1));
        const bool taken = std::fabs(s.dirs[0][1]) > 1.0e-6 || std::fabs(s.dirs[1][0]) > 1.0e-6;
        EXPECT_EQ(taken, w > 2.0) << w;
        const point twice{2.0 * m, 2.0 * m};
        const auto near = [](const point& a, const point& b) {
            return std::fabs(a[0] - b[0]) + std::fabs(a[1] - b[1]) < 1.0e-6;
        };
        const auto at = std::find_if(asked.begin(), asked.end(), [&](const point& x) { return near(x, twice); });
        ASSERT_NE(at, asked.end()) << "the end of twice the move";
        if (!taken) {
            EXPECT_EQ(at + 1, asked.end());
            continue;
        }
        ASSERT_NE(at + 1, asked.end());
        EXPECT_TRUE(near(at[1], {1.5 * m, 1.5 * m})) << "half the move at first";
    }
}

// ---- limits and steps of the user

TEST_F(directions_test, limit_of_rounds_is_ten_for_each_parameter_and_for_ten_more) {
    EXPECT_EQ(rounds_of_directions(1), 110);
    EXPECT_EQ(rounds_of_directions(7), 170);
    maximise.powell_its = 4;
    EXPECT_EQ(rounds_of_directions(7), 4);
}

TEST_F(directions_test, number_behind_the_option_scales_the_steps) {
    EXPECT_EQ(scale_of_directions(), 1.0);
    maximise.powell_scale = 0.2; // the ordinary one
    EXPECT_DOUBLE_EQ(scale_of_directions(), 1.0);
    maximise.powell_scale = 0.6;
    EXPECT_DOUBLE_EQ(scale_of_directions(), 3.0);
    set_up(families(1), {"--powell1,0.6"});
    double xbest = 0.0;
    powell(xbest, estimates.parvec);
    const std::string log = read_file("directions");
    EXPECT_NEAR(std::stod(log.substr(log.find("DIR=   1") + 8, 15)), 0.3, 1.0e-6); // three times a tenth at most
}

} // namespace
} // namespace tarvex
