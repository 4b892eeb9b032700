// Tarvex: REML estimates of covariance components and BLUP in linear mixed models of animal breeding.
#include "control/phases.h"
#include "support/screen.h"
#include "support/stop.h"

#include <exception>

int main(int argc, char** argv) {
    int status = 1;
    try {
        tarvex::run_phases(argc, argv);
    } catch (const tarvex::program_stop& end) {
        if (!end.text.empty()) tarvex::screen().line(end.text);
        status = end.status;
    } catch (const std::exception& fault) { // out of memory in a small allocation
        tarvex::screen().line(fault.what());
    }
    tarvex::flush_all();
    return status;
}
