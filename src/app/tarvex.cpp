// Tarvex: REML estimates of covariance components and BLUP in linear mixed models of animal breeding.
#include "app/phases.h"

int main(int argc, char** argv) { return tarvex::run_phases(argc, argv); }
