// Effects that hold each other, taken together, against ranks of dense designs.
#include "tvx/check_rank.h"
#include "tvx/companion.h"

#include <Eigen/Dense>
#include <functional>
#include <map>
#include <set>

namespace {

using namespace tvx_tests;
using Eigen::MatrixXd;
using tarvex::write_file;

std::vector<std::string> findings_of(const tvx::fixed_part& part) {
    std::vector<tvx::finding> findings;
    tvx::check_rank(findings, part);
    if (findings.empty()) return {};
    EXPECT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].code, "W418") << findings[0].examples[0];
    return findings[0].examples;
}

// Dense columns of one effect; all levels of a class.
MatrixXd columns_of(const tvx::fixed_class& c) {
    const std::set<long long> levels(c.code.begin(), c.code.end());
    MatrixXd x = MatrixXd::Zero(static_cast<Eigen::Index>(c.code.size()), static_cast<Eigen::Index>(levels.size()));
    for (std::size_t r = 0; r < c.code.size(); ++r)
        x(static_cast<Eigen::Index>(r), std::distance(levels.begin(), levels.find(c.code[r]))) = 1.0;
    return x;
}
MatrixXd columns_of(const tvx::fixed_covariable& c) {
    const std::set<long long> levels(c.level.begin(), c.level.end());
    const auto sets = std::max<Eigen::Index>(1, static_cast<Eigen::Index>(levels.size()));
    double mean = 0.0;
    for (const double v : c.value) mean += v / static_cast<double>(c.value.size());
    MatrixXd x = MatrixXd::Zero(static_cast<Eigen::Index>(c.value.size()), sets * c.order);
    for (std::size_t r = 0; r < c.value.size(); ++r) {
        const auto set = c.level.empty() ? 0 : std::distance(levels.begin(), levels.find(c.level[r]));
        for (int k = 0; k < c.order; ++k)
            x(static_cast<Eigen::Index>(r), set * c.order + k) = std::pow(c.value[r] - mean, k + 1);
    }
    return x;
}

int rank_of(const std::vector<MatrixXd>& parts) {
    Eigen::Index n = 0;
    for (const auto& p : parts) n += p.cols();
    MatrixXd x(parts[0].rows(), n);
    n = 0;
    for (const auto& p : parts) {
        x.middleCols(n, p.cols()) = p;
        n += p.cols();
    }
    for (Eigen::Index j = 0; j < n; ++j)
        if (x.col(j).norm() > 0.0) x.col(j) /= x.col(j).norm();
    Eigen::ColPivHouseholderQR<MatrixXd> qr(x);
    qr.setThreshold(1e-8);
    return static_cast<int>(qr.rank());
}

struct dense_part {
    std::map<std::string, MatrixXd> x;
    std::vector<std::string> names;
    MatrixXd mean;
    explicit dense_part(const tvx::fixed_part& part) {
        const auto take = [&](const auto& e) {
            x[e.name] = columns_of(e);
            names.push_back(e.name);
            mean = MatrixXd::Ones(x[e.name].rows(), 1);
        };
        for (const auto& c : part.classes) take(c);
        for (const auto& c : part.covariables) take(c);
    }
    // What effect `name` adds to the rank of the mean and others.
    int adds(const std::string& name, const std::vector<std::string>& others) const {
        std::vector<MatrixXd> list{mean};
        for (const auto& o : others) list.push_back(x.at(o));
        const int before = rank_of(list);
        list.push_back(x.at(name));
        return rank_of(list) - before;
    }
};

// Effects named in a finding: its own first, then those that hold it; and the number of columns.
std::pair<std::vector<std::string>, int> taken_apart(const std::string& text, const std::vector<std::string>& known) {
    std::vector<std::string> names;
    for (const auto& word : tarvex::words_of(text)) {
        const std::string bare = word.substr(0, word.find(','));
        if (std::find(known.begin(), known.end(), bare) != known.end()) names.push_back(bare);
    }
    return {names, std::atoi(text.c_str() + text.rfind('(') + 1)};
}

