#include "tvx/children.h"

#include <array>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace tvx {

namespace {

volatile std::sig_atomic_t stops = 0;
extern "C" void note_stop(int) { stops = stops + 1; }

constexpr std::array signals{SIGINT, SIGTERM, SIGHUP};

} // namespace

struct stop_watch::saved {
    std::array<struct sigaction, signals.size()> actions{};
};

stop_watch::stop_watch() : before_(new saved) {
    stops = 0;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        struct sigaction action {};
        action.sa_handler = note_stop;
        sigaction(signals[i], nullptr, &before_->actions[i]);
        if (before_->actions[i].sa_handler != SIG_IGN) sigaction(signals[i], &action, nullptr); // as nohup wants it
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
        if (done == child) return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
        if (done < 0) return 126;
        for (; sent < watch.asked(); ++sent)
            if (kill(-child, SIGINT) != 0) kill(child, SIGINT); // it may not lead its group yet
        meanwhile();
        usleep(++rounds < 100 ? 2000 : 20000);
    }
}

} // namespace tvx
