// A folder in which other analyses have run gives the same bytes as a fresh one: other animals, parents, records,
// models and starting values, and scratch files that are spoilt.
#include "used_folder.h"

#include "support/screen.h"

#include <algorithm>
#include <filesystem>

using namespace tarvex;

namespace {

struct layout {
    std::string analysis = "MUV 2", extra_random = {}, fixed = " FIX herd\n FIX parity\n COV age(1,POL)\n";
    std::string animal = "VAR animal 2\n 4.5 1.5 3.5\n", other_blocks = {}, residual = "VAR residual 2\n 6.0 2.0 5.5\n";
};

std::string two_traits(const layout& l) {
    return "PED ped.dat\nANA " + l.analysis +
           "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\nEND\nMOD EQ\n" +
           l.fixed + " RAN animal NRM\n" + l.extra_random + " TR y1 1 -999\n TR y2 2 -999\nEND\n" + l.animal +
           l.other_blocks + l.residual;
}

// One trait with sires and their own pedigree, the same codes throughout.
std::string one_trait(const std::string& head, double variance = 4.0) {
    return head +
           "PED ped.dat\nANA UNI\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n"
           " y1\n y2\nEND\nMOD\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n " +
           std::to_string(variance) + "\nVAR residual 1\n 6.0\n";
}

study make_study(const population& p, const layout& l, const std::string& options = "--aireml30") {
    return {p.pedigree(), p.all_traits_lines(), two_traits(l), options};
}

population first_population() { return make_population(90, 2, 1, 0.2, 61); }

class trust_test : public used_folder {
protected:
    // One after the other, then the first once more.
    void expect_each_as_fresh(const std::vector<study>& list, const std::string& what) {
        for (std::size_t k = 0; k <= list.size(); ++k)
            expect_as_fresh(list[k % list.size()], what + ", run " + std::to_string(k + 1));
    }
    static constexpr const char* searches[] = {"",         "--aireml30", "--pxai3,20", "--emalg4",
                                               "--powell", "--simplex",  "--blup"};
};

// Records of a fifth of the animals left out: pruning leaves the same number of animals and the same ends.
TEST_F(trust_test, folds_of_a_validation) {
    population p = make_population(160, 1, 1, 0.0, 71);
    const int young = 130; // without offspring from here on
    for (int i = young; i <= 160; ++i) p.sire[static_cast<std::size_t>(i - 1)] = 1 + 2 * (i % 30);
    for (int i = 0; i < 160; ++i)
        if (p.sire[static_cast<std::size_t>(i)] > young) p.sire[static_cast<std::size_t>(i)] = 0;
    std::vector<study> folds;
    for (int fold = 0; fold < 5; ++fold) {
        population q = p;
        std::erase_if(q.records,
                      [&](const animal_record& r) { return r.code > 1 && r.code < 160 && r.code % 5 == fold; });
        std::string parameters = one_trait("");
        parameters.replace(parameters.find(" y2\n"), 4, "");
        folds.push_back({q.pedigree(), q.all_traits_lines(), parameters, "--aireml30"});
    }
    expect_each_as_fresh(folds, "folds");
}

TEST_F(trust_test, one_animal_for_another) {
    const population p = first_population();
    population q = p;
    const auto again = std::find_if(q.records.begin(), q.records.end(), [](const auto& r) { return r.code == 50; });
    ASSERT_NE(again, q.records.end());
    std::string ped = p.pedigree() + "", other = ped; // animal 50 is called 950, then 951
    ped += "150 1 2\n";
    other += "151 3 4\n";
    std::string data = p.all_traits_lines() + "150 150 2 1 1 20 25.0 26.0\n90 90 0 1 1 22 24.0 23.0\n";
    std::string data2 = p.all_traits_lines() + "151 151 4 1 1 20 25.0 26.0\n90 90 0 1 1 22 24.0 23.0\n";
    const std::string tail = "300 0 0\n"; // the last code stays
    expect_each_as_fresh({{ped + tail, data + "300 300 0 2 1 21 22.0 23.0\n", two_traits({}), "--aireml30"},
                          {other + tail, data2 + "300 300 0 2 1 21 22.0 23.0\n", two_traits({}), "--aireml30"}},
                         "exchanged");
}

TEST_F(trust_test, corrected_parent) {
    const population p = first_population();
    population q = p;
    q.sire[59] = q.sire[59] == 1 ? 3 : 1;
    q.dam[70] = q.dam[70] == 2 ? 4 : 2;
    for (const char* options : {"--aireml30", "--blup"})
        expect_each_as_fresh({make_study(p, {}, options), make_study(q, {}, options)}, options);
}

TEST_F(trust_test, animal_and_sire_model) {
    population p = make_population(80, 2, 1, 0.0, 62);
    const study animals{p.pedigree(), p.all_traits_lines(), one_trait(""), "--aireml30"};
    study sires = animals;
    sires.parameters.replace(sires.parameters.find("PED ped.dat"), 11, "PED ped.dat SIRE");
    expect_each_as_fresh({animals, sires}, "sire model");
}

TEST_F(trust_test, full_and_reduced_rank_and_diagonal) {
    const population p = first_population();
    const layout full, reduced{.analysis = "MUV PC 2", .animal = "VAR animal 2 1\n 4.5 1.5 3.5\n"},
        diagonal{.animal = "VAR animal 2 DIA\n 4.5 3.5\n"};
    for (const std::string options : {"--aireml30", "--blup"})
        expect_each_as_fresh({make_study(p, full, options), make_study(p, diagonal, options),
                              make_study(p, reduced, "--pxai2,20"), make_study(p, diagonal, options),
                              make_study(p, full, options)},
                             options);
    EXPECT_FALSE(std::filesystem::exists("cholnrm1.bin")) << "the factor is for those who ask for it";
}

TEST_F(trust_test, residual_covariance_zero_and_free) {
    const population p = first_population();
    const layout free, zero{.residual = "VAR residual 2\n 6.0 0.0 5.5\n"};
    for (const char* options : searches)
        expect_each_as_fresh({make_study(p, zero, options), make_study(p, free, options)}, options);
}

TEST_F(trust_test, blocks_in_another_order) {
    const population p = make_population(80, 2, 2, 0.2, 63);
    const std::string perm = "VAR perm 2\n 1.0 0.2 1.0\n";
    layout a{.extra_random = " RAN perm IDE\n", .other_blocks = perm}, b = a;
    b.other_blocks = a.animal;
    b.animal = perm;
    expect_each_as_fresh({make_study(p, a), make_study(p, b)}, "order of VAR blocks");
}

TEST_F(trust_test, other_herds_of_the_same_number) {
    const population p = first_population();
    population q = p;
    for (auto& r : q.records) r.herd = 1 + (r.herd * 7 + r.code) % 4;
    for (const char* options : searches)
        expect_each_as_fresh({make_study(p, {}, options), make_study(q, {}, options)}, options);
}

TEST_F(trust_test, other_sires_of_the_same_number) {
    const population p = first_population();
    population q = p;
    for (std::size_t i = 40; i < 60; ++i)
        if (q.sire[i] > 0) q.sire[i] = q.sire[i] == 1 ? 3 : q.sire[i] - 2;
    for (const char* options : searches)
        expect_each_as_fresh({make_study(p, {}, options), make_study(q, {}, options)}, options);
}

TEST_F(trust_test, simulation_after_another_pedigree) {
    const population p = first_population();
    population q = p;
    for (int i = 30; i < 90; ++i) q.sire[static_cast<std::size_t>(i)] = 1 + 2 * (i % 5);
    write_file("RandomSeeds", "1234567 7654321\n");
    outcome(make_study(p, {}));
    for (const population& x : {q, p, q}) {
        write_file("RandomSeeds", "1234567 7654321\n");
        expect_as_fresh(make_study(x, {}, "--simul2"), "simulation");
    }
}

TEST_F(trust_test, point_of_other_data_is_a_place_to_start_only) {
    const population p = first_population(), q = make_population(90, 2, 1, 0.2, 64);
    outcome(make_study(p, {}));
    for (const char* options : {"-c --powell", "-c --aireml30"}) {
        const auto found = outcome(make_study(q, {}, options)); // reports and point were removed: nothing to go on from
        EXPECT_NE(told_.find("No usable \"BestPoint\" found - estimation starts anew !\n"), std::string::npos) << told_;
        EXPECT_EQ(found.at("status"), "0");
    }
    bring_study(make_study(q, {}));
    std::filesystem::remove("BestPoint");
    finish("--aireml50,1e-8");
    const best_point truth = read_best_point();
    for (const char* options : {"-c --powell", "-c --aireml50,1e-8"}) {
        bring_study(make_study(p, {}));
        std::filesystem::remove("BestPoint");
        finish("--aireml30");
        bring_study(make_study(q, {}));
        const auto result = finish(options);
        EXPECT_NE(result.output.find("\"BestPoint\" is of the same model on other input (different : data, pedigree) - "
                                     "its log L does not count\n"),
                  std::string::npos)
            << result.output;
        if (options == std::string("-c --powell")) continue; // is not done at the stored value: see below
        EXPECT_NEAR(read_best_point().loglike, truth.loglike, 2e-3) << options;
    }
}

TEST_F(trust_test, point_of_other_data_is_as_good_as_starting_values) {
    const population p = first_population(), q = make_population(90, 2, 1, 0.2, 64);
    bring_study(make_study(p, {}));
    finish("--aireml30");
    const auto v = read_best_point().values; // residual, then animal
    ASSERT_EQ(v.size(), 6u);
    bring_study(make_study(q, {}));
    finish("-c --powell");
    const best_point continued = read_best_point();
    const auto block = [&](const std::string& name, std::size_t at) {
        return "VAR " + name + " 2\n " + list_item(v[at]) + " " + list_item(v[at + 1]) + " " + list_item(v[at + 2]) +
               "\n";
    };
    layout l;
    l.residual = block("residual", 0);
    l.animal = block("animal", 3);
    bring_study(make_study(q, l));
    finish("--powell");
    const best_point given = read_best_point();
    EXPECT_NEAR(continued.loglike, given.loglike, 1e-6);
    for (std::size_t k = 0; k < 6; ++k) EXPECT_NEAR(continued.values[k], given.values[k], 1e-5);
}

TEST_F(trust_test, point_of_another_model_stops_the_run) {
    const population p = first_population();
    const study first = make_study(p, {});
    bring_study(first);
    finish("--aireml3");
    const std::string point = read_file("BestPoint");
    const std::vector<std::pair<layout, std::string>> others{
        {{.fixed = " FIX herd\n COV age(1,POL)\n"}, "effects"},
        {{.animal = "VAR animal 2 DIA\n 4.5 3.5\n"}, "blocks"},
        {{.residual = "VAR residual 2\n 6.0 0.0 5.5\n"}, "blocks"},
        {{.analysis = "MUV PC 2", .animal = "VAR animal 2 1\n 4.5 1.5 3.5\n"}, "blocks"}};
    for (const auto& [l, names] : others)
        for (const char* options : {"-c", "--best", "-c --blup"}) {
            bring_study(make_study(p, l));
            const auto result = run(options);
            EXPECT_EQ(result.status, 1) << options;
            EXPECT_NE(result.output.find(
                          "***** ERROR : \"BestPoint\" belongs to another model\n      Different : " + names + "\n"),
                      std::string::npos)
                << options << " " << names << "\n"
                << result.output;
            EXPECT_EQ(read_file("BestPoint"), point);
        }
    study traits = first;
    for (const char* y : {"y1", "y2"}) { // the traits change their names
        auto& t = traits.parameters;
        for (std::size_t at = 0; (at = t.find(y, at)) != std::string::npos; at += 2) t[at] = 'z';
    }
    bring_study(traits);
    const auto result = run("--best");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("      Different : traits\n"), std::string::npos) << result.output;
    bring_study(first);
    finish("--best");
    finish("-c --aireml30");
}

