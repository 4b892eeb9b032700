#!/usr/bin/env python3
"""Makes the tables of this folder. Standard library only; the seed is fixed, so they come out as they are.

    make.py [FOLDER]

True values stand at the head of each function and in README.md.
"""
import math
import os
import random
import sys


def write(name, head, rows):
    with open(os.path.join(FOLDER, name), "w") as out:
        out.write(head + "\n")
        for row in rows:
            out.write(",".join(str(x) for x in row) + "\n")


def offspring(a, sire, dam, variance, r):
    """breeding value: mean of the parents (0: unknown) and Mendelian sampling"""
    known = (sire is not None) + (dam is not None)
    mean = 0.5 * ((a[sire] if sire is not None else 0.0) + (a[dam] if dam is not None else 0.0))
    return mean + r.gauss(0.0, math.sqrt(variance * (1.0 - 0.25 * known)))


def pairs(r, v11, v12, v22):
    """two correlated normal numbers"""
    x, y = r.gauss(0, 1), r.gauss(0, 1)
    s = math.sqrt(v11)
    return s * x, v12 / s * x + math.sqrt(v22 - v12 * v12 / v11) * y


def cows(r):
    """milk and fat in up to three lactations: genetic 30, 0.6, 0.025 (r 0.69), permanent 20, 0.4, 0.015, residual 50, 0.8, 0.04"""
    animals, pedigree = {}, []
    for k in range(40):
        animals["S%02d" % k] = pairs(r, 30.0, 0.6, 0.025)
    for k in range(200):
        animals["D%03d" % k] = pairs(r, 30.0, 0.6, 0.025)
    rows = []
    for k in range(450):
        cow, sire, dam = "C%03d" % k, "S%02d" % r.randrange(40), "D%03d" % r.randrange(200)
        m = pairs(r, 15.0, 0.3, 0.0125)
        animals[cow] = tuple(0.5 * (animals[sire][t] + animals[dam][t]) + m[t] for t in (0, 1))
        pedigree.append((cow, sire, dam))
        perm = pairs(r, 20.0, 0.4, 0.015)
        herd = r.randrange(8)
        for parity in range(1, 1 + r.choice((1, 2, 3, 3))):
            e = pairs(r, 50.0, 0.8, 0.04)
            milk = 60.0 + 5 * parity + herd + animals[cow][0] + perm[0] + e[0]
            fat = 3.8 + 0.05 * parity + 0.02 * herd + animals[cow][1] + perm[1] + e[1]
            rows.append((cow, "H%d" % (herd + 1), parity, "%.1f" % milk, "%.2f" % fat))
    r.shuffle(rows)
    write("cows.csv", "cow,herd,parity,milk,fat", rows)
    write("cows_pedigree.csv", "cow,sire,dam", pedigree)


def pigs(r):
    """weight at weaning: genetic 0.6, common environment of litters 0.5, residual 1.4"""
    a = {}
    for k in range(25):
        a["B%02d" % k] = r.gauss(0, math.sqrt(0.6))
    for k in range(80):
        a["S%02d" % k] = r.gauss(0, math.sqrt(0.6))
    rows, pedigree, n = [], [], 0
    for litter in range(160):
        sire, dam = "B%02d" % r.randrange(25), "S%02d" % (litter % 80)
        common = r.gauss(0, math.sqrt(0.5))
        for _ in range(r.randint(4, 9)):
            n += 1
            pig = "P%04d" % n
            a[pig] = offspring(a, sire, dam, 0.6, r)
            pedigree.append((pig, sire, dam))
            sex = r.choice(("m", "f"))
            y = 7.0 + (0.3 if sex == "m" else 0.0) + a[pig] + common + r.gauss(0, math.sqrt(1.4))
            rows.append((pig, sex, "L%03d" % litter, "%.2f" % y))
    write("pigs.csv", "pig,sex,litter,weight", rows)
    write("pigs_pedigree.csv", "pig,sire,dam", pedigree)


