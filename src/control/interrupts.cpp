#include "control/interrupts.h"

#include "control/filenames.h"
#include "control/options.h"
#include "support/stop.h"

#include <csignal>
#include <string>

namespace tarvex {

namespace {

volatile std::sig_atomic_t signal_seen = 0;

// The second one finds the default, whichever of them it is: the end.
extern "C" void note_signal(int number) {
    if (signal_seen != 0) {
        std::signal(number, SIG_DFL);
        std::raise(number);
    }
    signal_seen = number;
}

const char* name_of(int number) { return number == SIGINT ? "SIGINT" : number == SIGTERM ? "SIGTERM" : "SIGHUP"; }

} // namespace

void catch_signals() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue; // as nohup wants it
        struct sigaction action = {};
        action.sa_handler = note_signal;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        sigaction(number, &action, nullptr);
    }
    // a file size limit shall be a failed write, with its message, not the end
    std::signal(SIGXFSZ, SIG_IGN);
}

int pending_signal() { return signal_seen; }

void end_if_asked(bool stored) {
    const int number = pending_signal();
    if (number == 0) return;
    const std::string what =
        stored ? "\"" + filenames.bestfile + "\" holds the best point so far, go on with option \"-c\""
               : "no point of this run is stored, start it again";
    // the status that a shell gives to a process ended by the signal
    stop(std::string("Stopped by ") + name_of(number) + " : " + what, 128 + number);
}

} // namespace tarvex
