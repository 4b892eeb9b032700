// Multiple minimum degree by quotient graphs. Eliminated nodes become elements whose reach sets are kept in the storage
// of the nodes that they have absorbed: a list in adjncy ends at 0 and goes on in the block of node k where -k stands.
//
// invp(v) ("forward"): next node of the same degree, or the number of quotient neighbours plus 1 while v waits for its
// new degree; -number once eliminated, -father once merged into another node. perm(v) ("backward"): the node before it
// in the degree list, -list for the first one; 0 waiting for its new degree; -maxint merged, or outmatched by another
// node.
#include "sparse/genmmd.h"

#include <algorithm>
#include <climits>

namespace tarvex {

namespace {

struct quotient_graph {
    int n, delta, maxint;
    array<int>& xadj;
    array<int>& adjncy;
    array<int>& df;
    array<int>& db;
    array<int> dhead, qsize, llist, marker;
    int tag = 1, mdeg = 2;
    long long nofsub = 0;
};

void push(quotient_graph& g, int v, int list) {
    const int head = g.dhead(list);
    g.df(v) = head;
    if (head > 0) g.db(head) = v;
    g.dhead(list) = v;
    g.db(v) = -list;
}

void unlink(quotient_graph& g, int v) {
    const int before = g.db(v), behind = g.df(v);
    if (behind > 0) g.db(behind) = before;
    if (before > 0)
        g.df(before) = behind;
    else
        g.dhead(-before) = behind;
}

void reset_markers(quotient_graph& g) {
    // eliminated and merged nodes (maxint) stay marked
    g.tag = 1;
    for (int& m : g.marker)
        if (m < g.maxint) m = 0;
}

// Visits the nodes in the list of element m.
template <class F> void walk(quotient_graph& g, int m, F visit) {
    int last = g.xadj(m + 1);
    for (int i = g.xadj(m); i < last;) {
        const int node = g.adjncy(i++);
        if (node == 0) return;
        if (node < 0) {
            i = g.xadj(-node);
            last = g.xadj(-node + 1);
        } else
            visit(node);
    }
}

// Node x, which nothing tells from e, is numbered together with it.
void absorb(quotient_graph& g, int e, int x) {
    g.qsize(e) += g.qsize(x);
    g.qsize(x) = 0;
    g.marker(x) = g.maxint;
    g.df(x) = -e;
    g.db(x) = -g.maxint;
}

// Gathers the reach set of m into its own block and those of the elements around it.
void reach_set(quotient_graph& g, int m) {
    auto& adj = g.adjncy;
    g.marker(m) = g.tag;
    // rloc: next place of the reach set, rlmt: last place of the block, kept for a link to another one
    int rloc = g.xadj(m), rlmt = g.xadj(m + 1) - 1, elmnt = 0;
    for (int i = g.xadj(m); i <= rlmt; ++i) {
        const int nb = adj(i);
        if (nb == 0) break;
        if (g.marker(nb) >= g.tag) continue;
        g.marker(nb) = g.tag;
        // an element: its nodes are reached through it, it need not be kept
        if (g.df(nb) < 0) {
            g.llist(nb) = elmnt;
            elmnt = nb;
        } else
            adj(rloc++) = nb;
    }
    for (; elmnt > 0; elmnt = g.llist(elmnt)) {
        // what is absorbed leaves its block as room for the rest of the set
        adj(rlmt) = -elmnt;
        walk(g, elmnt, [&](int node) {
            if (g.marker(node) >= g.tag || g.df(node) < 0) return;
            g.marker(node) = g.tag;
            while (rloc >= rlmt) {
                const int k = -adj(rlmt);
                rloc = g.xadj(k);
                rlmt = g.xadj(k + 1) - 1;
            }
            adj(rloc++) = node;
        });
    }
    if (rloc <= rlmt) adj(rloc) = 0;
}

// Makes node m an element: its neighbours leave their degree lists and forget all that m has absorbed.
void mmdelm(quotient_graph& g, int m) {
    reach_set(g, m);
    walk(g, m, [&](int r) {
        if (g.db(r) != 0 && g.db(r) != -g.maxint) unlink(g, r);
        const int first = g.xadj(r), stop = g.xadj(r + 1);
        // neighbours that m reaches too are seen through m from here on
        int keep = first;
        for (int i = first; i < stop && g.adjncy(i) != 0; ++i)
            if (const int nb = g.adjncy(i); g.marker(nb) < g.tag) g.adjncy(keep++) = nb;
        const int nq = keep - first;
        // nothing but m around it: it is numbered with m
        if (nq == 0) {
            absorb(g, m, r);
            return;
        }
        g.df(r) = nq + 1;
        g.db(r) = 0;
        g.adjncy(keep++) = m;
        if (keep < stop) g.adjncy(keep) = 0;
    });
}

// Back into the degree lists; deg counts the nodes around e, e itself included.
void requeue(quotient_graph& g, int e, int deg) {
    deg -= g.qsize(e) - 1;
    push(g, e, deg);
    g.mdeg = std::min(g.mdeg, deg);
}

// Degree of a node e with one neighbour besides the element; finds the nodes that e makes redundant.
int degree_of_two(quotient_graph& g, int e, int elmnt, int deg) {
    int nb = g.adjncy(g.xadj(e));
    if (nb == elmnt) nb = g.adjncy(g.xadj(e) + 1);
    // a node, not an element
    if (g.df(nb) >= 0) return deg + g.qsize(nb);
    walk(g, nb, [&](int x) {
        if (x == e || g.qsize(x) == 0) return;
        if (g.marker(x) < g.tag) {
            g.marker(x) = g.tag;
            deg += g.qsize(x);
        } else if (g.db(x) == 0) {
            // x is around both elements, as e is: with no other neighbour it is e's twin, with more it comes after e
            if (g.df(x) == 2)
                absorb(g, e, x);
            else
                g.db(x) = -g.maxint;
        }
    });
    return deg;
}

int degree_of_many(quotient_graph& g, int e, int deg) {
    for (int i = g.xadj(e); i < g.xadj(e + 1) && g.adjncy(i) != 0; ++i) {
        const int nb = g.adjncy(i);
        if (g.marker(nb) >= g.tag) continue;
        g.marker(nb) = g.tag;
        if (g.df(nb) >= 0)
            deg += g.qsize(nb);
        else
            walk(g, nb, [&](int x) {
                if (g.marker(x) >= g.tag) return;
                g.marker(x) = g.tag;
                deg += g.qsize(x);
            });
    }
    return deg;
}

// New degrees for the nodes around the elements of the stage (chained from ehead).
void mmdupd(quotient_graph& g, int ehead) {
    const int mdeg0 = g.mdeg + g.delta;
    for (int elmnt = ehead; elmnt > 0; elmnt = g.llist(elmnt)) {
        // tags of this element's nodes lie below mtag
        if (g.tag + mdeg0 >= g.maxint) reset_markers(g);
        const int mtag = g.tag + mdeg0;
        int deg0 = 0, q2 = 0, qx = 0;
        walk(g, elmnt, [&](int e) {
            if (g.qsize(e) == 0) return;
            // nodes around the element bear mtag: none is counted again when its neighbours are visited
            deg0 += g.qsize(e);
            g.marker(e) = mtag;
            if (g.db(e) != 0) return;
            // q2: the element and one neighbour more, where twins can be found; qx: the others
            int& head = g.df(e) == 2 ? q2 : qx;
            g.llist(e) = head;
            head = e;
        });
        for (int e = q2; e > 0; e = g.llist(e)) {
            if (g.db(e) != 0) continue;
            ++g.tag;
            requeue(g, e, degree_of_two(g, e, elmnt, deg0));
        }
        for (int e = qx; e > 0; e = g.llist(e)) {
            if (g.db(e) != 0) continue;
            ++g.tag;
            requeue(g, e, degree_of_many(g, e, deg0));
        }
        g.tag = mtag;
    }
}

// Final numbers: merged nodes follow the root of their merge tree.
void mmdnum(quotient_graph& g) {
    auto& invp = g.df;
    auto& perm = g.db;
    for (int v = 1; v <= g.n; ++v) perm(v) = g.qsize(v) <= 0 ? invp(v) : -invp(v);
    for (int v = 1; v <= g.n; ++v) {
        if (perm(v) > 0) continue;
        int root = v;
        while (perm(root) <= 0) root = -perm(root);
        const int number = perm(root) + 1;
        invp(v) = -number;
        perm(root) = number;
        for (int node = v; perm(node) <= 0;) { // shorten the path for the nodes below
            const int father = -perm(node);
            perm(node) = -root;
            node = father;
        }
    }
    for (int v = 1; v <= g.n; ++v) invp(v) = -invp(v);
    for (int v = 1; v <= g.n; ++v) perm(invp(v)) = v;
}

// Places every node in its degree list and numbers the isolated ones. Returns the next number.
int mmdint(quotient_graph& g) {
    for (int v = 1; v <= g.n; ++v) {
        g.qsize(v) = 1;
        push(g, v, g.xadj(v + 1) - g.xadj(v) + 1);
    }
    int num = 1;
    for (int v = g.dhead(1); v > 0; ++num) {
        const int behind = g.df(v);
        g.marker(v) = g.maxint;
        g.df(v) = -num;
        v = behind;
    }
    g.dhead(1) = 0;
    return num;
}

} // namespace

void ggenmmd(int neqns, array<int>& xadj, array<int>& adjncy, array<int>& invp, array<int>& perm, int delta, int maxint,
             int& nofsub) {
    invp.allocate(neqns);
    perm.allocate(neqns);
    nofsub = 0;
    if (neqns == 0) return;
    quotient_graph g{neqns, delta, maxint, xadj, adjncy, invp, perm, {}, {}, {}, {}};
    // dhead(d): first node of degree d, the node itself included; multiple nodes count by their size
    g.dhead.allocate(neqns + 1);
    g.qsize.allocate(neqns);
    g.llist.allocate(neqns);
    g.marker.allocate(neqns);
    int num = mmdint(g);
    while (num <= neqns) {
        while (g.dhead(g.mdeg) <= 0) ++g.mdeg;
        const int mdlmt = std::min(g.mdeg + delta, neqns + 1);
        // a stage: nodes of nearly least degree that are no neighbours; degrees are mended once, behind it
        int ehead = 0;
        for (;;) {
            while (g.mdeg <= mdlmt && g.dhead(g.mdeg) <= 0) ++g.mdeg;
            if (g.mdeg > mdlmt) break;
            const int m = g.dhead(g.mdeg);
            unlink(g, m);
            g.df(m) = -num;
            // length of the column's list in the factor
            g.nofsub += g.mdeg + g.qsize(m) - 2;
            // nothing is left but what was merged into m
            if (num + g.qsize(m) > neqns) {
                num += g.qsize(m);
                break;
            }
            if (++g.tag >= maxint) reset_markers(g);
            mmdelm(g, m);
            num += g.qsize(m);
            g.llist(m) = ehead;
            ehead = m;
        }
        if (num <= neqns) mmdupd(g, ehead);
    }
    mmdnum(g);
    nofsub = static_cast<int>(std::min<long long>(g.nofsub, INT_MAX));
}

} // namespace tarvex
