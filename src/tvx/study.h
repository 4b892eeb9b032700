// A study: what prep made of a user's table, and how to lead results back to the user's own names and units. prep
// writes it beside the files of the analysis; all later commands read it.
//
// Folder NAME/ of a study:
//   NAME.par       parameter file, with comments
//   NAME.dat       data, NAME.ped pedigree; <effect>.gin, <effect>.codes supplied inverses
//   study.json     all of struct study but the tables below
//   key_<class>.tsv     code, identifier; one line a code, in their order. <class>: study_class::key
//   pedigree.tsv   code, identifier, sire code, dam code, birth, records, line in the pedigree file (0: none)
//   lines.tsv      for each line of NAME.dat: line in the user's table, trait (0: all traits in the line)
#pragma once
#include "tvx/term_kind.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tvx {

// Trait number i of the analysis is traits[i-1]. A value in NAME.dat is the user's value / 10^power: variances of the
// analysis times 10^(2 power), solutions and residuals times 10^power, are in the user's units.
struct study_trait {
    std::string name;   // the user's
    std::string column; // in the parameter file
    int power = 0;
    int missing = -999; // code of a missing record, in NAME.dat
    int number = 0;     // number of the trait
    std::int64_t records = 0;
    double mean = 0.0, sd = 0.0; // of the records used, in the user's units
    bool own_mean = false;       // a mean was added, as no class of the formula holds one
};

// Identifiers of a class: code k of NAME.dat is ids[k-1].
struct study_class {
    std::string key;               // as in key_<key>.tsv; effects name it
    std::vector<std::string> from; // the user's column or columns (an interaction; its ids are joined by ":")
    std::vector<std::string> ids;
};

struct study_effect {
    std::string term;   // as the formula has it: "nrm(animal)"
    std::string name;   // the user's, for tables: "animal", "pe(animal)", "herd:year"
    std::string column; // in the parameter file, without bracket: "animal", "pe_animal"
    std::string block;  // VAR block that holds its covariances: "animal", "animal+dam"; blank if fixed
    int place = 0;      // place of the effect in its VAR block, from 1 (2: dam in animal+dam)
    term_kind kind = term_kind::fixed;
    std::string key;         // class of its levels; blank for a covariable without classes
    std::vector<int> traits; // numbers of the traits that it is fitted for
    std::string basis;       // covariable or random regression: POL, LEG, BSP, BSPL, BSPQ, BSPC
    int order = 0;           // its number of coefficients
    std::string covariable;  // the user's name of the covariable or control variable
    std::string control;     // its column in the parameter file
};

struct study_animal {
    std::string id;
    int sire = 0, dam = 0; // codes; 0 unknown. In a sire model the dam is the maternal grandsire
    std::string birth;     // as in the column that --born names
    int records = 0;       // lines of NAME.dat that name the animal in the first related effect
    std::int64_t line = 0; // line of the pedigree file, 0: it has none
};

struct study_line {
    std::int64_t line = 0; // line of the user's table
    int trait = 0;         // 0: all
};

struct study_drop {
    std::string reason; // "missing herd", "missing age", "no trait recorded"
    std::int64_t records = 0;
};

struct study_input {
    std::string file;
    std::string sum;        // 16 hexadecimal digits over its bytes
    std::int64_t lines = 0; // of records
    char separator = ',';
    bool decimal_comma = false;
};

struct study_residual_class { // of res(day: 0-6,7-14)
    double from = 0.0, to = 0.0;
};

struct study {
    std::string name;    // stem of all files
    std::string folder;  // not written; where it was read
    std::string command; // the command line that made it
    std::string formula;
    std::string analysis; // UNI, MUV, RR
    int rank = 0;         // --rank, 0: full
    bool sire_model = false;
    bool one_line = false;                // all traits stand in one line of NAME.dat
    std::string subject;                  // word behind SUBject: "LINE", columns, or blank
    std::vector<std::string> run_options; // for each run of the program: "--nopru"
    study_input data, pedigree;           // pedigree.file blank: none
    std::vector<std::string> columns;     // of NAME.dat, in order, as the parameter file names them
    std::vector<study_trait> traits;
    std::vector<study_effect> effects;
    std::vector<study_class> classes;
    std::vector<study_residual_class> residuals; // random regression: classes of residual variances; empty: one
    std::string control;                         // random regression: the user's name of the control variable
    std::string control_column;
    int control_power = 0; // value in NAME.dat = user's value * 10^control_power - control_shift
    double control_shift = 0.0;
    std::vector<study_drop> dropped;
    std::vector<std::string> remarks;  // what prep told
    std::vector<study_animal> animals; // code k is animals[k-1]; empty without pedigree
    std::string born;                  // the user's name of the column of births; blank: none
    std::vector<study_line> lines;
};

// Writes study.json and the tables into s.folder. A file that cannot be written in full is a fault.
void write_study(const study& s);
// Reads a study: its folder, or the parameter file or study.json in it. `tables`: also keys, animals and lines.
// What is no study is a fault.
study read_study(const std::string& place, bool tables = true);
// Is there a study ?
bool has_study(const std::string& place);

// Sum over the contents of a study with its tables: 32 hexadecimal digits. How it was made (command line, names of the
// input files, remarks) does not count.
std::string sum_of_study(const study& s);
// Copies the files of a study into a folder, which is made.
void copy_study(const study& s, const std::string& folder);

const study_class* find_class(const study& s, const std::string& key);
const study_trait* find_trait(const study& s, int number);

} // namespace tvx
