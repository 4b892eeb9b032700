// BestPoint on the disk: what is not what was written is no point.
#include "control/filenames.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "estimation/modelsums.h"
#include "parfile/model.h"
#include "support/fixture.h"
#include "support/small_models.h"

namespace tarvex {
namespace {

class stored_point_test : public tarvex_test {
protected:
    void SetUp() override {
        set_up(one_trait_model());
        evaluate_point(estimates.parvec, 1);
        whole_ = read_file("BestPoint");
    }
    std::string whole_;
};

TEST_F(stored_point_test, every_bit_and_every_length) {
    ASSERT_TRUE(readbestpoint(true));
    const double animal = model.cov(1, 1);
    for (std::size_t at = 0; at < whole_.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string spoilt = whole_;
            spoilt[at] = static_cast<char>(spoilt[at] ^ (1 << bit));
            write_file("BestPoint", spoilt);
            EXPECT_FALSE(readbestpoint(true)) << "bit " << bit << " of byte " << at;
        }
        write_file("BestPoint", whole_.substr(0, at));
        EXPECT_FALSE(readbestpoint(true)) << "cut at " << at;
    }
    EXPECT_EQ(model.cov(1, 1), animal);
    write_file("BestPoint", whole_);
    EXPECT_TRUE(readbestpoint(true));
}

// Readers that know nothing of the sums take the first lines.
TEST_F(stored_point_test, sums_stand_behind_the_records) {
    std::istringstream in(whole_);
    double xlike = 0.0, residual = 0.0, animal = 0.0;
    int n = 0;
    ASSERT_TRUE(in >> xlike >> n >> residual >> animal);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(xlike, bestpoint.xbest);
    EXPECT_DOUBLE_EQ(residual, 2.1);
    EXPECT_DOUBLE_EQ(animal, 1.3);
    std::string word;
    EXPECT_TRUE(in >> word);
    EXPECT_EQ(word, "sums");
}

} // namespace
} // namespace tarvex
