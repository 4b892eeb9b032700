#include "tvx/pedigree.h"

#include "tvx/commands.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>

namespace tvx {

namespace {

bool digit(char c) { return c >= '0' && c <= '9'; }

std::string lower(std::string_view text) {
    std::string s(text);
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// Columns of a pedigree: by the names given, by names that are usual, or the first three.
struct places {
    std::size_t animal = 0, sire = 1, dam = 2;
    int born = -1;
};

int usual_column(const csv_table& t, std::initializer_list<std::string_view> names) {
    for (const auto name : names)
        for (std::size_t i = 0; i < t.names.size(); ++i)
            if (lower(t.names[i]) == name) return static_cast<int>(i);
    return -1;
}

places find_places(const csv_table& t, const pedigree_columns& columns, bool grandsires,
                   std::vector<std::string>& remarks) {
    places p;
    if (t.names.size() < 3)
        throw fault{"\"" + t.file + "\" has " + std::to_string(t.names.size()) +
                    " columns: a pedigree has animal, sire and dam"};
    if (!columns.born.empty()) p.born = static_cast<int>(csv_column(t, columns.born, "--born"));
    // named by the user
    if (!columns.sire.empty()) {
        p.animal = csv_column(t, columns.animal, "--pedcols");
        p.sire = csv_column(t, columns.sire, "--pedcols");
        p.dam = csv_column(t, columns.dam, "--pedcols");
        return p;
    }
    int animal = columns.animal.empty() ? -1 : csv_find(t, columns.animal);
    if (animal < 0) animal = usual_column(t, {"animal", "id", "anim", "individual", "ind", "calf", "progeny", "tier"});
    const int sire = usual_column(t, {"sire", "father", "ram", "bull", "male", "sire_id", "vater", "dad"});
    const int dam = grandsires ? usual_column(t, {"mgs", "grandsire", "maternal_grandsire"})
                               : usual_column(t, {"dam", "mother", "ewe", "cow", "female", "dam_id", "mutter", "mum"});
    if (t.heading && animal >= 0 && sire >= 0 && dam >= 0)
        return {static_cast<std::size_t>(animal), static_cast<std::size_t>(sire), static_cast<std::size_t>(dam),
                p.born};
    // columns that the table of records has too are hardly parents
    const auto of_records = [&](const std::string& name) {
        return std::find(columns.hints.begin(), columns.hints.end(), name) != columns.hints.end();
    };
    if (t.heading && of_records(t.names[1]) && of_records(t.names[2]))
        throw fault{"\"" + t.file + "\" has no columns with usual names for parents, and its second and third, \"" +
                    t.names[1] + "\" and \"" + t.names[2] +
                    "\", are columns of the records: say which are meant by --pedcols animal,sire,dam"};
    if (!t.heading) remarks.push_back("pedigree: there is no heading; the first line is taken for an animal");
    remarks.push_back("pedigree: columns " + t.names[0] + ", " + t.names[1] + " and " + t.names[2] +
                      " are taken as animal, sire and " + (grandsires ? "maternal grandsire" : "dam"));
    return p;
}

std::string id_and_line(const pedigree& p, int i) {
    std::string text = shown(p.ids[i]);
    if (p.line[i] > 0) text += " (line " + std::to_string(p.line[i]) + ")";
    return text;
}

// All faults are gathered: a user mends a pedigree once, not fault by fault.
struct findings {
    std::vector<std::string> faults;
    std::vector<std::string> twice; // same line again
    void add(const std::string& what, const std::vector<std::string>& cases) {
        if (!cases.empty()) faults.push_back(what + ":\n" + few_lines(cases, 10));
    }
};

struct pending { // second lines of animals, told when all are known
    std::vector<std::string> nameless, own_parent, other_parents, same_line;
};

void read_line(pedigree& p, const csv_table& t, std::size_t row, const places& at, const na_texts& na, pending& found) {
    const auto parent = [&](std::size_t col) {
        const auto cell = t.at(row, col);
        return cell == "0" || na.missing(cell) ? -1 : pedigree_place(p, cell);
    };
    const std::string line = "line " + std::to_string(t.lines[row]);
    const auto id = t.at(row, at.animal);
    if (id == "0" || na.missing(id)) {
        found.nameless.push_back(line + ": " + shown(id));
        return;
    }
    const int i = pedigree_place(p, id), sire = parent(at.sire), dam = parent(at.dam);
    if (sire == i || dam == i) found.own_parent.push_back(line + ": " + shown(id));
    if (p.line[i] > 0) {
        const bool same = p.sire[i] == sire && p.dam[i] == dam;
        const std::string both =
            shown(id) + ": lines " + std::to_string(p.line[i]) + " and " + std::to_string(t.lines[row]);
        (same ? found.same_line : found.other_parents).push_back(both);
        return;
    }
    // known as a parent before or new: only a line of its own gives an animal parents
    p.line[i] = t.lines[row];
    // the fault has been noted; as a loop it would be told twice
    p.sire[i] = sire == i ? -1 : sire;
    p.dam[i] = dam == i ? -1 : dam;
    if (at.born >= 0) p.birth[i] = t.at(row, at.born);
}

std::vector<std::string> both_sexes(const pedigree& p) {
    std::vector<int> as_sire(p.ids.size(), -1), as_dam(p.ids.size(), -1);
    // first offspring as sire and as dam
    for (std::size_t i = 0; i < p.ids.size(); ++i) {
        if (p.sire[i] >= 0 && as_sire[p.sire[i]] < 0) as_sire[p.sire[i]] = static_cast<int>(i);
        if (p.dam[i] >= 0 && as_dam[p.dam[i]] < 0) as_dam[p.dam[i]] = static_cast<int>(i);
    }
    std::vector<std::string> cases;
    for (std::size_t i = 0; i < p.ids.size(); ++i)
        if (as_sire[i] >= 0 && as_dam[i] >= 0)
            cases.push_back(shown(p.ids[i]) + ": sire of " + id_and_line(p, as_sire[i]) + ", dam of " +
                            id_and_line(p, as_dam[i]));
    return cases;
}

// Generation of each animal: 0 for founders, else one above the higher parent; -1 where a loop is above it.
std::vector<int> generations(const pedigree& p) {
    const int n = static_cast<int>(p.ids.size());
    std::vector<int> wait(n), gen(n, -1), first(n + 1), child, ready;
    const auto each_parent = [&](int i, auto&& visit) {
        if (p.sire[i] >= 0) visit(p.sire[i]);
        // one parent twice (selfing, or a grandsire in a sire model) is waited for once
        if (p.dam[i] >= 0 && p.dam[i] != p.sire[i]) visit(p.dam[i]);
    };
    // parents that an animal waits for; offspring by parent
    for (int i = 0; i < n; ++i) each_parent(i, [&](int k) { ++first[k + 1], ++wait[i]; });
    for (int i = 0; i < n; ++i) first[i + 1] += first[i];
    child.resize(first[n]);
    std::vector<int> at(first.begin(), first.end() - 1);
    for (int i = 0; i < n; ++i) each_parent(i, [&](int k) { child[at[k]++] = i; });
    for (int i = 0; i < n; ++i)
        if (wait[i] == 0) {
            gen[i] = 0;
            ready.push_back(i);
        }
    std::vector<int> high(n, 0);
    // an animal is ready when both parents are (Kahn 1962)
    for (std::size_t done = 0; done < ready.size(); ++done) {
        const int i = ready[done];
        for (int k = first[i]; k < first[i + 1]; ++k) {
            const int c = child[k];
            high[c] = std::max(high[c], gen[i] + 1);
            if (--wait[c] == 0) {
                gen[c] = high[c];
                ready.push_back(c);
            }
        }
    }
    return gen;
}

// Chain of a loop as text, from its first identifier on; the middle of a long one is left out.
std::string chain_text(const pedigree& p, std::vector<int> chain) {
    const auto least =
        std::min_element(chain.begin(), chain.end(), [&](int a, int b) { return before(p.ids[a], p.ids[b]); });
    std::rotate(chain.begin(), least, chain.end());
    std::string text;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        if (chain.size() > 12 && i == 6) {
            text += "... (" + std::to_string(chain.size() - 11) + " more) -> ";
            i = chain.size() - 5;
        }
        text += std::string(p.ids[chain[i]]) + " -> ";
    }
    return text + std::string(p.ids[chain[0]]);
}

// One loop through each animal that lies on a loop not yet told. Walks up the parents among animals that a loop keeps
// from having a generation.
std::vector<std::string> loops(const pedigree& p) {
    const auto gen = generations(p);
    const int n = static_cast<int>(p.ids.size());
    // a stack of its own, not recursion: pedigrees may be thousands of generations deep
    std::vector<char> seen(n, 0); // 1 on the walk, 2 done
    std::vector<std::string> cases;
    for (int start = 0; start < n; ++start) {
        if (gen[start] >= 0 || seen[start] != 0) continue;
        std::vector<std::array<int, 2>> walk{{start, 0}};
        seen[start] = 1;
        while (!walk.empty()) {
            auto& [i, turn] = walk.back();
            if (turn == 2) {
                seen[i] = 2;
                walk.pop_back();
                continue;
            }
            // sire first, then dam
            const int k = turn++ == 0 ? p.sire[i] : p.dam[i];
            if (k < 0 || gen[k] >= 0 || seen[k] == 2) continue;
            if (seen[k] == 0) {
                seen[k] = 1;
                walk.push_back({k, 0});
                continue;
            }
            // k is on the walk: from it to the end is a loop
            std::vector<int> chain;
            for (auto w = walk.rbegin(); w != walk.rend(); ++w) {
                chain.push_back((*w)[0]);
                if ((*w)[0] == k) break;
            }
            std::reverse(chain.begin(), chain.end());
            cases.push_back(chain_text(p, std::move(chain)));
        }
    }
    return cases;
}

// Births in an order that can be compared: numbers, or dates with the year in front or behind.
bool birth_key(std::string_view text, std::array<double, 3>& key) {
    std::vector<double> parts;
    std::string part;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && digit(text[i])) {
            part += text[i];
            continue;
        }
        if (i < text.size() && text[i] != '-' && text[i] != '/' && text[i] != '.') return false;
        // longer ones are no part of a date
        if (part.empty() || part.size() > 9) return false;
        parts.push_back(std::stod(part));
        part.clear();
    }
    // day, month, year: the year comes to the front
    if (parts.size() == 3 && parts[2] > 31) std::swap(parts[0], parts[2]);
    key = {};
    for (std::size_t i = 0; i < std::min<std::size_t>(3, parts.size()); ++i) key[i] = parts[i];
    return parts.size() <= 3;
}

