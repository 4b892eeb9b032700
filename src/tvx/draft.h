// A study in the making: the user's table taken apart by the formula. Passed from one step of prep to the next.
#pragma once
#include "tvx/csv.h"
#include "tvx/formula.h"
#include "tvx/gin.h"
#include "tvx/pedigree.h"
#include "tvx/prep.h"

namespace tvx {

// Column of classes: rows hold places in a list of identifiers.
struct draft_class {
    std::string name;              // in the data file
    std::string key;               // of its identifiers
    std::vector<std::size_t> cols; // columns of the table that are joined
    std::vector<std::string> from; // their names
    std::string prefix;            // parts copies of one column for several effects: "pe_"
    std::string file;              // of a relationship matrix
    std::shared_ptr<relationship> matrix;
    int parent = 0;               // 1, 2: sire, dam of the animal in cols, out of the pedigree
    bool animals = false;         // codes are those of the pedigree
    std::vector<int> code;        // (rows) 0: missing
    std::vector<std::string> ids; // own identifiers, by code
    int levels = 0;               // largest code
};

// Column of numbers: a covariable or a control variable.
struct draft_number {
    std::string name, from;
    std::size_t col = 0;
    bool control = false;
    std::vector<double> value; // (rows) NaN: missing
    int levels = 0;            // of a control variable: its different values
};

struct draft_effect {
    study_effect e;
    int cls = -1;    // column of its classes
    int number = -1; // column of its covariable
    int tied = 0;
};

struct draft {
    prep_request request;
    na_texts na;
    csv_table table;
    std::vector<formula_model> models;
    pedigree ped;
    std::vector<int> animal_code; // code by place in ped
    bool has_ped = false, randreg = false;
    std::vector<draft_class> classes;
    std::vector<draft_number> numbers;
    std::vector<draft_effect> effects;
    std::vector<std::vector<double>> y; // (traits)(rows) in the units of the analysis, NaN: not used
    std::vector<std::size_t> order;     // rows used, in the order of the data file
    bool repeated = false;              // a subject has several records of a trait
    int subject = -1;                   // class whose codes are the subjects, -1: the record
    study s;
    std::vector<std::string> used_names;
};

// Name for a column of the data file: letters, digits and underscores, unique, no keyword.
std::string column_name(draft& d, const std::string& name, std::size_t length);

// The steps. Each fills its part of the draft and throws all faults that it finds as one.
void lay_out(draft& d);        // effects, classes and covariables of the formula
void read_cells(draft& d);     // numbers and which records are used
void number_classes(draft& d); // codes
void order_records(draft& d);  // subjects, order of the data file

// Starting values of a VAR block: packed upper triangle.
// Residual classes of a random regression: one variance, or one each.
struct start_block {
    std::string name;
    int order = 0;
    std::vector<double> values;
    bool exact = false; // all digits are written
};
std::vector<start_block> starting_values(const draft& d);
// Values of --start in place of these: from a file with the triangles of all blocks, or from the estimates of a run,
// by names of effects and traits. What the run lacks stays.
void take_given_values(draft& d, std::vector<start_block>& blocks);

// Writes all files of the study; adds to d.s what they settle.
void write_analysis(draft& d, const std::vector<start_block>& blocks);

} // namespace tvx