// Two or three classes with few records, so that some fall apart; a covariable that is at times a sum over classes.
tvx::fixed_part random_part(unsigned seed) {
    std::mt19937 random(seed);
    const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    tvx::fixed_part part{"y", below(2) == 0, {}, {}};
    const int records = 9 + below(30), kind = below(4);
    for (int c = 0; c < 2 + below(2); ++c) part.classes.push_back({std::string("class") + "abc" [c], 1, {}});
    for (auto& c : part.classes) {
        const int levels = 2 + below(6);
        for (int r = 0; r < records; ++r) c.code.push_back(below(levels) * 7 + 3);
    }
    if (kind == 1) // a combination of two classes
        for (int r = 0; r < records; ++r)
            part.classes.back().code[static_cast<std::size_t>(r)] =
                100 * part.classes[0].code[static_cast<std::size_t>(r)] +
                part.classes[1].code[static_cast<std::size_t>(r)];
    part.covariables.push_back({"age", tarvex::basis_kind::pol, 1 + below(2), 0, {}, {}});
    for (int r = 0; r < records; ++r) {
        const auto k = static_cast<std::size_t>(r);
        part.covariables[0].value.push_back(
            kind == 2 ? 0.3 * static_cast<double>(part.classes[0].code[k] * part.classes[0].code[k]) +
                            1.7 * static_cast<double>(part.classes[1].code[k])
                      : 1.0 + below(20));
    }
    if (kind == 3) {
        part.covariables.push_back({"day", tarvex::basis_kind::pol, 1, 0, {}, part.classes[0].code});
        for (int r = 0; r < records; ++r) part.covariables[1].value.push_back(20.0 + below(9));
    }
    return part;
}

class joint_confounding : public testing::TestWithParam<unsigned> {};

TEST_P(joint_confounding, is_that_of_the_dense_design) {
    const tvx::fixed_part part = random_part(GetParam());
    const dense_part dense(part);
    std::map<std::string, int> told;
    for (const auto& text : findings_of(part)) {
        const auto [names, n] = taken_apart(text, dense.names);
        ASSERT_FALSE(names.empty()) << text;
        const std::string& own = names[0];
        const std::vector<std::string> holders(names.begin() + 1, names.end());
        told[own] = n;
        const bool is_class = own.starts_with("class");
        const int columns = static_cast<int>(dense.x.at(own).cols()) - (is_class ? 1 : 0);
        EXPECT_EQ(dense.adds(own, holders), columns - n) << text;
        for (const auto& left : holders) { // none of them can be left out
            auto fewer = holders;
            std::erase(fewer, left);
            EXPECT_GT(dense.adds(own, fewer), columns - n) << text << " without " << left;
        }
    }
    std::vector<std::string> before;
    for (const auto& name : dense.names) {
        const int columns = static_cast<int>(dense.x.at(name).cols()) - (name.starts_with("class") ? 1 : 0);
        EXPECT_EQ(columns - dense.adds(name, before), told.contains(name) ? told[name] : 0) << name;
        before.push_back(name);
    }
}
INSTANTIATE_TEST_SUITE_P(designs, joint_confounding, testing::Range(1u, 61u));

// Some of these designs have full rank and some have not.
TEST(joint_confounding_of_designs, comes_and_goes) {
    int none = 0, some = 0;
    for (unsigned seed = 1; seed <= 60; ++seed) ++(findings_of(random_part(seed)).empty() ? none : some);
    EXPECT_GT(none, 10);
    EXPECT_GT(some, 20);
}

tvx::fixed_part crossed(int herds, int years, int each) {
    tvx::fixed_part part{"y", true, {{"herd", 1, {}}, {"year", 2, {}}}, {}};
    for (int h = 1; h <= herds; ++h)
        for (int k = 0; k < years * each; ++k) {
            part.classes[0].code.push_back(h);
            part.classes[1].code.push_back(k % years + 1);
        }
    return part;
}

TEST(joint_confounding_of_designs, names_the_effects) {
    using texts = std::vector<std::string>;
    tvx::fixed_part part = crossed(4, 3, 2);
    const auto& herd = part.classes[0].code;
    const auto& year = part.classes[1].code;
    EXPECT_EQ(findings_of(part), texts{});
    part.covariables.push_back({"age", tarvex::basis_kind::pol, 1, 0, {}, {}});
    for (std::size_t r = 0; r < herd.size(); ++r)
        part.covariables[0].value.push_back(0.1 * static_cast<double>(herd[r] * herd[r]) +
                                            3.3 * static_cast<double>(year[r]));
    EXPECT_EQ(findings_of(part), texts{"trait \"y\": age is held by herd and year (1 of 1 columns)"});
    part.covariables[0].value[5] += 1e-3;
    EXPECT_EQ(findings_of(part), texts{});
    part.covariables = {{"age", tarvex::basis_kind::pol, 2, 0, {}, {}}}; // two values have no square
    for (std::size_t r = 0; r < herd.size(); ++r) part.covariables[0].value.push_back(r % 5 == 0 ? 3.0 : 4.0);
    EXPECT_EQ(findings_of(part), texts{"trait \"y\": age is held in part by the mean (1 of 2 columns)"});
    for (double& x : part.covariables[0].value) x = 2.5;
    EXPECT_EQ(findings_of(part), texts{"trait \"y\": age is held by the mean (2 of 2 columns)"});

    part = crossed(4, 3, 2);
    part.classes.push_back({"hy", 3, {}});
    for (std::size_t r = 0; r < part.classes[0].code.size(); ++r)
        part.classes[2].code.push_back(10 * part.classes[0].code[r] + part.classes[1].code[r]);
    EXPECT_EQ(findings_of(part), texts{"trait \"y\": hy holds herd and year (5 of 5 columns)"});

    part = crossed(4, 4, 1); // herds 1, 2 in years 1, 2 only, the others in the others
    tvx::fixed_part apart{"y", true, {{"herd", 1, {}}, {"year", 2, {}}}, {}};
    for (std::size_t r = 0; r < part.classes[0].code.size(); ++r)
        if ((part.classes[0].code[r] > 2) == (part.classes[1].code[r] > 2))
            for (std::size_t k = 0; k < 2; ++k) apart.classes[k].code.push_back(part.classes[k].code[r]);
    EXPECT_EQ(findings_of(apart), texts{"trait \"y\": year is held in part by herd (1 of 3 columns)"});
}

