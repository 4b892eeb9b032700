#include "app/new_analysis.h"
#include "app/runoptions.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "simulation/simulation.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/screen.h"

using namespace tarvex;

namespace {

// Everything that options set, as one text.
std::string state() {
    const auto& o = options;
    const auto& m = maximise;
    std::string s;
    for (bool flag : {o.aireml,
                      o.algorithm_set,
                      o.bestonly,
                      o.blup,
                      o.continew,
                      o.details,
                      o.devtrace,
                      o.emai,
                      o.emalgorithm,
                      o.mmmposdef,
                      o.nologd,
                      o.nopru,
                      o.optim_ai,
                      o.print_times,
                      o.pxai,
                      o.allped,
                      o.pxem,
                      o.reco_set,
                      o.reconstruct,
                      o.selfing,
                      o.setup_only,
                      o.simulation,
                      o.strict_ai,
                      o.superai,
                      o.tensor_ai,
                      o.terse,
                      o.verbose,
                      o.werbose,
                      o.wide,
                      o.sevars,
                      bool(estimates.reorder)})
        s += flag ? 'T' : 'F';
    for (int l : o.logdia) s += ' ' + std::to_string(l);
    for (int l : orders.metis_opts) s += ' ' + std::to_string(l);
    for (int n : {m.search_type, m.pxem_its, m.aireml_its, m.modify_chol, m.ncycle, m.powell_its, m.simplx_its,
                  orders.order_type, simulation.nrepsim})
        s += ' ' + std::to_string(n);
    for (double x :
         {m.aiconv_like, m.aiconv_norm, m.emconv_like, m.powell_scale, m.simplx_conv, m.simplx_step, numbers.zero})
        s += ' ' + list_item(x);
    return s + ' ' + filenames.parfile;
}

class run_options_test : public tarvex_test {
protected:
    void run(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "tarvex");
        runoptions(static_cast<int>(arguments.size()), arguments.data());
    }
    std::string after(std::vector<const char*> arguments) {
        run(std::move(arguments));
        return state();
    }
    bool told(std::string_view text) const { return screen_text().find(text) != std::string::npos; }
    bool unknown(const char* argument) {
        clear_screen();
        run({argument, "x.par"});
        return screen_text() == "option not recognised " + std::string(argument) + "\n";
    }
};

TEST_F(run_options_test, defaults_are_those_of_the_guide) {
    run({});
    EXPECT_TRUE(options.emalgorithm && options.pxai && options.pxem && options.reconstruct && options.strict_ai);
    EXPECT_FALSE(options.aireml || options.algorithm_set || options.verbose || options.terse || options.optim_ai);
    EXPECT_EQ(maximise.search_type, 6);
    EXPECT_EQ(maximise.pxem_its, 3);
    EXPECT_EQ(maximise.aireml_its, 0);
    EXPECT_EQ(maximise.aiconv_like, 0.0005);
    EXPECT_EQ(maximise.aiconv_norm, 0.0001);
    EXPECT_EQ(maximise.emconv_like, 0.000001);
    EXPECT_EQ(maximise.modify_chol, 2);
    EXPECT_EQ(maximise.ncycle, 1);
    EXPECT_EQ(orders.order_type, 0);
    EXPECT_EQ(numbers.zero, 1.0e-8);
    EXPECT_TRUE(estimates.reorder);
    EXPECT_EQ(filenames.parfile, "tarvex.par");
    EXPECT_EQ(screen_text(), "");
}

TEST_F(run_options_test, every_spelling_of_the_table_is_taken_and_both_mean_the_same) {
    for (const option_record& option : option_table()) {
        if (option.lower == "--limit") continue;
        const std::string lower(option.lower), upper(option.upper);
        clear_screen();
        const std::string by_lower = after({lower.c_str()}), by_upper = after({upper.c_str()});
        EXPECT_EQ(by_lower, by_upper) << lower;
        if (lower == "--tensor") {
            EXPECT_EQ(screen_text(), "option not recognised --tensor\noption not recognised --TENSOR\n");
            EXPECT_FALSE(options.tensor_ai);
            continue;
        }
        EXPECT_EQ(screen_text(), "") << lower;
    }
}

