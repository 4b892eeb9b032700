#include "data/subjectpass.h"

#include "parfile/mudmap.h"

#include <algorithm>
#include <array>
#include <map>
#include <numeric>

namespace tarvex {

namespace {

bool read_record(subject_pass& pass, array<double>& dvec, int& iq) {
    bool iskip = true;
    while (iskip)
        if (!getrec_dvec(pass.reader, dvec, iq, iskip)) return false;
    ++pass.record;
    return true;
}

// All records, with the number of the subject that their columns tell.
void hold_records(subject_pass& pass) {
    // numbered in the order in which subjects are met
    std::map<std::array<double, 2>, int> subjects;
    array<double> dvec;
    dvec.allocate(mudmap.maxcol);
    int iq = 0;
    while (read_record(pass, dvec, iq)) {
        const int t = std::max(iq, 1), second = mudmap.subj_column(2, t);
        // + 0.0: a negative zero is the same value
        const std::array<double, 2> key{dvec(mudmap.subj_column(1, t)) + 0.0, second > 0 ? dvec(second) + 0.0 : 0.0};
        const int next = static_cast<int>(subjects.size()) + 1;
        pass.group.push_back(subjects.emplace(key, next).first->second);
        pass.trait.push_back(iq);
        pass.line.push_back(pass.reader.ndatrec);
        pass.values.insert(pass.values.end(), dvec.begin(), dvec.end());
    }
    pass.order.resize(pass.group.size());
    std::iota(pass.order.begin(), pass.order.end(), 1);
    const auto group = [&](int record) { return pass.group[record - 1]; };
    // records of a subject keep the order of the file
    std::stable_sort(pass.order.begin(), pass.order.end(), [&](int a, int b) { return group(a) < group(b); });
}

} // namespace

void open_subjects(subject_pass& pass) {
    pass = {};
    open_datfile(pass.reader);
    pass.sorted = mudmap.subject == subject_rule::columns;
    if (pass.sorted) hold_records(pass);
}

bool next_record(subject_pass& pass, array<double>& dvec, int& iq, bool& starts) {
    if (!pass.sorted) {
        if (!read_record(pass, dvec, iq)) return false;
        starts = starts_subject(pass.run, dvec, iq);
        return true;
    }
    if (pass.at == pass.order.size()) return false;
    // pass.record is still the record before
    const int before = pass.at == 0 ? 0 : pass.group[pass.record - 1];
    pass.record = pass.order[pass.at++];
    const std::size_t k = pass.record - 1, width = mudmap.maxcol;
    std::copy_n(pass.values.begin() + static_cast<std::ptrdiff_t>(k * width), width, dvec.begin());
    iq = pass.trait[k];
    // messages name the record of the file
    pass.reader.ndatrec = pass.line[k];
    starts = pass.group[k] != before;
    return true;
}

} // namespace tarvex