TEST_F(trust_test, spoilt_files_are_made_anew) {
    const study s = make_study(first_population(), {});
    expect_as_fresh(s, "first");
    std::mt19937 rng(77);
    for (const std::string name : {"nrminvers1.bin", "adjacency.bin", "eqnsorder.bin", "symbfact.bin"})
        for (int turn = 0; turn < 12; ++turn) {
            const std::string whole = read_file(name);
            std::string spoilt = whole;
            const std::size_t at = rng() % whole.size();
            if (turn % 3 == 2)
                spoilt.resize(at);
            else
                spoilt[at] = static_cast<char>(spoilt[at] ^ (1 << (rng() % 8)));
            write_file(name, spoilt);
            if (name == "adjacency.bin") std::filesystem::remove("eqnsorder.bin"); // or the pattern is not looked at
            expect_as_fresh(s, name + " spoilt at " + std::to_string(at));
            EXPECT_TRUE(read_file(name) == whole) << name << " spoilt at " << at;
        }
}

// Those that only some runs leave: inbreeding coefficients for simulations, the factor of the relationship matrix.
TEST_F(trust_test, other_spoilt_files_are_made_anew) {
    std::mt19937 rng(79);
    const auto spoil = [&](const std::string& name, int turn) {
        std::string text = read_file(name);
        const std::size_t at = rng() % text.size();
        if (turn % 3 == 2)
            text.resize(at);
        else
            text[at] = static_cast<char>(text[at] ^ (1 << (rng() % 8)));
        write_file(name, text);
    };
    for (const auto& [options, names] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"--simul2", {"inbreed.bin", "nrminvers1.bin"}}, {"--super --aireml6", {"cholnrm1.bin", "inbreed.bin"}}}) {
        const study s = make_study(first_population(), {}, options);
        write_file("RandomSeeds", "1234567 7654321\n");
        expect_as_fresh(s, options);
        std::map<std::string, std::string> whole;
        for (const auto& name : names) whole[name] = read_file(name);
        for (const auto& name : names)
            for (int turn = 0; turn < 9; ++turn) {
                spoil(name, turn);
                // coefficients are wanted where the inverse is taken over, or made with it
                if (name == "inbreed.bin" && turn % 2 == 1) spoil("nrminvers1.bin", turn);
                write_file("RandomSeeds", "1234567 7654321\n");
                expect_as_fresh(s, options + ", " + name + " spoilt");
                EXPECT_TRUE(read_file(name) == whole[name]) << options << " " << name;
            }
    }
}

TEST_F(trust_test, spoilt_point_is_not_used) {
    const study s = make_study(first_population(), {});
    bring_study(s);
    finish("--aireml3");
    const std::string whole = read_file("BestPoint");
    std::mt19937 rng(78);
    for (int turn = 0; turn < 30; ++turn) {
        std::string spoilt = whole;
        const std::size_t at = rng() % whole.size();
        if (turn % 3 == 2)
            spoilt.resize(at);
        else
            spoilt[at] = static_cast<char>(spoilt[at] ^ (1 << (rng() % 7)));
        write_file("BestPoint", spoilt);
        const auto result = run("--best");
        EXPECT_EQ(result.status, 1) << at;
        EXPECT_NE(result.output.find("***** ERROR : No usable \"BestPoint\" found - nothing to report !\n"),
                  std::string::npos)
            << result.output;
    }
}

} // namespace
