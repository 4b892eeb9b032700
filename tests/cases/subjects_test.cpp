// Which records have correlated residuals: SUBject in the model, against dense covariance matrices.
#include "case_run.h"
#include "population.h"

#include <functional>
#include <random>

using namespace tarvex;

namespace {

class subjects_test : public case_run {
protected:
    using covariance = std::function<double(const observation&, const observation&)>;

    void SetUp() override {
        name_ = "model";
        p_ = make_population(60, 2, 3, 0.25, 21);
        a_ = tabular(p_.sire, p_.dam);
        write_file("ped.dat", p_.pedigree());
    }
    std::size_t animal(const observation& o) const { return at(p_.records[o.record].code); }
    std::size_t dam(const observation& o) const { return at(p_.records[o.record].dam); }
    static std::size_t at(int code) { return static_cast<std::size_t>(code - 1); }
    static bool record(const observation& i, const observation& j) { return i.record == j.record; }
    static double of(const double (&m)[2][2], const observation& i, const observation& j) {
        return m[i.trait - 1][j.trait - 1];
    }
    double truth(const covariance& f) const {
        const auto obs = observations_of(p_);
        dense v(obs.size(), std::vector<double>(obs.size()));
        for (std::size_t i = 0; i < obs.size(); ++i)
            for (std::size_t j = 0; j <= i; ++j) v[i][j] = v[j][i] = f(obs[i], obs[j]);
        return dense_reml(obs, herds_and_age(p_, obs), v);
    }
    // Lines with all traits, or those of one trait, all of the second trait in front.
    void put(const std::string& model, bool one_trait = false) const {
        const std::string columns = " animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n";
        std::string text = "PED ped.dat\nANA " + analysis_ + "\nDAT data.dat\n";
        if (one_trait) {
            std::string first, second;
            for (const std::string& line : lines_of(p_.one_trait_lines()))
                if (!line.empty()) (line[0] == '1' ? first : second) += line + "\n";
            write_file("data.dat", second + first);
            for (int t = 1; t <= 2; ++t)
                text += " TR" + std::to_string(t) + " qno\n" + columns + " y" + std::to_string(t) + "\n";
        } else {
            write_file("data.dat", p_.all_traits_lines());
            text += columns + (p_.ntraits == 1 ? " y1\n" : " y1\n y2\n");
        }
        if (model.find("NRM") == std::string::npos) text.erase(0, text.find("ANA"));
        write_file("model.par", text + "END\n" + model);
    }
    double start(const std::string& options = "--aireml1") {
        std::filesystem::remove("BestPoint");
        output_ = finish(options).output;
        return loglike_at_start(output_);
    }

