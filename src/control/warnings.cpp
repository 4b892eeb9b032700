#include "control/warnings.h"

#include "control/tvxroutines.h"
#include "support/plain_text.h"
#include "support/screen.h"

namespace tarvex {

void warn(const std::string& kind, const std::string& text) {
    // counted beyond what is shown
    if (++warnings.count[kind] <= most_of_a_kind) print_list(screen(), "***** WARNING : " + text);
}

void sum_up_warnings() {
    for (const auto& [kind, n] : warnings.count)
        if (n > most_of_a_kind) print_list(screen(), "***** WARNING : in all", n, "of this kind : " + kind);
    warnings.count.clear();
}

void check_text_file(const std::string& name) {
    const char* fault = text_fault(name);
    if (fault) stop_with("***** ERROR : File \"" + name + "\" " + fault);
}

} // namespace tarvex