TEST_F(run_options_test, mixed_case_is_not_recognised) {
    for (const option_record& option : option_table()) {
        if (option.lower.size() < 4) continue;
        std::string mixed(option.lower);
        mixed[2] = option.upper[2];
        EXPECT_TRUE(unknown(mixed.c_str())) << mixed;
    }
}

TEST_F(run_options_test, flags_that_each_option_sets) {
    run({"-t"});
    EXPECT_TRUE(options.terse && !options.verbose && !options.werbose);
    run({"-v2", "-t"});
    EXPECT_TRUE(options.terse && !options.verbose && !options.werbose);
    run({"-t", "-v"});
    EXPECT_TRUE(options.verbose && !options.terse && !options.werbose);
    run({"-v2"});
    EXPECT_TRUE(options.verbose && options.werbose);
    run({"--best"});
    EXPECT_TRUE(options.bestonly && options.continew && !options.sevars);
    run({"--aireml", "--blup"});
    EXPECT_TRUE(options.emalgorithm);
    run({"--pxai", "--blup"});
    EXPECT_TRUE(options.blup && options.emalgorithm && !options.pxem && !options.aireml);
    run({"--setup"});
    EXPECT_TRUE(options.setup_only && options.verbose);
    run({"--setuplrg"});
    EXPECT_TRUE(options.setup_only && options.verbose);
    run({"-d"});
    EXPECT_TRUE(options.details && options.verbose && options.print_times);
    run({"--norecon"});
    EXPECT_TRUE(!options.reconstruct && options.reco_set);
    run({"--reconst"});
    EXPECT_TRUE(options.reconstruct && options.reco_set);
    run({"--noreord"});
    EXPECT_FALSE(estimates.reorder);
    run({"--noreord", "--reorder"});
    EXPECT_TRUE(estimates.reorder);
    run({"--mmmpdst"});
    EXPECT_TRUE(options.mmmposdef);
    run({"--mmmpdst", "--nommmpd"});
    EXPECT_FALSE(options.mmmposdef);
    run({"--strictai"});
    EXPECT_TRUE(options.strict_ai && options.optim_ai);
    run({"--optimai", "--nostrict"});
    EXPECT_TRUE(!options.strict_ai && options.optim_ai);
    run({"--optimai", "--nooptai"});
    EXPECT_TRUE(options.strict_ai && !options.optim_ai);
    run({"--self", "--nopru", "--times", "--super", "--wide", "--forchol"});
    EXPECT_TRUE(options.selfing && options.nopru && options.print_times && options.superai && options.wide);
    EXPECT_FALSE(options.allped);
    run({"--allped"});
    EXPECT_TRUE(options.allped && !options.nopru);
    run({"--amd"});
    EXPECT_EQ(orders.order_type, 2);
    run({"--mmd"});
    EXPECT_EQ(orders.order_type, 1);
}

TEST_F(run_options_test, log_diagonals_of_all_blocks_the_residual_included) {
    run({"--logdia"});
    for (int l : options.logdia) EXPECT_EQ(l, 1);
    EXPECT_FALSE(options.nologd);
    run({"--logdia", "--nologd"});
    for (int l : options.logdia) EXPECT_EQ(l, 0);
    EXPECT_TRUE(options.nologd);
}

