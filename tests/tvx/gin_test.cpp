// Relationship matrices: against dense algebra written here.
#include "tvx/commands.h"
#include "tvx/companion.h"
#include "tvx/gin.h"

#include <fstream>

namespace {

using namespace tvx_tests;
using tarvex::read_file;
using tarvex::write_file;

struct genotypes {
    std::vector<std::vector<int>> m; // animal, marker; -1 missing
};

genotypes make_genotypes(std::size_t n, std::size_t markers, bool missing) {
    genotypes g;
    std::mt19937_64 random(31);
    for (std::size_t i = 0; i < n; ++i) {
        g.m.emplace_back();
        for (std::size_t j = 0; j < markers; ++j) {
            const int draw = static_cast<int>(random() % 100), p = static_cast<int>(10 + 7 * (j % 11));
            int v = (draw < p ? 1 : 0) + (static_cast<int>(random() % 100) < p ? 1 : 0);
            if (j % 50 == 7) v = 2; // does not vary
            if (missing && random() % 9 == 0) v = -1;
            g.m.back().push_back(v);
        }
    }
    return g;
}

// Z Z' / sum 2pq element by element, missing genotypes at their mean.
std::vector<std::vector<double>> dense_matrix(const genotypes& g) {
    const std::size_t n = g.m.size();
    std::vector<std::vector<double>> a(n, std::vector<double>(n, 0.0));
    double scale = 0.0;
    for (std::size_t j = 0; j < g.m[0].size(); ++j) {
        double sum = 0.0, known = 0.0;
        for (const auto& row : g.m)
            if (row[j] >= 0) sum += row[j], ++known;
        const double p = sum / (2.0 * known);
        scale += 2.0 * p * (1.0 - p);
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t k = 0; k < n; ++k)
                if (g.m[i][j] >= 0 && g.m[k][j] >= 0) a[i][k] += (g.m[i][j] - 2.0 * p) * (g.m[k][j] - 2.0 * p);
    }
    for (auto& row : a)
        for (double& x : row) x /= scale;
    return a;
}

void expect_matrix(const tvx::relationship& r, const genotypes& g) {
    const auto a = dense_matrix(g);
    ASSERT_EQ(r.ids.size(), a.size());
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t k = 0; k < a.size(); ++k)
            ASSERT_NEAR(r.g(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(k)), a[i][k], 1e-12)
                << i << " " << k;
}

void write_table(const genotypes& g) {
    std::string text = "id";
    for (std::size_t j = 0; j < g.m[0].size(); ++j) text += ",m" + std::to_string(j);
    text += "\n";
    for (std::size_t i = 0; i < g.m.size(); ++i) {
        text += id_of(static_cast<int>(i) + 1);
        for (const int v : g.m[i]) text += v < 0 ? ",NA" : "," + std::to_string(v);
        text += "\n";
    }
    write_file("m.csv", text);
}

void write_plink(const genotypes& g) {
    std::string bed("\x6c\x1b\x01", 3), bim, fam;
    const std::size_t n = g.m.size();
    for (std::size_t i = 0; i < n; ++i) fam += "f " + std::to_string(i) + "id 0 0 0 -9\n";
    for (std::size_t j = 0; j < g.m[0].size(); ++j) {
        bim += "1 m 0 1 A G\n";
        std::string bytes((n + 3) / 4, '\0');
        for (std::size_t i = 0; i < n; ++i) {
            const int v = g.m[i][j], code = v < 0 ? 1 : v == 2 ? 0 : v == 1 ? 2 : 3;
            bytes[i / 4] = static_cast<char>(bytes[i / 4] | (code << (2 * (i % 4))));
        }
        bed += bytes;
    }
    write_file("m.bed", bed);
    write_file("m.bim", bim);
    write_file("m.fam", fam);
}

class matrices : public tarvex::tarvex_test {};

TEST_F(matrices, of_markers_are_those_of_dense_algebra) {
    for (const bool missing : {false, true}) {
        const auto g = make_genotypes(30, 4500, missing); // more than one block of markers
        write_table(g);
        const auto r = tvx::read_markers("m.csv");
        expect_matrix(r, g);
        std::size_t fixed = 0;
        for (std::size_t j = 0; j < g.m[0].size(); ++j) {
            bool low = true, high = true; // all known genotypes are 0, or 2
            for (const auto& row : g.m) {
                low = low && row[j] <= 0;
                high = high && (row[j] == 2 || row[j] < 0);
            }
            fixed += low || high ? 1 : 0;
        }
        EXPECT_GE(fixed, 90u);
        EXPECT_EQ(r.fixed, fixed);
        write_plink(g);
        expect_matrix(tvx::read_markers("m.bed"), g);
        EXPECT_EQ(tvx::read_markers("m.bed").ids[3], "3id");
    }
}

TEST_F(matrices, are_inverted) {
    write_file("g.csv", "id,b,a10,a9\na9,0.5,0.25,2\nb,4,1,0.5\na10,1,3,0.25\n");
    const auto r = run_tvx({"gin", "g.csv", "gen"});
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(read_file("key_gen.tsv"), "code\tidentifier\n1\ta9\n2\ta10\n3\tb\n");
    EXPECT_EQ(read_file("gen.codes"), "1 1\n2 2\n3 3\n");
    std::ifstream in("gen.gin");
    double log_det = 0.0, inverse[3][3] = {};
    in >> log_det;
    int col = 0, row = 0;
    for (double x = 0; in >> col >> row >> x;) inverse[row - 1][col - 1] = inverse[col - 1][row - 1] = x;
    EXPECT_EQ(row, 3);
    const double g[3][3] = {{2, 0.25, 0.5}, {0.25, 3, 1}, {0.5, 1, 4}};
    const double det = 2 * (12 - 1) - 0.25 * (1 - 0.5) + 0.5 * (0.25 - 1.5);
    EXPECT_NEAR(log_det, std::log(det), 1e-14);
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) {
            double sum = 0.0;
            for (int j = 0; j < 3; ++j) sum += g[i][j] * inverse[j][k];
            EXPECT_NEAR(sum, i == k ? 1.0 : 0.0, 1e-14);
        }
}

