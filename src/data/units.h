// Units in which traits are worked out. Limits on pivots, eigenvalues and small variances are absolute, so the records
// of a trait whose standard deviation is far from 1 are divided by a power of two near it when they are recoded.
// model.cov, files and reports always hold the units of the data.
#pragma once

namespace tarvex {

// Unit of trait iq: means.unit, 1 where there is none.
double trait_unit(int iq);
bool any_unit();
// Unit for a standard deviation: 1 for those of ordinary size.
double unit_for(double sdev);
// Sets means.unit from means.tr_var and tells of units other than 1.
void set_units();

} // namespace tarvex