TEST_F(run_options_test, algorithms_with_their_defaults_and_numbers) {
    run({"--aireml50,0.001"});
    EXPECT_EQ(maximise.aireml_its, 50);
    EXPECT_EQ(maximise.aiconv_like, 0.001);
    EXPECT_TRUE(options.algorithm_set && !options.emalgorithm && !options.pxem);
    EXPECT_EQ(maximise.search_type, 1);
    run({"--simplex"});
    EXPECT_EQ(maximise.search_type, 2);
    EXPECT_EQ(maximise.simplx_its, 1000);
    EXPECT_EQ(maximise.simplx_step, 0.2);
    run({"--simplex9,0.5,0.1"});
    EXPECT_EQ(maximise.simplx_its, 9);
    EXPECT_EQ(maximise.simplx_conv, 0.5);
    EXPECT_EQ(maximise.simplx_step, 0.1);
    run({"--powell"});
    EXPECT_EQ(maximise.search_type, 3);
    EXPECT_EQ(maximise.powell_its, 0);
    EXPECT_EQ(maximise.powell_scale, 0.2);
    run({"--powell7,0.3"});
    EXPECT_EQ(maximise.powell_its, 7);
    EXPECT_EQ(maximise.powell_scale, 0.3);
    run({"--pownew"});
    EXPECT_EQ(maximise.search_type, 4);
    EXPECT_FALSE(options.algorithm_set || options.emalgorithm || options.pxem);
    run({"--emalg100"});
    EXPECT_EQ(maximise.search_type, 5);
    EXPECT_EQ(maximise.pxem_its, 100);
    EXPECT_TRUE(options.algorithm_set && options.emalgorithm && !options.pxem && !options.pxai);
    run({"--emai5,60,0.01"});
    EXPECT_EQ(maximise.search_type, 6);
    EXPECT_EQ(maximise.pxem_its, 5);
    EXPECT_EQ(maximise.aireml_its, 60);
    EXPECT_EQ(maximise.aiconv_like, 0.01);
    EXPECT_TRUE(options.emai && options.algorithm_set && options.pxai && options.emalgorithm && !options.pxem);
    run({"--pxai"});
    EXPECT_TRUE(options.algorithm_set && options.pxai && options.pxem && options.emalgorithm);
    EXPECT_EQ(maximise.pxem_its, 3);
    run({"--cycle"});
    EXPECT_EQ(maximise.ncycle, 222);
    EXPECT_TRUE(options.algorithm_set);
    run({"--cycle4"});
    EXPECT_EQ(maximise.ncycle, 4);
    run({"--simul"});
    EXPECT_EQ(simulation.nrepsim, 1);
    EXPECT_TRUE(options.simulation);
    simulation.newseeds = true;
    run({"--simul3"});
    EXPECT_FALSE(simulation.newseeds);
    EXPECT_EQ(simulation.nrepsim, 3);
    run({"--zero10"});
    EXPECT_EQ(numbers.zero, 1e-10);
}

TEST_F(run_options_test, command_line_comes_after_the_file) {
    write_file("RunOptions", "--aireml\n");
    run({"--pxem"});
    EXPECT_EQ(maximise.search_type, 5);
    EXPECT_TRUE(options.pxem);
}

TEST_F(run_options_test, pxem_alone_has_many_rounds_and_pxai_few) {
    run({"--pxem"});
    EXPECT_EQ(maximise.pxem_its, 5000);
    EXPECT_FALSE(options.pxai);
    run({"--pxem", "--pxai"});
    EXPECT_EQ(maximise.pxem_its, 3);
}

TEST_F(run_options_test, upper_case_emalg_and_pxem_match_as_bare_words_only) {
    EXPECT_TRUE(unknown("--EMALG100"));
    EXPECT_TRUE(unknown("--PXEM100"));
    EXPECT_FALSE(unknown("--emalg100"));
    EXPECT_FALSE(unknown("--EMALG"));
    EXPECT_FALSE(unknown("--PXEM"));
}

TEST_F(run_options_test, unknown_option_is_told_in_one_line_and_the_run_goes_on) {
    run({"--foo", "--amd"});
    EXPECT_EQ(screen_text(), "option not recognised --foo\n");
    EXPECT_EQ(orders.order_type, 2);
}

TEST_F(run_options_test, what_follows_an_option_is_free) {
    run({"-vfoo", "--setupxyz", "-threads"});
    EXPECT_EQ(screen_text(), "");
    EXPECT_TRUE(options.setup_only && options.terse && !options.verbose);
}

TEST_F(run_options_test, continuation_chooses_ai_reml_unless_an_algorithm_is_chosen) {
    run({"-c"});
    EXPECT_EQ(maximise.search_type, 1);
    EXPECT_TRUE(options.continew && options.algorithm_set && !options.emalgorithm && !options.pxem);
    run({"-c", "--pxem"});
    EXPECT_EQ(maximise.search_type, 5);
    EXPECT_TRUE(options.pxem);
}

