#include "simulation/simulation.h"

#include "basis/phimatrix.h"
#include "control/filenames.h"
#include "control/interrupts.h"
#include "control/limits.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "data/data.h"
#include "data/levels.h"
#include "data/recodedata.h"
#include "data/subjectpass.h"
#include "dense/numroutines.h"
#include "estimation/bestpoint.h"
#include "parameters/parunits.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "simulation/randomseeds.h"
#include "simulation/sampling.h"
#include "support/edit_form.h"
#include "support/record_file.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <map>
#include <string>
#include <vector>

namespace tarvex {

namespace {

// Random levels of one data line: for each trait that it holds, the levels of the trait's random effects and, in random
// regression analyses, those of the control variables.
struct line_levels {
    int first_of_subject = 0; // 1: the line starts a new subject
    std::vector<int> ynq;
    std::vector<int> iraand; // maxrand a trait
    std::vector<int> imeta;  // nrrc a trait
};

std::vector<int> traits_of(const array<double>& dvec, int iq) {
    std::vector<int> list;
    for (int t = iq > 0 ? iq : 1; t <= (iq > 0 ? iq : numbers.nq); ++t)
        // a trait without an observation gets none
        if (!is_missing(t, dvec(mudmap.tr_dcolno(t)))) list.push_back(t);
    return list;
}

int random_level(const array<double>& dvec, int i, int iq) {
    const int irand = mudmap.rn_irand(i, iq);
    const std::int64_t code =
        effect_code(dvec, mudmap.rn_dcolno(i, iq), mudmap.rn_dcolno2(i, iq), levels.rn_base(irand));
    const int level = find_code(code, levels.rn_codes(irand));
    if (level == 0) not_found('r', model.random(i, iq), code, levels.rn_nlev(irand));
    return level;
}

void control_levels(const array<double>& dvec, int iq, std::vector<int>& imeta) {
    for (int irrc = 1; irrc <= model.nrrc; ++irrc) {
        const int i = control_place(irrc, iq);
        int level = 0;
        if (i > 0) {
            const std::int64_t code = effect_code(dvec, mudmap.rr_dcolno(i, iq), 0, 1);
            level = find_code(code, control_codes(irrc));
            if (level == 0) not_found('m', model.rrcontrol(irrc), code, static_cast<int>(control_codes(irrc).size()));
        }
        imeta.push_back(level);
    }
}

// Reads all records and writes their levels to recoded5.bin.
void gather_sim() {
    subject_pass pass;
    open_subjects(pass);
    record_writer file;
    if (!file.open(filenames.recdatfil5)) stop_with("Cannot open file \"" + filenames.recdatfil5 + "\"");
    array<double> dvec;
    allocate("alloc dvecsim", dvec, mudmap.maxcol);
    int iq = 0;
    bool starts = false;
    while (next_record(pass, dvec, iq, starts)) {
        line_levels line;
        line.first_of_subject = starts ? 1 : 0;
        line.ynq = traits_of(dvec, iq);
        for (int t : line.ynq) {
            // maxrand places a trait, 0 where it has fewer effects
            for (int i = 1; i <= maxrand; ++i) line.iraand.push_back(i <= model.nrnd(t) ? random_level(dvec, i, t) : 0);
            if (options.randreg) control_levels(dvec, t, line.imeta);
        }
        file.record(line.first_of_subject, static_cast<int>(line.ynq.size()), line.ynq, line.iraand);
        if (options.randreg) file.record(line.imeta);
    }
    if (!file.close()) stop_with("Cannot write file \"" + filenames.recdatfil5 + "\"");
}

// Levels as gather_sim writes them: they are indices from here on.
bool levels_fit(const line_levels& line) {
    for (std::size_t obs = 0; obs < line.ynq.size(); ++obs) {
        const int iq = line.ynq[obs];
        if (iq < 1 || iq > numbers.nq) return false;
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            const int level = line.iraand[obs * maxrand + i - 1];
            if (level < 1 || level > levels.rn_nlev(mudmap.rn_irand(i, iq))) return false;
        }
        for (int irrc = 1; irrc <= (options.randreg ? model.nrrc : 0); ++irrc) {
            // 0: the trait does not have the variable
            const int least = control_place(irrc, iq) > 0 ? 1 : 0, most = static_cast<int>(control_codes(irrc).size());
            const int level = line.imeta[obs * model.nrrc + irrc - 1];
            if (level < least || level > most) return false;
        }
    }
    return true;
}

bool next_line(record_reader& file, line_levels& line) {
    int n = 0;
    if (!file.next() || !file.get(line.first_of_subject) || !file.get(n) || n < 1 || n > numbers.nq) return false;
    line.ynq.resize(n);
    line.iraand.resize(maxrand * n);
    if (!file.get(std::span<int>(line.ynq)) || !file.get(std::span<int>(line.iraand))) return false;
    line.imeta.resize(options.randreg ? std::ptrdiff_t{n} * model.nrrc : 0);
    return (!options.randreg || file.record(std::span<int>(line.imeta))) && levels_fit(line);
}

// The PEQ matrix, packed as the residual one; zero without such an effect.
std::vector<double> repeat_covariances() {
    std::vector<double> peq(numbers.nq * (numbers.nq + 1) / 2, 0.0);
    int k = 0;
    for (const peq_place& p : peq_places()) peq[p.residual - 1] = model.cov(++k, residualvars.ipeq);
    return peq;
}

// A record of a subject: its trait and the line it stands in.
struct subject_record {
    int iq;
    std::size_t line;
    auto operator<=>(const subject_record&) const = default;
};

// Covariance of two records of a subject that are not one: those of a trait share the repeat effect alone.
double subject_covariance(const subject_record& a, const subject_record& b, const std::vector<double>& peq) {
    const int k = packed_place(a.iq, b.iq, numbers.nq);
    const double p = peq[k - 1];
    // one trait in one line is one record
    if (a.iq == b.iq) return a.line == b.line ? model.cov(k, 0) + p : p;
    // as the likelihood has it for records of two traits
    return model.cov(k, 0) + 2.0 * p;
}

// Draws of residuals, the repeat effect included; the factor of each set of records is formed once.
class residual_draws {
public:
    // One draw for records in ascending order.
    void draw(const std::vector<subject_record>& records, std::span<double> x) {
        auto& chol = factors_[records];
        const int n = static_cast<int>(records.size());
        if (!chol.allocated()) set_sigres_muv(records, chol);
        mvnormal_draw(n, chol, x);
    }

private:
    static void set_sigres_muv(const std::vector<subject_record>& records, array<double, 2>& chol) {
        const std::vector<double> peq = repeat_covariances();
        std::vector<double> sig;
        for (std::size_t i = 0; i < records.size(); ++i)
            for (std::size_t j = i; j < records.size(); ++j)
                // packed upper triangle by rows
                sig.push_back(subject_covariance(records[i], records[j], peq));
        mvnormal_initial(static_cast<int>(records.size()), sig, chol);
    }
    std::map<std::vector<subject_record>, array<double, 2>> factors_;
};

// Residual standard deviations by class, random regression analyses.
std::vector<double> set_sigres_rreg() {
    std::vector<double> sd;
    for (int step = 1; step <= model.rr_resteps; ++step) {
        array<double, 2> chol;
        // one variance for each class
        const double v = model.cov(step, 0);
        mvnormal_initial(1, std::span<const double>(&v, 1), chol);
        sd.push_back(chol(1, 1));
    }
    return sd;
}

double random_part(const line_levels& line, std::size_t obs, const random_samples& u) {
    const int iq = line.ynq[obs];
    double sum = 0.0;
    for (int i = 1; i <= model.nrnd(iq); ++i) {
        const int irand = mudmap.rn_irand(i, iq), level = line.iraand[obs * maxrand + i - 1];
        const int n = model.kkfit(irand), place = mudmap.rn_place(i, iq);
        const double* ul = u[irand - 1].data() + static_cast<std::ptrdiff_t>(level - 1) * n;
        if (!options.randreg) {
            sum += ul[place - 1];
            continue;
        }
        const auto& phi = phimat.phi(phimat.kkphi(i, iq));
        const int a = line.imeta[obs * model.nrrc + mudmap.irmeta(i, iq) - 1];
        // value of the effect's curve at this value of the control variable
        for (int c = 1; c <= mudmap.kfitrnd(i, iq); ++c) sum += phi(a, c) * ul[place + c - 2];
    }
    return sum;
}

double residual_rreg(const line_levels& line, std::size_t obs, const std::vector<double>& sd) {
    static const array<double, 2> unit = [] {
        array<double, 2> one;
        one.allocate(1, 1);
        one(1, 1) = 1.0;
        return one;
    }();
    double z = 0.0;
    // drawn like all others, so that the stream of numbers is one
    mvnormal_draw(1, unit, std::span<double>(&z, 1));
    int step = 1;
    if (model.rr_resteps > 1) {
        const int control = phimat.jjmeta(line.ynq[obs]);
        step = model.me_run(line.imeta[obs * model.nrrc + control - 1]);
    }
    return z * sd[step - 1];
}

// A number as input files have it: codes and whole numbers without a point.
std::string data_item(double x) {
    if (x == std::floor(x) && std::fabs(x) < 1.0e15) return std::to_string(static_cast<long long>(x));
    return list_item(x);
}

int number_in_data(int iq) {
    for (int jq = 1; jq < 100; ++jq)
        // traits are numbered anew where the analysis leaves some out
        if (datafile.iq_newno[jq] == iq) return jq;
    return iq;
}

// Lines of one subject, their texts so far and simulated values.
struct subject_lines {
    std::vector<line_levels> lines;
    std::vector<std::string> texts;
    std::vector<int> records; // their numbers in the data file
};

// Lines that do not come in the order of the data file wait for its end.
struct simulated_lines {
    bool hold = false;
    std::map<int, std::string> held;
};

// The records that are drawn together: with a repeat effect, or where the model says what a subject is, all of the
// subject; else the k-th records of its traits, with all traits in a line those of the line.
std::map<int, std::vector<subject_record>> drawn_together(const subject_lines& s) {
    const bool whole = residualvars.ipeq > 0 || !model.subject.empty();
    std::map<int, std::vector<subject_record>> sets;
    std::map<int, int> met; // records of each trait so far
    for (std::size_t l = 0; l < s.lines.size(); ++l)
        for (const int iq : s.lines[l].ynq) {
            const int k = whole ? 0 : mudmap.alltraits ? static_cast<int>(l) : ++met[iq];
            sets[k].push_back({iq, l});
        }
    for (auto& [k, records] : sets) std::sort(records.begin(), records.end());
    return sets;
}

std::vector<std::vector<double>> subject_residuals_muv(const subject_lines& s, residual_draws& draws) {
    std::vector<std::vector<double>> e;
    for (const auto& line : s.lines) e.emplace_back(line.ynq.size(), 0.0);
    for (const auto& [k, records] : drawn_together(s)) {
        std::vector<double> x(records.size());
        std::vector<subject_record> form = records; // lines by their rank among those of the set
        std::map<std::size_t, std::size_t> rank;
        for (const auto& r : records) rank[r.line] = 0;
        std::size_t n = 0;
        for (auto& [line, at] : rank) at = n++;
        for (auto& r : form) r.line = rank[r.line];
        draws.draw(form, x);
        for (std::size_t i = 0; i < records.size(); ++i) {
            const auto& ynq = s.lines[records[i].line].ynq;
            const auto place = std::find(ynq.begin(), ynq.end(), records[i].iq) - ynq.begin();
            e[records[i].line][place] = x[i];
        }
    }
    return e;
}

void write_subject(simulated_lines& lines, text_out& out, const subject_lines& s, const random_samples& u,
                   residual_draws& draws, const std::vector<double>& sd) {
    std::vector<std::vector<double>> e;
    if (!options.randreg) e = subject_residuals_muv(s, draws);
    for (std::size_t l = 0; l < s.lines.size(); ++l) {
        const line_levels& line = s.lines[l];
        // all traits in a line: those without a record keep their missing value
        std::vector<double> simval(mudmap.alltraits ? numbers.nq : 1);
        if (mudmap.alltraits)
            for (int iq = 1; iq <= numbers.nq; ++iq) simval[iq - 1] = datafile.missvalue[iq];
        for (std::size_t obs = 0; obs < line.ynq.size(); ++obs) {
            const double residual = options.randreg ? residual_rreg(line, obs, sd) : e[l][obs];
            simval[mudmap.alltraits ? line.ynq[obs] - 1 : 0] = random_part(line, obs, u) + residual;
        }
        std::string text = s.texts[l];
        for (double x : simval) text += " " + data_item(x);
        if (lines.hold)
            lines.held.emplace(s.records[l], text);
        else
            out.line(text);
    }
}

std::string columns_text(const array<double>& dvec, int iq) {
    const int n = datafile.ndatcol[column_set(iq > 0 ? iq : 1)];
    // the columns of the record as they were; simulated values come behind them
    std::string text = iq > 0 ? std::to_string(number_in_data(iq)) : data_item(dvec(1));
    for (int c = 2; c <= (iq > 0 ? n : mudmap.maxcol); ++c) text += " " + data_item(dvec(c));
    return text;
}

void make_data(const std::string& name, const random_samples& u, residual_draws& draws, const std::vector<double>& sd) {
    text_out out;
    if (!out.open(name)) stop_with("Cannot open file \"" + name + "\"");
    subject_pass pass;
    open_subjects(pass);
    record_reader file;
    if (!file.open(filenames.recdatfil5)) stop_with("Cannot open file \"" + filenames.recdatfil5 + "\"");
    array<double> dvec;
    dvec.allocate(mudmap.maxcol);
    int iq = 0;
    bool starts = false;
    subject_lines subject;
    simulated_lines lines{pass.sorted, {}};
    while (next_record(pass, dvec, iq, starts)) {
        line_levels line;
        if (!next_line(file, line)) stop_with("Error reading file \"" + filenames.recdatfil5 + "\"");
        if (line.first_of_subject && !subject.lines.empty()) {
            write_subject(lines, out, subject, u, draws, sd);
            subject = {};
        }
        subject.lines.push_back(line);
        subject.texts.push_back(columns_text(dvec, iq));
        subject.records.push_back(pass.record);
    }
    if (file.next()) stop_with("Error reading file \"" + filenames.datfile + "\""); // it had more records before
    if (!subject.lines.empty()) write_subject(lines, out, subject, u, draws, sd);
    for (const auto& [record, text] : lines.held) out.line(text);
}

void report_covariances(const std::vector<std::vector<double>>& simtot) {
    constexpr edit_form line{"(2i4,2g16.6)"};
    if (!options.verbose) return;
    for (int irand = 1; irand <= numbers.krand; ++irand) {
        if (irand == residualvars.ipeq) continue; // drawn with the residuals
        const int n = model.kkfit(irand);
        print_list(screen(), "Random effect no.", irand, levels.rn_nlev(irand));
        // mean of products: expectations are the given covariances
        const double draws = static_cast<double>(levels.rn_nlev(irand)) * simulation.nrepsim;
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) {
                const int ij = ihmssf(i, j, n);
                const double given = !model.diagonal(irand) ? model.cov(ij, irand) : i == j ? model.cov(i, irand) : 0.0;
                write(screen(), line, i, j, given, simtot[irand - 1][ij - 1] / draws);
            }
    }
}

