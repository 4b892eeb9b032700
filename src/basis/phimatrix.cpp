#include "basis/phimatrix.h"

#include "basis/legendre.h"
#include "basis/splines.h"
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "control/warnings.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"
#include "support/plain_text.h"
#include "support/stop.h"
#include "support/text.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

namespace tarvex {

namespace {

// What tables must agree in to be one. degree and isp are 0 where the basis is no B-spline.
struct table_key {
    int irrc;
    basis_kind basis;
    int order, degree, isp;
    bool operator==(const table_key&) const = default;
};

std::string table_name(const table_key& key) {
    const std::string name = model.rrcontrol(key.irrc);
    const std::string type = name_of(key.basis);
    // the order of fit with as many digits as it has; edit ends the line
    std::string file = key.order < 10 ? edit("(a,1h_,a,i1,4h.baf) ", name, type, key.order)
                                      : edit("(a,1h_,a,i2,4h.baf) ", name, type, key.order);
    while (!file.empty() && file.back() == '\n') file.pop_back();
    return file;
}

// The name of a table if another of the same type and order has taken its own: with the letter of the degree.
std::string lettered(std::string file, int degree) { return file.insert(file.size() - 4, 1, "0LQC"[degree]); }

[[noreturn]] void class_error(const char* what, long long a, long long b) {
    print_list(screen(), "Error reading running no.s for ME variances");
    print_list(screen(), what, a, b);
    stoptarvex();
}

[[noreturn]] void class_error(const char* what, long long a, long long b, long long c) {
    print_list(screen(), "Error reading running no.s for ME variances");
    print_list(screen(), what, a, b, c);
    stoptarvex();
}

// Class of each value from the intervals of a step function.
void classes_of_intervals(const control_list& codes) {
    // intervals may overlap: the first of them counts
    for (int a = 1; a <= codes.size(); ++a) {
        int& run = model.me_run(a);
        run = -1;
        for (int step = model.rr_resteps; step >= 1; --step)
            if (codes(a) >= model.me_range(1, step) && codes(a) <= model.me_range(2, step)) run = step;
        if (run > 0) continue;
        print_list(screen(), "Definition of ME variance step function incomplete");
        print_list(screen(), "  ... no interval found for value ", codes(a));
        stoptarvex();
    }
}

// Class of each value from the user's file: a line with value and class for every level, in order.
void classes_of_file(const control_list& codes) {
    check_text_file(filenames.me_varfile);
    std::ifstream in(filenames.me_varfile, std::ios::binary);
    if (in)
        skip_mark(in);
    else
        print_list(screen(), "Cannot open file \"" + filenames.me_varfile + "\"");
    std::string line;
    for (int a = 1; a <= codes.size(); ++a) {
        long long jage = 0, jj = 0;
        bool good = false;
        // blank lines are passed over
        while (std::getline(in, line)) {
            std::replace_if(
                line.begin(), line.end(), [](char c) { return c == '\t' || c == '\r'; }, ' ');
            if (trim(line).empty()) continue;
            list_reader list(line);
            good = list.next(jage) == list_read::value && list.next(jj) == list_read::value;
            break;
        }
        if (!good) class_error("   ... current level no.", a, codes(a));
        if (jage != codes(a)) class_error("   ... levels do not match", a, codes(a), jage);
        if (jj < 1 || jj > model.rr_resteps)
            class_error("   ... running no. out of range", codes(a), jj, model.rr_resteps);
        model.me_run(a) = static_cast<int>(jj);
    }
}

// The lines are those of the values in the data, in their order.
[[noreturn]] void wrong_value(const std::string& file, int line, long long expected, double found) {
    print_list(screen(), "Error reading user-defined basis function");
    print_list(screen(), "  ... check file : ", file);
    print_list(screen(), "  ... error occured at line", line);
    print_list(screen(), "  ... value of the control variable expected :", expected, " found :", found);
    stoptarvex();
}

void read_table(array<double, 2>& phi, const control_list& codes, const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        print_list(screen(), "Error opening file with user-defined basis function");
        print_list(screen(), " ... check file : ", file);
        stoptarvex();
    }
    check_text_file(file);
    skip_mark(in);
    const auto nord = static_cast<std::size_t>(phi.upper(2));
    std::string line;
    for (int a = 1; a <= codes.size(); ++a) {
        // a line has nord values, or the value of the control variable in front of them
        std::vector<double> row;
        line.clear(); // also left empty by a read behind the end
        std::getline(in, line);
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c == '\t' || c == '\r'; }, ' ');
        list_reader list(line);
        double x = 0.0;
        while (row.size() <= nord && list.next(x) == list_read::value) row.push_back(x);
        // one number more than functions: the first proves that the line belongs to this value
        if (row.size() > nord) {
            if (row.front() != static_cast<double>(codes(a))) wrong_value(file, a, codes(a), row.front());
            row.erase(row.begin());
        }
        if (row.size() < nord) {
            std::string values;
            for (double v : row) values += " " + list_item(v);
            print_list(screen(), "Error reading user-defined basis function");
            print_list(screen(), "  ... check file : ", file);
            print_list(screen(), "  ... error occured at line", a);
            print_list(screen(), "  values read for line", a, " :" + values);
            stoptarvex();
        }
        for (std::size_t k = 1; k <= nord; ++k) phi(a, k) = row[k - 1];
    }
    // whatever follows belongs to a table for other data
    while (std::getline(in, line)) {
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c == '\t' || c == '\r'; }, ' ');
        if (trim(line).empty()) continue;
        print_list(screen(), "Error reading user-defined basis function");
        print_list(screen(), "  ... check file : ", file);
        print_list(screen(), "  ... more lines than the control variable has values :", codes.size());
        stoptarvex();
    }
}

