#include "control/runlock.h"

#include "control/filenames.h"
#include "control/tvxroutines.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

namespace tarvex {

namespace {

int held = -1; // the locked file, open until the lock is given back; -1: none

// What the run that holds the lock has written.
std::string holder(int file) {
    char text[256];
    const ssize_t n = pread(file, text, sizeof text, 0);
    std::string s(text, std::max<std::ptrdiff_t>(n, 0));
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

void sign(int file) {
    const std::string there = holder(file);
    if (!there.empty() && !there.starts_with("process ")) return; // a file of the user's under another name
    const std::string text = "process " + std::to_string(getpid()) + ", parameter file \"" + filenames.parfile + "\"\n";
    if (ftruncate(file, 0) != 0) return;
    if (pwrite(file, text.data(), text.size(), 0) < 0) return; // for the reader's eye only: the lock does not need it
}

} // namespace

void unlock_folder() {
    if (held >= 0) close(held);
    held = -1;
}

void lock_folder() {
    unlock_folder();
    // the lock is of the open file: it ends with the process, however that ends
    const int file = open(lock_name, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) {
        print_list(screen(), "Cannot lock this folder (" + std::string(std::strerror(errno)) +
                                 ") - make sure that no other run works in it");
        return;
    }
    if (flock(file, LOCK_EX | LOCK_NB) == 0) {
        held = file;
        return sign(file);
    }
    const int fault = errno;
    // anything else: a file system that knows no locks
    if (fault == EWOULDBLOCK) {
        print_list(screen(), "***** ERROR : Another run is at work in this folder : " + holder(file));
        close(file);
        stoptarvex();
    }
    close(file);
    print_list(screen(), "File system without locks (" + std::string(std::strerror(fault)) +
                             ") - make sure that no other run works in this folder");
}

} // namespace tarvex
