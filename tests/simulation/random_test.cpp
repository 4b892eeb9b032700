#include "simulation/ignlgi.h"
#include "simulation/randomseeds.h"
#include "simulation/ranf.h"
#include "simulation/setall.h"

#include "simulation/simulation.h"
#include "support/fixture.h"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace tarvex {
namespace {

struct vector_row {
    std::string kind;
    std::string seed1, seed2, arg, place;
    std::string value;
};

std::vector<vector_row> rows() {
    std::ifstream in(source_dir() + "/tests/support/data/random-numbers.tsv");
    std::vector<vector_row> list;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream text(line);
        vector_row r;
        std::getline(text, r.kind, '\t');
        std::getline(text, r.seed1, '\t');
        std::getline(text, r.seed2, '\t');
        std::getline(text, r.arg, '\t');
        std::getline(text, r.place, '\t');
        std::getline(text, r.value, '\t');
        list.push_back(r);
    }
    return list;
}

class random_numbers : public tarvex_test {};

TEST_F(random_numbers, follow_the_reference_streams) {
    std::string block;
    int place = 0, checked = 0;
    for (const auto& r : rows()) {
        const bool stream = r.kind == "ignlgi" || r.kind == "ranf" || r.kind == "snorm" || r.kind == "irandno";
        if (!stream) continue;
        const std::string id = r.kind + r.seed1 + "/" + r.seed2 + "/" + r.arg;
        if (id != block) {
            randomgen = {};
            setall(std::stoi(r.seed1), std::stoi(r.seed2));
            block = id;
            place = 0;
        }
        const int wanted = std::stoi(r.place);
        double value = 0.0;
        for (; place < wanted; ++place)
            value = r.kind == "ignlgi"  ? ignlgi()
                    : r.kind == "ranf"  ? static_cast<double>(ranf())
                    : r.kind == "snorm" ? static_cast<double>(snorm())
                                        : irandno(std::stoi(r.arg));
        if (r.kind == "ranf" || r.kind == "snorm")
            EXPECT_EQ(static_cast<float>(value), std::stof(r.value)) << id << " at " << r.place;
        else
            EXPECT_EQ(static_cast<long long>(value), std::stoll(r.value)) << id << " at " << r.place;
        ++checked;
    }
    EXPECT_GT(checked, 300);
}

TEST_F(random_numbers, seeds_of_all_generators_follow_from_the_first) {
    int checked = 0;
    for (const auto& r : rows()) {
        if (r.kind == "mltmod") {
            EXPECT_EQ(mltmod(std::stoi(r.seed1), std::stoi(r.seed2), std::stoi(r.arg)), std::stoi(r.value));
        }
        if (r.kind != "setall_ig1" && r.kind != "setall_ig2") continue;
        setall(std::stoi(r.seed1), std::stoi(r.seed2));
        const auto g = static_cast<std::size_t>(std::stoi(r.arg) - 1);
        EXPECT_EQ(r.kind == "setall_ig1" ? randomgen.ig1[g] : randomgen.ig2[g], std::stoi(r.value));
        ++checked;
    }
    EXPECT_EQ(checked, 30);
}

TEST_F(random_numbers, default_seeds_serve_without_setall) {
    randomgen = {};
    for (const auto& r : rows())
        if (r.kind == "ignlgi_without_setall") {
            EXPECT_EQ(ignlgi(), std::stoi(r.value));
        }
}

TEST_F(random_numbers, one_of_one_draws_nothing) {
    setall(12345, 67890);
    const int next = randomgen.cg1[0];
    EXPECT_EQ(irandno(1), 1);
    EXPECT_EQ(randomgen.cg1[0], next);
}