void check_births(const pedigree& p, const na_texts& na, findings& found) {
    std::vector<std::string> late, odd;
    std::vector<std::array<double, 3>> key(p.ids.size());
    std::vector<char> known(p.ids.size(), 0);
    for (std::size_t i = 0; i < p.ids.size(); ++i) {
        if (p.line[i] == 0 || na.missing(p.birth[i]) || p.birth[i] == "0") continue;
        known[i] = birth_key(p.birth[i], key[i]) ? 1 : 0;
        if (known[i] == 0) odd.push_back("line " + std::to_string(p.line[i]) + ": " + shown(p.birth[i]));
    }
    for (std::size_t i = 0; i < p.ids.size(); ++i)
        // dates compare as (year, month, day), missing parts as 0: equal births are no fault
        for (const int k : {p.sire[i], p.dam[i]})
            if (k >= 0 && known[i] != 0 && known[k] != 0 && key[k] > key[i])
                late.push_back("parent " + id_and_line(p, k) + ", " + std::string(p.birth[k]) + ", of " +
                               id_and_line(p, static_cast<int>(i)) + ", " + std::string(p.birth[i]));
    found.add("births that are neither numbers nor dates", odd);
    found.add("parents born after their offspring", late);
}

} // namespace

bool before(std::string_view a, std::string_view b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (!digit(a[i]) || !digit(b[j])) {
            if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
            ++i, ++j;
            continue;
        }
        const auto run = [](std::string_view s, std::size_t& k) {
            // numbers within identifiers by value: a2 before a10
            while (k < s.size() && s[k] == '0') ++k;
            const std::size_t from = k;
            while (k < s.size() && digit(s[k])) ++k;
            return s.substr(from, k - from);
        };
        const auto x = run(a, i), y = run(b, j);
        if (x.size() != y.size()) return x.size() < y.size();
        if (x != y) return x < y;
    }
    // one is the beginning of the other
    if (i < a.size() || j < b.size()) return i == a.size();
    return a < b;
}