void write_table(const array<double, 2>& phi, const control_list& codes, const std::string& file, basis_kind basis) {
    text_out out;
    if (!out.open(file)) {
        print_list(screen(), "Error open file for output of basis function ", file);
        stoptarvex();
    }
    for (int a = 1; a <= codes.size(); ++a) {
        std::vector<double> row;
        for (int k = 1; k <= phi.upper(2); ++k) row.push_back(phi(a, k));
        // a table of up to 10 functions may be given back as USR; a longer one goes on in further lines, and powers of
        // a raw variable may be large
        if (basis == basis_kind::pol)
            write(out, "(i8,(t9,10f16.6))   ", codes(a), row);
        else
            write(out, "(i8,(t9,10f10.6))   ", codes(a), row);
    }
    out.close();
}

void fill_table(array<double, 2>& phi, const table_key& key, const std::string& file) {
    const control_list& codes = control_codes(key.irrc);
    allocate("all phi", phi, codes.size(), key.order);
    // in front of the range: the user's functions need none, and one value will do
    if (key.basis == basis_kind::usr) return read_table(phi, codes, file);
    if (key.basis == basis_kind::spl) stop("tpf splines not yet");
    // Legendre polynomials take the range of the control variable as (-1,1), over all traits
    const auto tmin = static_cast<double>(codes.front()), tmax = static_cast<double>(codes.back());
    std::vector<double> row(key.order, 1.0);
    for (int a = 1; a <= codes.size(); ++a) {
        const auto x = static_cast<double>(codes(a));
        // powers of the variable as it is, from 0
        if (key.basis == basis_kind::pol)
            for (std::size_t k = 1; k < row.size(); ++k) row[k] = row[k - 1] * x;
        else if (key.basis == basis_kind::leg)
            legendre_row(-1.0 + 2.0 * (x - tmin) / (tmax - tmin), row);
        else if (key.basis == basis_kind::bsp)
            for (std::size_t k = 0; k < row.size(); ++k)
                row[k] = splines.bspmat(key.isp)(bspline_place(key.isp, x), k + 1);
        else
            stop("error phi");
        for (std::size_t k = 0; k < row.size(); ++k) phi(a, k + 1) = row[k];
    }
    write_table(phi, codes, file, key.basis);
}

// Number of the control variable that selects the residual class; 1 where none is named.
int class_control() {
    if (model.me_control.empty()) return 1;
    for (int irrc = 1; irrc <= model.nrrc; ++irrc)
        if (model.rrcontrol(irrc) == model.me_control) return irrc;
    stop_with("Control variable for ME var.s not matched \"" + model.me_control + "\"");
}