TEST_F(random_numbers, faults_stop) {
    EXPECT_STOP(irandno(0), "LOW > HIGH in IGNUIN\n LOW:  1  HIGH:  0\n Abort on Fatal ERROR");
    EXPECT_STOP(irandno(2147483562), " ( HIGH - LOW ) > 2,147,483,561 in IGNUIN");
    EXPECT_STOP(setcgn(0), " Generator number out of range in SETCGN: 0\n Legal range is 1 to  32  -- ABORT!\n"
                           " Generator number out of range in SETCGN");
    EXPECT_STOP(setcgn(33), " Generator number out of range in SETCGN");
    const std::string out_of_order = " A, M, S out of order in MLTMOD - ABORT!\n A =  ";
    EXPECT_STOP(mltmod(0, 5, 7), out_of_order + "0  S =  5  M =  7\n MLTMOD requires: 0 < A < M; 0 < S < M");
    EXPECT_STOP(mltmod(7, 5, 7), out_of_order + "7");
    EXPECT_STOP(mltmod(5, 0, 7), out_of_order + "5");
    EXPECT_STOP(mltmod(5, 7, 7), out_of_order + "5");
    randomgen = {};
    EXPECT_STOP(initgn(-1), " INITGN called before random number generator \n initialized -- abort!\n"
                            " INITGN called before random number generator initialized");
}

// a^(2^k) modulo m by squaring.
long long squared(long long a, int k, long long m) {
    for (; k > 0; --k) a = a * a % m;
    return a;
}

TEST_F(random_numbers, blocks_and_generators_lie_powers_of_the_multiplier_apart) {
    constexpr long long m1 = 2147483563, m2 = 2147483399;
    setall(12345, 67890);
    EXPECT_EQ(randomgen.ig1[1], 12345 * squared(40014, 50, m1) % m1);
    EXPECT_EQ(randomgen.ig2[1], 67890 * squared(40692, 50, m2) % m2);
    for (int k = 0; k < 7; ++k) ignlgi();
    initgn(1); // the next block
    EXPECT_EQ(randomgen.cg1[0], 12345 * squared(40014, 30, m1) % m1);
    EXPECT_EQ(randomgen.cg2[0], 67890 * squared(40692, 30, m2) % m2);
    const int first = ignlgi();
    for (int k = 0; k < 7; ++k) ignlgi();
    initgn(0); // the same block again
    EXPECT_EQ(ignlgi(), first);
    initgn(-1);
    EXPECT_EQ(randomgen.cg1[0], 12345);
    EXPECT_EQ(randomgen.cg2[0], 67890);
}

TEST_F(random_numbers, each_generator_has_a_stream_of_its_own) {
    setall(12345, 67890);
    const int first = ignlgi();
    setcgn(32);
    EXPECT_EQ(randomgen.curntg, 32);
    EXPECT_NE(ignlgi(), first);
    EXPECT_EQ(randomgen.cg1[0], 40014LL * 12345 % 2147483563LL); // the first one waits where it was
    setall(12345, 67890);                                        // does not change the generator in use
    EXPECT_EQ(randomgen.curntg, 32);
    randomgen.curntg = 1;
    const int normal = ignlgi();
    initgn(-1);
    randomgen.qanti[0] = true;
    EXPECT_EQ(ignlgi(), 2147483563 - normal);
    randomgen.qanti[0] = false;
}

TEST_F(random_numbers, largest_range) {
    setall(1, 1);
    for (int k = 0; k < 1000; ++k) {
        const int i = irandno(2147483561);
        EXPECT_GE(i, 1);
        EXPECT_LE(i, 2147483561);
    }
}

TEST_F(random_numbers, normals_have_mean_0_and_variance_1) {
    setall(1234, 5678);
    double sum = 0.0, squares = 0.0;
    const int n = 200000;
    for (int i = 0; i < n; ++i) {
        const double x = static_cast<double>(snorm());
        sum += x;
        squares += x * x;
    }
    EXPECT_NEAR(sum / n, 0.0, 4.0 / std::sqrt(n));
    EXPECT_NEAR(squares / n, 1.0, 4.0 * std::sqrt(2.0 / n));
}

TEST_F(random_numbers, seeds_may_be_parted_by_a_comma_and_follow_a_byte_order_mark) {
    for (const char* text : {"1234 56789\n", "1234,56789\n", " 1234 , 56789 \n", "1234,\n56789\n",
                             "\xEF\xBB\xBF"
                             "1234 56789\n"}) {
        write_file("RandomSeeds", text);
        setup_randnos();
        EXPECT_EQ(simulation.iseed1, 1234) << text;
        EXPECT_EQ(simulation.iseed2, 56789) << text;
    }
}

} // namespace
} // namespace tarvex
