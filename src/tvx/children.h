// Child processes in groups of their own, to which Ctrl-C is passed on, and Ctrl-C where there is none.
#pragma once
#include <csignal>
#include <functional>
#include <sys/types.h>

namespace tvx {

// Takes note of SIGINT, SIGTERM and SIGHUP while it lives; one at a time.
class stop_watch {
public:
    stop_watch();
    ~stop_watch();
    stop_watch(const stop_watch&) = delete;
    stop_watch& operator=(const stop_watch&) = delete;
    int asked() const; // how often

private:
    struct saved;
    saved* before_;
};

// Waits for a child that leads a group; calls `meanwhile` some times a second. Each signal noted goes to the group as
// SIGINT, once. Returns the exit status, 128 + signal.
int wait_for(pid_t child, const stop_watch& watch, const std::function<void()>& meanwhile);

// From here on Ctrl-C ends the command with one line and status 1, where no child is waited for.
void tell_stops();

// While it lives, SIGINT, SIGTERM and SIGHUP wait.
class stops_held {
public:
    stops_held();
    ~stops_held();
    stops_held(const stops_held&) = delete;
    stops_held& operator=(const stops_held&) = delete;

private:
    sigset_t before_{};
};

} // namespace tvx