TEST_F(matrices, tell_their_smallest_eigenvalue) { // of [[2,1],[1,2]]: 1
    write_file("g.csv", "id1,id2,value\nx,x,2\ny,x,1\ny,y,2\n");
    const auto r = run_tvx({"gin", "g.csv", "gen", "--json"});
    EXPECT_TRUE(holds(r.output, "\"rank\":2")) << r.output;
    const auto at = r.output.find("smallest_eigenvalue\":");
    ASSERT_NE(at, std::string::npos) << r.output;
    EXPECT_NEAR(std::stod(r.output.substr(at + 21)), 1.0, 1e-8);
}

TEST_F(matrices, that_are_singular_tell_their_rank) {
    write_file("g.csv", "id,a,b,c\na,1,1,0\nb,1,1,0\nc,0,0,1\n");
    expect_fault({"gin", "g.csv", "gen"}, "not positive definite: 3 levels, rank 2. --blend 0.05");
    EXPECT_FALSE(std::filesystem::exists("gen.gin"));
    EXPECT_EQ(run_tvx({"gin", "g.csv", "gen", "--blend", "0.05"}).status, 0);
}

TEST_F(matrices, with_faults) {
    write_file("g.csv", "id,a,b\na,1,0.5\nb,0.2,1\n");
    expect_fault({"gin", "g.csv", "gen"}, "is not symmetric: rows \"b\" and \"a\"");
    write_file("g.csv", "id,a,c\na,1,0.5\nb,0.5,1\n");
    expect_fault({"gin", "g.csv", "gen"}, "column \"c\" has no row");
    write_file("g.csv", "id,m1,m2\na,0,3\nb,1,1\nc,2,1\n");
    expect_fault({"gin", "gen", "--markers", "g.csv"}, "line 2, column \"m2\": \"3\" is no genotype");
    write_plink(make_genotypes(5, 4, false));
    write_file("m.bim", "1 m 0 1 A G\n");
    expect_fault({"gin", "gen", "--markers", "m.bed"}, "5 animals and 1 markers need 5");
}

// The same analysis by gin() with the relationship matrix of the pedigree as by nrm().
TEST_F(matrices, in_formulas_give_the_numbers_of_the_pedigree) {
    auto p = make_population(12, 30, 1);
    const std::size_t n = p.animals.size();
    std::vector<std::vector<double>> a(n, std::vector<double>(n, 0.0)); // tabular method
    for (std::size_t i = 0; i < n; ++i) {
        const int s = p.animals[i].sire - 1, d = p.animals[i].dam - 1;
        for (std::size_t j = 0; j < i; ++j)
            a[i][j] = a[j][i] =
                s < 0 ? 0.0 : 0.5 * (a[j][static_cast<std::size_t>(s)] + a[j][static_cast<std::size_t>(d)]);
        a[i][i] = 1.0 + (s < 0 ? 0.0 : 0.5 * a[static_cast<std::size_t>(s)][static_cast<std::size_t>(d)]);
    }
    std::string matrix = "id", table = "id,weight\n";
    for (std::size_t i = 0; i < n; ++i) matrix += "," + id_of(static_cast<int>(i) + 1);
    matrix += "\n";
    for (std::size_t i = 0; i < n; ++i) {
        const std::string id = id_of(static_cast<int>(i) + 1);
        matrix += id;
        for (std::size_t j = 0; j < n; ++j) matrix += "," + number_text(a[i][j]) + "0";
        matrix += "\n";
        if (i >= 6) table += id + "," + number_text(20.0 + p.animals[i].genetic + 3.0 * p.normal()) + "\n";
    }
    write_file("G.csv", matrix);
    write_file("t.csv", table);
    write_file("p.csv", pedigree_table(p).text());
    ASSERT_EQ(run_tvx({"prep", "t.csv", "weight ~ nrm(id)", "-p", "p.csv", "-o", "ped"}).status, 0);
    const auto r = run_tvx({"prep", "t.csv", "weight ~ gin(id,G.csv)", "-o", "gen"});
    ASSERT_EQ(r.status, 0) << r.output;
    const auto log_l = [](const std::string& name) {
        std::filesystem::current_path(name);
        EXPECT_EQ(tarvex::run_program({"--aireml100,1e-6", name}).status, 0);
        const auto point = tarvex::read_best_point();
        std::filesystem::current_path("..");
        return point;
    };
    const auto ped = log_l("ped"), gen = log_l("gen");
    EXPECT_NEAR(gen.loglike, ped.loglike, 1e-8 * std::fabs(ped.loglike));
    for (std::size_t i = 0; i < 2; ++i) EXPECT_NEAR(gen.values.at(i), ped.values.at(i), 1e-6);
    write_file("t.csv", table + "stranger,20\n");
    expect_fault({"prep", "t.csv", "weight ~ gin(id,G.csv)", "-o", "more"},
                 "levels that \"G.csv\" does not have:\n  line");
}

} // namespace
