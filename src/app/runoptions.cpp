#include "app/runoptions.h"

#include "control/filenames.h"
#include "control/limits.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "equations/mmmatrix.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "likelihood/solutions.h"
#include "simulation/simulation.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/record_file.h"
#include "support/screen.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <fstream>

namespace tarvex {

namespace {

// ---- numbers inside an option -------------------------------------------------------------------------------------

[[noreturn]] void unreadable(std::string_view arg) { stop("invalid number in option " + std::string(arg)); }

// Takes the numbers behind an option in turn: an empty place and the end of the text leave the setting as it is.
class option_numbers {
public:
    option_numbers(std::string_view rest, std::string_view arg) : reader_(rest), arg_(arg) {}
    option_numbers& take(int& setting, int least = INT_MIN) {
        long long value = 0;
        if (read(value)) {
            // refused rather than cut to 32 bits
            if (value > INT_MAX || value < least) unreadable(arg_);
            setting = static_cast<int>(value);
        }
        return *this;
    }
    option_numbers& take(double& setting) {
        double value = 0.0;
        if (!read(value)) return *this;
        if (!std::isfinite(value)) unreadable(arg_);
        setting = value;
        return *this;
    }

private:
    template <class T> bool read(T& value) {
        if (ended_) return false;
        const list_read r = reader_.next(value);
        if (r == list_read::error) unreadable(arg_);
        ended_ = r == list_read::end;
        return r == list_read::value;
    }
    list_reader reader_;
    std::string_view arg_;
    bool ended_ = false;
};

// ---- what the options do ------------------------------------------------------------------------------------------

using text = std::string_view;

void verbose(text rest, text) {
    options.verbose = true;
    // the later of the two counts
    options.terse = false;
    if (rest.starts_with('2')) options.werbose = true;
}
void terse(text, text) {
    options.terse = true;
    options.verbose = options.werbose = false;
}
void continued(text, text) { options.continew = true; }
void best(text, text) {
    // a report of what is stored: no sampling errors, which would need the data
    options.bestonly = options.continew = true;
    options.sevars = false;
}
void blup(text, text) {
    // covariances on their own scale, as EM has them
    options.blup = options.emalgorithm = true;
    options.aireml = options.pxem = false;
}
void simul(text rest, text arg) {
    options.simulation = true;
    simulation.nrepsim = 1;
    simulation.newseeds = false;
    option_numbers(rest, arg).take(simulation.nrepsim);
}
void setup(text, text) { options.verbose = options.setup_only = true; }
void limit(text, text) {
    struct {
        const char* label;
        int value;
    } const limits[] = {
        {"Maximum number of traits", maxnq},
        {"Maximum number of animals", maxan},
        {"Maximum number of covariables", maxcov},
        {"Maximum number of fixed effects", maxfix},
        {"Maximum number of random effects", maxrand},
        {"Maximum number of extra effects", maxext},
        {"Maximum number of RR control variables", maxmeta},
        {"Maximum number of observations/animal", maxobs},
        {"Maximum number of combinations of records/animal", maxcombi},
        {"Maximum number of values of control variables", maxage},
        {"Maximum number of columns in data file", maxcols},
        {"Maximum number of equations in MMM", maxeqns},
    };
    write(screen(), "(a)", "********  Hard-coded program limits for \"Tarvex\"     ***********");
    for (const auto& l : limits) write(screen(), "(1x,a,t52,1h=,i12)", l.label, l.value);
    screen().line("");
    screen().line("All other limits on variables are set dynamically & essentially");
    screen().line(" only limited by the amount of memory available");
    options.limits = true;
}
void details(text, text) { options.details = options.verbose = options.print_times = true; }
void devtrace(text, text) { options.devtrace = true; }

void nologd(text, text) {
    options.logdia.fill(0);
    options.nologd = true;
}
void logdia(text, text) { // the later one of the two counts
    options.logdia.fill(1);
    options.nologd = false;
}
void reconstruct(text, text) { options.reconstruct = options.reco_set = true; }
void norecon(text, text) {
    options.reconstruct = false;
    options.reco_set = true;
}

// Both messages show the number of separators; that of the edge matching shows it after the cut.
void check_metis_options() {
    auto& opts = orders.metis_opts;
    constexpr edit_form message{"(1x,2a,i4)"};
    if (opts[7] > 20) {
        write(screen(), message, "Metis option(7) : No. graph separators ", "too large", opts[7]);
        screen().line("    -> set to value = 14");
        opts[7] = 14;
    }
    if (opts[1] < 1 || opts[1] > 3) {
        write(screen(), message, "Metis option(1) : Edge matching 0 ", "invalid option", opts[7]);
        screen().line("    -> set to value = 1");
        opts[1] = 1;
    }
}
void metis(text rest, text arg) {
    auto& opts = orders.metis_opts;
    orders.order_type = 3;
    // a later --metis forgets the numbers of an earlier one
    opts = {3, 1, 2, 1, 0, 1, 0, 5};
    if (rest.starts_with("all") || rest.starts_with("ALL")) {
        orders.order_type = -3;
        rest.remove_prefix(3);
        // numbers come behind a comma
        if (!rest.starts_with(',')) rest = {};
    }
    // separators, pruning, matching, refinement
    option_numbers(rest, arg).take(opts[7]).take(opts[6]).take(opts[1]).take(opts[3]);
    check_metis_options();
}
void amd(text, text) { orders.order_type = 2; }
void mmd(text, text) { orders.order_type = 1; }

// A maximiser outside the EM family, chosen by the user.
void choose_search(int search_type) {
    options.emalgorithm = options.pxem = false;
    options.algorithm_set = true;
    maximise.search_type = search_type;
}
void aireml(text rest, text arg) {
    choose_search(1);
    option_numbers(rest, arg).take(maximise.aireml_its, 0).take(maximise.aiconv_like);
}
// The search for hard cases.
void sure(text rest, text arg) {
    choose_search(7);
    options.sure = true;
    option_numbers(rest, arg).take(maximise.aireml_its, 0);
}
void optimai(text, text) { options.strict_ai = options.optim_ai = true; }
void nooptai(text, text) {
    options.strict_ai = true;
    options.optim_ai = false;
}
void tensor(text, text) { options.tensor_ai = true; }
void modaim(text rest, text arg) {
    option_numbers(rest, arg).take(maximise.modify_chol);
    if (maximise.modify_chol >= 5 || maximise.modify_chol < 0) maximise.modify_chol = 2;
}
void simplex(text rest, text arg) {
    choose_search(2);
    maximise.simplx_its = 1000;
    maximise.simplx_step = 0.2;
    option_numbers(rest, arg).take(maximise.simplx_its, 0).take(maximise.simplx_conv).take(maximise.simplx_step);
}
void powell(text rest, text arg) {
    choose_search(3);
    maximise.powell_its = 0;
    maximise.powell_scale = 0.2;
    option_numbers(rest, arg).take(maximise.powell_its, 0).take(maximise.powell_scale);
    if (!(maximise.powell_scale > 0.0)) unreadable(arg);
}
void pownew(text, text) {
    maximise.search_type = 4;
    options.emalgorithm = options.pxem = false;
}
// The second number limits the AI-REML steps' convergence, not that of EM.
void em_alone(text rest, text arg, bool expanded) {
    options.algorithm_set = options.emalgorithm = true;
    options.pxai = false;
    options.pxem = expanded;
    maximise.search_type = 5;
    // in effect: until it has converged
    maximise.pxem_its = 5000;
    option_numbers(rest, arg).take(maximise.pxem_its, 1).take(maximise.aiconv_like);
}
void emalg(text rest, text arg) { em_alone(rest, arg, false); }
void pxem(text rest, text arg) { em_alone(rest, arg, true); }
// EM rounds and then AI-REML, chosen by the user.
void em_then_ai(text rest, text arg) {
    options.algorithm_set = options.pxai = options.emalgorithm = true;
    maximise.pxem_its = 3;
    maximise.search_type = 6;
    option_numbers(rest, arg).take(maximise.pxem_its, 0).take(maximise.aireml_its, 0).take(maximise.aiconv_like);
}
void emai(text rest, text arg) {
    options.emai = true;
    options.pxem = false;
    em_then_ai(rest, arg);
}
void pxai(text rest, text arg) {
    options.pxem = true;
    em_then_ai(rest, arg);
}
// Back to the automatic sequence with a number of rounds that suits the starting values.
void starting_values(int rounds) {
    maximise.pxem_its = rounds;
    options.algorithm_set = false;
    options.pxai = options.pxem = options.emalgorithm = true;
    maximise.search_type = 6;
}
void good(text, text) { starting_values(1); }
void bad(text, text) {
    starting_values(8);
    // twice as many iterates; the product fits into 32 bits
    maximise.aireml_its = std::clamp(maximise.aireml_its, INT_MIN / 2, INT_MAX / 2) * 2;
}
void cycle(text rest, text arg) {
    options.algorithm_set = true;
    maximise.ncycle = 222;
    option_numbers(rest, arg).take(maximise.ncycle, 1);
}
void zero(text rest, text arg) {
    int n = INT_MIN;
    option_numbers(rest, arg).take(n);
    // --zero8 is 1e-8
    if (n != INT_MIN) numbers.zero = std::pow(10.0, -static_cast<double>(n));
}

void accinb(text, text) { solutions.accinb = true; }
void super(text, text) { options.superai = options.write_factor = true; }

// beyond any machine: a slip of the keyboard must not start thousands
constexpr int most_threads = 1024;
void threads(text rest, text arg) {
    option_numbers(rest, arg).take(options.threads);
    if (options.threads < 0 || options.threads > most_threads) unreadable(arg);
}

// AI-REML keeps the factor scale of the residual block in any case.
void forchol(text, text) {}

template <bool options_module::*flag, bool value> void set_flag(text, text) { options.*flag = value; }
template <bool value> void set_reorder(text, text) { estimates.reorder = value; }

// In the order in which they are tried. The compared length is that of the spelling but for: --tensor, which for its
// length never matches, and the upper-case forms of --emalg and --pxem, which match only as bare words.
using om = options_module;
constexpr option_record table[] = {
    {"-v", 2, "-V", 2, verbose},
    {"-t", 2, "-T", 2, terse},
    {"-c", 2, "-C", 2, continued},
    {"--best", 6, "--BEST", 6, best},
    {"--blup", 6, "--BLUP", 6, blup},
    {"--simul", 7, "--SIMUL", 7, simul},
    {"--setup", 7, "--SETUP", 7, setup},
    {"--limit", 7, "--LIMIT", 7, limit},
    {"-d", 2, "-D", 2, details},
    {"-zq", 3, "-ZQ", 3, devtrace},
    {"--nologd", 8, "--NOLOGD", 8, nologd},
    {"--logdia", 8, "--LOGDIA", 8, logdia},
    {"--reorder", 9, "--REORDER", 9, set_reorder<true>},
    {"--noreord", 9, "--NOREORD", 9, set_reorder<false>},
    {"--reconst", 9, "--RECONST", 9, reconstruct},
    {"--norecon", 9, "--NORECON", 9, norecon},
    {"--mmmpdst", 9, "--MMMPDST", 9, set_flag<&om::mmmposdef, true>},
    {"--nommmpd", 9, "--NOMMMPD", 9, set_flag<&om::mmmposdef, false>},
    {"--metis", 7, "--METIS", 7, metis},
    {"--amd", 5, "--AMD", 5, amd},
    {"--mmd", 5, "--MMD", 5, mmd},
    {"--aireml", 8, "--AIREML", 8, aireml},
    {"--strictai", 10, "--STRICTAI", 10, optimai},
    {"--nostrict", 10, "--NOSTRICT", 10, set_flag<&om::strict_ai, false>},
    {"--sure", 6, "--SURE", 6, sure},
    {"--nosure", 8, "--NOSURE", 8, set_flag<&om::sure, false>},
    {"--nooptai", 9, "--NOOPTAI", 9, nooptai},
    {"--optimai", 9, "--OPTIMAI", 9, optimai},
    {"--tensor", 7, "--TENSOR", 7, tensor},
    {"--modaim", 8, "--MODAIM", 8, modaim},
    {"--simplex", 9, "--SIMPLEX", 9, simplex},
    {"--powell", 8, "--POWELL", 8, powell},
    {"--pownew", 8, "--POWNEW", 8, pownew},
    {"--emalg", 7, "--EMALG", 8, emalg},
    {"--pxem", 6, "--PXEM", 8, pxem},
    {"--emai", 6, "--EMAI", 6, emai},
    {"--pxai", 6, "--PXAI", 6, pxai},
    {"--good", 6, "--GOOD", 6, good},
    {"--bad", 5, "--BAD", 5, bad},
    {"--cycle", 7, "--CYCLE", 7, cycle},
    {"--self", 6, "--SELF", 6, set_flag<&om::selfing, true>},
    {"--nopru", 7, "--NOPRU", 7, set_flag<&om::nopru, true>},
    {"--allped", 8, "--ALLPED", 8, set_flag<&om::allped, true>},
    {"--times", 7, "--TIMES", 7, set_flag<&om::print_times, true>},
    {"--threads", 9, "--THREADS", 9, threads},
    {"--super", 7, "--SUPER", 7, super},
    {"--wide", 6, "--WIDE", 6, set_flag<&om::wide, true>},
    {"--forchol", 9, "--FORCHOL", 9, forchol},
    {"--zero", 6, "--ZERO", 6, zero},
    {"--accinb", 8, "--ACCINB", 8, accinb},
    {"--json", 6, "--JSON", 6, set_flag<&om::json, true>},
};

// The first n characters of `arg`, blanks behind its end, against the spelling with blanks behind its own.
bool matches(text arg, text spelling, int n) {
    const auto at = [](text s, std::size_t i) { return i < s.size() ? s[i] : ' '; };
    const std::size_t longest = std::max(static_cast<std::size_t>(n), spelling.size());
    for (std::size_t i = 0; i < longest; ++i)
        // as if both were padded with blanks: "-c" matches "-continue", "--amd" does not match "--am"
        if ((i < static_cast<std::size_t>(n) ? at(arg, i) : ' ') != at(spelling, i)) return false;
    return true;
}

// ---- developer's trace --------------------------------------------------------------------------------------------

std::string left_adjusted(text line) {
    std::string arg(line.substr(0, option_length));
    for (char& c : arg)
        if (c == '\t' || c == '\r') c = ' ';
    return trim(arg);
}

void set_defaults() {
    options = {};
    maximise = {};
    solutions.accinb = false;
    numbers.zero = 1.0e-8;
    orders.order_type = 0;
    orders.metis_opts = {};
    estimates.reorder = true;
    filenames.parfile = "tarvex.par";
}

void read_runoptions(text_out& trace) {
    std::error_code ec;
    if (!std::filesystem::exists(filenames.runopfile, ec)) return;
    check_text_file(filenames.runopfile);
    std::ifstream file(filenames.runopfile);
    if (file) skip_mark(file);
    // a folder opens, but cannot be read
    if (file) file.peek();
    if (!file.is_open() || file.bad()) stop_with("Cannot read file \"" + filenames.runopfile + "\"");
    for (std::string line; std::getline(file, line);) {
        const std::string arg = left_adjusted(line);
        if (arg.empty()) continue; // would be taken for a name
        if (options.devtrace) write(trace, "(3a,t30)", "Read from \"", filenames.runopfile, "\" : ", arg);
        // a last argument without a dash is the parameter file's name
        get_option(arg, true);
        // limits are shown and the run ends: what follows is not looked at
        if (options.limits) return;
    }
    if (file.bad()) stop_with("Cannot read file \"" + filenames.runopfile + "\"");
}

// True for an option whose number may be the next argument.
bool number_may_follow(text arg) { return arg == "--threads" || arg == "--THREADS"; }

void read_command_line(int argc, const char* const* argv, text_out& trace) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = left_adjusted(argv[i]);
        if (arg.empty()) continue;
        if (number_may_follow(arg) && i + 1 < argc) {
            const text next = argv[i + 1]; // the last one is the parameter file unless it is a number
            const bool number = !next.empty() && next.find_first_not_of("+-0123456789") == text::npos;
            if (number || (i + 2 < argc && !next.starts_with('-'))) arg += " " + left_adjusted(argv[++i]);
        }
        if (options.devtrace) write(trace, "(a,t30,a)", "Read from command line : ", arg);
        // options of the file come first, so that the command line wins
        get_option(arg, i == argc - 1);
        if (options.limits) return;
    }
}

