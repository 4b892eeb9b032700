// Whole parameter files: what they leave in the modules.
#include "parfile/randasfix.h"
#include "parfile/readparfile.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/examples.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "relations/nrminverse.h"
#include "support/fixture.h"

#include <filesystem>

namespace tarvex {
namespace {

class readparfile : public tarvex_test {
protected:
    void read(const std::string& text) {
        write_file("tarvex.par", text);
        read_parfile();
    }
};

using examples::with;

TEST_F(readparfile, univariate) {
    read(examples::weaning);
    EXPECT_EQ(model.commentline, "Weaning weight, animal model");
    EXPECT_EQ(model.analysis, "UNI");
    EXPECT_EQ(filenames.datfile, "wean.dat");
    EXPECT_EQ(filenames.pedfile, "wean.ped");
    EXPECT_EQ(numbers.nq, 1);
    EXPECT_EQ(numbers.krand, 1);
    EXPECT_TRUE(options.equal_model && options.pedigrees && options.comment);
    EXPECT_FALSE(options.siremodel || options.randreg || options.principal || options.sigam || options.renumbered);
    EXPECT_EQ(datafile.ndatcol[1], 5);
    EXPECT_EQ(datafile.colname[1][1], "animal");
    EXPECT_EQ(datafile.mlevels[1][1], 2000);
    EXPECT_EQ(datafile.mlevels[4][1], 0);
    EXPECT_EQ(model.nfix(1), 2);
    EXPECT_EQ(model.fixed(2, 1), "sex");
    EXPECT_EQ(model.covar(1, 1), "age(1,POL)");
    EXPECT_EQ(model.random(1, 1), "animal");
    EXPECT_EQ(model.rnd_opt(1, 1), covariance_kind::nrm);
    EXPECT_EQ(model.trait(1), "weight");
    EXPECT_EQ(datafile.missvalue[1], -999);
    EXPECT_EQ(datafile.iq_newno[1], 1);
    EXPECT_EQ(model.krandom(0), "residual");
    EXPECT_EQ(model.cov(1, 0), 70.0);
    EXPECT_EQ(model.cov(1, 1), 30.0);
    EXPECT_EQ(cov_length(0), 1);
}

TEST_F(readparfile, repeatability_with_extra_blocks) {
    read(examples::repeatability + examples::extras);
    EXPECT_EQ(model.nrnd(1), 2);
    EXPECT_EQ(model.rnd_opt(2, 1), covariance_kind::ide);
    EXPECT_EQ(datafile.missvalue[1], -123456789);
    EXPECT_EQ(model.krandom(2), "cowpe");
    EXPECT_EQ(model.cov(1, 2), 80.0);
    EXPECT_EQ(zerout.nzerout, 1);
    EXPECT_EQ(zerout.addzername(1), "parity");
    EXPECT_EQ(zerout.iaddzer1(1), 5);
    EXPECT_EQ(zerout.iaddzer2(1), 1);
    EXPECT_TRUE(options.pseudofix);
    EXPECT_EQ(randasfix.psfixname[0], "cow");
    EXPECT_EQ(randasfix.psfixcode[0], 17);
    const auto& u = usrdefcovs;
    ASSERT_EQ(u.ncovadd, 2);
    EXPECT_EQ(u.addcovname(2), "half");
    EXPECT_EQ(u.addcov(1).size(), 3u);
    EXPECT_EQ(u.addcov(1)[2].isig, 3);
    EXPECT_EQ(u.addcov(1)[2].factor, 1.0);
    EXPECT_EQ(u.addcov(2)[0].isig, 2);
    EXPECT_EQ(u.addcov(2)[0].factor, 0.5);
    ASSERT_EQ(u.naddgps, 2);
    EXPECT_EQ(u.igpadd(2), (std::array<int, 4>{1, 5, 4, 0}));
}

TEST_F(readparfile, two_traits_of_one_model) {
    read(examples::two_traits);
    EXPECT_TRUE(options.equal_model);
    EXPECT_EQ(model.random(1, 2), "animal");
    EXPECT_EQ(model.fixed(1, 2), "herd");
    const double g[] = {10, 3, 12}, r[] = {20, 5, 25};
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(model.cov(i, 1), g[i - 1]);
        EXPECT_EQ(model.cov(i, 0), r[i - 1]);
    }
    EXPECT_FALSE(options.sigam); // the "+" of a value line is no mark of correlated effects
}

TEST_F(readparfile, renumbered_traits_with_trait_lists) {
    read(examples::renumbered);
    EXPECT_FALSE(options.equal_model);
    EXPECT_TRUE(options.renumbered);
    EXPECT_EQ(datafile.iq_newno[3], 1);
    EXPECT_EQ(datafile.iq_newno[5], 2);
    EXPECT_EQ(datafile.iq_newno[1], -1);
    EXPECT_EQ(datafile.colname[1][2], "qno");
    EXPECT_EQ(datafile.ndatcol[2], 5);
    EXPECT_EQ(model.nrnd(1), 2);
    EXPECT_EQ(model.nrnd(2), 1);
    EXPECT_EQ(model.kkfit(1), 2);
    EXPECT_EQ(model.kkfit(2), 1);
}

TEST_F(readparfile, reduced_rank) {
    read(examples::four_pc);
    EXPECT_EQ(model.analysis, "MUV PC 4");
    EXPECT_TRUE(options.principal);
    EXPECT_EQ(model.kkfit(1), 4);
    EXPECT_EQ(model.krfit(1), 2);
    EXPECT_EQ(nfit(1), 2);
    EXPECT_EQ(model.krfit(0), 4);
    EXPECT_EQ(model.cov(5, 1), 9.0);
    EXPECT_EQ(model.cov(10, 1), 7.0);
}

TEST_F(readparfile, random_regression) {
    read(examples::growth);
    EXPECT_TRUE(options.randreg);
    EXPECT_EQ(model.random(1, 1), "animal(3,LEG)");
    EXPECT_EQ(model.nrrc, 1);
    EXPECT_EQ(model.rricontrol(1, 1), "age");
    EXPECT_EQ(model.me_type, residual_kind::hom);
    EXPECT_EQ(model.rr_resteps, 1);
    EXPECT_EQ(model.kkfit(0), 1);
    EXPECT_EQ(model.cov(6, 1), 2.0);
}

TEST_F(readparfile, classes_of_residual_variances) {
    const auto at = examples::growth.find("VAR residual");
    read(examples::growth.substr(0, at) + examples::growth_het);
    EXPECT_EQ(model.me_type, residual_kind::het);
    EXPECT_EQ(model.rr_resteps, 3);
    EXPECT_EQ(model.me_control, "age");
    EXPECT_EQ(model.me_range(1, 3), 21);
    EXPECT_EQ(model.me_range(2, 3), 40);
    EXPECT_EQ(model.cov(3, 0), 15.0);
    EXPECT_EQ(cov_length(0), 3);
}

TEST_F(readparfile, grouped_data) {
    read(examples::grouped);
    EXPECT_TRUE(datafile.grouped);
    for (int iq = 1; iq <= 3; ++iq) {
        EXPECT_EQ(datafile.ndatcol[iq], 4);
        EXPECT_EQ(datafile.colname[4][iq], "w" + std::to_string(iq));
        EXPECT_EQ(datafile.name_of_trait[4][iq], 1);
        EXPECT_EQ(datafile.mlevels[3][iq], 30);
        EXPECT_EQ(datafile.mlevels[4][iq], 0);
        EXPECT_EQ(datafile.trno_pos[iq], -1);
    }
    EXPECT_EQ(model.fitmean(3), 1);
    EXPECT_EQ(model.fitmean(1), 0);
    EXPECT_EQ(model.nfix(3), 0);
    EXPECT_EQ(model.nrnd(3), 1);
}

TEST_F(readparfile, diagonal_block_turns_log_scale_and_factor_scale_on) {
    auto text =
        with(examples::two_traits, " RAN animal NRM\n", " RAN animal NRM\n RAN litter GIN\n") + examples::diagonal;
    read(text);
    EXPECT_EQ(model.diagonal(2), 1);
    EXPECT_EQ(model.cov(2, 2), 4.0);
    EXPECT_EQ(cov_length(2), 2);
    EXPECT_TRUE(options.principal);
    EXPECT_TRUE(options.logdia[2]);
    EXPECT_FALSE(options.logdia[1]);
    options.logdia = {}; // as --nologd leaves it
    options.nologd = true;
    read(text);
    EXPECT_FALSE(options.principal || options.logdia[2]);
}

TEST_F(readparfile, sets_of_shared_data) {
    const std::string& folder = data_dir();
    if (!std::filesystem::exists(folder)) GTEST_SKIP() << "no reference data (TVX_DATA)";
    int n = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.path().extension() != ".par") continue;
        new_analysis();
        filenames.parfile = entry.path();
        EXPECT_NO_THROW(read_parfile()) << entry.path();
        EXPECT_GT(numbers.krand, 0);
        ++n;
    }
    EXPECT_GT(n, 0);
}

TEST_F(readparfile, textbook_files) {
    for (const auto& text :
         {examples::textbook_uni, examples::textbook_rep, examples::textbook_biv, examples::rr_chick})
        EXPECT_NO_THROW(read(text));
    EXPECT_EQ(model.me_range(2, 2), 14);
}

} // namespace
} // namespace tarvex
