// The tie of the model to data columns and covariance blocks.
#include "parfile/mudmap.h"

#include "control/numbers.h"
#include "control/options.h"
#include "parfile/examples.h"
#include "parfile/model.h"
#include "parfile/mudmap_build.h"
#include "parfile/readparfile.h"
#include "support/fixture.h"

namespace tarvex {
namespace {

using examples::with;

class mudmap_build : public tarvex_test {
protected:
    void map(const std::string& text) {
        write_file("tarvex.par", text);
        read_parfile();
        model2mudmap();
    }
    const mudmap_module& m = mudmap;
};

TEST_F(mudmap_build, univariate) {
    map(examples::weaning);
    EXPECT_TRUE(m.alltraits);
    EXPECT_EQ(m.maxcol, 5);
    EXPECT_EQ(m.tr_dcolno(1), 5);
    EXPECT_EQ(m.fx_dcolno(1, 1), 2);
    EXPECT_EQ(m.fx_mlev(2, 1), 2);
    EXPECT_EQ(m.maxlev_fix, 30);
    EXPECT_EQ(m.cv_dcolno(1, 1), 4);
    EXPECT_EQ(m.cv_type(1, 1), basis_kind::pol);
    EXPECT_EQ(m.cv_order(1, 1), 1);
    EXPECT_EQ(m.cv_nestcolno(1, 1), 0);
    EXPECT_EQ(m.rn_dcolno(1, 1), 1);
    EXPECT_EQ(m.kfitrnd(1, 1), 1);
    EXPECT_EQ(m.subj_dcolno(1), 1);
    EXPECT_EQ(m.iranno(1), 1);
    EXPECT_EQ(m.nrunno, 1);
    EXPECT_EQ(m.kovrnd(1), covariance_kind::nrm);
    EXPECT_EQ(m.rn_irand(1, 1), 1);
    EXPECT_EQ(m.rn_place(1, 1), 1);
    EXPECT_EQ(m.rn_trait(1, 1), 1);
    EXPECT_EQ(m.rn_which(1, 1), 1);
}

TEST_F(mudmap_build, all_traits_of_a_line_share_its_columns) {
    map(examples::two_traits);
    EXPECT_TRUE(m.alltraits);
    EXPECT_EQ(m.tr_dcolno(1), 3);
    EXPECT_EQ(m.tr_dcolno(2), 4);
    EXPECT_EQ(m.fx_dcolno(1, 2), 2);
    EXPECT_EQ(m.rn_dcolno(1, 2), 1);
    EXPECT_EQ(m.subj_dcolno(2), 1);
    EXPECT_EQ(m.nnq(1), 2);
    EXPECT_EQ(m.rn_place(1, 2), 2);
    EXPECT_EQ(m.rn_trait(2, 1), 2);
    EXPECT_EQ(m.nrunno, 1);
}

TEST_F(mudmap_build, a_line_of_one_trait_begins_with_its_number) {
    map(examples::renumbered);
    EXPECT_FALSE(m.alltraits);
    EXPECT_EQ(m.tr_dcolno(1), 5);
    EXPECT_EQ(m.tr_dcolno(2), 5);
    EXPECT_EQ(m.rn_dcolno(2, 1), 4);
    EXPECT_EQ(m.kovrnd(2), covariance_kind::ide);
    EXPECT_EQ(m.ksfit(2, 1), 1);
    EXPECT_EQ(m.ksfit(2, 2), 0);
    EXPECT_EQ(m.nnq(2), 1);
    EXPECT_EQ(m.iranno(2), 0);
    EXPECT_EQ(m.rn_mlev(2, 1), 900);
}

TEST_F(mudmap_build, renumbered_traits_of_one_model_may_share_one_list_of_columns) {
    map("ANA MUV 2\nDAT d\n qno\n animal 9\n weight\nEND\nPED p\nMOD EQ\n RAN animal NRM\n TR weight \"3\"->1\n"
        " TR weight \"5\"->2\nEND\nVAR animal 2\n 1 0 1\nVAR res 2\n 1 0 1\n");
    EXPECT_FALSE(m.alltraits);
    EXPECT_EQ(m.tr_dcolno(2), 3);
    EXPECT_EQ(m.maxcol, 3);
}

TEST_F(mudmap_build, grouped_lines_of_one_trait) {
    map(examples::grouped);
    for (int iq = 1; iq <= 3; ++iq) {
        EXPECT_EQ(m.tr_dcolno(iq), 4);
        EXPECT_EQ(m.rn_dcolno(1, iq), 2);
    }
    EXPECT_EQ(m.nnq(1), 3);
}

TEST_F(mudmap_build, grouped_lines_of_all_traits_have_names_one_behind_the_other) {
    std::string text = with(with(examples::grouped, "MOD\n", "MOD EQ\n"), " qno\n", "");
    text = with(text, " NAM w1 w2 w3\n", " NAM w1 w2 w3\n herd2 7\n");
    map(with(text, " FIX herd 1 2\n", " FIX herd\n FIX herd2\n"));
    EXPECT_TRUE(m.alltraits);
    EXPECT_EQ(m.maxcol, 6);
    for (int iq = 1; iq <= 3; ++iq) {
        EXPECT_EQ(m.tr_dcolno(iq), iq + 2);
        EXPECT_EQ(m.fx_dcolno(1, iq), 2);
        EXPECT_EQ(m.fx_dcolno(2, iq), 6);
        EXPECT_EQ(m.fx_mlev(2, iq), 7);
    }
}

TEST_F(mudmap_build, random_regression) {
    map(examples::growth);
    EXPECT_EQ(m.irropt(1, 1), basis_kind::leg);
    EXPECT_EQ(m.kfitrnd(1, 1), 3);
    EXPECT_EQ(m.kfitrnd(2, 1), 2);
    EXPECT_EQ(m.irmeta(2, 1), 1);
    EXPECT_EQ(m.rr_dcolno(1, 1), 4);
    EXPECT_EQ(m.maxlev_ctrl, 40);
    EXPECT_EQ(m.cv_type(1, 1), basis_kind::leg);
    EXPECT_EQ(m.cv_order(1, 1), 2);
    EXPECT_EQ(m.ksfit(1, 1), 3);
    EXPECT_EQ(m.nnq(1), 1);
    EXPECT_EQ(m.rn_place(2, 1), 1);
    EXPECT_EQ(m.rn_trait(3, 1), 1);
    EXPECT_EQ(m.subj_dcolno(1), 1);
}

TEST_F(mudmap_build, two_control_variables) {
    std::string text = with(examples::growth, " RRC age\n", " RRC age\n RRC cg\n");
    text = with(text, "animal(3,LEG)", "animal(3,BSPQ,cg)");
    map(with(text, "pe(2,LEG)", "pe(2,age)"));
    EXPECT_EQ(m.irropt(1, 1), basis_kind::bsp);
    EXPECT_EQ(m.ibsdeg(1, 1), 2);
    EXPECT_EQ(m.irmeta(1, 1), 2);
    EXPECT_EQ(m.irropt(2, 1), basis_kind::pol);
    EXPECT_EQ(m.irmeta(2, 1), 1);
}

TEST_F(mudmap_build, user_defined_basis) {
    map(with(examples::growth, "animal(3,LEG)", "animal(3,USR)"));
    EXPECT_EQ(m.irropt(1, 1), basis_kind::usr);
}

TEST_F(mudmap_build, interaction_and_nested_covariable) {
    std::string text = with(examples::weaning, " FIX sex\n", " FIX sex\n FIX herd*sex\n EXT sex\n");
    map(with(text, "age(1,POL)", "age*sex(2,BSP)"));
    EXPECT_EQ(m.fx_dcolno(3, 1), 2);
    EXPECT_EQ(m.fx_dcolno2(3, 1), 3);
    EXPECT_EQ(m.fx_mlev(3, 1), 60);
    EXPECT_EQ(m.maxlev_fix, 60);
    EXPECT_EQ(m.cv_dcolno(1, 1), 4);
    EXPECT_EQ(m.cv_nestcolno(1, 1), 3);
    EXPECT_EQ(m.cv_nestfix(1, 1), 2);
    EXPECT_EQ(m.cv_degree(1, 1), 1);
    EXPECT_NE(screen_text().find("for a \"nested\" covariable - there is a chance for dependencies"),
              std::string::npos);
}

TEST_F(mudmap_build, covariable_nested_in_an_extra_effect) {
    std::string text = with(examples::weaning, " FIX sex\n", " EXT sex\n");
    map(with(text, "age(1,POL)", "age*sex(2,POL)"));
    EXPECT_EQ(m.cv_nestfix(1, 1), -1);
    EXPECT_EQ(m.maxlev_ext, 2);
}

TEST_F(mudmap_build, interaction_limits_do_not_overflow) {
    std::string text = with(examples::weaning, " herd   30\n", " herd   2000000000\n");
    text = with(text, " sex    2\n", " sex 2000000000\n");
    map(with(text, " FIX sex\n", " FIX herd*sex\n"));
    EXPECT_EQ(m.maxlev_fix, 4000000000000000000LL);
}

TEST_F(mudmap_build, first_block_with_relationships_decides_the_subject) {
    std::string text = with(examples::repeatability, " RAN cowpe IDE\n", " RAN cowpe NRM\n");
    map(text);
    EXPECT_EQ(m.subj_dcolno(1), 1);
    EXPECT_EQ(m.iranno(1), 1);
    EXPECT_EQ(m.iranno(2), 2);
    EXPECT_EQ(m.nrunno, 2);
    text = with(text, "VAR cow 1\n 200\n", "");
    text = with(text, "VAR residual 1\n", "VAR cow 1\n 200\nVAR residual 1\n");
    map(text);
    EXPECT_EQ(m.subj_dcolno(1), 2);
    EXPECT_EQ(m.rn_irand(1, 1), 2);
}

TEST_F(mudmap_build, no_subject_with_several_effects_without_relationships) {
    std::string text = with(examples::repeatability, "PED milk.ped\n", "");
    text = with(with(text, " cow\n", " cow 800\n"), " RAN cow NRM\n", " RAN cow IDE\n");
    map(text);
    EXPECT_EQ(m.subj_dcolno(1), -1);
    EXPECT_EQ(m.nrunno, 0);
    text = with(with(text, " RAN cow IDE\n", ""), "VAR cow 1\n 200\n", "");
    map(text);
    EXPECT_EQ(m.subj_dcolno(1), 2); // the only effect
}

TEST_F(mudmap_build, every_line_is_a_subject_in_a_sire_model) {
    map(with(examples::weaning, "PED wean.ped", "PED wean.ped sir"));
    EXPECT_TRUE(options.siremodel);
    EXPECT_EQ(m.subj_dcolno(1), -1);
}

TEST_F(mudmap_build, effects_of_different_columns_have_matrices_of_their_own) {
    std::string text =
        with(examples::renumbered, " RAN animal NRM 1 2\n RAN dam IDE 1\n", " RAN animal NRM\n RAN dam NRM 1\n");
    map(text);
    EXPECT_EQ(m.iranno(1), 1);
    EXPECT_EQ(m.iranno(2), 2);
}

std::string correlated(const std::string& block) {
    std::string text = with(examples::two_traits, " herd 30\n", " herd 30\n dam 900\n");
    text = with(text, " RAN animal NRM\n", " RAN animal NRM\n RAN dam NRM\n");
    return with(text, "VAR animal 2\n 10.0 3.0\n      12.0\n", block);
}

TEST_F(mudmap_build, correlated_effects_share_a_block) {
    map(correlated("VAR animal+dam 4\n 9 1 1 1 9 1 1 9 1 9\n"));
    EXPECT_TRUE(options.sigam);
    EXPECT_EQ(numbers.krand, 1);
    EXPECT_EQ(m.nnq(1), 2);
    EXPECT_EQ(m.nnq2(1), 2);
    EXPECT_EQ(m.rn_place(1, 1), 1);
    EXPECT_EQ(m.rn_place(1, 2), 2);
    EXPECT_EQ(m.rn_place(2, 1), 3);
    EXPECT_EQ(m.rn_place(2, 2), 4);
    EXPECT_EQ(m.rn_trait(3, 1), 1);
    EXPECT_EQ(m.rn_which(2, 1), 1);
    EXPECT_EQ(m.rn_which(3, 1), 2);
    EXPECT_EQ(m.iranno(1), 1);
    EXPECT_EQ(m.nrunno, 1);
    EXPECT_EQ(m.kovrnd(1), covariance_kind::nrm);
    EXPECT_EQ(m.subj_dcolno(2), 1);
    EXPECT_NE(screen_text().find("Option for covariances between random effects had very\n little testing !!!"),
              std::string::npos);
}

TEST_F(mudmap_build, faults_of_correlated_effects) {
    EXPECT_STOP(map(correlated("VAR animal+animal 4\n 9 1 1 1 9 1 1 9 1 9\n")), "Correlated REs same ? ");
    EXPECT_STOP(map(correlated("VAR animal+dam 3\n 9 1 1 9 1 9\n")),
                "Sigam :Mismatch in order of fit ?  2 2 3 animal+dam");
    EXPECT_STOP(map(with(correlated("VAR animal+dam 4\n 9 1 1 1 9 1 1 9 1 9\n"), "RAN dam NRM", "RAN dam IDE")),
                "Invalid cov option 2 ");
    EXPECT_STOP(map(correlated("VAR animal 2\n 9 1 9\nVAR dam 2 +\n 9 1 9\n")),
                "Correlated effects are given in one block, named by both with a \"+\" :  dam\n*** Tarvex is work");
    EXPECT_TRUE(options.sigam);
    EXPECT_STOP(map(with(correlated("VAR animal 2\n 9 1 9\nVAR dam 2\n 9 1 9\n"), "VAR residual 2", "VAR animal 2 +")),
                "Random effect name used more than once");
    std::string text = with(examples::growth, "VAR animal 3\n 20 4 1 5 0.5 2\nVAR pe 2\n 15 2 4\n",
                            "VAR animal+pe 5\n 9 0 0 0 0 9 0 0 0 9 0 0 9 0 9\n");
    EXPECT_STOP(map(with(text, "RAN pe(2,LEG) IDE", "RAN pe(2,LEG) NRM")), "not yet"); // only of one coefficient each
    EXPECT_STOP(map(with(examples::growth, "VAR pe 2", "VAR pe 2 +")), "not yet");
    EXPECT_STOP(map(correlated("VAR animal+sire 4\n 9 1 1 1 9 1 1 9 1 9\n")),
                "Correlated effects are not both in the model :  animal+sire\n*** Tarvex is work");
}

} // namespace
} // namespace tarvex