// The settings, below the report header.
void write_curropts(text_out& out) {
    const auto& ld = options.logdia;
    write_tvxtop(out, "Current Run options", options.wide);
    print_list(out, "reconstruct    ", options.reconstruct);
    print_list(out, "logdiagonals   ", ld[0] != 0, ld[1] != 0, ld[2] != 0, ld[3] != 0, ld[4] != 0, ld[5] != 0,
               ld[6] != 0, ld[7] != 0);
    print_list(out, "reorder        ", estimates.reorder);
    print_list(out, "emalgorithm    ", options.emalgorithm);
    print_list(out, "pxem           ", options.pxem);
    print_list(out, "pxai           ", options.pxai);
    print_list(out, "emai           ", options.emai);
    print_list(out, "strict_ai      ", options.strict_ai);
    print_list(out, "optim_ai       ", options.optim_ai);
    print_list(out, "tensor_ai      ", options.tensor_ai);
    print_list(out, "mmmposdef      ", options.mmmposdef);
    print_list(out, "order_type     ", orders.order_type);
    print_list(out, "search_type    ", maximise.search_type);
    print_list(out, "continue       ", options.continew);
    print_list(out, "verbose        ", options.verbose);
    print_list(out, "principal      ", options.principal);
    print_list(out, "pxem_its       ", maximise.pxem_its);
    print_list(out, "aireml_its     ", maximise.aireml_its);
    print_list(out, "aiconv_like    ", maximise.aiconv_like);
    print_list(out, "aiconv_norm    ", maximise.aiconv_norm);
    print_list(out, "parameter file ", filenames.parfile);
    write_tvxbottom(out, options.wide);
}

} // namespace