    population p_;
    dense a_;
    std::string analysis_ = "MUV 2", output_;
    const std::string traits_ = " TR y1 1 -999\n TR y2 2 -999\nEND\n";
    const std::string residual_ = "VAR residual 2\n 6.0 2.0\n 5.5\n";
    const double g_[2][2] = {{4.5, 1.5}, {1.5, 3.5}}, p2_[2][2] = {{1.2, 0.4}, {0.4, 0.9}};
    const double r_[2][2] = {{6.0, 2.0}, {2.0, 5.5}};
    const std::string repeats_ = " FIX herd\n RAN animal NRM\n RAN perm IDE\n";
    const std::string repeat_blocks_ =
        "VAR animal 2\n 4.5 1.5\n 3.5\nVAR perm 2\n 1.2 0.4\n 0.9\nVAR residual 2\n 6.0 2.0\n 5.5\n";
};

TEST_F(subjects_test, lines_with_all_traits) {
    const double want = truth([&](const observation& i, const observation& j) {
        return of(g_, i, j) * a_[animal(i)][animal(j)] + (animal(i) == animal(j) ? of(p2_, i, j) : 0.0) +
               (record(i, j) ? of(r_, i, j) : 0.0);
    });
    put("MOD EQ\n" + repeats_ + " SUBject LINE\n" + traits_ + repeat_blocks_);
    expect_relative(start(), want, 1e-8, "log L");
    EXPECT_EQ(output_.find("several records of a trait"), std::string::npos);
    EXPECT_NE(read_file("SumModel.out").find("within lines of data"), std::string::npos);
    expect_relative(start("--emalg1"), want, 1e-8, "log L at the start of EM");
    // without the word every record is joined with all of the other trait, and a line tells
    std::string weak = repeat_blocks_;
    weak.replace(weak.rfind("2.0"), 3, "0.3");
    put("MOD EQ\n" + repeats_ + traits_ + weak);
    const double joined = truth([&](const observation& i, const observation& j) {
        double v = of(g_, i, j) * a_[animal(i)][animal(j)];
        if (animal(i) != animal(j)) return v;
        v += of(p2_, i, j);
        return i.trait != j.trait ? v + 0.3 : record(i, j) ? v + of(r_, i, j) : v;
    });
    expect_relative(start(), joined, 1e-8, "log L without the word");
    const auto told = output_.find("several records of a trait");
    EXPECT_NE(told, std::string::npos);
    EXPECT_EQ(output_.find("several records of a trait", told + 1), std::string::npos); // in one line
}

TEST_F(subjects_test, columns_put_lines_of_one_trait_together) {
    const double want = truth([&](const observation& i, const observation& j) {
        return of(g_, i, j) * a_[animal(i)][animal(j)] + (animal(i) == animal(j) ? of(p2_, i, j) : 0.0) +
               (record(i, j) ? of(r_, i, j) : 0.0);
    });
    put("MOD\n" + repeats_ + " SUB animal parity\n" + traits_ + repeat_blocks_, true);
    expect_relative(start(), want, 1e-8, "log L");
    EXPECT_EQ(read_residuals().size(), observations_of(p_).size());
    put("MOD EQ\n" + repeats_ + " SUB animal parity\n" + traits_ + repeat_blocks_);
    expect_relative(start(), want, 1e-8, "log L with all traits in a line");
}

TEST_F(subjects_test, one_column_joins_as_the_random_effect_does) {
    const std::string blocks = "VAR animal 2\n 4.5 1.5\n 3.5\nVAR residual 2\n 6.0 0.3\n 5.5\n";
    put("MOD EQ\n FIX herd\n RAN animal NRM\n" + traits_ + blocks);
    const double want = start();
    put("MOD EQ\n FIX herd\n RAN animal NRM\n SUB animal\n" + traits_ + blocks);
    EXPECT_NEAR(start(), want, 1e-9);
    // each with the same warning
    EXPECT_NE(output_.find("WARNING : subjects with several records of a trait"), std::string::npos) << output_;
    put("MOD EQ\n FIX herd\n RAN animal NRM\n SUB animal parity\n" + traits_ + blocks);
    start();
    EXPECT_EQ(output_.find("WARNING : subjects with"), std::string::npos) << output_;
}

TEST_F(subjects_test, sire_models_do_not_join_progeny) {
    for (auto& r : p_.records)
        if (r.dam < 1) r.dam = 2;
    const std::string model = " FIX herd\n RAN dam IDE\n SUB ";
    const std::string blocks = "VAR dam 2\n 1.2 0.4\n 0.9\n" + residual_;
    const double want = truth([&](const observation& i, const observation& j) {
        return (dam(i) == dam(j) ? of(p2_, i, j) : 0.0) + (record(i, j) ? of(r_, i, j) : 0.0);
    });
    put("MOD EQ\n" + model + "LINE\n" + traits_ + blocks);
    expect_relative(start(), want, 1e-8, "log L, all traits in a line");
    put("MOD\n" + model + "animal parity\n" + traits_ + blocks, true);
    expect_relative(start(), want, 1e-8, "log L, one trait in a line");
}

// Lines of a subject need not stand together: in an order by chance they are the same subjects.
TEST_F(subjects_test, lines_in_any_order) {
    for (auto& r : p_.records)
        if (r.dam < 1) r.dam = 2;
    std::string sires = "VAR dam 2\n 1.2 0.4\n 0.9\n" + residual_;
    struct {
        std::string effects, blocks;
        double want;
    } const models[] = {{repeats_, repeat_blocks_, truth([&](const observation& i, const observation& j) {
                             return of(g_, i, j) * a_[animal(i)][animal(j)] +
                                    (animal(i) == animal(j) ? of(p2_, i, j) : 0.0) +
                                    (record(i, j) ? of(r_, i, j) : 0.0);
                         })},
                        {" FIX herd\n RAN dam IDE\n", sires, truth([&](const observation& i, const observation& j) {
                             return (dam(i) == dam(j) ? of(p2_, i, j) : 0.0) + (record(i, j) ? of(r_, i, j) : 0.0);
                         })}};
    std::mt19937 rng(25);
    for (const bool one_trait : {false, true})
        for (const auto& m : models) {
            const std::string subject = one_trait ? " SUB animal parity\n" : " SUB LINE\n";
            put((one_trait ? "MOD\n" : "MOD EQ\n") + m.effects + subject + traits_ + m.blocks, one_trait);
            auto lines = lines_of(read_file("data.dat"));
            std::erase(lines, "");
            for (int k = 0; k < 3; ++k) {
                for (std::size_t i = lines.size(); i > 1; --i) std::swap(lines[i - 1], lines[rng() % i]);
                std::string text;
                for (const auto& line : lines) text += line + "\n";
                write_file("data.dat", text);
                expect_relative(start(), m.want, 1e-8, m.effects + subject);
                EXPECT_EQ(read_residuals().size(), observations_of(p_).size()) << m.effects << subject;
            }
        }
}

TEST_F(subjects_test, maternal_effects) {
    for (auto& r : p_.records)
        if (r.dam < 1) r.dam = 2;
    put("MOD EQ\n FIX herd\n RAN animal NRM\n RAN dam NRM\n SUB LINE\n" + traits_ +
        "VAR animal 2\n 4.5 1.5\n 3.5\nVAR dam 2\n 1.2 0.4\n 0.9\n" + residual_);
    expect_relative(start(), truth([&](const observation& i, const observation& j) {
                        return of(g_, i, j) * a_[animal(i)][animal(j)] + of(p2_, i, j) * a_[dam(i)][dam(j)] +
                               (record(i, j) ? of(r_, i, j) : 0.0);
                    }),
                    1e-8, "log L");
}

TEST_F(subjects_test, reduced_rank) {
    analysis_ = "MUV PC 2";
    const double f[2] = {1.5, 1.0};
    put("MOD EQ\n FIX herd\n RAN animal NRM\n RAN perm IDE\n SUB LINE\n" + traits_ +
        "VAR animal 2 1\n 2.25 1.5\n 1.0\nVAR perm 2 2\n 1.2 0.4\n 0.9\n" + residual_);
    expect_relative(start(), truth([&](const observation& i, const observation& j) {
                        return f[i.trait - 1] * f[j.trait - 1] * a_[animal(i)][animal(j)] +
                               (animal(i) == animal(j) ? of(p2_, i, j) : 0.0) + (record(i, j) ? of(r_, i, j) : 0.0);
                    }),
                    1e-8, "log L");
}

TEST_F(subjects_test, repeated_control_values_in_lines_of_their_own) {
    p_ = make_population(60, 1, 4, 0.0, 22); // the fourth record has the third parity again
    a_ = tabular(p_.sire, p_.dam);
    write_file("ped.dat", p_.pedigree());
    analysis_ = "RR";
    put("MOD\n FIX herd\n RAN animal(2,LEG) NRM\n RRC parity\n SUB LINE\n TR y1 1 -999\nEND\n"
        "VAR animal 2\n 8.0 0.5\n 0.4\nVAR residual 1 HOM\n 6.0\n");
    const auto phi = [&](const observation& o, int k) {
        const double x = p_.records[o.record].parity - 2.0;
        return k == 0 ? std::sqrt(0.5) : std::sqrt(1.5) * x;
    };
    expect_relative(start(), truth([&](const observation& i, const observation& j) {
                        const double k = 8.0 * phi(i, 0) * phi(j, 0) + 0.4 * phi(i, 1) * phi(j, 1) +
                                         0.5 * (phi(i, 0) * phi(j, 1) + phi(i, 1) * phi(j, 0));
                        return k * a_[animal(i)][animal(j)] + (record(i, j) ? 6.0 : 0.0);
                    }),
                    1e-8, "log L");
}

// Records of one trait have residuals of their own, whatever is a subject.
TEST_F(subjects_test, one_trait) {
    p_ = make_population(60, 1, 3, 0.0, 24);
    a_ = tabular(p_.sire, p_.dam);
    write_file("ped.dat", p_.pedigree());
    analysis_ = "UNI";
    const double want = truth([&](const observation& i, const observation& j) {
        return 4.5 * a_[animal(i)][animal(j)] + (animal(i) == animal(j) ? 1.2 : 0.0) + (record(i, j) ? 6.0 : 0.0);
    });
    for (const char* subject : {"", " SUB LINE\n", " SUB animal\n", " SUB animal parity\n", " SUB herd\n"}) {
        put("MOD\n" + repeats_ + subject +
            " TR y1 1 -999\nEND\nVAR animal 1\n 4.5\nVAR perm 1\n 1.2\nVAR residual 1\n 6.0\n");
        for (const char* options : {"--aireml1", "--emalg1"}) expect_relative(start(options), want, 1e-8, subject);
        EXPECT_EQ(output_.find("several records of a trait"), std::string::npos) << "no other trait to be joined with";
        EXPECT_EQ(read_residuals().size(), p_.records.size()) << subject;
    }
}

TEST_F(subjects_test, faults_are_told) {
    const auto expect_fault = [&](const std::string& line, const std::string& text) {
        put("MOD EQ\n" + repeats_ + line + traits_ + repeat_blocks_);
        const auto result = run("--setup");
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
    };
    expect_fault(" SUB\n", "\"LINE\" or name of column is missing !");
    expect_fault(" SUB animal parity herd\n", "Too many columns for a subject !");
    expect_fault(" SUB LINE herd\n", "Too many columns for a subject !");
    expect_fault(" SUB LINE\n SUB animal\n", "More than one line \"SUBject\" !");
    expect_fault(" SUB test\n", "Variable in model not found : \"test\"");
    put("MOD EQ\n FIX herd\n RAN animal NRM\n RAN perm PEQ\n SUB LINE\n" + traits_ + repeat_blocks_);
    const auto result = run("--setup");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("PEQ is an effect of the subject"), std::string::npos) << result.output;
}

