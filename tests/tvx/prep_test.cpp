// tvx prep: analyses made from tables give the numbers of those written by hand, whatever the order of lines and
// columns.
#include "tvx/companion.h"

#include <Eigen/Dense>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;

class prep_numbers : public tarvex::tarvex_test {
protected:
    // The analysis that prep makes of table.csv has the numbers of the one in hand.par: digit for digit from the same
    // starting values, and the same maximum from those of the data.
    void expect_same_maximum(const std::string& formula, const std::string& starting,
                             const std::vector<std::string>& more = {}) {
        const auto hand = maximum("hand");
        const auto by_hand = solutions();
        write_file("start.txt", starting);
        std::vector<std::string> args{"prep", "table.csv",    formula,   "-o",
                                      "made", "--keep-units", "--start", "start.txt"};
        args.insert(args.end(), more.begin(), more.end());
        const auto prepared = run_tvx(args);
        ASSERT_EQ(prepared.status, 0) << prepared.output;
        fs::current_path("made");
        const auto made = maximum("made");
        EXPECT_NEAR(made.loglike, hand.loglike, 1e-8 * std::fabs(hand.loglike));
        ASSERT_EQ(made.values.size(), hand.values.size()) << read_file("made.par");
        for (std::size_t i = 0; i < hand.values.size(); ++i)
            EXPECT_NEAR(made.values[i], hand.values[i], 1e-8 * std::fabs(hand.values[i])) << "covariance " << i + 1;
        expect_same_solutions(by_hand);
        fs::current_path("..");
        args[4] = "own";
        args.erase(args.begin() + 6, args.begin() + 8);
        ASSERT_EQ(run_tvx(args).status, 0);
        fs::current_path("own");
        EXPECT_NEAR(maximum("own").loglike, hand.loglike, 1e-7 * std::fabs(hand.loglike));
        fs::current_path("..");
    }
    static tarvex::best_point maximum(const std::string& name) {
        const auto first = tarvex::run_program({"--aireml100,1e-6", "--json", name});
        EXPECT_EQ(first.status, 0) << first.output;
        EXPECT_TRUE(holds(first.output, "AIREML has converged")) << first.output;
        return tarvex::read_best_point();
    }
    // Solutions of the first effect of the first block by code and component, with all digits.
    struct effect_solutions {
        std::string effect;
        std::map<std::pair<int, int>, double> u;
        double largest = 0.0;
    };
    static effect_solutions solutions() {
        const auto d = nlohmann::json::parse(read_file("Results.json"));
        const auto& first = d["solutions"]["random"].at(0);
        effect_solutions s;
        s.effect = first["effect"].get<std::string>();
        const std::size_t n = first["components"];
        for (std::size_t k = 0; k < first["codes"].size(); ++k)
            for (std::size_t c = 0; c < n; ++c) {
                const double x = first["solutions"].at(k * n + c);
                s.u[{first["codes"][k], static_cast<int>(c)}] = x;
                s.largest = std::max(s.largest, std::fabs(x));
            }
        return s;
    }
    // By identifier, to 1e-8 of the largest.
    static void expect_same_solutions(const effect_solutions& by_hand) {
        const auto made = solutions();
        std::map<std::string, int> code;
        const std::string own = "key_" + made.effect.substr(0, made.effect.find('(')) + ".tsv";
        std::istringstream key(read_file(fs::exists(own) ? own : "pedigree.tsv"));
        std::string line;
        for (std::getline(key, line); std::getline(key, line);) {
            const auto tab = line.find('\t');
            code[line.substr(tab + 1, line.find('\t', tab + 1) - tab - 1)] = std::stoi(line);
        }
        ASSERT_GT(by_hand.u.size(), 10u);
        ASSERT_EQ(made.u.size(), by_hand.u.size());
        for (const auto& [k, value] : by_hand.u) {
            ASSERT_EQ(code.count(id_of(k.first)), 1u);
            EXPECT_NEAR(made.u.at({code.at(id_of(k.first)), k.second}), value, 1e-8 * by_hand.largest)
                << id_of(k.first) << ", " << k.second;
        }
    }
};

std::string herd_name(int herd) { return "Hof \xc3\x9c" + std::to_string(7 - herd); }

// One record an animal of the last generations; two traits.
struct tables {
    text_table csv{{"id", "herd", "sex", "age", "weight", "fat"}, {}};
    std::string hand;
};

