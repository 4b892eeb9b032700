// Tarvex: REML estimates of covariance components and BLUP in linear mixed models of animal breeding.
#include "app/helptext.h"
#include "app/phases.h"

#include <iostream>

int main(int argc, char** argv) {
    if (const auto text = tarvex::told_without_run(argc, argv)) {
        std::cout << *text;
        return 0;
    }
    return tarvex::run_phases(argc, argv);
}