TEST_F(run_options_test, good_and_bad_return_to_the_automatic_sequence) {
    run({"--aireml", "--good"});
    EXPECT_FALSE(options.algorithm_set);
    EXPECT_EQ(maximise.search_type, 6);
    EXPECT_EQ(maximise.pxem_its, 1);
    EXPECT_TRUE(options.pxai && options.pxem && options.emalgorithm);
    run({"--bad"});
    EXPECT_EQ(maximise.pxem_its, 8);
    EXPECT_EQ(maximise.aireml_its, 0);
    run({"--aireml30", "--bad"});
    EXPECT_EQ(maximise.aireml_its, 60);
    run({"--aireml2000000000", "--bad"}); // doubled as far as it goes
    EXPECT_GT(maximise.aireml_its, 2000000000);
}

TEST_F(run_options_test, numbers_that_are_not_given_leave_the_setting) {
    run({"--aireml50"});
    EXPECT_EQ(maximise.aireml_its, 50);
    EXPECT_EQ(maximise.aiconv_like, 0.0005);
    run({"--aireml,0.001"});
    EXPECT_EQ(maximise.aireml_its, 0);
    EXPECT_EQ(maximise.aiconv_like, 0.001);
    run({"--modaim"});
    EXPECT_EQ(maximise.modify_chol, 2);
    run({"--zero"});
    EXPECT_EQ(numbers.zero, 1e-8);
    run({"--pxai,,0.01"});
    EXPECT_EQ(maximise.pxem_its, 3);
    EXPECT_EQ(maximise.aireml_its, 0);
    EXPECT_EQ(maximise.aiconv_like, 0.01);
}

TEST_F(run_options_test, threads_are_one_unless_they_are_given) {
    run({});
    EXPECT_EQ(options.threads, 1);
    for (const std::vector<const char*>& given : {std::vector<const char*>{"--threads8", "mt3"},
                                                  {"--threads", "8", "mt3"},
                                                  {"--THREADS", "8"},
                                                  {"--threads,", "--threads8"}}) {
        run(given);
        EXPECT_EQ(options.threads, 8) << given[0];
    }
    run({"--threads", "8", "mt3"});
    EXPECT_EQ(filenames.parfile, "mt3.par");
    run({"--threads", "0"});
    EXPECT_EQ(options.threads, 0);
    run({"--threads", "1024"});
    EXPECT_EQ(options.threads, 1024);
    run({"--threads8", "--threads"}); // no number: the setting stays
    EXPECT_EQ(options.threads, 8);
}

TEST_F(run_options_test, threads_without_a_number_take_none_from_the_parameter_file) {
    run({"--threads", "mt3"});
    EXPECT_EQ(options.threads, 1);
    EXPECT_EQ(filenames.parfile, "mt3.par");
    run({"--threads", "--amd", "mt3"});
    EXPECT_EQ(orders.order_type, 2);
}

TEST_F(run_options_test, threads_in_the_file_of_options) {
    write_file("RunOptions", "--threads 3\n");
    run({});
    EXPECT_EQ(options.threads, 3);
    run({"--threads", "2"});
    EXPECT_EQ(options.threads, 2);
}

TEST_F(run_options_test, threads_that_cannot_be_end_the_run) {
    for (const std::vector<const char*>& given : {std::vector<const char*>{"--threads-1"},
                                                  {"--threads", "-1", "mt3"},
                                                  {"--threads", "-1"},
                                                  {"--threads", "1025"},
                                                  {"--threads1025"},
                                                  {"--threads", "99999999999"},
                                                  {"--threads", "2.5", "mt3"},
                                                  {"--threads", "two", "mt3"},
                                                  {"--threadsx"}}) {
        std::string told = given[0];
        if (told == "--threads") told += std::string(" ") + given[1];
        try {
            run(given);
            ADD_FAILURE() << told;
        } catch (const program_stop& end) {
            EXPECT_EQ(end.status, 1);
            EXPECT_EQ(end.text, "invalid number in option " + told);
        }
    }
}

