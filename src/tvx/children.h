// Child processes in groups of their own, to which Ctrl-C is passed on.
#pragma once
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

} // namespace tvx
