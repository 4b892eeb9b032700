// The model of analysis and the columns of the data, as the parameter file gives them. Written while it is read; later
// cov by readbestpoint (the stored point in place of the starting values) and fixresvars (components without
// information), me_run with the tables at control values.
#pragma once
#include "control/limits.h"
#include "parfile/covkinds.h"
#include "support/array.h"
#include "support/screen.h"
#include "support/vector1.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tarvex {

// Effects are kept per trait: fixed(i,iq), i = 1..nfix(iq). Allocated by read_parfile once the number of traits is
// known.
struct model_module {
    std::string analysis; // the analysis code as written, up to 15 characters
    int anal_type = 0;    // 1 UNI, 2 MUV, 3 RR, 4 MRR, 5 SPE
    std::string commentline;
    array<std::string, 2> fixed; // (maxfix,nq)
    array<int> nfix;             // (nq)
    array<std::string, 2> covar; // (maxcov,nq) with bracket
    array<int> ncov;
    array<std::string, 2> random; // (maxrand,nq) with bracket in random regression analyses
    array<covariance_kind, 2> rnd_opt;
    array<int> nrnd;
    array<std::string, 2> extra; // (maxext,nq)
    array<int> nextra;
    array<std::string, 2> rricontrol; // (maxmeta,nq)
    array<int> nmeta;
    vector1<std::string> rrcontrol;   // control variables without repeats, across traits
    int nrrc = 0;                     // their number
    array<int> fitmean;               // (nq) 1: a mean is fitted (MEA, MU)
    array<std::string> trait;         // (nq) name of the trait's column
    bool subject_line = false;        // SUBject LINE
    std::vector<std::string> subject; // SUBject: columns that make a subject
    // Covariance blocks, 0 is the residual.
    array<std::string, 1, 0> krandom; // (0:krand)
    array<int, 1, 0> kkfit;           // order of the matrix
    array<int, 1, 0> krfit;           // rank fitted; equals kkfit unless principal
    array<int, 1, 0> diagonal;        // DIA; 0 for the residual
    array<int, 1, 0> correlated;      // 1: a "+" stood on the VAR line
    // Covariances: packed upper triangle row by row; kkfit variances where diagonal; for a residual with steps one
    // triangle after the other.
    array<double, 2, 0> cov; // (maxij,0:krand)
    int rr_resteps = 1;      // classes of residual variances
    residual_kind me_type = residual_kind::none;
    array<int, 2> me_range; // (2,rr_resteps) bounds of the classes of HET, both included
    std::string me_control; // control variable that selects the class; blank: the only (first) one
    array<int> me_run;      // (levels of the control variable) residual class of each running number
};
inline model_module model;

// Covariance matrices of a block: one for each class of residual variances; one of a random effect.
int steps_of(int irand);

// Stored covariances of one of these matrices: the packed triangle, or the kkfit variances of a diagonal block.
int matrix_covs(int irand);
// Length of all of them in a column of model.cov, and the place there of covariance (i,j), i not above j, of matrix
// `step`; a diagonal block has those of i = j alone.
int cov_length(int irand);
int cov_place(int irand, int i, int j, int step = 1);

// Comment line, analysis type and the input files, below the header of a report.
void write_tvxfiles(text_out& out);

struct datafile_module {
    int ndatcol[maxnq + 1] = {};                 // columns named for a trait, from 1
    std::string colname[maxcols + 1][maxnq + 1]; // [column][trait]
    int mlevels[maxcols + 1][maxnq + 1] = {};    // largest number of levels declared, 0 none
    bool grouped = false;                        // GRP form of the DAT block
    struct column {
        std::string name;
        int mlev;
    };
    vector1<column> grpline;                        // grouped form: columns of a line that holds all traits
    int name_of_trait[maxcols + 1][maxnq + 1] = {}; // 1: column named in a NAM line (grouped form)
    int iq_newno[100] = {};                         // [number in the data] number in the analysis; -1 none
    int missvalue[maxnq + 1] = {};
    int trno_pos[maxnq + 1] = {};
};
inline datafile_module datafile;

// Additional dependencies among fixed effects (ZER) and levels of random effects treated as fixed (PSE).
struct zerout_module {
    int nzerout = 0;
    vector1<std::string> addzername; // effect
    vector1<std::int64_t> iaddzer1;  // level code
    vector1<int> iaddzer2;           // trait
};
inline zerout_module zerout;

// User-defined functions of covariances (SE+).
struct usrdefcovs_module {
    struct term {
        int isig;
        double factor;
    };
    int ncovadd = 0;
    vector1<std::string> addcovname;   // names of the sums
    vector1<std::vector<term>> addcov; // their terms; numbers are those of ListofCovs
    int naddgps = 0;
    vector1<std::string> addgpname;     // names of the ratios and correlations
    vector1<std::array<int, 4>> igpadd; // kind (1 ratio, 2 correlation) and covariance numbers
};
inline usrdefcovs_module usrdefcovs;
inline constexpr int maxaddcovs = 40, maxaddterms = 33, maxaddgps = 120;

} // namespace tarvex