// Data simulated for lines as subjects come back in estimates: means of 20 replicates within 3.5 of their errors.
TEST_F(subjects_test, simulated_records_come_back) {
    p_ = make_population(260, 2, 3, 0.2, 23);
    write_file("ped.dat", p_.pedigree());
    const auto blocks = [&](const std::string& subject) { return repeats_ + subject + traits_ + repeat_blocks_; };
    const std::vector<double> given{6.0, 2.0, 5.5};
    for (const bool one_trait : {false, true}) {
        const std::string mod = one_trait ? "MOD\n" : "MOD EQ\n",
                          subject = one_trait ? " SUB animal parity\n" : " SUB LINE\n";
        std::filesystem::remove("BestPoint");
        put(mod + blocks(subject), one_trait);
        write_file("RandomSeeds", "1234 56789\n");
        finish("--simul20");
        std::string par = read_file("model.par");
        if (one_trait) {
            for (const char* y : {" y1\n", " y2\n"}) par.replace(par.find(y), 4, std::string(" o") + y[2] + "\n" + y);
        } else {
            par.replace(par.find(" y1\n y2\n"), 8, " o1\n o2\n y1\n y2\n");
        }
        std::vector<double> sum(3, 0.0), squares(3, 0.0);
        for (int rep = 1; rep <= 20; ++rep) {
            const std::string name = (rep < 10 ? "SimData00" : "SimData0") + std::to_string(rep) + ".dat";
            std::string text = par;
            text.replace(text.find("data.dat"), 8, name);
            write_file("model.par", text);
            std::filesystem::remove("BestPoint");
            finish("--aireml30");
            const auto best = read_best_point();
            ASSERT_GE(best.values.size(), 3u);
            for (std::size_t k = 0; k < 3; ++k) {
                sum[k] += best.values[k] / 20.0;
                squares[k] += best.values[k] * best.values[k] / 20.0;
            }
        }
        for (std::size_t k = 0; k < 3; ++k) {
            const double error = std::sqrt((squares[k] - sum[k] * sum[k]) / 19.0);
            EXPECT_NEAR(sum[k], given[k], 3.5 * error) << "residual covariance " << k + 1;
            EXPECT_LT(error, 0.25);
        }
    }
}

} // namespace
