#include "tvx/children.h"

#include "tvx/commands.h"

#include <array>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace tvx {

namespace {

volatile std::sig_atomic_t stops = 0;
extern "C" void note_stop(int) { stops = stops + 1; }

constexpr std::array signals{SIGINT, SIGTERM, SIGHUP};

// Nothing here but what a signal handler may do.
extern "C" void end_here(int) {
    static constexpr char text[] =
        "stopped by Ctrl-C: what stood there before is as it was; the same command begins anew\n";
    static constexpr char object[] =
        "{\"fault\":\"stopped by Ctrl-C: what stood there before is as it was; the same command begins anew\","
        "\"status\":1}\n";
    const ssize_t told =
        display.json ? write(STDOUT_FILENO, object, sizeof object - 1) : write(STDOUT_FILENO, text, sizeof text - 1);
    _exit(told < 0 ? program_stopped : input_fault);
}

} // namespace

void tell_stops() {
    struct sigaction own {
    }, before{};
    // ignored by who started the command: stays so
    sigaction(SIGINT, nullptr, &before);
    own.sa_handler = end_here;
    if (before.sa_handler != SIG_IGN) sigaction(SIGINT, &own, nullptr);
}

stops_held::stops_held() {
    sigset_t set;
    sigemptyset(&set);
    for (const int s : signals) sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &before_);
}

stops_held::~stops_held() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

struct stop_watch::saved {
    std::array<struct sigaction, signals.size()> actions{};
};

stop_watch::stop_watch() : before_(new saved) {
    stops = 0;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        struct sigaction own {};
        own.sa_handler = note_stop;
        sigaction(signals[i], nullptr, &before_->actions[i]);
        if (before_->actions[i].sa_handler != SIG_IGN) sigaction(signals[i], &own, nullptr); // as nohup wants it
    }
}

stop_watch::~stop_watch() {
    for (std::size_t i = 0; i < signals.size(); ++i) sigaction(signals[i], &before_->actions[i], nullptr);
    delete before_;
}

int stop_watch::asked() const { return stops; }

int wait_for(pid_t child, const stop_watch& watch, const std::function<void()>& meanwhile) {
    int sent = 0, rounds = 0;
    for (int state = 0;;) {
        const pid_t done = waitpid(child, &state, WNOHANG);
        // a signal as a shell gives it
        if (done == child) return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
        if (done < 0) return 126;
        // each Ctrl-C goes on to the child, and to what it has started
        for (; sent < watch.asked(); ++sent)
            if (kill(-child, SIGINT) != 0) kill(child, SIGINT); // it may not lead its group yet
        meanwhile();
        // short at first: many children end at once
        usleep(++rounds < 100 ? 2000 : 20000);
    }
}

} // namespace tvx