double first_trait(population& p, const population::animal& a) {
    return 50.0 + 2.0 * a.herd + 0.1 * a.age + a.genetic + 4.0 * p.normal();
}

tables single_records(population& p, bool both = true) {
    tables t;
    for (std::size_t k = 41; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const double e = p.normal(), y1 = first_trait(p, a) + 2.0 * e;
        const double y2 = 10.0 + a.sex + 0.5 * a.genetic + 0.3 * a.maternal + e + p.normal();
        const bool no2 = !both || k % 5 == 0;
        const std::string age = number_text(a.age);
        t.csv.rows.push_back({id_of(static_cast<int>(k)), herd_name(a.herd), a.sex == 1 ? "m" : "f", age,
                              number_text(y1), no2 ? "NA" : number_text(y2)});
        t.hand += std::to_string(k) + " " + std::to_string(a.herd) + " " + std::to_string(a.sex) + " " + age + " " +
                  number_text(y1) + " " + (no2 ? "-999" : number_text(y2)) + "\n";
    }
    return t;
}

void write_inputs(const population& p, text_table csv, const std::string& hand) {
    csv.shuffle(3);
    write_file("table.csv", csv.text(';'));
    auto ped = pedigree_table(p);
    std::mt19937_64 random(9);
    std::shuffle(ped.rows.begin(), ped.rows.end(), random);
    write_file("ped.csv", ped.text());
    write_file("hand.dat", hand);
    write_file("hand.ped", hand_pedigree(p));
}

const std::string hand_columns = "DAT hand.dat\n animal 999\n herd 6\n sex 2\n age\n weight\n fat\nEND\nPED hand.ped\n";

TEST_F(prep_numbers, of_an_animal_model_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 120, 3);
    const auto t = single_records(p);
    write_inputs(p, t.csv, t.hand);
    write_file("hand.par", "ANA UNI\n" + hand_columns +
                               "MOD\n FIX herd\n FIX sex\n COV age(1,POL)\n RAN animal NRM\n TRAIT weight 1 -999\nEND\n"
                               "VAR animal 1\n 9\nVAR residual 1\n 16\n");
    expect_same_maximum("weight ~ herd + sex + lin(age) + nrm(id)", "9 16", {"-p", "ped.csv"});
}

TEST_F(prep_numbers, of_two_traits_with_one_model_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 120, 3);
    const auto t = single_records(p);
    write_inputs(p, t.csv, t.hand);
    write_file("hand.par",
               "ANA MUV 2\n" + hand_columns +
                   "MOD EQ\n FIX herd\n FIX sex\n RAN animal NRM\n TRAIT weight 1 -999\n TRAIT fat 2 -999\nEND\n"
                   "VAR animal 2\n 9 3 2\nVAR residual 2\n 16 2 2\n");
    expect_same_maximum("weight + fat ~ herd + sex + nrm(id)", "9 3 2 16 2 2", {"-p", "ped.csv"});
}

// The same by hand with one trait a line.
TEST_F(prep_numbers, of_two_traits_with_models_of_their_own_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 120, 3);
    const auto t = single_records(p);
    std::string lines;
    std::istringstream in(t.hand);
    for (std::string a, herd, sex, age, y1, y2; in >> a >> herd >> sex >> age >> y1 >> y2;) {
        lines += "1 " + a + " " + herd + " " + sex + " " + age + " " + y1 + "\n";
        if (y2 != "-999") lines += "2 " + a + " " + herd + " " + sex + " " + age + " " + y2 + "\n";
    }
    write_inputs(p, t.csv, lines);
    write_file("hand.par",
               "ANA MUV 2\nDAT hand.dat GRP\n TRN 1 2\n qno\n animal 999\n herd 6\n sex 2\n age\n NAM weight fat\nEND\n"
               "PED hand.ped\nMOD\n FIX herd 1\n FIX sex 2\n COV age(2,POL) 1\n COV age*sex(1,POL) 2\n"
               " RAN animal NRM\n TRAIT weight 1 -999\n TRAIT fat 2 -999\nEND\n"
               "VAR animal 2\n 9 3 2\nVAR residual 2\n 16 2 2\n");
    expect_same_maximum("weight ~ herd + pol(age,2) + nrm(id); fat ~ sex + lin(age|sex) + nrm(id)", "9 3 2 16 2 2",
                        {"-p", "ped.csv"});
}

