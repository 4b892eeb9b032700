#include "support/screen.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>
#include <vector>

namespace tarvex {

namespace {
// All texts that are open, so that a stop can flush them.
std::vector<text_out*>& open_outputs() {
    static std::vector<text_out*> all;
    return all;
}
} // namespace

text_out::text_out() { open_outputs().push_back(this); }
text_out::text_out(std::ostream& sink) : sink_(&sink), name_("standard output") { open_outputs().push_back(this); }
text_out::~text_out() {
    close();
    auto& all = open_outputs();
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
}

bool text_out::start(const std::string& name, std::ios::openmode mode) {
    close();
    name_ = name;
    file_.open(name, mode | std::ios::binary);
    if (!file_) {
        note_failure();
        file_.clear();
        return false;
    }
    sink_ = &file_;
    return true;
}

bool text_out::open(const std::string& name) { return start(name, std::ios::out | std::ios::trunc); }
bool text_out::open_append(const std::string& name) { return start(name, std::ios::out | std::ios::app); }

void text_out::note_failure() {
    // the first one is told
    if (outputs.failed.empty()) outputs.failed = name_;
}

bool text_out::close() {
    bool good = true;
    if (file_.is_open()) {
        file_.close();
        good = file_.good();
        if (!good) note_failure();
    }
    // the stream can be opened again
    file_.clear();
    sink_ = nullptr;
    return good;
}

void text_out::line(std::string_view text) {
    if (!sink_) return;
    sink_->write(text.data(), static_cast<std::streamsize>(text.size()));
    sink_->put('\n');
}

void text_out::raw(std::string_view text) {
    if (sink_) sink_->write(text.data(), static_cast<std::streamsize>(text.size()));
}

void text_out::flush() {
    if (sink_ && !sink_->flush()) note_failure();
}

std::ostream* text_out::redirect(std::ostream& sink) {
    // only a text that is not a file has a sink of its own to return to
    std::ostream* before = file_.is_open() ? nullptr : sink_;
    close();
    sink_ = &sink;
    return before;
}

text_out& screen() {
    static text_out out(std::cout);
    return out;
}

void flush_all() {
    screen().flush();
    for (text_out* out : open_outputs()) out->flush();
}

std::string list_item(double x) {
    if (std::isnan(x)) return "NaN";
    if (std::isinf(x)) return x > 0 ? "Infinity" : "-Infinity";
    char text[64];
    const auto end = std::to_chars(text, text + sizeof text, x).ptr;
    std::string s(text, end);
    // a whole number as a real
    if (s.find_first_of(".e") == std::string::npos) s += ".0";
    return s;
}

} // namespace tarvex