vector1<int> shared_controls() {
    vector1<int> shared;
    // records with equal places in these are records of one time
    for (int irrc = 1; irrc <= model.nrrc; ++irrc) {
        bool all = true;
        for (int iq = 1; iq <= numbers.nq; ++iq) all = all && control_place(irrc, iq) > 0;
        if (all) shared.push_back(irrc);
    }
    return shared;
}

} // namespace

int control_place(int irrc, int iq) {
    for (int i = 1; i <= model.nmeta(iq); ++i)
        if (model.rricontrol(i, iq) == model.rrcontrol(irrc)) return i;
    return 0;
}

const control_list& control_codes(int irrc) {
    if (irrc > phimat.control_values.size()) stop("this should not happen");
    return phimat.control_values(irrc);
}

void mm2ages() {
    const int kcontrol = class_control();
    allocate("alloc jjmeta", phimat.jjmeta, numbers.nq);
    for (int iq = 1; iq <= numbers.nq; ++iq) {
        phimat.jjmeta(iq) = kcontrol;
        if (control_place(kcontrol, iq) > 0) continue;
        if (model.rr_resteps > 1)
            stop_with("Trait without the control variable of the ME variances : \"" + model.trait(iq) + "\"");
        // one class alone: any control variable of the trait gives its place
        for (int irrc = model.nrrc; irrc >= 1; --irrc)
            if (control_place(irrc, iq) > 0) phimat.jjmeta(iq) = irrc;
    }
    phimat.shared_controls = shared_controls();
    const control_list& codes = control_codes(kcontrol);
    allocate("all me_run", model.me_run, codes.size());
    model.me_run.fill(1);
    if (model.me_type == residual_kind::het) classes_of_intervals(codes);
    if (model.me_type == residual_kind::ind) classes_of_file(codes);
    phimatrix();
}

std::vector<std::string> basis_files(bool of_user) {
    std::vector<std::string> list;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        // an effect without a control variable has no table
        for (int i = 1; options.randreg && i <= model.nrnd(iq); ++i) {
            const basis_kind basis = mudmap.irropt(i, iq);
            if (mudmap.irmeta(i, iq) < 1 || (basis == basis_kind::usr) != of_user) continue;
            list.push_back(table_name({mudmap.irmeta(i, iq), basis, mudmap.kfitrnd(i, iq), 0, 0}));
            if (basis == basis_kind::bsp) list.push_back(lettered(list.back(), mudmap.ibsdeg(i, iq)));
        }
    return list;
}

void phimatrix() {
    int mrnd = 0;
    for (int iq = 1; iq <= numbers.nq; ++iq) mrnd = std::max(mrnd, model.nrnd(iq));
    allocate("all kkphi", phimat.kkphi, mrnd, numbers.nq);
    std::vector<table_key> keys;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        // equal definitions share a table; degree and spline matter to B-splines alone
        for (int i = 1; i <= model.nrnd(iq); ++i) {
            const basis_kind basis = mudmap.irropt(i, iq);
            table_key key{mudmap.irmeta(i, iq), basis, mudmap.kfitrnd(i, iq), 0, 0};
            if (basis == basis_kind::bsp) {
                key.degree = mudmap.ibsdeg(i, iq);
                key.isp = splines.rn_spline(i, iq);
            }
            const auto at = std::find(keys.begin(), keys.end(), key);
            phimat.kkphi(i, iq) = static_cast<int>(at - keys.begin()) + 1;
            if (at == keys.end()) keys.push_back(key);
        }
    phimat.nphi = static_cast<int>(keys.size());
    allocate("all phi", phimat.phi, phimat.nphi);
    allocate("all phi", phimat.phi_control, phimat.nphi);
    allocate("all phi", phimat.phi_name, phimat.nphi);
    // files of tables are for the user to look at, or (USR) to give
    std::set<std::string> names;
    for (int t = 1; t <= phimat.nphi; ++t) {
        const table_key& key = keys[t - 1];
        phimat.phi_control(t) = key.irrc;
        std::string file = table_name(key);
        if (!names.insert(file).second && key.basis == basis_kind::bsp) // equal order, other degree
            file = lettered(file, key.degree);
        phimat.phi_name(t) = file.substr(0, file.size() - 4);
        fill_table(phimat.phi(t), key, file);
    }
}

} // namespace tarvex
