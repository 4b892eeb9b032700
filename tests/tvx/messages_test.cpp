// docs/messages.md and the sources of the program tell of the same texts, and each example there gives its message.
#include "tvx/companion.h"

#include <cstring>
#include <regex>
#include <set>

namespace {

using namespace tvx_tests;
using tarvex::lines_of;
using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;
using texts = std::vector<std::string>;

const std::string source = TVX_SOURCE_DIR;

// ---- texts in the sources

struct literal {
    std::string file, text, before; // before: the statement up to the text
};

// Text without blanks at the ends and with single ones inside.
std::string plain(const std::string& text) {
    std::string s;
    for (const auto& word : tarvex::words_of(text)) s += (s.empty() ? "" : " ") + word;
    return s;
}

// Reads a source letter by letter: comments are passed over, literals that follow each other are one.
class literal_reader {
public:
    literal_reader(const std::string& file, const std::string& code) : file_(file), code_(code) {}

    std::vector<literal> read() {
        while (at_ < code_.size()) step();
        return std::move(found_);
    }

private:
    bool here(const char* text) const { return code_.compare(at_, std::strlen(text), text) == 0; }

    void step() {
        const char c = code_[at_];
        if (here("//")) {
            at_ = std::min(code_.find('\n', at_), code_.size());
        } else if (c == '\'' && at_ > 0 && !std::isdigit(static_cast<unsigned char>(code_[at_ - 1]))) {
            at_ = code_.find('\'', at_ + (code_[at_ + 1] == '\\' ? 3 : 2)) + 1;
            before_ += "''";
        } else if (c == '"') {
            take();
        } else {
            if (c == ';' || c == '{' || c == '}') before_.clear();
            if (!std::isspace(static_cast<unsigned char>(c))) joined_ = false;
            if (c != ';' && c != '{' && c != '}') before_ += c;
            ++at_;
        }
    }

    void take() {
        std::string text;
        for (++at_; code_[at_] != '"'; ++at_) {
            if (code_[at_] == '\\') ++at_;
            text += code_[at_];
        }
        ++at_;
        if (joined_)
            found_.back().text += text;
        else
            found_.push_back({file_, text, before_});
        joined_ = true;
    }

