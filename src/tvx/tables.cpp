#include "tvx/tables.h"

#include "tvx/commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tvx {

std::string read_text(const std::string& file) {
    std::error_code ec;
    std::ifstream in(file, std::ios::binary);
    // a folder opens, but cannot be read
    if (!in || std::filesystem::is_directory(file, ec))
        throw fault{"cannot read file \"" + file + "\": " + (in ? "it is a folder" : std::strerror(errno))};
    std::string text;
    if (const auto size = std::filesystem::file_size(file, ec); !ec) text.reserve(size);
    char buffer[1 << 16];
    // the last piece is shorter, and counts
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) text.append(buffer, in.gcount());
    if (in.bad()) throw fault{"cannot read file \"" + file + "\" to its end"};
    return text;
}

void write_text(const std::string& file, std::string_view text) {
    // under another name until it is whole: a reader finds the old file or the new one
    const std::string part = file + ".part";
    std::FILE* out = std::fopen(part.c_str(), "wb");
    bool good = out != nullptr;
    if (good) good = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    // a full disk may show only here, when the buffer is written out
    if (out) good = std::fclose(out) == 0 && good;
    std::error_code ec;
    if (good) std::filesystem::rename(part, file, ec);
    if (good && !ec) return;
    const std::string why = ec ? ec.message() : std::strerror(errno);
    std::filesystem::remove(part, ec);
    throw fault{"cannot write file \"" + file + "\": " + why};
}

void put_field(std::string& out, std::string_view text) {
    for (const char c : text) {
        // one line a record, tabs between fields: these signs are written out
        switch (c) {
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\\':
            out += "\\\\";
            break;
        default:
            out += c;
        }
    }
}

std::string plain_field(std::string_view field) {
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '\\' || i + 1 == field.size()) {
            text += field[i];
            continue;
        }
        // an unknown letter behind the stroke stands for itself, as the stroke does
        const char c = field[++i];
        text += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
    }
    return text;
}

std::vector<std::vector<std::string_view>> table_lines(std::string_view text) {
    std::vector<std::vector<std::string_view>> lines;
    // views into the text: the caller keeps it
    bool heading = true;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (heading) {
            heading = false;
            continue;
        }
        std::vector<std::string_view> fields;
        // "<=": behind a tab at the end stands an empty field
        for (std::size_t from = 0; from <= line.size();) {
            const auto to = std::min(line.find('\t', from), line.size());
            fields.push_back(line.substr(from, to - from));
            from = to + 1;
        }
        lines.push_back(std::move(fields));
    }
    return lines;
}

} // namespace tvx