TEST_F(prep_numbers, of_maternal_effects_are_those_of_the_one_by_hand) {
    auto p = make_population(60, 200, 3);
    text_table csv{{"id", "herd", "weight"}, {}}; // the dam comes from the pedigree
    std::string hand;
    for (std::size_t k = 61; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const double y = first_trait(p, a) - 0.1 * a.age + p.animals[a.dam - 1].maternal;
        csv.rows.push_back({id_of(static_cast<int>(k)), herd_name(a.herd), number_text(y)});
        hand += std::to_string(k) + " " + std::to_string(a.dam) + " " + std::to_string(a.herd) + " " + number_text(y) +
                "\n";
    }
    write_inputs(p, csv, hand);
    write_file("hand.par", "ANA UNI\nDAT hand.dat\n animal 999\n dam 999\n herd 6\n weight\nEND\nPED hand.ped\n"
                           "MOD\n FIX herd\n RAN animal NRM\n RAN dam NRM\n TRAIT weight 1 -999\nEND\n"
                           "VAR animal+dam 2\n 9 -1 4\nVAR residual 1\n 16\n");
    expect_same_maximum("weight ~ herd + nrm(id)&nrm(dam)", "9 -1 4 16", {"-p", "ped.csv"});
}

struct repeated_tables {
    text_table csv{{"animal", "pen", "day", "weight"}, {}};
    std::string hand;
};

// Four records an animal on days 0 to 9, in pens.
repeated_tables repeated_records(population& p) {
    repeated_tables t;
    for (std::size_t k = 41; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const double slope = 0.4 * p.normal();
        for (int i = 0; i < 4; ++i) {
            const int day = (static_cast<int>(k) + 3 * i) % 10, pen = 1 + p.below(25);
            const double y = 40.0 + 1.5 * day + a.genetic + a.permanent + slope * day + 0.4 * (pen % 5) +
                             (day < 5 ? 1.5 : 3.0) * p.normal();
            const std::string d = std::to_string(day);
            t.csv.rows.push_back({id_of(static_cast<int>(k)), "pen" + std::to_string(pen), d, number_text(y)});
            t.hand += std::to_string(k) + " " + std::to_string(k) + " " + std::to_string(pen) + " " + d + " " +
                      number_text(y) + "\n";
        }
    }
    return t;
}

const std::string repeated_columns =
    "DAT hand.dat\n animal 999\n perm 999\n pen 25\n day 10\n weight\nEND\nPED hand.ped\n";

TEST_F(prep_numbers, of_repeated_records_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 80, 2);
    const auto t = repeated_records(p);
    write_inputs(p, t.csv, t.hand);
    write_file(
        "hand.par",
        "ANA UNI\n" + repeated_columns +
            "MOD\n MEA\n COV day(1,POL)\n RAN animal NRM\n RAN perm IDE\n RAN pen IDE\n TRAIT weight 1 -999\nEND\n"
            "VAR animal 1\n 9\nVAR perm 1\n 4\nVAR pen 1\n 1\nVAR residual 1\n 6\n");
    expect_same_maximum("weight ~ lin(day) + nrm(animal) + pe(animal) + (1|pen)", "9 4 1 6", {"-p", "ped.csv"});
}

TEST_F(prep_numbers, of_random_regressions_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 80, 2);
    const auto t = repeated_records(p);
    write_inputs(p, t.csv, t.hand);
    write_file("hand.par", "ANA RR\n" + repeated_columns +
                               "MOD\n MEA\n COV day(1,LEG)\n RAN animal(1,LEG) NRM\n RAN perm(2,LEG) IDE\n RRC day\n"
                               " TRAIT weight 1 -999\nEND\n"
                               "VAR animal 1\n 18\nVAR perm 2\n 12 2 3\nVAR residual 1 HET 2 day\n 0 4 2\n 5 9 9\n");
    expect_same_maximum("weight ~ leg(day,1) + rr(animal,day,1) + rr(pe(animal),day,2) + res(day: 0-4,5-9)",
                        "18 12 2 3 0 4 2 5 9 9", {"-p", "ped.csv"});
}