std::vector<std::string> near_twins(const std::vector<std::string_view>& ids) {
    std::unordered_map<std::string, std::string_view> plain;
    plain.reserve(ids.size());
    std::vector<std::string> pairs;
    for (const auto id : ids) {
        std::string s;
        bool zeros = true;
        for (const char c : lower(id)) {
            // zeros in front of a number, not within it
            if (c == ' ' || c == '\t' || (c == '0' && zeros)) continue;
            zeros = !digit(c);
            s += c;
        }
        const auto [at, fresh] = plain.emplace(std::move(s), id);
        if (!fresh && at->second != id) pairs.push_back(shown(at->second) + " and " + shown(id));
    }
    return pairs;
}

int pedigree_place(pedigree& p, std::string_view id) {
    const auto [at, fresh] = p.place.emplace(id, static_cast<int>(p.ids.size()));
    if (fresh) {
        p.ids.push_back(id);
        p.sire.push_back(-1);
        p.dam.push_back(-1);
        p.line.push_back(0);
        p.birth.emplace_back();
    }
    return at->second;
}

pedigree read_pedigree(const std::string& file, const pedigree_columns& columns, const na_texts& na, bool grandsires,
                       std::vector<std::string>& remarks) {
    pedigree p;
    p.grandsires = grandsires;
    const bool named = !columns.sire.empty() || !columns.born.empty();
    p.tables.push_back(read_csv(file, named ? csv_heading::needed : csv_heading::found, columns.hints));
    const csv_table& t = p.tables.back();
    const places at = find_places(t, columns, grandsires, remarks);
    p.animal_name = t.names[at.animal];
    p.sire_name = t.names[at.sire];
    p.dam_name = t.names[at.dam];
    p.place.reserve(t.rows + t.rows / 4);
    pending second;
    for (std::size_t row = 0; row < t.rows; ++row) read_line(p, t, row, at, na, second);
    findings found;
    found.add("animals without an identifier", second.nameless);
    found.add("animals that are their own parent", second.own_parent);
    found.add("animals with two parentages", second.other_parents);
    if (!grandsires) found.add("animals that are both sire and dam", both_sexes(p));
    found.add("loops: each animal is offspring of the next", loops(p));
    if (at.born >= 0) check_births(p, na, found);
    if (!found.faults.empty()) {
        std::string text = "\"" + file + "\" has faults";
        for (const auto& f : found.faults) text += "\n" + f;
        throw fault{text};
    }
    if (!second.same_line.empty())
        remarks.push_back("pedigree: " + std::to_string(second.same_line.size()) +
                          " animals stand there twice with the same parents:\n" + few_lines(second.same_line, 3));
    return p;
}

