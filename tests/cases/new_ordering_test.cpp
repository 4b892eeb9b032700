// A run whose equations have links that those of the run before it in the same directory did not have: it makes one new
// ordering on the way, and all its reports are those of a fresh directory.
#include "case_run.h"
#include "population.h"

#include <algorithm>
#include <cmath>

using namespace tarvex;

namespace {

class new_ordering : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        const auto p = make_population(80, 2, 1, 0.2, 31);
        write_file("ped.dat", p.pedigree());
        write_file("data.dat", p.all_traits_lines());
    }
    static void parameters(const std::string& residual) {
        write_file("model.par",
                   "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n"
                   " age 40\n y1\n y2\nEND\nMOD EQ\n FIX herd\n FIX parity\n COV age(1,POL)\n RAN animal NRM\n"
                   " TR y1 1 -999\n TR y2 2 -999\nEND\nVAR animal 2\n 4.5 1.5 3.5\nVAR residual 2\n " +
                       residual + "\n");
    }
    static void clean() {
        for (const auto& entry : std::filesystem::directory_iterator("."))
            if (entry.path().extension() == ".bin") std::filesystem::remove(entry.path());
        std::filesystem::remove("BestPoint");
    }
    struct outcome {
        double start;
        best_point best;
        std::vector<residual_line> residuals;
        std::vector<random_line> animals;
    };
    outcome result(const std::string& options) const {
        std::filesystem::remove("BestPoint");
        outcome o;
        o.start = loglike_at_start(finish(options).output);
        o.best = read_best_point();
        o.residuals = read_residuals();
        o.animals = read_random_solutions("animal");
        return o;
    }
};

TEST_F(new_ordering, residual_covariance_that_was_zero_before) {
    for (const std::string options : {"--aireml30,1e-8", "--emalg5", "--pxem5"}) {
        clean();
        parameters("6.0 2.0 5.5");
        const outcome fresh = result(options);
        clean();
        parameters("6.0 0.0 5.5");
        finish("--aireml2");
        const auto before = read_file("symbfact.bin");
        parameters("6.0 2.0 5.5");
        const outcome now = result(options);
        EXPECT_TRUE(read_file("symbfact.bin") != before) << options;
        expect_relative(now.best.loglike, fresh.best.loglike, 1e-8, options);
        ASSERT_EQ(now.residuals.size(), fresh.residuals.size());
        ASSERT_GT(now.residuals.size(), 50u);
        for (std::size_t i = 0; i < now.residuals.size(); ++i) {
            EXPECT_NEAR(now.residuals[i].residual, fresh.residuals[i].residual, 2e-3) << options << " " << i;
        }
        ASSERT_EQ(now.animals.size(), fresh.animals.size());
        for (std::size_t i = 0; i < now.animals.size(); ++i) {
            EXPECT_EQ(now.animals[i].code, fresh.animals[i].code);
            EXPECT_NEAR(now.animals[i].solution, fresh.animals[i].solution, 2e-3) << options << " " << i;
        }
    }
}

} // namespace