// Simulation at the estimates.
void take_estimates() {
    if (readbestpoint(false)) return;
    print_list(screen(),
               "***** ERROR : No usable \"" + filenames.bestfile + "\" found - no estimates to simulate from !");
    stoptarvex();
}

} // namespace

void simulate_data() {
    if (simulation.nrepsim > 999) stop_with("Max. no. of replicates (999) exceeded !");
    if (simulation.nrepsim < 1) stop_with("No. of replicates must be at least 1 !");
    lay_out_parameters(); // finds the repeat effect
    if (options.continew) take_estimates();
    // the records stand for lines and levels: their values say nothing of the scale of the matrices
    set_units_from_covariances();
    gather_sim();
    setup_randnos();
    residual_draws draws;
    std::vector<double> sd;
    if (options.randreg) sd = set_sigres_rreg();
    random_samples u;
    std::vector<std::vector<double>> simtot;
    for (int irep = 1; irep <= simulation.nrepsim; ++irep) {
        const std::string digits = std::to_string(irep);
        sample_randeffs(u, simtot);
        make_data("SimData" + std::string(3 - digits.size(), '0') + digits + ".dat", u, draws, sd);
        // an interrupt ends the run between replicates: files are whole
        if (irep < simulation.nrepsim) end_if_asked(false);
    }
    report_covariances(simtot);
}

} // namespace tarvex