TEST_F(run_options_test, number_that_cannot_be_read_ends_the_run) {
    for (const char* argument :
         {"--airemlx", "--zerox", "--aireml3.0", "--cycle12abc", "--emalg99999999999", "--powell3,y"}) {
        try {
            run({argument});
            ADD_FAILURE() << argument;
        } catch (const program_stop& end) {
            EXPECT_EQ(end.status, 1);
            EXPECT_EQ(end.text, std::string("invalid number in option ") + argument);
        }
    }
}

TEST_F(run_options_test, modification_of_the_ai_matrix_falls_back_to_two) {
    for (const char* argument : {"--modaim5", "--modaim9", "--modaim-1"}) {
        run({argument});
        EXPECT_EQ(maximise.modify_chol, 2) << argument;
    }
    run({"--modaim0"});
    EXPECT_EQ(maximise.modify_chol, 0);
    run({"--MODAIM4"});
    EXPECT_EQ(maximise.modify_chol, 4);
}

TEST_F(run_options_test, second_number_of_em_sets_the_limit_of_ai_reml) {
    run({"--emalg50,0.25"});
    EXPECT_EQ(maximise.aiconv_like, 0.25);
    EXPECT_EQ(maximise.emconv_like, 0.000001);
}

TEST_F(run_options_test, metis_takes_its_four_numbers_in_order) {
    run({"--metis"});
    EXPECT_EQ(orders.order_type, 3);
    EXPECT_EQ(orders.metis_opts, (std::array<int, 8>{3, 1, 2, 1, 0, 1, 0, 5}));
    run({"--metis7,60,3,2"});
    EXPECT_EQ(orders.metis_opts, (std::array<int, 8>{3, 3, 2, 2, 0, 1, 60, 7}));
    run({"--metis,,2"});
    EXPECT_EQ(orders.metis_opts, (std::array<int, 8>{3, 2, 2, 1, 0, 1, 0, 5}));
    run({"--metisall"});
    EXPECT_EQ(orders.order_type, -3);
    EXPECT_EQ(orders.metis_opts, (std::array<int, 8>{3, 1, 2, 1, 0, 1, 0, 5}));
    run({"--METISALL,2"});
    EXPECT_EQ(orders.order_type, -3);
    EXPECT_EQ(orders.metis_opts[6], 2);
    EXPECT_EQ(screen_text(), "");
}

TEST_F(run_options_test, metis_numbers_out_of_range_are_replaced_with_a_message) {
    run({"--metis25,0,7,1"});
    EXPECT_EQ(screen_text(), " Metis option(7) : No. graph separators too large  25\n"
                             "    -> set to value = 14\n"
                             " Metis option(1) : Edge matching 0 invalid option  14\n"
                             "    -> set to value = 1\n");
    EXPECT_EQ(orders.metis_opts[7], 14);
    EXPECT_EQ(orders.metis_opts[1], 1);
}

TEST_F(run_options_test, metis_numbers_at_the_end_of_their_range) {
    for (const char* argument : {"--metis20", "--metis20,0,1", "--metis20,0,3"}) {
        run({argument});
        EXPECT_EQ(orders.metis_opts[7], 20);
        EXPECT_EQ(screen_text(), "") << argument;
    }
    run({"--metis21,0,4"});
    EXPECT_EQ(orders.metis_opts[7], 14);
    EXPECT_EQ(orders.metis_opts[1], 1);
}

TEST_F(run_options_test, name_of_the_parameter_file) {
    const std::string name26(26, 'n'), name25(25, 'n'), name27(27, 'n'), name35(35, 'n');
    EXPECT_EQ(parfile_name("analysis7"), "analysis7.par");
    EXPECT_EQ(parfile_name("run1.par"), "run1.par");
    EXPECT_EQ(parfile_name("abc"), "abc.par");
    EXPECT_EQ(parfile_name("a"), "a.par");
    EXPECT_EQ(parfile_name(".par"), ".par");
    EXPECT_EQ(parfile_name(name25), name25 + ".par");
    EXPECT_EQ(parfile_name(name26), name26);
    EXPECT_EQ(parfile_name(name27), name27);
    EXPECT_EQ(parfile_name(name35), std::string(30, 'n'));
    run({"-v", "analysis7"});
    EXPECT_EQ(filenames.parfile, "analysis7.par");
}