def lambs(r):
    """weight of lambs: direct 4, maternal 2, covariance -0.5, residual 8; ewes are daughters of earlier crops"""
    cov = (4.0, -0.5, 2.0)
    a, rows, pedigree = {}, [], []
    rams = ["R%02d" % k for k in range(50)]
    ewes = ["E%03d" % k for k in range(120)]
    for name in rams + ewes:
        a[name] = pairs(r, *cov)
    n = 0
    for year in range(6):
        born = []
        for _ in range(200):
            n += 1
            lamb, sire, dam = "L%04d" % n, rams[r.randrange(8 * year, 8 * year + 10)], r.choice(ewes)
            m = pairs(r, *(0.5 * c for c in cov))
            a[lamb] = tuple(0.5 * (a[sire][t] + a[dam][t]) + m[t] for t in (0, 1))
            pedigree.append((lamb, sire, dam))
            y = 30.0 + year + a[lamb][0] + a[dam][1] + r.gauss(0, math.sqrt(8.0))
            rows.append((lamb, "Y%d" % year, dam, "%.1f" % y))
            born.append(lamb)
        ewes = r.sample(ewes, 80) + r.sample(born[::2], 40)
    write("lambs.csv", "lamb,year,dam,weight", rows)
    write("lambs_pedigree.csv", "lamb,sire,dam", pedigree)


def testdays(r):
    """test-day milk: genetic and permanent intercepts 14 and 4, slopes 4 and 1.5 on the Legendre scale, residual 4"""
    g, rows, pedigree = {}, [], []
    for k in range(30):
        g["S%02d" % k] = (r.gauss(0, math.sqrt(14)), r.gauss(0, 2.0))
    for k in range(250):
        cow, sire = "C%03d" % k, "S%02d" % r.randrange(30)
        g[cow] = tuple(0.5 * g[sire][t] + r.gauss(0, math.sqrt(0.75 * (14.0, 4.0)[t])) for t in (0, 1))
        pedigree.append((cow, sire, ""))
        p = (r.gauss(0, 2.0), r.gauss(0, math.sqrt(1.5)))
        herd, first = r.randrange(5), r.randint(8, 35)
        for test in range(r.randint(5, 9)):
            day = first + 33 * test
            x = 2.0 * (day - 5) / 300.0 - 1.0
            f0, f1 = math.sqrt(0.5), math.sqrt(1.5) * x
            y = 25.0 + herd + 0.1 * day ** 0.7 - 0.04 * day + f0 * (g[cow][0] + p[0]) + f1 * (g[cow][1] + p[1])
            rows.append((cow, "H%dT%d" % (herd, test), day, "%.1f" % (y + r.gauss(0, 2.0))))
    write("testdays.csv", "cow,herdtest,day,milk", rows)
    write("testdays_pedigree.csv", "cow,sire,dam", pedigree)


def trial(r):
    """yield of lines at four places: by markers 6, line by place 2, residual 4"""
    lines = ["N%02d" % k for k in range(70)]
    parents = [[r.randrange(2) for _ in range(120)] for _ in range(10)]
    markers, value = {}, {}
    effects = [r.gauss(0, 1.0) for _ in range(120)]
    for name in lines:
        one, two = r.sample(parents, 2)
        at, genome = 0, []
        for j in range(120):
            at = at if r.random() > 0.1 else 1 - at
            genome.append(2 * (one, two)[at][j])
        markers[name] = genome
        value[name] = sum(e * x for e, x in zip(effects, genome))
    mean = sum(value.values()) / 70
    sd = math.sqrt(sum((v - mean) ** 2 for v in value.values()) / 69)
    rows = []
    for place in range(4):
        for name in lines:
            here = math.sqrt(6.0) * (value[name] - mean) / sd + r.gauss(0, math.sqrt(2.0))
            for block in (1, 2):
                rows.append((name, "P%d" % (place + 1), block, "%.2f" % (50 + 3 * place + here + r.gauss(0, 2.0))))
    write("trial.csv", "line,place,block,yield", rows)
    write("markers.csv", "line," + ",".join("m%d" % j for j in range(120)), ((n, *markers[n]) for n in lines))


def trees(r):
    """height of trees, crosses between unrelated parents: additive 3, dominance 3, residual 4"""
    parents = ["A%02d" % k for k in range(40)]
    a = {p: r.gauss(0, math.sqrt(3)) for p in parents}
    rows, pedigree, n = [], [], 0
    for _ in range(110):
        mother, father = r.sample(parents[:20], 1)[0], r.sample(parents[20:], 1)[0]
        family = r.gauss(0, math.sqrt(3 * 0.25))
        for _ in range(7):
            n += 1
            tree = "T%03d" % n
            y = 12.0 + offspring(a, father, mother, 3.0, r) + family + r.gauss(0, math.sqrt(3 * 0.75)) + r.gauss(0, 2.0)
            pedigree.append((tree, father, mother))
            rows.append((tree, "B%d" % (n % 6), "%.2f" % y))
    write("trees.csv", "tree,block,height", rows)
    write("trees_pedigree.csv", "tree,father,mother", pedigree)


FOLDER = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
for k, make in enumerate((cows, pigs, lambs, testdays, trial, trees)):
    make(random.Random(2000 + k))