std::span<const option_record> option_table() { return table; }

std::string parfile_name(std::string_view arg) {
    std::string name(trim_right(arg.substr(0, parfile_length)));
    // no room for the ending in 30 characters
    if (name.size() >= 26 || name.ends_with(".par")) return name;
    return name + ".par";
}

void get_option(std::string_view text, bool last) {
    const std::string arg = left_adjusted(text);
    if (last && !arg.starts_with('-')) {
        filenames.parfile = parfile_name(arg);
        return;
    }
    for (const option_record& option : table) {
        if (!matches(arg, option.lower, option.n_lower) && !matches(arg, option.upper, option.n_upper)) continue;
        // what stands behind the spelling: numbers, or nothing
        option.apply(std::string_view(arg).substr(std::min(option.lower.size(), arg.size())), arg);
        return;
    }
    print_list(screen(), "option not recognised", arg);
}

bool runoptions(int argc, const char* const* argv) {
    std::ostringstream lines;
    text_out trace(lines);
    set_defaults();
    read_runoptions(trace);
    if (!options.limits) read_command_line(argc, argv, trace);
    if (options.limits) return false;
    if (options.devtrace) write_curropts(trace);
    trace.flush();
    run_trace.waiting = lines.str();
    // a continued run starts near the maximum
    if (options.continew && !options.algorithm_set) choose_search(1);
    return true;
}

void write_trace() {
    text_out out;
    if (!run_trace.waiting.empty() && out.open("fort.1")) out.raw(run_trace.waiting);
    run_trace.waiting.clear();
}

} // namespace tarvex
