// Reads the parameter file: the description of one analysis.
//
// Owns the modules model, datafile, zerout and usrdefcovs (model.h), and sets numbers.nq and numbers.krand, the file
// names of data, pedigrees, starting values and residual codes, the entries of randasfix and the flags of options that
// stand under "From the parameter file".
//
// Each line begins with a keyword, of which three letters count, in any case:
//   COM text                     comment for the reports
//   DAT file [GRP] .. END        data file and its columns
//   PED file [SIR]               pedigree file
//   STA file                     file of starting values; must stand in front of VAR
//   ANA UNI | MUV [PC] n | RR [PC]
//   MOD [EQ] .. END              model; needs ANA
//   VAR name order [rank] [DIA] [+], then the covariances; needs MOD
//   ZER .. END, PSE [factor] .. END, SE+ .. END
#pragma once

namespace tarvex {

// Reads the file named by filenames.parfile. Every fault prints its message and ends the run (stoptarvex).
void read_parfile();

} // namespace tarvex
