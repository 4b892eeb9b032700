// Names of all files, relative to the working directory.
#pragma once
#include <string>

namespace tarvex {

struct filenames_module {
    std::string adjacfile = "adjacency.bin";
    std::string aicovsfile = "AvInfoCovs";
    std::string aiparsfile = "AvInfoParms";
    std::string best2file = "BestSoFar.out";
    std::string bestfile = "BestPoint";
    std::string cholnrmfile = "cholnrm0.bin"; // eighth character: number of the relationship matrix
    std::string covlstfile = "ListofCovs";
    std::string curoptfile = "CurrentOptions";
    std::string datfile;
    std::string estfile = "SumEstimates.out";
    std::string fixsolfile = "FixSolutions.out";
    std::string inbrdfile = "inbreed.bin";
    std::string me_varfile = "MEVariances";
    std::string newpedfile = "ReducedPedFile.dat";
    std::string nrminvfile = "nrminverse.bin"; // tenth character: number of the relationship matrix
    std::string ordersfile = "eqnsorder.bin";
    std::string parfile = "tarvex.par";
    std::string pedfile;
    std::string recdatfil1 = "recoded1.bin";
    std::string recdatfil2 = "recoded2.bin";
    std::string recdatfil3 = "recoded3.bin";
    std::string recdatfil5 = "recoded5.bin";
    std::string residsfile = "Residuals.dat";
    std::string resultsfile = "Results.json";
    std::string rnseedfile = "RandomSeeds";
    std::string rrcorrelfile = "RanRegCorrels.dat";
    std::string rrratiosfile = "RanRegVarRatios.dat";
    std::string rrvarsfile = "RanRegVariances.dat";
    std::string runopfile = "RunOptions";
    std::string stvalfile;
    std::string summodfile = "SumModel.out";
    std::string sumpedfile = "SumPedigree.out";
    std::string symfacfile = "symbfact.bin";
    std::string iteratesfile = "Iterates";
};
inline filenames_module filenames;

// Names of the numbered scratch files: "nrminvers1.bin", "cholnrm1.bin"; a number of 10 or more yields "*".
std::string nrminv_name(int number);
std::string cholnrm_name(int number);

} // namespace tarvex