TEST_F(prep_numbers, of_a_sire_model_are_those_of_the_one_by_hand) {
    auto p = make_population(60, 400, 2);
    text_table csv{{"animal", "sire", "herd", "weight"}, {}};
    std::string hand;
    for (std::size_t k = 461; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const double y = first_trait(p, a) + 2.0 * p.animals[a.sire - 1].genetic;
        csv.rows.push_back({id_of(static_cast<int>(k)), id_of(a.sire), herd_name(a.herd), number_text(y)});
        hand += std::to_string(a.sire) + " " + std::to_string(a.herd) + " " + number_text(y) + "\n";
    }
    write_inputs(p, csv, hand);
    std::string sires; // each animal with its sire and the sire of its dam
    for (std::size_t k = 1; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const int mgs = a.dam > 0 ? p.animals[a.dam - 1].sire : 0;
        sires += std::to_string(k) + " " + std::to_string(a.sire) + " " + std::to_string(mgs) + "\n";
    }
    write_file("hand.ped", sires);
    write_file("hand.par", "ANA UNI\nDAT hand.dat\n sire 999\n herd 6\n weight\nEND\nPED hand.ped SIR\n"
                           "MOD\n FIX herd\n RAN sire NRM\n TRAIT weight 1 -999\nEND\n"
                           "VAR sire 1\n 5\nVAR residual 1\n 30\n");
    expect_same_maximum("weight ~ herd + sire(sire)", "5 30", {"-p", "ped.csv"});
}

// Cows with several records of two traits: residuals are correlated within a record.
TEST_F(prep_numbers, of_repeated_records_of_two_traits_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 80, 2);
    text_table csv{{"animal", "day", "weight", "fat"}, {}};
    std::string hand;
    for (std::size_t k = 41; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const double other = 1.5 * p.normal();
        for (int i = 0; i < 3; ++i) {
            const double e = p.normal();
            const std::string day = std::to_string(1 + p.below(5)),
                              y = number_text(a.genetic + a.permanent + 2.0 * e + p.normal()),
                              z = number_text(0.5 * a.genetic - 0.4 * a.permanent + other + a.maternal + e +
                                              p.normal());
            const bool both = i < 2 || k % 2 == 0;
            csv.rows.push_back({id_of(static_cast<int>(k)), day, y, both ? z : ""});
            hand +=
                std::to_string(k) + " " + std::to_string(k) + " " + day + " " + y + " " + (both ? z : "-999") + "\n";
        }
    }
    write_inputs(p, csv, hand);
    write_file(
        "hand.par",
        "ANA MUV 2\nDAT hand.dat\n animal 999\n perm 999\n day 9\n y\n z\nEND\nPED hand.ped\n"
        "MOD EQ\n SUBject LINE\n FIX day\n RAN animal NRM\n RAN perm IDE\n TRAIT y 1 -999\n TRAIT z 2 -999\nEND\n"
        "VAR animal 2\n 9 4 6\nVAR perm 2\n 4 -1 2\nVAR residual 2\n 5 2 2\n");
    const std::string formula = "weight + fat ~ day + nrm(animal) + pe(animal)", start = "9 4 6 4 -1 2 5 2 2";
    expect_same_maximum(formula, start, {"-p", "ped.csv"});
    EXPECT_TRUE(holds(read_file("made/made.par"), "\n  SUBject LINE\n"));
    std::filesystem::remove_all("made"); // and with one trait a line
    std::filesystem::remove_all("own");
    expect_same_maximum("weight ~ day + nrm(animal) + pe(animal); fat ~ day + nrm(animal) + pe(animal)", start,
                        {"-p", "ped.csv"});
    EXPECT_TRUE(holds(read_file("made/made.par"), "\n  SUBject record\n")) << read_file("made/made.par");
}