    std::string file_, code_, before_;
    std::size_t at_ = 0;
    bool joined_ = false;
    std::vector<literal> found_;
};

std::vector<literal> literals_of_program() {
    std::vector<literal> all;
    for (const auto& entry : fs::recursive_directory_iterator(source + "/src")) {
        const std::string name = fs::relative(entry.path(), source + "/src").string();
        if (name.starts_with("tvx/") || (!name.ends_with(".cpp") && !name.ends_with(".h"))) continue;
        for (auto& l : literal_reader(name, read_file(entry.path())).read()) {
            l.text = plain(l.text);
            all.push_back(std::move(l));
        }
    }
    return all;
}

// Words of progress and of reports that only sound like trouble.
const std::set<std::string> no_trouble{
    "\"Tarvex\" has finished !",
    "\" Missing value",
    "*** AIREML has converged",
    "HASH : increase size",
    "No. of measurement error variance classes =",
    "Previous ordering better - using that !",
    "Sire model !",
    "*** (PX-) EM has converged !",
    "*** (PX-) EM has converged",
};

bool told_in_trouble(const literal& l) {
    static const std::regex stops("(\\b(rdpar_err|stop|stop_with|model_err|name_err|class_error|not_found|tvx_noalloc)"
                                  "\\s*\\(|\\bmissing =|_failure =|store_full =)");
    static const std::regex words(
        "\\berror\\b|warning|cannot|can not|could not|fail|invalid|exceed|missing|not found|wrong|too "
        "(many|small|large|big|"
        "short)|no match|mis-?match|not match|not positive|not of full rank|not converged|no better|out of range|"
        "incompl|inconsist|identical|disagree|unusable|no usable|not recognised|doubt|dubious|caution| !$",
        std::regex::icase);
    static const std::regex letters("[A-Za-z]{2}");
    if (!std::regex_search(l.text, letters) || l.text.starts_with("(") || no_trouble.contains(l.text)) return false;
    if (l.before.find("static_assert") != std::string::npos || l.before.find("#include") != std::string::npos)
        return false;
    return std::regex_search(l.before, stops) || (l.text.size() > 7 && std::regex_search(l.text, words));
}

// ---- entries of the page

struct entry {
    texts headings;
    std::string body;
};

texts in_backquotes(const std::string& line) {
    texts found;
    for (std::size_t a = line.find('`'), b; a != std::string::npos; a = line.find('`', b + 1)) {
        b = line.find('`', a + 1);
        if (b == std::string::npos) break;
        found.push_back(line.substr(a + 1, b - a - 1));
    }
    return found;
}

std::vector<entry> entries_of_page() {
    std::vector<entry> all;
    bool inside = false;
    for (const std::string& line : lines_of(read_file(source + "/docs/messages.md"))) {
        if (line.starts_with("### ")) all.push_back({in_backquotes(line), {}});
        if (line.starts_with("#")) inside = line.starts_with("### ");
        if (inside && !line.starts_with("#")) all.back().body += line + "\n";
    }
    return all;
}

// Both plain.
bool same_message(const std::string& heading, const std::string& text) {
    return text.starts_with(heading) || heading.starts_with(text) ||
           (text.size() >= 6 && heading.find(text) != std::string::npos);
}

TEST(messages, all_have_an_entry) {
    texts headings;
    for (const auto& e : entries_of_page())
        for (const auto& h : e.headings) headings.push_back(plain(h));
    const auto known = [&](const std::string& text) {
        return std::any_of(headings.begin(), headings.end(), [&](const auto& h) { return same_message(h, text); });
    };
    int n = 0;
    for (const auto& l : literals_of_program()) {
        if (!told_in_trouble(l)) continue;
        ++n;
        EXPECT_TRUE(known(l.text)) << "docs/messages.md has no heading with `" << l.text << "` of src/" << l.file
                                   << ": add an entry with cause, remedy and example";
    }
    EXPECT_GT(n, 300);
}

TEST(messages, of_the_page_are_all_told_by_the_program) {
    const auto all = literals_of_program();
    for (const auto& e : entries_of_page())
        for (const auto& h : e.headings) {
            const std::string a = plain(h);
            const auto told = [&](const literal& l) {
                return l.text.find(a) != std::string::npos ||
                       (l.text.size() >= 8 && a.find(l.text) != std::string::npos);
            };
            EXPECT_TRUE(std::any_of(all.begin(), all.end(), told))
                << "no source has the text `" << h << "` of docs/messages.md";
        }
}

TEST(messages, have_cause_remedy_and_example) {
    const auto entries = entries_of_page();
    EXPECT_GT(entries.size(), 100u);
    for (const auto& e : entries) {
        ASSERT_FALSE(e.headings.empty());
        EXPECT_FALSE(e.body.starts_with("**")) << e.headings[0];
        EXPECT_TRUE(holds(e.body, "\n**Remedy:** ")) << e.headings[0];
        EXPECT_TRUE(holds(e.body, "\n**Example:** ")) << e.headings[0];
    }
}

// The table of findings is that of tvx explain.
TEST(messages, of_tvx_check_are_in_the_table) {
    static const std::regex code("[A-Z][0-9]{3}"), row("\\| [A-Z][0-9]{3} \\|.*");
    std::vector<std::string> explained, told;
    const auto all = literal_reader("", read_file(source + "/src/tvx/explain.cpp")).read();
    for (std::size_t k = 0; k + 2 < all.size(); ++k)
        if (std::regex_match(all[k].text, code))
            explained.push_back("| " + all[k].text + " | " + all[k + 1].text + " | " + all[k + 2].text + " |");
    for (const std::string& line : lines_of(read_file(source + "/docs/messages.md")))
        if (std::regex_match(line, row)) told.push_back(line);
    EXPECT_GT(told.size(), 30u);
    EXPECT_EQ(told, explained);
}

// ---- examples of the page

struct trial {
    std::string file, from, to, name, options; // file: folder/name, empty: nothing is changed
};

std::string with_line_ends(std::string text) {
    for (std::size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, "\n");
    return text;
}

// "in `folder/file` write `B` for `A`", "in `folder/file` delete `A`", "run `folder`", each with "with `OPTIONS`".
bool read_trial(const std::string& body, trial& t) {
    const auto at = body.find("**Example:** ");
    if (at == std::string::npos) return false;
    const std::string text = body.substr(at + 13);
    const texts parts = in_backquotes(text);
    const bool run = text.starts_with("run `"), in = text.starts_with("in `");
    if (!run && !in) return false;
    std::size_t used = 1;
    t = {};
    const std::string folder = parts[0].substr(0, parts[0].find('/'));
    t.name = folder;
    if (in) {
        t.file = parts[0].substr(parts[0].find('/') + 1);
        const bool removes = holds(text, "` delete `");
        t.from = with_line_ends(parts.at(removes ? 1 : 2));
        t.to = removes ? "" : with_line_ends(parts.at(1));
        used = removes ? 2 : 3;
    } else if (holds(text, "` as `")) {
        t.name = parts.at(used++);
    }
    if (parts.size() > used) t.options = parts[used];
    for (const auto& entry : fs::directory_iterator(source + "/examples/" + folder))
        fs::copy_file(entry.path(), entry.path().filename(), fs::copy_options::overwrite_existing);
    return true;
}

class message_examples : public tarvex::tarvex_test {};

TEST_F(message_examples, give_their_message) {
    int n = 0;
    const fs::path top = fs::current_path();
    for (const auto& e : entries_of_page()) {
        const fs::path place = top / ("e" + std::to_string(++n));
        fs::create_directory(place);
        fs::current_path(place);
        trial t;
        if (!read_trial(e.body, t)) continue;
        if (!t.file.empty()) {
            std::string text = read_file(t.file);
            const auto at = text.find(t.from);
            ASSERT_NE(at, std::string::npos) << "no \"" << t.from << "\" in " << t.file << " for " << e.headings[0];
            text.replace(at, t.from.size(), t.to);
            write_file(t.file, text);
        }
        auto args = tarvex::words_of(t.options);
        args.push_back(t.name);
        const auto told = tarvex::run_program(args);
        EXPECT_TRUE(std::any_of(e.headings.begin(), e.headings.end(),
                                [&](const std::string& h) { return holds(plain(told.output), plain(h)); }))
            << "the example of `" << e.headings[0] << "` prints\n"
            << told.output;
    }
    fs::current_path(top);
    EXPECT_GT(n, 100);
}

} // namespace
