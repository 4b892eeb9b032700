#include "support/stop.h"

#include "support/screen.h"

namespace tarvex {

void stop(std::string_view text) { stop(text, 1); }

void stop(std::string_view text, int status) {
    // what has been said stands before the stop
    flush_all();
    throw program_stop{std::string(text), status};
}

} // namespace tarvex