TEST_F(prep_numbers, of_a_sire_model_of_two_traits_are_those_of_the_one_by_hand) {
    auto p = make_population(60, 400, 2);
    text_table csv{{"animal", "herd", "weight", "fat"}, {}}; // the sire comes from the pedigree
    std::string hand, sires;
    for (std::size_t k = 1; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const int mgs = a.dam > 0 ? p.animals[a.dam - 1].sire : 0;
        sires += std::to_string(k) + " " + std::to_string(a.sire) + " " + std::to_string(mgs) + "\n";
        if (k <= 460) continue;
        const auto& s = p.animals[a.sire - 1];
        const double e = p.normal();
        const std::string y = number_text(a.herd + 2.0 * s.genetic + 3.0 * e + 3.0 * p.normal()),
                          z = number_text(s.genetic + s.maternal + 2.0 * e + 2.0 * p.normal());
        csv.rows.push_back({id_of(static_cast<int>(k)), herd_name(a.herd), y, z});
        hand += std::to_string(a.sire) + " " + std::to_string(a.herd) + " " + y + " " + z + "\n";
    }
    write_inputs(p, csv, hand);
    write_file("hand.ped", sires);
    write_file("hand.par", "ANA MUV 2\nDAT hand.dat\n sire 999\n herd 6\n y\n z\nEND\nPED hand.ped SIR\n"
                           "MOD EQ\n FIX herd\n RAN sire NRM\n TRAIT y 1 -999\n TRAIT z 2 -999\nEND\n"
                           "VAR sire 2\n 5 2 3\nVAR residual 2\n 18 6 8\n");
    expect_same_maximum("weight + fat ~ herd + sire(sire)", "5 2 3 18 6 8", {"-p", "ped.csv"});
}

// Rams and grandsires on the dam's side, both related by the pedigree of males.
TEST_F(prep_numbers, of_sires_and_grandsires_are_those_of_the_one_by_hand) {
    auto p = make_population(60, 500, 2);
    text_table csv{{"lamb", "herd", "ram", "mgs", "weight"}, {}};
    std::string hand, sires;
    for (std::size_t k = 1; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        const int mgs = a.dam > 0 ? p.animals[a.dam - 1].sire : 0;
        sires += std::to_string(k) + " " + std::to_string(a.sire) + " " + std::to_string(mgs) + "\n";
        if (k <= 560) continue;
        const std::string y =
            number_text(a.herd + 1.5 * p.animals[a.sire - 1].genetic +
                        0.8 * p.animals[static_cast<std::size_t>(mgs - 1)].maternal + 4.0 * p.normal());
        csv.rows.push_back({"lamb" + std::to_string(k), herd_name(a.herd), id_of(a.sire), id_of(mgs), y});
        hand += std::to_string(a.sire) + " " + std::to_string(mgs) + " " + std::to_string(a.herd) + " " + y + "\n";
    }
    write_inputs(p, csv, hand);
    write_file("hand.ped", sires);
    write_file("hand.par", "ANA UNI\nDAT hand.dat\n sire 999\n mgs 999\n herd 6\n y\nEND\nPED hand.ped SIR\n"
                           "MOD\n FIX herd\n RAN sire NRM\n RAN mgs NRM\n TRAIT y 1 -999\nEND\n"
                           "VAR sire 1\n 9\nVAR mgs 1\n 2\nVAR residual 1\n 16\n");
    expect_same_maximum("weight ~ herd + sire(ram) + mgs(mgs)", "9 2 16", {"-p", "ped.csv"});
}

// Three traits with two principal components of the genetic effects.
TEST_F(prep_numbers, of_reduced_rank_are_those_of_the_one_by_hand) {
    auto p = make_population(40, 120, 3);
    text_table csv{{"id", "herd", "a", "b", "c"}, {}};
    std::string hand;
    for (std::size_t k = 41; k <= p.animals.size(); ++k) {
        const auto& x = p.animals[k - 1];
        const double e = p.normal();
        const std::string a = number_text(x.herd + x.genetic + 3.0 * p.normal() + e),
                          b = number_text(x.genetic + x.maternal + 3.0 * p.normal() + e),
                          c = number_text(x.genetic - x.maternal + 3.0 * p.normal() - e);
        csv.rows.push_back({id_of(static_cast<int>(k)), herd_name(x.herd), a, k % 5 == 0 ? "NA" : b, c});
        hand += std::to_string(k) + " " + std::to_string(x.herd) + " " + a + " " + (k % 5 == 0 ? "-999" : b) + " " + c +
                "\n";
    }
    write_inputs(p, csv, hand);
    write_file("hand.par",
               "ANA MUV PC 3\nDAT hand.dat\n animal 999\n herd 6\n a\n b\n c\nEND\nPED hand.ped\n"
               "MOD EQ\n FIX herd\n RAN animal NRM\n TRAIT a 1 -999\n TRAIT b 2 -999\n TRAIT c 3 -999\nEND\n"
               "VAR animal 3 2\n 9 7 7\n 12 4\n 12\nVAR residual 3\n 10 1 -1\n 10 -1\n 10\n");
    expect_same_maximum("a + b + c ~ herd + nrm(id)", "9 7 7 12 4 12 10 1 -1 10 -1 10",
                        {"-p", "ped.csv", "--rank", "2"});
    EXPECT_TRUE(holds(read_file("made/made.par"), "VAR id 3 2\n")) << read_file("made/made.par");
}