// The functions of a spline sum to 1, which is no finding; within the levels of a class they sum to that class.
TEST(joint_confounding_of_designs, knows_splines_and_polynomials) {
    tvx::fixed_part part = crossed(3, 4, 6);
    std::mt19937 random(3);
    for (const auto type : {tarvex::basis_kind::bsp, tarvex::basis_kind::leg})
        part.covariables.push_back({std::string("of_") + name_of(type), type, 5, 2, {}, {}});
    for (auto& c : part.covariables)
        for (std::size_t r = 0; r < part.classes[0].code.size(); ++r)
            c.value.push_back(static_cast<double>(random() % 1000u));
    EXPECT_EQ(findings_of(part), std::vector<std::string>{});
    for (double& x : part.covariables[1].value) x = std::fmod(x, 4.0); // four values have no fifth power, nor a fourth
    EXPECT_EQ(findings_of(part),
              std::vector<std::string>{"trait \"y\": of_LEG is held in part by the mean (2 of 5 columns)"});
    part.covariables.erase(part.covariables.begin() + 1);
    part.covariables[0].level = part.classes[0].code;
    const auto told = findings_of(part);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0], "trait \"y\": of_BSP is held in part by herd (3 of 15 columns)");
}

// ---- by the program

class joint_findings : public tarvex::tarvex_test {
protected:
    static std::string check(const std::string& mod, const std::string& data) {
        write_file("a.par", "ANA UNI\nDAT a.dat\n animal 99\n herd 9\n year 9\n hy 99\n age\n y\nEND\nMOD\n" + mod +
                                " RAN animal\n TRAIT y 1 -999\nEND\nVAR animal 1\n 3\nVAR residual 1\n 7\n");
        write_file("a.dat", data);
        const auto r = run_tvx({"check", "a.par", "--quick"});
        EXPECT_EQ(r.status, 0) << r.output;
        return r.output;
    }
    static std::string records(const std::function<double(int, int)>& age) {
        std::ostringstream out;
        for (int k = 0; k < 24; ++k) {
            const int herd = k % 4 + 1, year = k / 4 % 3 + 1;
            out << k % 7 + 1 << ' ' << herd << ' ' << year << ' ' << 10 * herd + year << ' ' << age(herd, year) << ' '
                << (k == 5 ? -999 : 20 + k * k % 11) << '\n';
        }
        return out.str();
    }
};

TEST_F(joint_findings, are_told_by_check) {
    const auto sum = [](int herd, int year) { return herd * herd + 0.5 * year; };
    const auto free = [k = 0](int, int) mutable { return 3.0 + 7 * ++k % 13; };
    const std::string both = " MEA\n FIX herd\n FIX year\n";
    EXPECT_TRUE(holds(check(both + " COV age(1,POL)\n", records(sum)),
                      "W418 fixed effects that hold each other, taken together: confounded jointly\n"
                      "     trait \"y\": age(1,POL) is held by herd and year (1 of 1 columns)\n"));
    EXPECT_FALSE(holds(check(both + " COV age(1,POL)\n", records(free)), "W418"));
    EXPECT_TRUE(
        holds(check(both + " FIX hy\n", records(free)), "trait \"y\": hy holds herd and year (5 of 5 columns)"));
    EXPECT_FALSE(holds(check(" FIX herd\n FIX hy\n", records(free)), "W418")); // W411 tells of such pairs
    EXPECT_TRUE(holds(check(both + " COV age*herd(1,POL)\n", records(sum)), "W418")) << "nested in herd it is year";
}

} // namespace
