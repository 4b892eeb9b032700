#include "control/tvxroutines.h"

#include "control/filenames.h"
#include "control/options.h"
#include "support/edit_form.h"
#include "support/stop.h"
#include "support/tasks.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <iostream>

namespace tarvex {

namespace {

constexpr std::array<int, 3> version{TVX_VERSION}; // year, month, day

// "dd-mm-yyyy"; a number of one digit leaves the zero in front of it.
std::string version_text() {
    char text[40];
    std::snprintf(text, sizeof text, "%02d-%02d-%04d", version[2], version[1], version[0]);
    return text;
}

// Divides by zero on purpose: under a debugger the run halts where it was stopped. Machines on which the division does
// not trap come back from here.
__attribute__((noinline, no_sanitize("undefined"))) int provoke_fault() {
    volatile int one = 1, none = 0;
    return one / none;
}

std::string two_digits(int n) {
    char text[16];
    std::snprintf(text, sizeof text, "%02d", n % 100);
    return text;
}

} // namespace

std::string program_version() { return version_text(); }

std::string version_number() {
    return std::to_string(version[0]) + "." + std::to_string(version[1]) + "." + std::to_string(version[2]);
}

double cpu_time() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

void tvxtimes(int mode, std::string_view label) {
    const double tt = cpu_time();
    if (!label.empty() && (options.verbose || options.print_times)) {
        if (mode == 2)
            write(screen(), "(9h***Time: ,a,t30,f15.1,16h Used since last,f12.1)", label, tt, tt - times.prev);
        else
            write(screen(), "(9h***Time: ,a,t30,f15.1)", label, tt);
    }
    times.prev = tt;
}

void stoptarvex() {
    if (options.verbose) screen().line("Programmed (error) stop for \"Tarvex\" encountered");
    flush_all();
    // the quotient is used, or the division would not be made
    if (options.details) print_list(screen(), provoke_fault());
    stop(options.verbose ? "exit" : "exit \"Tarvex\"");
}

void stop_with(std::string_view line) {
    screen().line(line);
    stoptarvex();
}

void tvx_notyet() {
    screen().line("*** Tarvex is work in progress !");
    screen().line("Unfortunately, the combination of features selected (model and");
    screen().line("run time options) for this run of Tarvex has not yet been fully");
    screen().line("tested or implemented.");
    stoptarvex();
}

std::string finish_run() {
    // the last line is printed by whoever ends the run
    if (!options.verbose) return "\"Tarvex\" done";
    screen().line("\"Tarvex\" has finished !");
    return {};
}

void tvx_noalloc(std::string_view name, long long n) {
    write(screen(), "(3a)", " Cannot allocate large array : \"", name, "\"");
    write(screen(), "(a,i12,a)   ", " ... size required           : ", n, " elements");
    stoptarvex();
}

void tvx_caution() {
    screen().line("*** Tarvex is work in progress !");
    screen().line("    The combination of features selected has not ");
    screen().line("    been fully tested/fault trapped & may cause");
    screen().line("    problems - Proceed with CAUTION ! ");
    pause_for_operator();
}

void pause_for_operator() {
    flush_all();
    std::string answer;
    // end of input counts as the answer: batch runs go on
    std::getline(std::cin, answer);
}

int threads_wanted() { return options.threads > 0 ? options.threads : usable_threads(); }

void write_tvxtop(text_out& out, std::string_view message, bool wide) {
    const std::string date = version_text();
    if (wide)
        write(out, "(7(1h=),9h Version ,a,1x,39(1h=), 8h **ZQ** ,38(1h=)/)", date);
    else
        write(out, "(7(1h=),9h Version ,a,1x,39(1h=), 8h **ZQ** , 4(1h=)/)", date);
    write(out, "(8x,2a)", "Program Tarvex : ", message);
    if (wide)
        write(out, "(112(1h=) ,/)");
    else
        write(out, "(78(1h=) ,/)");
}

void write_tvxbottom(text_out& out, bool wide) {
    const std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    const std::string day = two_digits(t.tm_mday), month = two_digits(t.tm_mon + 1),
                      year = std::to_string(t.tm_year + 1900), hour = two_digits(t.tm_hour),
                      minute = two_digits(t.tm_min);
    constexpr edit_form line78{"(8(1h=),a,28(1h=),a,2(1h-,a),10(1h=),a,1h:,a,4(1h=))"},
        line112{"(8(1h=),a,28(1h=),a,2(1h-,a),10(1h=),a,1h:,a,38(1h=))"};
    write(out, wide ? line112 : line78, " end of file ", day, month, year, hour, minute);
    out.close();
}

} // namespace tarvex
