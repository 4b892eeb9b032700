#include "parfile/readparfile.h"
#include "parfile/randasfix.h"

#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "parfile/model.h"
#include "parfile/parblocks.h"
#include "support/edit_form.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <iterator>

namespace tarvex {

namespace {

constexpr int nomiss = -123456789; // stands for "no missing value declared"

// Clears what the parameter file sets.
void readpar_init(par_state& s) {
    model = {};
    datafile = {};
    zerout = {};
    usrdefcovs = {};
    randasfix = {};
    numbers.nq = numbers.krand = 0;
    std::fill(std::begin(datafile.missvalue), std::end(datafile.missvalue), nomiss);
    std::fill(std::begin(datafile.trno_pos), std::end(datafile.trno_pos), -1);
    std::fill(std::begin(datafile.iq_newno), std::end(datafile.iq_newno), -1);
    filenames.datfile.clear();
    filenames.pedfile.clear();
    filenames.stvalfile.clear();
    auto& o = options;
    o.comment = o.pedigrees = o.siremodel = o.start_vals = o.equal_model = o.randreg = o.principal = false;
    o.sigam = o.pseudofix = o.renumbered = false;
    s.lines.print_curline = true;
}

std::string file_token(par_lines& p) {
    if (!next_var(p)) rdpar_err(p, "File name is missing !");
    return token(p, file_length);
}

void read_comment(par_state& s) {
    // behind the key word
    model.commentline = trim(std::string_view(s.lines.pline).substr(3));
    options.comment = true;
}

void read_pedfile(par_state& s) {
    if (options.pedigrees) rdpar_err(s.lines, "Pedigree file already given");
    filenames.pedfile = file_token(s.lines);
    options.pedigrees = true;
    // the word behind the name
    options.siremodel = next_var(s.lines) && upper3(token(s.lines)) == "SIR";
    if (options.verbose) print_list(screen(), "Pedigree file : \"", filenames.pedfile, "\"");
}

// Tables that depend on the number of traits. A model read for another number of traits is given up.
void allocate_traits(par_state& s) {
    const int nq = numbers.nq;
    auto& m = model;
    for (auto* a : {&m.nfix, &m.ncov, &m.nrnd, &m.nextra, &m.nmeta, &m.fitmean}) allocate("alloc nfix", *a, nq);
    allocate("alloc fixed", m.fixed, maxfix, nq);
    allocate("alloc covar", m.covar, maxcov, nq);
    allocate("alloc random", m.random, maxrand, nq);
    allocate("alloc rnd_opt", m.rnd_opt, maxrand, nq);
    allocate("alloc extra", m.extra, maxext, nq);
    allocate("alloc rricontrol", m.rricontrol, maxmeta, nq);
    allocate("alloc trait", m.trait, nq);
    s.model_set = s.traits_set = s.nrm_set = false;
    numbers.krand = 0;
}

// [PC] and the number of traits; `count` off: the analysis has one trait.
void read_traitcount(par_lines& p, bool count) {
    numbers.nq = 1;
    bool more = next_var(p);
    std::string t = token(p);
    capitalise(t, 2);
    // makes read_block ask for a rank behind the order of each matrix
    if (more && t == "PC") {
        options.principal = true;
        more = count && next_var(p);
    }
    if (!count) return;
    if (!more) rdpar_err(p, "Number of traits missing");
    numbers.nq = this_digit(p);
    if (numbers.nq > maxnq) rdpar_err(p, "Max. no. of traits exceeded !");
    if (numbers.nq < 1) rdpar_err(p, "Number of traits missing");
}

// Number of the analysis type, 0 if there is no such.
int analysis_type(const std::string& text) {
    static constexpr const char* codes[] = {"UNI", "MUV", "RR", "MRR", "SPE"};
    const std::string code = upper3(text);
    // any word that begins so
    if (code.substr(0, 2) == "RR") return 3;
    for (int i = 0; i < 5; ++i)
        if (code == codes[i]) return i + 1;
    return 0;
}

void read_analysis(par_state& s) {
    auto& p = s.lines;
    end_char(p, 1);
    if (!next_var(p)) rdpar_err(p, "Invalid analysis type specified");
    const int length = std::min(15, p.i3 - p.i1 + 1);
    // for the reports: the word with what follows it, at most 15 characters
    model.analysis = trim(p.pline.substr(p.i1 - 1, length));
    model.anal_type = analysis_type(token(p));
    if (model.anal_type == 0) rdpar_err(p, "Invalid analysis type specified");
    if (model.anal_type == 5) rdpar_err(p, "Special analysis - not yet implemented");
    const bool several = model.anal_type == 2 || model.anal_type == 4;
    options.principal = false;
    options.randreg = model.anal_type == 3 || model.anal_type == 4;
    numbers.nq = 1;
    // "UNI" has one trait and knows no PC
    if (model.anal_type != 1) read_traitcount(p, several);
    // one trait needs no trait number in the data; several may say EQ behind MOD
    options.equal_model = model.anal_type == 1;
    allocate_traits(s);
    // refused only now: faults of the line itself are told before
    if (model.anal_type == 4) tvx_notyet();
    s.analysis_set = true;
    if (!options.verbose) return;
    write(screen(), "(2x,a,i2,3a)", "Analysis type =", model.anal_type, "  \"", model.analysis, "\"");
    write(screen(), "(2x,a,i3)   ", "No. of traits =", numbers.nq);
}

void pass_over(par_state&) {}

struct keyword {
    const char* code;
    void (*read)(par_state&);
};
// The blocks may stand in any order, but for what their readers ask of each other: the analysis in front of the model,
// the model in front of the covariances.
constexpr keyword keywords[] = {
    {"COM", read_comment},   {"DAT", read_data},    {"PED", read_pedfile}, {"STA", read_starting},
    {"ANA", read_analysis},  {"MOD", read_model},   {"VAR", read_covars},  {"ZER", read_zerout},
    {"PSE", read_pseudofix}, {"SE+", read_usrcovs}, {"TOT", pass_over},
};

void open_parfile(par_lines& p) {
    check_text_file(filenames.parfile);
    if (open_text(p.in, filenames.parfile)) return;
    print_list(screen(), "Can not open parameter file !");
    print_list(screen(), "... tried to open \"", filenames.parfile, "\" but failed !");
    stoptarvex();
}

// Is everything there that an analysis needs ?
void check_complete(const par_state& s) {
    const struct {
        bool missing;
        const char* text;
    } parts[] = {{!s.analysis_set, "Type of analysis not given"},
                 {!s.data_spec, "Data file not fully specified"},
                 {!s.model_set, "Model of analysis not fully specified"},
                 {!s.traits_set, "Not enough traits specified"}};
    bool missing = false;
    for (const auto& part : parts)
        if (part.missing) {
            print_list(screen(), part.text);
            missing = true;
        }
    // all that is missing is told at once; a model without relationships may be meant so
    if (!s.nrm_set) print_list(screen(), "No effects with NRM covariance matrix specified !");
    if (missing) rdpar_err(s.lines, "Missing essential information !!!");
    if (numbers.krand == 0) rdpar_err(s.lines, "No covariance components given !");
    if (options.pedigrees && !s.nrm_set) rdpar_err(s.lines, "Pedigree file but no NRM");
    if (!s.nrm_set) print_list(screen(), "    ... as it should be where no pedigree is used");
}

// Variances of a diagonal matrix are estimated on the logarithmic scale, by the machinery of reduced-rank analyses.
void set_logdia() {
    if (options.nologd) return;
    for (int irand = 1; irand <= numbers.krand; ++irand)
        if (model.diagonal(irand) != 0) {
            options.logdia[irand] = true;
            options.principal = true;
        }
}

// On the factor scale log L lacks the levels treated as fixed. At full rank the matrices themselves will do.
void leave_factor_scale() {
    if (!options.principal || !options.pseudofix) return;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        if (model.krfit(irand) == model.kkfit(irand)) continue;
        print_list(screen(),
                   "Levels treated as fixed (PSE) need covariance matrices of full rank : ", model.krandom(irand));
        stoptarvex();
    }
    options.principal = false;
    options.logdia.fill(0);
}

} // namespace

void read_parfile() {
    par_state s;
    readpar_init(s);
    open_parfile(s.lines);
    while (true) {
        s.lines.ucase = true;
        get_pline(s.lines);
        if (s.lines.iend != 0) break;
        const std::string code = s.lines.pline.substr(0, 3);
        const auto* k =
            std::find_if(std::begin(keywords), std::end(keywords), [&](const keyword& x) { return code == x.code; });
        if (k == std::end(keywords)) rdpar_err(s.lines, "Invalid descriptor !");
        k->read(s);
        if (s.lines.iend != 0) break; // the file ended inside the block
    }
    if (options.verbose)
        write(screen(), "(/1x,a,i4,a)", "End of parameter file reached :", s.lines.nline, " lines read");
    check_complete(s);
    // all blocks are known now: REC changes the kind of an effect, DIA the scale of the parameters
    store_covars(s);
    set_logdia();
    leave_factor_scale();
}

} // namespace tarvex
