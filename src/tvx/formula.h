// The formula of a study: which traits, and what is fitted for them.
//
//   y1 + y2 ~ herd + herd:year + lin(age) + pol(age,2) + lin(age|sex) + (1|litter) + nrm(animal) + pe(animal)
//
//   herd, herd:year      fixed class, combinations of classes; 1 is a mean
//   lin(x), pol(x,n), leg(x,n), bsp(x,n)   covariable: linear, powers, Legendre polynomials, B-splines; (x|a,n) within
//   a (1|a), (1|a:b)       independent random effect nrm(a), pe(a)        related by the pedigree; independent effect
//   of the same animals nrm(a)&nrm(b)        correlated with each other sire(a), mgs(a)      related by sires and
//   maternal grandsires gin(a,file)          related by the matrix in a file rr(a,x,n[,basis])    random regression on
//   x with n coefficients; a may be nrm(a) or pe(a) res(x: 0-6,7-14)     random regression: classes of residual
//   variances
//
// Models of several traits are parted by ";". Names that are no plain words stand in backquotes.
#pragma once
#include "tvx/term_kind.h"

#include <string>
#include <vector>

namespace tvx {

struct term_range {
    double from = 0.0, to = 0.0;
};

struct formula_term {
    term_kind kind = term_kind::fixed;
    std::vector<std::string> columns; // classes; of a covariable those it is nested in
    std::string covariable;           // of a covariable or a random regression; of res() the control variable
    std::string basis;                // POL, LEG, BSP, BSPL, BSPQ, BSPC; blank: no regression
    int order = 0;
    bool plain_regression = false;  // rr(a,..) that did not say whether a is nrm or pe
    std::string file;               // of gin()
    std::vector<term_range> ranges; // of res()
    int tied = 0;                   // terms with the same number above 0 are correlated
    std::string text;               // as it stands in the formula
};

struct formula_model {
    std::vector<std::string> traits;
    std::vector<formula_term> terms;
};

// Reads a formula. What cannot be read is a fault that shows the place.
std::vector<formula_model> read_formula(const std::string& text);

} // namespace tvx
