#include "estimation/powell.h"

#include "control/filenames.h"
#include "control/maximise.h"
#include "control/numbers.h"
#include "control/options.h"
#include "control/tvxroutines.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "support/edit_form.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <utility>

namespace tarvex {

namespace {

constexpr double flevel = 0.002;    // decrease of -2 log L in a round that is worth another one
constexpr double xconv = 1.0e-4;    // largest relative change of a parameter in a round that counts as none
constexpr double ftol = 0.03;       // relative accuracy of the predicted minimum along a line
constexpr double first_step = 0.01; // along a new direction
constexpr double largest_step = 0.1;
constexpr double ordinary_scale = 0.2; // of the option, for these two
constexpr int most_turns = 20, most_shrinks = 500;
constexpr double shrink = 0.95;          // of a step whose end has no value
constexpr double accuracy_zeros = 20.0;  // accuracy of -2 log L, in numbers.zero
constexpr double nearest = 20.0;         // distance of two points of a line that counts, in that accuracy
constexpr double furthest = 10.0;        // first steps that a point may lie off the best one
constexpr int rounds_per_parameter = 10; // limit of rounds: so many for each parameter and for ten more

struct point {
    double d; // distance along the line
    double f; // value
};

} // namespace

double powell_search::at(const std::vector<double>& from, const std::vector<double>& dir, double d) {
    std::vector<double> x = from;
    for (std::size_t k = 0; k < x.size(); ++k)
        if (searched[k]) x[k] += d * dir[k];
    return value(x);
}

bool powell_search::valid_point(const std::vector<double>& from, const std::vector<double>& dir, double& d, double& f) {
    for (int k = 0; k < most_shrinks; ++k) {
        f = at(from, dir, d);
        if (f < no_value) return true;
        d *= shrink;
    }
    return false;
}

namespace {

// Sorts three points by distance.
void triord(std::array<point, 3>& p) {
    std::sort(p.begin(), p.end(), [](const point& a, const point& b) { return a.d < b.d; });
}

std::size_t lowest(const std::array<point, 3>& p) {
    std::size_t k = 0;
    for (std::size_t i = 1; i < 3; ++i)
        if (p[i].f < p[k].f) k = i;
    return k;
}

} // namespace

double powell_search::dflmin(const std::vector<double>& dir, double first, double longest, double& curvature) {
    const std::vector<double> from = best;
    const double f0 = ffmin;
    curvature = 0.0;
    // not so near that the difference is rounding
    double d = std::max(std::min(std::fabs(first), longest), nearest * ztol);
    const double zlimit = furthest * d;
    std::array<point, 3> p{point{0.0, f0}, point{d, no_value}, point{0.0, no_value}};
    if (!valid_point(from, dir, p[1].d, p[1].f)) return 0.0;
    while (std::fabs(p[1].f - f0) <= numbers.zero) { // flat so far: twice as far
        d *= 2.0;
        if (d > zlimit) {
            print_list(screen(), "dflmin : max. change in parameter value does not");
            print_list(screen(), "         alter function value(s) !!!");
            return 0.0;
        }
        p[1].d = d;
        if (!valid_point(from, dir, p[1].d, p[1].f)) return 0.0;
    }
    // uphill: the other side; downhill: twice as far
    p[2].d = p[1].f > f0 ? -p[1].d : 2.0 * p[1].d;
    if (!valid_point(from, dir, p[2].d, p[2].f)) return 0.0;
    for (int turn = 0; turn < most_turns; ++turn) {
        triord(p);
        const std::size_t low = lowest(p);
        // divided differences; `second` is half the second derivative of the parabola
        const double s1 = (p[1].f - p[0].f) / (p[1].d - p[0].d), s2 = (p[2].f - p[1].f) / (p[2].d - p[1].d);
        const double second = (s2 - s1) / (p[2].d - p[0].d);
        double d3, predicted;
        if (!std::isfinite(second)) {
            print_list(screen(), "equations undetermined", (p[1].d - p[0].d) * (p[2].d - p[1].d) * (p[2].d - p[0].d));
            break;
        }
        if (second > 0.0) {
            curvature = second;
            // its vertex, and its fall from the lowest point
            d3 = 0.5 * (p[0].d + p[1].d - s1 / second);
            predicted = p[low].f - second * (d3 - p[low].d) * (d3 - p[low].d);
        } else { // no minimum: on downhill
            d3 = p[low].d + (p[2].f < p[0].f ? zlimit : -zlimit);
            predicted = -no_value;
        }
        if (options.details) print_list(screen(), "d1,d3", p[0].d, d3, "   zlimit", zlimit);
        if (std::fabs(d3 - p[low].d) > zlimit) d3 = p[low].d + std::copysign(zlimit, d3 - p[low].d);
        // another value there would say nothing
        if (std::fabs(d3 - p[low].d) <= nearest * ztol) break;
        if (predicted > -no_value && std::fabs(p[low].f - predicted) <= ftol * std::fabs(f0 - p[low].f)) break;
        point next{d3 - p[low].d, no_value};
        bool valid = false;
        // no value so far out: nearer to the lowest point
        for (int k = 0; k < most_shrinks && !valid; ++k) {
            next.f = at(from, dir, p[low].d + next.d);
            valid = next.f < no_value;
            if (!valid) next.d *= shrink;
        }
        if (!valid) break;
        next.d += p[low].d;
        bool known = false;
        for (const point& q : p) known = known || q.d == next.d;
        if (known) break;
        // the highest point goes, whether or not the three bracket a minimum
        std::size_t worst = 0;
        for (std::size_t i = 1; i < 3; ++i)
            if (p[i].f > p[worst].f) worst = i;
        p[worst] = next;
    }
    const point& low = p[lowest(p)];
    if (!(low.f < f0)) return 0.0;
    for (std::size_t k = 0; k < best.size(); ++k)
        if (searched[k]) best[k] += low.d * dir[k];
    ffmin = low.f;
    return f0 - ffmin;
}

namespace {

void to_both(text_out& file, const std::string& text) {
    screen().raw(text);
    file.raw(text);
}

// Largest relative change of a coordinate that is searched.
double relative_change(const powell_search& s, const std::vector<double>& from) {
    double most = 0.0;
    for (std::size_t k = 0; k < from.size(); ++k)
        if (s.searched[k])
            most =
                std::max(most, std::fabs(s.best[k] - from[k]) / std::max(std::fabs(from[k]), std::sqrt(numbers.zero)));
    return most;
}

// Directions along the coordinates.
void fresh_directions(powell_search& s) {
    const std::size_t n = s.best.size();
    s.dirs.clear();
    s.step.assign(n, s.scale * first_step);
    for (std::size_t k = 0; k < n; ++k) {
        s.dirs.emplace_back(n, 0.0);
        s.dirs.back()[k] = 1.0;
    }
}

void start(powell_search& s) {
    fresh_directions(s);
    s.ztol = accuracy_zeros * numbers.zero;
    s.ffmin = s.at(s.best, s.best, 0.0);
    if (s.ffmin < powell_search::no_value) return;
    print_list(screen(), "Routine \"POWELL\" : Invalid starting point ");
    stoptarvex();
}

// One search along each direction. Returns the largest decrease and its direction.
std::pair<double, std::size_t> search_directions(powell_search& s, int nround) {
    constexpr edit_form line{"(1x,a,i5,a,i4,a,g15.6,a,g20.11)"};
    double most = 0.0;
    std::size_t which = 0;
    for (std::size_t k = 0; k < s.dirs.size(); ++k) {
        const int idir = static_cast<int>(k) + 1;
        if (!s.searched[k]) continue;
        double curvature = 0.0;
        // steps get shorter from round to round
        const double decrease = s.dflmin(s.dirs[k], 0.5 * s.step[k], s.scale * largest_step, curvature);
        if (decrease > most) {
            most = decrease;
            which = k;
        }
        if (decrease > numbers.zero && curvature > 0.0) { // unit second difference along the direction
            const double scale = 1.0 / std::sqrt(curvature);
            for (double& x : s.dirs[k]) x *= scale;
            s.step[k] = std::min(s.scale * largest_step, s.step[k] / scale);
        }
        text_out file;
        file.open_append("directions");
        to_both(file, edit(line, "IT=", nround, " DIR=", idir, "", s.step[k], " max.L", -0.5 * s.ffmin));
    }
    return {most, which};
}

// Replaces the direction of largest decrease by that of the whole round where this keeps the directions independent.
void new_direction(powell_search& s, const std::vector<double>& from, double f0, double most, std::size_t which) {
    std::vector<double> change(s.best.size());
    double size = 0.0;
    for (std::size_t k = 0; k < change.size(); ++k) {
        change[k] = s.best[k] - from[k];
        size += change[k] * change[k];
    }
    // nothing has moved
    if (size == 0.0 || most == 0.0) return;
    // fe: as far again in the direction of the whole round
    const double fn = s.ffmin, fe = s.at(s.best, change, 1.0);
    const double gain = f0 - fn - most, whole = f0 - fe;
    // Powell's test: the new direction does not make the set more dependent
    if (!(fe < f0) || !((f0 - 2.0 * fn + fe) * 2.0 * gain * gain < most * whole * whole)) return;
    double curvature = 0.0;
    s.dflmin(change, 0.5, 0.5, curvature); // half the round's move at first, five of them at most
    s.dirs[which] = change;
}

} // namespace

bool search_by_directions(powell_search& s, int most_rounds) {
    constexpr edit_form first_line{"(a,g20.10)"};
    constexpr edit_form round_line{"(' IT=',I4,3X,'F=',G20.10,3X,'D=',G15.7,'  CH=',G10.3)"};
    start(s);
    write(screen(), first_line, " log l = ", -0.5 * s.ffmin);
    const bool any = std::any_of(s.searched.begin(), s.searched.end(), [](int i) { return i != 0; });
    bool fresh = true; // the round is along fresh directions: only then a small gain is an end
    for (int nround = 1; any && nround <= most_rounds; ++nround) {
        const double fpre0 = s.ffmin;
        const std::vector<double> from = s.best;
        const auto [most, which] = search_directions(s, nround);
        new_direction(s, from, fpre0, most, which);
        const double xdel = relative_change(s, from);
        text_out file;
        file.open_append(filenames.iteratesfile);
        to_both(file, edit(round_line, nround, -0.5 * s.ffmin, s.ffmin - fpre0, 100.0 * xdel));
        const double decrease = fpre0 - s.ffmin;
        const bool small = xdel < xconv || decrease < flevel;
        if (!small || !fresh) {
            fresh = small;
            // a small gain along worn directions: once more along the parameters
            if (small) fresh_directions(s);
            if (nround == most_rounds)
                to_both(file, "*** POWELL : No convergence after " + list_item(nround) + " rounds\n");
            continue;
        }
        if (xdel < xconv)
            to_both(file, "CONVERGENCE : CHANGE IN PARAMETERS " + list_item(xconv) + "\n");
        else
            to_both(file, "CONVERGENCE : CHANGE IN FUNCTION VALUE " + list_item(flevel) + "\n");
        return true;
    }
    return false;
}

int rounds_of_directions(int nparm) {
    // 0: no limit of the user
    return maximise.powell_its > 0 ? maximise.powell_its : rounds_per_parameter * (nparm + 10);
}

double scale_of_directions() { return maximise.powell_scale > 0.0 ? maximise.powell_scale / ordinary_scale : 1.0; }

bool powell(double& xbest, array<double>& parvec) {
    const int nparm = estimates.nparm;
    powell_search s;
    for (int i = 1; i <= nparm; ++i) {
        s.best.push_back(parvec(i));
        s.searched.push_back(estimates.ispar(i));
    }
    s.scale = scale_of_directions();
    s.value = [&](const std::vector<double>& x) {
        std::copy(x.begin(), x.end(), parvec.begin());
        const double xlike = evaluate_point(parvec, 0);
        // an invalid point is a wall, not a value to be interpolated
        return xlike > invalid_logl + s.ztol ? -2.0 * xlike : powell_search::no_value;
    };
    const bool ended = search_by_directions(s, rounds_of_directions(nparm));
    std::copy(s.best.begin(), s.best.end(), parvec.begin());
    // back at the best point: the last one tried was another
    xbest = evaluate_point(parvec, 0);
    return ended;
}

} // namespace tarvex
