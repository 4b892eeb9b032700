// Files and lists of the parameters.
//
// ListofCovs: number, name and starting value of each covariance, then of the sums that the user defines. AvInfoParms:
// log L; then i, j, der2(i,j) for i = 1..nparm, j = i..nparm. AvInfoCovs: the same with minus devl2. Values are in the
// units of the data.
#pragma once

namespace tarvex {

// ListofCovs from model.cov, with details on the screen too. After lay_out_parameters; a file that cannot be opened is
// left out.
void write_listofcovs();
// Under verbose the parameters of estimates.parvec, with their names.
void list_parameters();

// AvInfoParms with xlike in front; AvInfoCovs unless principal. After average_info and jacob_var2chol.
void write_avinfo(double xlike);

} // namespace tarvex
