// Tarvex: REML estimates of covariance components and BLUP in linear mixed models of animal breeding.
#include "app/phases.h"
#include "support/screen.h"
#include "support/stop.h"

#include <exception>
#include <new>
#include <string>

namespace {

// A run that has come to its end but could not write all of its reports is no finished run.
tarvex::program_stop checked(tarvex::program_stop end) {
    tarvex::flush_all();
    if (end.status != 0 || tarvex::outputs.failed.empty()) return end;
    tarvex::screen().line("Error writing file \"" + tarvex::outputs.failed + "\"");
    return {"exit \"Tarvex\"", 1};
}

} // namespace

int main(int argc, char** argv) {
    int status = 1;
    try {
        tarvex::run_phases(argc, argv);
    } catch (const tarvex::program_stop& stopped) {
        const auto end = checked(stopped);
        if (!end.text.empty()) tarvex::screen().line(end.text);
        status = end.status;
    } catch (const std::bad_alloc&) { // in a small allocation; large ones are named
        tarvex::screen().line("not enough memory");
    } catch (const std::exception& fault) {
        tarvex::screen().line(fault.what());
    }
    tarvex::flush_all();
    return tarvex::outputs.failed.empty() ? status : 1;
}
