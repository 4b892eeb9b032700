// Recoded files that are not what the run has written: no pass takes them, whatever the form of their records.
#include "recode_fixture.h"

#include "support/stop.h"

namespace tarvex {
namespace {

struct form {
    const char* name;
    const char* parameters;
    const char* data;
};

const form forms[] = {
    {"one record a subject",
     "DAT t.dat\n animal 10\n herd 5\n age\n y\nEND\nPED p\nANA UNI\nMOD\n FIX herd\n COV age(2,POL)\n RAN animal NRM\n"
     " TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
     "1 5 2 5\n2 6 4 5\n3 6 9 5\n"},
    {"repeated records",
     "DAT t.dat\n animal 10\n herd 5\n age\n y\nEND\nPED p\nANA UNI\nMOD\n FIX herd\n RAN animal NRM\n"
     " TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
     "1 5 2 5\n1 6 4 5\n3 6 9 5\n"},
    {"several traits",
     "DAT t.dat\n animal 10\n herd 5\n age\n y1\n y2\nEND\nPED p\nANA MUV 2\nMOD EQ\n FIX herd\n COV age*herd(2,POL)\n"
     " RAN animal NRM\n TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\nVAR animal 2\n 1.0 0.1 1.0\nVAR residual 2\n 2.0 0.1 2.0\n",
     "1 5 2 5 6\n2 6 4 5 -9\n3 6 9 -9 5\n3 5 9 2 5\n"},
    {"random regression",
     "DAT t.dat\n animal 10\n cg 9\n age 40\n y\nEND\nPED p\nANA RR\nMOD\n FIX cg\n RAN animal(3,LEG) NRM\n RRC age\n"
     " TRAIT y 1 -9\nEND\nVAR animal 3\n 9 1 1 9 1 9\nVAR residual 1 HOM\n 2.0\n",
     "2 5 3.7 1.5\n2 6 8 2.5\n1 5 5 3.5\n"}};

class damage_test : public recode_test {
protected:
    void prepare_form(const form& f, bool animals) {
        new_analysis();
        options.superai = animals;
        prepare(f.parameters, f.data, 4);
        recode();
    }
    // True if the pass comes to its end; every index is then one that there is.
    bool passes() {
        bool end = false;
        recdata_pass reading;
        try {
            setup_recdata(reading, filenames.recdatfil2);
            while (next_subject(reading)) expect_indices(reading.record);
            end = true;
        } catch (const program_stop& stopped) {
            EXPECT_EQ(stopped.status, 1);
            EXPECT_NE(screen_text().find("Error reading "), std::string::npos) << screen_text();
        }
        clear_screen();
        return end;
    }
    static void expect_indices(const subject_record& d) {
        for (int k = 1; k <= d.nobs; ++k) {
            EXPECT_TRUE(d.ynq(k) >= 1 && d.ynq(k) <= numbers.nq);
            for (int j = 1; j <= d.mrow; ++j) EXPECT_TRUE(d.ieqnr(j, k) >= 0 && d.ieqnr(j, k) <= d.nr);
            for (int j = 1; j <= d.mcov; ++j) EXPECT_TRUE(d.icov(j, k) >= 0 && d.icov(j, k) <= combinations.ncov);
            for (int j = 1; j <= d.nmeta; ++j) EXPECT_TRUE(d.imeta(j, k) >= 1 && d.imeta(j, k) <= levels.mm_nlev(1, 1));
        }
        for (int j = 1; j <= d.nr; ++j) EXPECT_TRUE(d.jvec(j) >= 0 && d.jvec(j) <= mmequations.neqns + 1);
        EXPECT_TRUE(d.icombi >= (options.randreg ? 0 : 1) && d.icombi <= combinations.ncombi);
    }
};

TEST_F(damage_test, every_byte_and_every_length) {
    for (const form& f : forms)
        for (const bool animals : {false, true}) {
            SCOPED_TRACE(f.name);
            prepare_form(f, animals);
            ASSERT_TRUE(passes());
            for (const auto& name : {filenames.recdatfil1, filenames.recdatfil2}) {
                const std::string whole = read_file(name);
                for (std::size_t at = 0; at < whole.size(); ++at) {
                    std::string spoilt = whole;
                    spoilt[at] = static_cast<char>(spoilt[at] ^ (1 << (at % 8)));
                    write_file(name, spoilt);
                    EXPECT_FALSE(passes()) << name << " changed at " << at;
                    write_file(name, whole.substr(0, at));
                    EXPECT_FALSE(passes()) << name << " cut at " << at;
                }
                write_file(name, whole);
            }
            EXPECT_TRUE(passes());
        }
}

// Were the sums not there: an index that no pass can use stops the run, other values go through.
TEST_F(damage_test, indices_are_looked_at) {
    for (const form& f : forms)
        for (const bool animals : {false, true}) {
            SCOPED_TRACE(f.name);
            prepare_form(f, animals);
            int refused = 0;
            for (const auto& name : {filenames.recdatfil1, filenames.recdatfil2}) {
                const std::string whole = read_file(name);
                for (std::size_t at = 0; at < whole.size(); ++at)
                    for (const char byte : {'\0', '\1', '\7', '\177', '\377'}) {
                        std::string spoilt = whole;
                        spoilt[at] = byte;
                        write_file(name, spoilt);
                        recoded_sums = {};
                        if (!passes()) ++refused;
                    }
                write_file(name, whole);
            }
            EXPECT_GT(refused, 100);
            recoded_sums = {};
            EXPECT_TRUE(passes());
        }
}

// The two files know nothing of one another: what one is about, the other may not say otherwise.
TEST_F(damage_test, files_of_another_run) {
    prepare_form(forms[0], false);
    const std::string heads = read_file(filenames.recdatfil1), lists = read_file(filenames.recdatfil2);
    write_file("t.dat", "1 5 2 5.5\n2 6 4 5\n3 6 9 5\n"); // another observation, no index
    recode();
    EXPECT_TRUE(passes());
    EXPECT_EQ(read_file(filenames.recdatfil2), lists);
    EXPECT_NE(read_file(filenames.recdatfil1), heads);
    write_file(filenames.recdatfil1, heads);
    EXPECT_FALSE(passes());
}

} // namespace
} // namespace tarvex
