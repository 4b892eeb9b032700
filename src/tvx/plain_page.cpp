#include "tvx/plain_page.h"

#include <algorithm>

namespace tvx {

std::string plain_page(std::string_view page) {
    std::string text;
    bool block = false, comment = false;
    while (!page.empty()) {
        const auto line = page.substr(0, page.find('\n'));
        page.remove_prefix(std::min(line.size() + 1, page.size()));
        if (comment || line.starts_with("<!--")) {
            comment = line.find("-->") == std::string_view::npos;
        } else if (line.starts_with("```")) {
            block = !block;
        } else {
            if (block && !line.empty()) text += "    ";
            text += line;
            text += '\n';
        }
    }
    return text;
}

} // namespace tvx