std::vector<int> pedigree_codes(const pedigree& p, const std::vector<char>& keep) {
    const auto gen = generations(p);
    std::vector<int> list, code(p.ids.size(), 0);
    for (std::size_t i = 0; i < p.ids.size(); ++i)
        if (keep[i] != 0) list.push_back(static_cast<int>(i));
    std::sort(list.begin(), list.end(),
              [&](int a, int b) { return gen[a] != gen[b] ? gen[a] < gen[b] : before(p.ids[a], p.ids[b]); });
    int n = 0;
    for (const int i : list) code[i] = ++n;
    return code;
}

void mark_ancestors(const pedigree& p, std::vector<char>& keep) {
    std::vector<int> todo;
    for (std::size_t i = 0; i < keep.size(); ++i)
        if (keep[i] != 0) todo.push_back(static_cast<int>(i));
    while (!todo.empty()) {
        const int i = todo.back();
        todo.pop_back();
        for (const int k : {p.sire[i], p.dam[i]})
            if (k >= 0 && keep[k] == 0) {
                keep[k] = 1;
                todo.push_back(k);
            }
    }
}

pedigree sire_pedigree(const pedigree& p) {
    if (p.grandsires) return p;
    pedigree s = p;
    s.grandsires = true;
    // the dam's sire takes her place
    for (std::size_t i = 0; i < p.ids.size(); ++i) s.dam[i] = p.dam[i] >= 0 ? p.sire[p.dam[i]] : -1;
    return s;
}

} // namespace tvx
