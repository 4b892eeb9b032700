// Pairs of analyses drawn at random from some twenty kinds: the second in the folder of the first gives the bytes of a
// fresh folder. TVX_PAIRS sets how many; a few stand for them in every run of the tests.
#include "used_folder.h"

#include <cstdlib>
#include <random>

using namespace tarvex;

namespace {

class pairs_test : public used_folder {
protected:
    static std::string parameters(const std::string& analysis, const std::string& model, const std::string& blocks,
                                  bool sires = false) {
        return std::string("PED ped.dat") + (sires ? " SIRE" : "") + "\nANA " + analysis +
               "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\nEND\nMOD" +
               (analysis == "UNI" ? "" : " EQ") + "\n" + model + " TR y1 1 -999\n" +
               (analysis == "UNI" ? "" : " TR y2 2 -999\n") + "END\n" + blocks;
    }
    static population people(int which) {
        population p =
            make_population(70, 2, 1 + which % 2, which % 3 == 0 ? 0.0 : 0.2, 100u + static_cast<unsigned>(which / 4));
        if (which % 4 == 1) p.sire[50] = p.sire[50] == 1 ? 3 : 1; // a corrected parent
        if (which % 4 == 2) std::erase_if(p.records, [](const auto& r) { return r.code % 5 == 2; }); // a fold
        if (which % 4 == 3)
            for (auto& r : p.records) r.herd = 1 + (r.herd * 3 + r.code) % 4; // other herds
        return p;
    }
    static study draw(std::mt19937& rng) {
        const auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
        const std::string fixed[] = {" FIX herd\n", " FIX herd\n FIX parity\n", " FIX herd\n COV age(1,POL)\n"};
        const std::string animal = "VAR animal 2\n 4.5 1.5 3.5\n", residual = "VAR residual 2\n 6.0 2.0 5.5\n";
        const std::string perm = " RAN perm IDE\n", perm_block = "VAR perm 2\n 1.0 0.2 1.0\n";
        const population p = people(pick(12));
        study s{p.pedigree(), p.all_traits_lines(), "", ""};
        const std::string f = fixed[pick(3)], nrm = f + " RAN animal NRM\n";
        const std::string one = "VAR animal 1\n 4.5\nVAR residual 1\n 6.0\n";
        switch (pick(9)) {
        case 0:
            s.parameters = parameters("UNI", nrm, one);
            break;
        case 1:
            s.parameters = parameters("UNI", f + " RAN animal IDE\n RAN dam NRM\n",
                                      "VAR animal 1\n 1.0\nVAR dam 1\n 2.0\nVAR residual 1\n 6.0\n");
            break;
        case 2:
            s.parameters = parameters("MUV 2", nrm, animal + residual);
            break;
        case 3:
            s.parameters = parameters("MUV 2", nrm, animal + "VAR residual 2\n 6.0 0.0 5.5\n");
            break;
        case 4:
            s.parameters = parameters("MUV 2", nrm, "VAR animal 2 DIA\n 4.5 3.5\n" + residual);
            break;
        case 5:
            s.parameters = parameters("MUV PC 2", nrm, "VAR animal 2 1\n 4.5 1.5 3.5\n" + residual);
            break;
        case 6:
            s.parameters = parameters("MUV 2", nrm + perm, animal + perm_block + residual);
            break;
        case 7:
            s.parameters = parameters("MUV 2", nrm + perm, perm_block + animal + residual);
            break;
        default:
            s.parameters = parameters("UNI", nrm, one, true);
            break;
        }
        const char* searches[] = {"",          "--aireml6", "--emalg3", "--pxem3",           "--pxai2,6",
                                  "--powell2", "--simplex", "--blup",   "--nopru --aireml6", "--super --aireml4"};
        s.options = searches[pick(10)];
        return s;
    }
};

TEST_F(pairs_test, second_analysis_as_in_a_fresh_folder) {
    const char* wanted = std::getenv("TVX_PAIRS");
    const char* from = std::getenv("TVX_PAIRS_SEED");
    const int pairs = wanted ? std::atoi(wanted) : 12;
    std::mt19937 rng(from ? static_cast<unsigned>(std::atoi(from)) : 2026u);
    int finished = 0;
    for (int k = 1; k <= pairs; ++k) {
        for (const auto& entry : std::filesystem::directory_iterator(".")) std::filesystem::remove_all(entry.path());
        const study first = draw(rng), second = draw(rng);
        outcome(first);
        const reports truth = in_fresh_folder(second), found = outcome(second);
        EXPECT_EQ(found, truth) << "pair " << k << "\n"
                                << first.options << "\n"
                                << first.parameters << "then\n"
                                << second.options << "\n"
                                << second.parameters;
        finished += truth.at("status") == "0" ? 1 : 0;
    }
    EXPECT_GE(finished, pairs / 2) << "most analyses must run to their end for the comparison to say something";
}

} // namespace
