#include "app/choices.h"

#include "app/runoptions.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/model.h"
#include "support/fixture.h"

using namespace tarvex;

namespace {

class choices : public tarvex_test {
protected:
    void given(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "tarvex");
        runoptions(static_cast<int>(arguments.size()), arguments.data());
    }
    // Two random effects of the given orders and ranks.
    void effects(std::array<int, 2> order, std::array<int, 2> rank) {
        numbers.krand = 2;
        model.kkfit.allocate(2);
        model.krfit.allocate(2);
        for (int i = 1; i <= 2; ++i) {
            model.kkfit(i) = order[static_cast<std::size_t>(i - 1)];
            model.krfit(i) = rank[static_cast<std::size_t>(i - 1)];
        }
    }
};

TEST_F(choices, correlated_effects_turn_pxem_into_plain_em) {
    given({"--pxem"});
    options.sigam = true;
    choose_algorithm();
    EXPECT_EQ(screen_text(), "PX-EM algorithm not implemented for correlated random effects \n"
                             " ... switching to plain EM instead ! \n");
    EXPECT_FALSE(options.pxem);
    EXPECT_EQ(maximise.pxem_its, 4);
    EXPECT_EQ(maximise.search_type, 5);
    EXPECT_TRUE(options.emalgorithm);
}

TEST_F(choices, correlated_effects_cut_the_rounds_of_em_to_four) {
    given({"--emalg3"});
    options.sigam = true;
    choose_algorithm();
    EXPECT_EQ(maximise.pxem_its, 3);
    EXPECT_EQ(screen_text(), "");
}

TEST_F(choices, correlated_effects_get_a_limit_for_ai_reml) {
    for (const int limit : {0, 1, 60}) {
        given({"--emai3"});
        options.sigam = options.aireml = true;
        maximise.aireml_its = limit;
        choose_algorithm();
        EXPECT_EQ(maximise.aireml_its, limit < 1 ? 100 : limit);
    }
}

TEST_F(choices, correlated_effects_by_default_run_em_and_ai_reml) {
    given({});
    options.sigam = true;
    choose_algorithm();
    EXPECT_TRUE(options.algorithm_set && options.aireml && options.emalgorithm && options.pxai && !options.pxem);
    EXPECT_EQ(maximise.ncycle, 1);
    EXPECT_EQ(screen_text(), "");
}

TEST_F(choices, reduced_rank_keeps_pxem) {
    given({"--good"});
    options.principal = true;
    options.pxem = options.pxai = false;
    maximise.ncycle = 7;
    choose_algorithm();
    EXPECT_TRUE(options.pxem && options.pxai);
    EXPECT_EQ(maximise.ncycle, 1);
    given({"--aireml"});
    options.principal = true;
    choose_algorithm();
    EXPECT_FALSE(options.pxem);
}

TEST_F(choices, ordinary_runs_need_no_change) {
    given({});
    choose_algorithm();
    EXPECT_TRUE(options.pxem && options.emalgorithm && !options.algorithm_set);
}

TEST_F(choices, reconstruction_only_if_asked_for) {
    given({});
    effects({2, 1}, {2, 1});
    choose_reconstruct();
    EXPECT_FALSE(options.reconstruct || options.superai);
    given({"--reconst"});
    choose_reconstruct();
    EXPECT_TRUE(options.reconstruct);
    given({"--super"});
    options.principal = true; // all at full rank
    choose_reconstruct();
    EXPECT_TRUE(options.superai && !options.reconstruct);
}

TEST_F(choices, reduced_rank_works_through_the_factor_of_the_relationship_matrix) {
    given({});
    options.principal = true;
    effects({2, 3}, {2, 2});
    choose_reconstruct();
    EXPECT_TRUE(options.superai && options.reconstruct);
}

TEST_F(choices, seventeen_parameters_run_ai_reml_eighteen_the_sequence) {
    given({});
    EXPECT_FALSE(choose_small_problem(18));
    EXPECT_EQ(maximise.search_type, 6);
    EXPECT_TRUE(options.pxem);
    EXPECT_TRUE(choose_small_problem(17));
    EXPECT_EQ(maximise.search_type, 1);
    EXPECT_FALSE(options.emalgorithm || options.pxem);
    given({"--pxai"});
    EXPECT_FALSE(choose_small_problem(3));
    given({"--pownew"}); // has not set the algorithm
    EXPECT_TRUE(choose_small_problem(3));
    EXPECT_EQ(maximise.search_type, 1);
}

TEST_F(choices, nrm_effects_are_found_in_any_trait) {
    numbers.nq = 2;
    model.nrnd.allocate(2);
    model.rnd_opt.allocate(3, 2);
    model.nrnd(1) = model.nrnd(2) = 1;
    model.rnd_opt(1, 1) = model.rnd_opt(1, 2) = covariance_kind::ide;
    EXPECT_FALSE(any_nrm_effect());
    model.rnd_opt(1, 2) = covariance_kind::nrm;
    EXPECT_TRUE(any_nrm_effect());
}

} // namespace
