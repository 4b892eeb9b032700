// What findings of tvx check and messages of the program mean, and what to do.
#include "tvx/commands.h"
#include "tvx/csv.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace tvx {

extern const unsigned char messages_page[]; // docs/messages.md
extern const unsigned long messages_page_size;

namespace {

struct page {
    const char* code;
    const char* title;
    const char* text;
};
constexpr page pages[] = {
    {"P101", "the parameter file cannot be read",
     "The program's own message follows the line. Each line that can be left out is left out and reading goes on, so "
     "that all are told; behind the first fault later ones may follow from it. tvx help par shows the forms."},
    {"P102", "the program stops at these inputs",
     "tvx check has found nothing, but the program's own set-up stops: its last words follow."},
    {"D201", "the data file cannot be read", "The name behind DAT is looked for in the folder of the parameter file."},
    {"D202", "a line has too few values",
     "The DAT block names more columns than the line has. Missing records need their code."},
    {"D203", "a value is no number", "The data file holds numbers only; tvx prep makes them from text."},
    {"D204", "a code or a number of levels above its limit",
     "The number behind a column in the DAT block is the largest number of levels; codes of animals go up to 399999."},
    {"D205", "a code below the smallest", "Codes of random effects begin at 1, those of fixed effects at 0."},
    {"D206", "a trait has no record", "Each trait of the analysis needs records; look at its code for missing ones."},
    {"D208", "a subject has more than 499 records",
     "Records of one code in the first effect with a pedigree are one subject. SUBject LINE makes each line its own."},
    {"G301", "the pedigree cannot be read", "The name behind PED is looked for in the folder of the parameter file."},
    {"G302", "a code below 1", "Animals have codes from 1 on; 0 is an unknown parent."},
    {"G303", "a parent has a larger code than its offspring",
     "Parents come first; tvx prep orders and recodes a pedigree."},
    {"G304", "an animal has two lines", "One of them is too much, or another animal has the same code."},
    {"G305", "a code above 399999", "Recode the animals (tvx prep does)."},
    {"G306", "an animal is its own parent", "Correct the line."},
    {"G307", "an animal is both sire and dam", "Correct one of the lines; --self allows it."},
    {"G308", "a line that does not hold three whole numbers", "Each line holds animal, sire and dam."},
    {"W401", "no mean is fitted",
     "Without a mean and without fixed effects the records are taken as deviations from 0. Add MEA."},
    {"W402", "code 0 of a fixed effect",
     "It counts as a level like any other. If it stands for a missing class, leave the records out."},
    {"W403", "a code for missing values is taken as a value",
     "Only traits have a code for missing records, the one behind TRAIT. Leave out records that lack a covariable."},
    {"W404", "a number behind the only trait",
     "TRAIT y 999 gives the trait the number 999. Write TRAIT y 1 999 for the code of a missing record."},
    {"W405", "a residual covariance that starts at 0",
     "It is left out of the model. Start it at a small value to estimate it."},
    {"W406", "a subject comes back",
     "Records of a subject that do not stand together count as two subjects: their residuals are not correlated. Sort "
     "the data."},
    {"W407", "no subject has records of both traits",
     "The data say nothing of their residual covariance. Start it at 0 to leave it out."},
    {"W408", "several traits with repeated records",
     "Each record of one trait is joined with all of the other of the subject. SUBject LINE, or SUBject with the "
     "columns that make a record, joins those of a record."},
    {"W409", "ZER takes out more levels than there are dependencies",
     "Levels that are no dependency are set to 0, which changes the model."},
    {"W410", "a correlation of 1 in a starting matrix",
     "The search begins on the border of the parameter space and may stay there."},
    {"W411", "confounded effects",
     "Each level of one effect goes with one level of the other: they cannot be told apart."},
    {"W412", "animals that the pedigree does not have",
     "They are taken for founders that are related to nobody. Give them lines, with 0 for unknown parents, if that is "
     "meant."},
    {"W413", "the third column of a sire pedigree", "It holds maternal grandsires, not dams."},
    {"W414", "old scratch files",
     "Each file *.bin knows by a sum what it was made from: a run takes over those that fit and makes the others "
     "anew."},
    {"W415", "RunOptions",
     "Options in this file go into each run of the folder, in front of those of the command line."},
    {"W416", "a code with decimals", "Codes are cut to whole numbers: 1.2 and 1.8 are one level."},
    {"W417", "lines of other traits", "Lines whose trait is not in the analysis are passed over."},
    {"W418", "fixed effects confounded jointly",
     "Columns of one effect are sums of columns of others: their solutions have no meaning one by one. The program "
     "takes "
     "out what depends; variances and breeding values stay. Leave an effect out, or read sums of them only."},
    {"W419", "fixed effects were not looked at together",
     "The equations of the fixed part do not go into memory; pairs of effects have been looked at."},
};

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

// Whether one of the texts in backquotes of a heading is meant: both begin alike, or words of it are given.
bool heading_meant(std::string_view heading, const std::string& wanted) {
    while (true) {
        const auto from = heading.find('`');
        if (from == std::string_view::npos) return false;
        const auto to = heading.find('`', from + 1);
        if (to == std::string_view::npos) return false;
        const std::string text = upper(std::string(heading.substr(from + 1, to - from - 1)));
        if (text.find(wanted) != std::string::npos || (text.size() > 4 && wanted.find(text) != std::string::npos))
            return true;
        heading.remove_prefix(to + 1);
    }
}

// Entries of the page of messages that hold the text.
std::string message_entries(const std::string& message) {
    std::string found;
    std::string_view text(reinterpret_cast<const char*>(messages_page), messages_page_size);
    const std::string wanted = upper(message);
    // entries of the page are headings of the third rank
    for (auto at = text.find("\n### "); at != std::string_view::npos;) {
        const auto next = std::min(text.find("\n#", at + 1), text.size());
        const auto entry = text.substr(at + 1, next - at);
        if (heading_meant(entry.substr(0, entry.find('\n')), wanted)) found += std::string(entry);
        at = text.find("\n### ", next);
    }
    return found;
}

int explain_command(const std::string& what) {
    bool found = false;
    for (const auto& p : pages)
        // a few letters would be found everywhere
        if (upper(what) == p.code || (what.size() > 5 && upper(p.title).find(upper(what)) != std::string::npos)) {
            std::cout << p.code << " " << p.title << "\n  " << p.text << "\n";
            found = true;
        }
    if (what.size() > 3) {
        const std::string lines = message_entries(what);
        std::cout << lines;
        found = found || !lines.empty();
    }
    if (!found) throw fault{"nothing is known of " + shown(what) + ": give a code of tvx check, or words of a message"};
    return fine;
}

} // namespace

void register_explain(CLI::App& app, action& chosen) {
    auto what = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("explain", "what a code of tvx check or a message means");
    command->add_option("MESSAGE", *what, "code, or words of a message")->required();
    command->callback([&chosen, what] { chosen = [what] { return explain_command(*what); }; });
}

} // namespace tvx