TEST_F(run_options_test, name_that_is_not_last_is_no_name) {
    run({"run1", "-v"});
    EXPECT_EQ(screen_text(), "option not recognised run1\n");
    EXPECT_EQ(filenames.parfile, "tarvex.par");
}

TEST_F(run_options_test, every_line_of_the_file_may_be_the_name) {
    write_file("RunOptions", "first\n--amd\nsecond\n--wide\n");
    run({});
    EXPECT_EQ(filenames.parfile, "second.par");
    EXPECT_TRUE(options.wide);
    EXPECT_EQ(screen_text(), "");
}

TEST_F(run_options_test, blank_lines_of_the_file_are_passed_over_and_others_left_adjusted) {
    write_file("RunOptions", "  --amd\r\n\n\t-v\n   \n");
    run({});
    EXPECT_EQ(orders.order_type, 2);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(filenames.parfile, "tarvex.par");
}

TEST_F(run_options_test, last_line_of_the_file_needs_no_end) {
    write_file("RunOptions", "--amd\n--wide");
    run({});
    EXPECT_TRUE(options.wide);
}

TEST_F(run_options_test, options_are_cut_at_forty_characters) {
    const std::string option = "--f" + std::string(60, 'o');
    run({option.c_str(), "x"});
    EXPECT_EQ(screen_text(), "option not recognised " + option.substr(0, 40) + "\n");
}

TEST_F(run_options_test, limits_print_the_table_and_finish) {
    const char* arguments[] = {"tarvex", "--limit", "--amd"};
    EXPECT_FALSE(runoptions(3, arguments));
    EXPECT_EQ(orders.order_type, 0) << "the run ends with the table";
    EXPECT_TRUE(screen_text().starts_with("********  Hard-coded program limits for \"Tarvex\"     ***********\n"
                                          " Maximum number of traits                          =          33\n"));
    EXPECT_TRUE(told(" Maximum number of combinations of records/animal  =         999\n"));
    EXPECT_TRUE(screen_text().ends_with(" Maximum number of equations in MMM                =     2222222\n"
                                        "\n"
                                        "All other limits on variables are set dynamically & essentially\n"
                                        " only limited by the amount of memory available\n"));
}

TEST_F(run_options_test, trace_goes_to_unit_one_and_makes_no_file_of_its_own) {
    run({"-zq", "--emalg50,0.25", "an1"});
    EXPECT_FALSE(file_exists("CurrentOptions"));
    EXPECT_FALSE(file_exists("fort.1")) << "before the inputs are known";
    write_trace();
    const std::string text = read_file("fort.1");
    EXPECT_TRUE(text.starts_with("Read from command line :     --emalg50,0.25\n"
                                 "Read from command line :     an1\n"
                                 "======= Version "));
    EXPECT_NE(text.find("        Program Tarvex : Current Run options\n"), std::string::npos);
    EXPECT_NE(text.find("reconstruct     T\nlogdiagonals    F F F F F F F F\nreorder         T\n"), std::string::npos);
    EXPECT_NE(text.find("pxem_its        50\naireml_its      0\naiconv_like     0.25\naiconv_norm     1e-04\n"
                        "parameter file  an1.par\n======== end of file =="),
              std::string::npos);
}

TEST_F(run_options_test, trace_of_the_file_breaks_the_line) {
    write_file("RunOptions", "-zq\n--amd\n");
    run({});
    write_trace();
    EXPECT_TRUE(read_file("fort.1").starts_with("Read from \"RunOptions\" : \n--amd\n"));
}

TEST_F(run_options_test, without_trace_nothing_is_written) {
    run({"-v", "--amd"});
    write_trace();
    EXPECT_FALSE(file_exists("fort.1"));
    run({"-zq"});
    new_analysis(); // another one
    write_trace();
    EXPECT_FALSE(file_exists("fort.1"));
}

} // namespace
