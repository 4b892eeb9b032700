// DAT block: the data file and its columns.
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/model.h"
#include "parfile/parblocks.h"
#include "support/edit_form.h"
#include "support/text.h"

namespace tarvex {

namespace {

void add_column(const par_lines& p, int iq, const std::string& name, int mlev, bool of_trait) {
    int& n = datafile.ndatcol[iq];
    // names are cut: two columns may have become one
    for (int i = 1; i <= n; ++i)
        if (datafile.colname[i][iq] == name)
            rdpar_err(p, "Column named twice, or names that agree in their first 20 characters : \"" + name + "\"");
    if (n == maxcols) rdpar_err(p, "Max. no. of data columns exceeded !");
    ++n;
    datafile.colname[n][iq] = name;
    datafile.mlevels[n][iq] = mlev;
    datafile.name_of_trait[n][iq] = of_trait;
    if (options.verbose) write(screen(), "(2x,a,i3,2x,1h\",a,1h\",i6)   ", "Data - column : ", n, name, mlev);
}

// Number of levels behind a column's name. What is left of a comment counts as none.
int read_mlevels(par_lines& p) {
    if (!next_var(p)) return 0;
    const std::string t = token(p);
    if (t.front() == comment_char) return 0;
    int mm = 0;
    if (!read_integer(t, mm)) rdpar_err(p, "Something wrong parsing line !");
    return mm;
}

// Next line of the block; false at its END or at the end of the file.
bool block_line(par_state& s) {
    get_pline(s.lines);
    if (s.lines.iend != 0) return false;
    if (upper3(s.lines.pline) == "END") {
        s.data_spec = true;
        return false;
    }
    end_char(s.lines, 1);
    return true;
}

// Trait number behind TR; takes it off the line.
int read_traitno(par_lines& p) {
    int iq = 0;
    // "TR 1 name" or "TR1name", with one or two digits
    if (p.pline[2] == ' ') {
        iq = next_digit(p);
        drop_head(p, p.i2 - 1);
    } else {
        if (!is_digit(p.pline[2])) rdpar_err(p, "No trait no. found !");
        const int width = is_digit(p.pline[3]) ? 2 : 1;
        read_integer(std::string_view(p.pline).substr(2, width), iq);
        if (is_digit(p.pline[2 + width])) rdpar_err(p, "Trait no. too big");
        drop_head(p, 2 + width);
    }
    if (iq > maxnq) rdpar_err(p, "Trait no. too big");
    if (iq < 1) rdpar_err(p, "No trait no. found !");
    end_char(p, 1);
    return iq;
}

void read_individual(par_state& s) {
    auto& p = s.lines;
    int iq = 1;
    while (block_line(s)) {
        // columns that follow belong to this trait, so a column whose name begins with TR needs the word COL in front
        if (const std::string head = p.pline.substr(0, 2); head == "TR" || head == "tr" || head == "Tr")
            iq = read_traitno(p);
        if (upper3(p.pline) == "COL") {
            drop_head(p, p.i2 - 1);
            end_char(p, 1);
        }
        // a comment alone
        const std::string name = token(p, name_length);
        if (name.empty() || name.front() == ' ' || name.front() == comment_char) continue;
        add_column(p, iq, name, read_mlevels(p), false);
    }
}

// One name for each trait of the group.
void read_names(par_lines& p, const std::vector<int>& itrvec) {
    for (int iq : itrvec) {
        // a trait left without its column is told when the model is tied to the data
        if (!next_var(p)) return;
        const std::string name = token(p, name_length);
        add_column(p, iq, name, 0, true);
        // the line as it stands, for data that hold all traits in a line
        datafile.grpline.push_back({name, 0});
    }
}

void read_grouped(par_state& s) {
    auto& p = s.lines;
    if (!s.analysis_set) rdpar_err(p, "Give analysis type before grouped data !");
    datafile.grouped = true;
    std::vector<int> itrvec;
    while (block_line(s)) {
        const std::string code = upper3(p.pline);
        if (code == "TRN") {
            itrvec = get_traitnos(p);
            continue;
        }
        if (itrvec.empty()) rdpar_err(p, "Expect line with trait no.s here ");
        if (code == "NAM") {
            read_names(p, itrvec);
            continue;
        }
        const std::string name = token(p, name_length);
        if (name.empty() || name.front() == comment_char) continue;
        const int mm = read_mlevels(p);
        for (int iq : itrvec) add_column(p, iq, name, mm, false);
        datafile.grpline.push_back({name, mm});
    }
    // the file ended: told by the check of what is missing
    if (!s.data_spec) return;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        if (datafile.ndatcol[iq] == 0) rdpar_err(p, "Grouped data : trait(s) omitted");
}

} // namespace

void read_data(par_state& s) {
    auto& p = s.lines;
    if (!next_var(p)) rdpar_err(p, "File name is missing !");
    filenames.datfile = token(p, file_length);
    std::string form = next_var(p) ? token(p) : "";
    capitalise(form, 3);
    // names of columns count as they are written
    p.ucase = false;
    if (form == "GRP")
        read_grouped(s);
    else
        read_individual(s);
}

} // namespace tarvex