// A relationship matrix of one's own: prep inverts the table, by hand the inverse is written down.
TEST_F(prep_numbers, of_own_relationships_are_those_of_the_one_by_hand) {
    auto p = make_population(10, 20, 1);
    const auto n = static_cast<Eigen::Index>(p.animals.size());
    Eigen::MatrixXd z(n, 60);
    for (Eigen::Index i = 0; i < n; ++i)
        for (Eigen::Index j = 0; j < 60; ++j) z(i, j) = p.below(3) - 1.0;
    Eigen::MatrixXd g = z * z.transpose() / 60.0 + 0.1 * Eigen::MatrixXd::Identity(n, n);
    std::string table = "line", hand;
    for (Eigen::Index i = 0; i < n; ++i) table += "," + id_of(static_cast<int>(i + 1));
    for (Eigen::Index i = 0; i < n; ++i) {
        table += "\n" + id_of(static_cast<int>(i + 1));
        for (Eigen::Index j = 0; j < n; ++j) {
            char text[40];
            std::snprintf(text, sizeof text, ",%.17g", g(i, j));
            table += text;
        }
    }
    write_file("G.csv", table + "\n");
    text_table csv{{"id", "herd", "weight"}, {}};
    for (int k = 1; k <= n; ++k)
        for (int plot = 0; plot < 3; ++plot) {
            const auto& a = p.animals[static_cast<std::size_t>(k - 1)];
            const int herd = 1 + (k + plot) % 6;
            const std::string y =
                number_text(40.0 + herd + z.row(k - 1).head(12).sum() + 2.0 * p.normal() + a.maternal);
            csv.rows.push_back({id_of(k), herd_name(herd), y});
            hand += std::to_string(k) + " " + std::to_string(herd) + " " + y + "\n";
        }
    write_inputs(p, csv, hand);
    const Eigen::MatrixXd inverse = g.inverse();
    char text[80];
    std::snprintf(text, sizeof text, "%.17g\n", std::log(g.determinant()));
    std::string gin = text, codes;
    for (Eigen::Index i = 0; i < n; ++i) {
        codes += std::to_string(i + 1) + " " + std::to_string(i + 1) + "\n";
        for (Eigen::Index j = 0; j <= i; ++j) {
            std::snprintf(text, sizeof text, "%d %d %.17g\n", static_cast<int>(j + 1), static_cast<int>(i + 1),
                          inverse(i, j));
            gin += text;
        }
    }
    write_file("line.gin", gin);
    write_file("line.codes", codes);
    write_file("hand.par", "ANA UNI\nDAT hand.dat\n line 99\n herd 6\n weight\nEND\n"
                           "MOD\n FIX herd\n RAN line GIN\n TRAIT weight 1 -999\nEND\n"
                           "VAR line 1\n 6\nVAR residual 1\n 5\n");
    expect_same_maximum("weight ~ herd + gin(id,G.csv)", "6 5");
}

class prep_files : public tarvex::tarvex_test {
protected:
    static std::vector<std::string> made(const std::string& formula) {
        const auto r = run_tvx({"prep", "table.csv", formula, "-p", "ped.csv", "-o", "made", "--force"});
        EXPECT_EQ(r.status, 0) << r.output;
        std::vector<std::string> texts;
        for (const char* name : {"made.dat", "made.par", "made.ped", "key_id.tsv", "key_herd.tsv"})
            texts.push_back(read_file(std::string("made/") + name));
        return texts;
    }
};

TEST_F(prep_files, do_not_depend_on_the_order_of_lines_and_columns) {
    auto p = make_population(40, 60, 2);
    auto t = single_records(p);
    write_inputs(p, t.csv, t.hand);
    const std::string formula = "weight + fat ~ herd + lin(age) + nrm(id)";
    const auto first = made(formula);
    t.csv.shuffle(77);
    write_file("table.csv", t.csv.text('\t'));
    auto ped = pedigree_table(p);
    std::reverse(ped.rows.begin(), ped.rows.end());
    write_file("ped.csv", ped.text(';'));
    EXPECT_EQ(made(formula), first);
}

// Grams in place of kilograms, or a decimal comma, change nothing in the data of the analysis.
TEST_F(prep_files, do_not_depend_on_units_and_decimal_signs) {
    auto p = make_population(40, 60, 2);
    auto t = single_records(p);
    write_inputs(p, t.csv, t.hand);
    const std::string formula = "weight ~ herd + nrm(id)";
    const std::string first = made(formula)[0];
    const auto col = std::find(t.csv.names.begin(), t.csv.names.end(), "weight") - t.csv.names.begin();
    for (auto& row : t.csv.rows) {
        for (auto& number : row) std::replace(number.begin(), number.end(), '.', ',');
        std::string& cell = row[static_cast<std::size_t>(col)];
        const auto point = cell.find(',');
        cell = cell.substr(0, point) + cell.substr(point + 1, 3) + "," + cell.substr(point + 4); // times 1000
    }
    write_file("table.csv", "\xef\xbb\xbf" + t.csv.text(';'));
    EXPECT_EQ(made(formula)[0], first);
    EXPECT_TRUE(holds(read_file("made/study.json"), "\"power\": 3"));
}

TEST_F(prep_files, lead_from_each_line_back_to_the_table) {
    write_file("table.csv", "id,herd,weight\n\nc,north,3\nb,,4\na,south,NA\nb,south,5.5\n");
    write_file("ped.csv", "c,a,b\n");
    const auto r = run_tvx({"prep", "table.csv", "weight ~ herd + nrm(id)", "-p", "ped.csv", "-o", "made"});
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(holds(r.output, "4 records in \"table.csv\"; 1 left out: missing herd; 1 left out: no trait recorded"))
        << r.output;
    EXPECT_EQ(read_file("made/lines.tsv"), "line\ttrait\n6\t0\n3\t0\n");
    EXPECT_EQ(read_file("made/made.dat"), "2 2 5.5\n1 3 3\n");
    EXPECT_EQ(read_file("made/made.ped"), "1 0 0\n2 0 0\n3 1 2\n");
    EXPECT_EQ(read_file("made/key_herd.tsv"), "code\tidentifier\n1\tnorth\n2\tsouth\n");
    EXPECT_TRUE(holds(r.output, "columns 1, 2 and 3 are taken as animal, sire and dam")) << r.output;
}

TEST_F(prep_files, mark_lines_of_one_trait) {
    write_file("table.csv", "id,herd,a,b\nx,1,3,10\ny,2,4,NA\nz,2,6,30\n");
    const auto r = run_tvx({"prep", "table.csv", "a ~ herd + (1|id); b ~ (1|id)", "-o", "made"});
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(read_file("made/made.dat"), "1 1 1 3\n2 1 1 1\n1 2 2 4\n1 2 3 6\n2 2 3 3\n");
    EXPECT_EQ(read_file("made/lines.tsv"), "line\ttrait\n2\t1\n2\t2\n3\t1\n4\t1\n4\t2\n");
    EXPECT_TRUE(holds(read_file("made/made.par"), "\n  MEA 2\n")) << read_file("made/made.par");
}

TEST_F(prep_files, keep_candidates_on_demand) {
    write_file("table.csv", "id,weight\nc,3\nb,4\n");
    write_file("ped.csv", "animal,sire,dam\nc,a,b\nd,a,b\ne,a,b\n");
    const std::vector<std::string> args{"prep", "table.csv", "weight ~ nrm(id)", "-p", "ped.csv",
                                        "-o",   "made",      "--force"};
    const auto with = [&](const std::string& which) {
        auto more = args;
        more.insert(more.end(), {"--candidates", which});
        return run_tvx(more);
    };
    ASSERT_EQ(run_tvx(args).status, 0);
    EXPECT_EQ(read_file("made/made.ped"), "1 0 0\n2 0 0\n3 1 2\n");
    ASSERT_EQ(with("all").status, 0);
    EXPECT_EQ(read_file("made/made.ped"), "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 1 2\n");
    write_file("list.txt", "d\n");
    ASSERT_EQ(with("list.txt").status, 0);
    EXPECT_EQ(read_file("made/made.ped"), "1 0 0\n2 0 0\n3 1 2\n4 1 2\n");
}

} // namespace
