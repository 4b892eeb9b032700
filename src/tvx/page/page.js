"use strict";
// Draws the report from the data in the page. No network; pictures by D3.
(() => {
  const body = document.body;
  body.dataset.errors = "0";
  const failed = (e) => { body.dataset.errors = String(Number(body.dataset.errors) + 1); console.error(e); };
  window.addEventListener("error", (e) => failed(e.message));
  const data = JSON.parse(document.getElementById("data").textContent);
  const main = document.querySelector("main");
  const colours = ["--one", "--two", "--three", "--four", "--five"].map((c) => `var(${c})`);
  const colour = (i) => colours[i % colours.length];

  // ---- texts and tables

  const add = (parent, tag, text, cls) => {
    const e = document.createElement(tag);
    if (text !== undefined && text !== null) e.textContent = text;
    if (cls) e.className = cls;
    parent.appendChild(e);
    return e;
  };
  const has = (x) => typeof x === "number" && isFinite(x);
  const figure = (x, digits = 4) => {
    if (!has(x)) return "";
    const a = Math.abs(x);
    if (a !== 0 && (a >= 1e6 || a < 1e-4)) return x.toExponential(digits - 1).replace("e+", "e").replace("-", "\u2212");
    return Number(x.toPrecision(digits)).toLocaleString("en", { maximumSignificantDigits: digits, useGrouping: false })
      .replace("-", "\u2212");
  };
  const fixed = (x, d = 3) => (has(x) ? x.toFixed(d).replace("-", "\u2212") : "");
  const section = (title, note) => {
    const s = add(main, "section");
    add(s, "h2", title);
    if (note) add(s, "p", note, "soft");
    return s;
  };
  const table = (parent, heads, rows) => {
    const t = add(add(parent, "div", null, "wide"), "table");
    const hr = add(add(t, "thead"), "tr");
    heads.forEach((h) => add(hr, "th", h.text, h.n ? "n" : ""));
    const tb = add(t, "tbody");
    rows.forEach((r) => {
      const tr = add(tb, "tr");
      r.forEach((c, i) => add(tr, "td", c, [heads[i].n ? "n" : "", heads[i].cls || ""].join(" ").trim()));
    });
  };
  const grid = (parent, broad) => add(parent, "div", null, broad ? "figures broad" : "figures");

  // ---- pictures

  const frame = (parent, title, words, width, height, margin) => {
    const f = add(parent, "figure");
    add(f, "h3", title);
    const svg = d3.select(f).append("svg").attr("viewBox", `0 0 ${width} ${height}`).attr("role", "img")
      .attr("aria-label", `${title}. ${words}`);
    if (words) add(f, "figcaption", words);
    const m = Object.assign({ top: 8, right: 20, bottom: 34, left: 46 }, margin);
    return { f, svg, x0: m.left, x1: width - m.right, y0: height - m.bottom, y1: m.top, width, height };
  };
  // Width of the large pictures: on a narrow screen that which they get, so that their letters stay as large as others'.
  const room = () => Math.max(300, Math.min(460, main.clientWidth - 26));
  const ticks = (n) => (x) => { const t = d3.format("~g")(x); return t.length > n ? d3.format("~s")(x) : t; };
  const across = (p, x, label, axis) => {
    p.svg.append("g").attr("class", "axis").attr("transform", `translate(0,${p.y0})`)
      .call(axis || d3.axisBottom(x).ticks(5).tickFormat(ticks(7)).tickSizeOuter(0));
    p.svg.append("text").attr("x", (p.x0 + p.x1) / 2).attr("y", p.height - 4).attr("text-anchor", "middle")
      .style("fill", "var(--soft)").text(label);
  };
  const upward = (p, y, axis) => {
    p.svg.append("g").attr("class", "axis").attr("transform", `translate(${p.x0},0)`)
      .call(axis || d3.axisLeft(y).ticks(5).tickFormat(ticks(6)).tickSizeOuter(0));
    p.svg.append("g").attr("class", "grid").selectAll("line").data(y.ticks ? y.ticks(5) : []).enter().append("line")
      .attr("x1", p.x0).attr("x2", p.x1).attr("y1", y).attr("y2", y);
  };
  const tip = (s, text) => s.append("title").text(text);

  // Dots with intervals of 95 per cent.
  const intervals = (parent, title, rows, low, high) => {
    if (!rows.length) return;
    const width = room(), left = Math.min(190, 0.44 * width), letters = Math.floor((left - 12) / 6.4);
    const cut = (text) => (text.length > letters ? text.slice(0, letters - 1) + "\u2026" : text);
    const parts = (text) => { // in two lines, behind the dash, what is too long for one
      const at = text.indexOf(" \u2013 ");
      return text.length <= letters || at < 0 ? [cut(text)] : [cut(text.slice(0, at + 2)), cut(text.slice(at + 3))];
    };
    const height = 46 + (rows.some((r) => parts(r.label).length > 1) ? 34 : 24) * rows.length;
    const p = frame(parent, title, "Dot: estimate. Line: estimate and 1.96 standard errors on either side, within " +
      `${low} to ${high}.`, width, height, { left });
    const x = d3.scaleLinear([low, high], [p.x0, p.x1]), y = d3.scalePoint(rows.map((_, i) => i), [p.y1 + 10, p.y0 - 10]);
    p.svg.append("g").attr("class", "grid").selectAll("line").data(x.ticks(5)).enter().append("line").attr("x1", x)
      .attr("x2", x).attr("y1", p.y1).attr("y2", p.y0);
    across(p, x, "");
    rows.forEach((r, i) => {
      const g = p.svg.append("g"), at = y(i), c = r.mark ? "var(--warn)" : "var(--one)";
      const lines = parts(r.label), text = g.append("text").attr("text-anchor", "end");
      lines.forEach((line, k) => text.append("tspan").attr("x", p.x0 - 8)
        .attr("y", at + 4 + 13 * (k - (lines.length - 1) / 2)).text(line));
      tip(text, r.label);
      if (has(r.se)) g.append("line").attr("x1", x(Math.max(low, r.value - 1.96 * r.se)))
        .attr("x2", x(Math.min(high, r.value + 1.96 * r.se))).attr("y1", at).attr("y2", at).attr("stroke", c)
        .attr("stroke-width", 2);
      const dot = g.append("circle").attr("cx", x(Math.max(low, Math.min(high, r.value)))).attr("cy", at).attr("r", 4.5)
        .attr("fill", r.mark ? "var(--card)" : c).attr("stroke", c).attr("stroke-width", 2);
      tip(dot, `${r.label}: ${fixed(r.value)}${has(r.se) ? " (s.e. " + fixed(r.se) + ")" : ""}${r.mark ? ", " + r.mark : ""}`);
    });
  };

  const histogram = (parent, title, words, h, label, c) => {
    if (!h || !h.counts.length) return;
    const p = frame(parent, title, words, 330, 190);
    const n = h.counts.length, step = (h.to - h.from) / n;
    const x = d3.scaleLinear([h.from, h.to], [p.x0, p.x1]), y = d3.scaleLinear([0, d3.max(h.counts)], [p.y0, p.y1]).nice();
    upward(p, y);
    const bars = p.svg.append("g").selectAll("rect").data(h.counts).enter().append("rect")
      .attr("x", (_, i) => x(h.from + i * step) + 0.5).attr("width", Math.max(1, (p.x1 - p.x0) / n - 1))
      .attr("y", (d) => y(d)).attr("height", (d) => p.y0 - y(d)).attr("fill", c);
    bars.append("title").text((d, i) => `${figure(h.from + i * step)} to ${figure(h.from + (i + 1) * step)}: ${d}`);
    across(p, x, label);
  };

  const lines = (parent, title, words, series, label, opts = {}) => {
    const shown = series.filter((s) => s.points.length);
    if (!shown.length) return;
    const p = frame(parent, title, words, room(), 270);
    const all = shown.flatMap((s) => s.points), reach = (q, sign) => q.y + sign * 1.96 * (has(q.se) && opts.band ? q.se : 0);
    let low = d3.min(all, (q) => reach(q, -1)), high = d3.max(all, (q) => reach(q, 1));
    if (opts.zero) low = Math.max(0, Math.min(0, low));
    if (opts.top) high = Math.min(opts.top, high);
    if (low === high) { low -= 1; high += 1; }
    const x = d3.scaleLinear(d3.extent(all, (q) => q.x), [p.x0, p.x1]);
    const y = d3.scaleLinear([low, high], [p.y0, p.y1]).nice();
    const hold = (v) => Math.max(y.domain()[0], Math.min(y.domain()[1], v));
    upward(p, y);
    const keys = add(p.f, "div");
    shown.forEach((s, i) => {
      const c = colour(i), g = p.svg.append("g");
      if (opts.band) g.append("path").datum(s.points.filter((q) => has(q.se))).attr("fill", c)
        .attr("style", "fill-opacity: var(--band)")
        .attr("d", d3.area().x((q) => x(q.x)).y0((q) => y(hold(reach(q, -1)))).y1((q) => y(hold(reach(q, 1)))));
      g.append("path").datum(s.points).attr("fill", "none").attr("stroke", c).attr("stroke-width", 2)
        .attr("d", d3.line().x((q) => x(q.x)).y((q) => y(q.y)));
      if (s.points.length <= 60) g.selectAll("circle").data(s.points).enter().append("circle").attr("cx", (q) => x(q.x))
        .attr("cy", (q) => y(q.y)).attr("r", 2.6).attr("fill", c).append("title")
        .text((q) => `${s.name} ${figure(q.x, 6)}: ${figure(q.y)}${has(q.se) ? " (s.e. " + figure(q.se, 2) + ")" : ""}${q.n ? ", " + q.n : ""}`);
      if (shown.length > 1) {
        const k = add(keys, "span", null, "key");
        add(k, "i").style.background = c;
        k.append(s.name);
      }
    });
    across(p, x, label, opts.years ? d3.axisBottom(x).ticks(6).tickFormat(d3.format("d")).tickSizeOuter(0) : undefined);
  };

  const scatter = (parent, title, words, points) => {
    if (!points.length) return;
    const p = frame(parent, title, words, 330, 230);
    const x = d3.scaleLinear(d3.extent(points, (q) => q[0]), [p.x0, p.x1]).nice();
    const y = d3.scaleLinear(d3.extent(points, (q) => q[1]), [p.y0, p.y1]).nice();
    upward(p, y);
    p.svg.append("g").selectAll("circle").data(points).enter().append("circle").attr("cx", (q) => x(q[0]))
      .attr("cy", (q) => y(q[1])).attr("r", 1.8).attr("fill", "var(--one)").attr("fill-opacity", 0.45);
    p.svg.append("line").attr("x1", p.x0).attr("x2", p.x1).attr("y1", y(0)).attr("y2", y(0)).attr("stroke", "var(--two)");
    across(p, x, "fitted");
  };

  const way = (parent, iterates) => {
    if (iterates.length < 2) return;
    const best = d3.max(iterates, (q) => q.log_l), floor = 1e-6;
    const p = frame(parent, "Way to the maximum",
      "How far log L of each round lies below the highest; AI: average information, EM and PX: expectation and " +
      "maximisation.", room(), 230, { left: 68 });
    const x = d3.scaleLinear([0, iterates.length - 1], [p.x0, p.x1]);
    const gap = (q) => Math.max(floor, best - q.log_l);
    const y = d3.scaleLog([floor, Math.max(1, d3.max(iterates, gap))], [p.y0, p.y1]).nice();
    upward(p, Object.assign((v) => y(v), { ticks: () => y.ticks(4) }),
      d3.axisLeft(y).ticks(4, "~g").tickSizeOuter(0));
    p.svg.append("path").datum(iterates).attr("fill", "none").attr("stroke", "var(--one)").attr("stroke-width", 1.5)
      .attr("d", d3.line().x((_, i) => x(i)).y((q) => y(gap(q))));
    p.svg.append("g").selectAll("circle").data(iterates).enter().append("circle").attr("cx", (_, i) => x(i))
      .attr("cy", (q) => y(gap(q))).attr("r", 3.5).attr("fill", (q) => (q.method === "AI" ? "var(--one)" : "var(--two)"))
      .append("title").text((q) => `${q.method} ${q.round}: log L ${q.log_l.toFixed(4)}`);
    across(p, x, "round", d3.axisBottom(x).ticks(Math.min(8, iterates.length - 1)).tickFormat(d3.format("d")).tickSizeOuter(0));
  };

  const eigen = (parent, e) => {
    const width = room(), p = frame(parent, e.effect,
      `Eigenvalues${e.rank < e.order ? ` at rank ${e.rank} of ${e.order}` : ""}, and what part of the sum each holds.`,
      width, 60 + 24 * e.values.length, { left: 40 });
    const sum = d3.sum(e.values) || 1, x = d3.scaleLinear([0, d3.max(e.values) || 1], [p.x0, p.x1 - 60]);
    e.values.forEach((v, i) => {
      const at = p.y1 + 12 + 24 * i;
      p.svg.append("text").attr("x", p.x0 - 8).attr("y", at + 4).attr("text-anchor", "end").text(i + 1);
      p.svg.append("rect").attr("x", p.x0).attr("y", at - 8).attr("height", 16).attr("fill", "var(--one)")
        .attr("width", Math.max(1, x(v) - p.x0));
      p.svg.append("text").attr("x", x(v) + 6).attr("y", at + 4).text(`${figure(v, 3)}  ${Math.round((100 * v) / sum)}%`);
    });
    across(p, x, "eigenvalue");
    const d = add(p.f, "details");
    add(d, "summary", "Loadings");
    table(d, [{ text: "" }, ...e.values.map((_, i) => ({ text: String(i + 1), n: true }))],
      e.rows.map((r, i) => [r, ...e.loadings[i].map((v) => fixed(v, 3))]));
  };

  const ranks = () => {
    const s = section("Criteria by rank", "Less is better; the differences count.");
    table(s, [{ text: "Rank", n: true }, { text: "Parameters", n: true }, { text: "log L", n: true }, { text: "AIC", n: true },
      { text: "BIC", n: true }, { text: "Verdict" }],
    data.ranks.map((r) => [String(r.rank), String(r.parameters), fixed(r.log_l, 3), fixed(r.aic, 2), fixed(r.bic, 2), r.verdict]));
    const above = (of) => { const low = d3.min(data.ranks, (r) => r[of]);
      return data.ranks.map((r) => ({ x: r.rank, y: r[of] - low })); };
    lines(grid(s, true), "Above the lowest", "AIC and BIC of each rank less the lowest one.",
      [{ name: "AIC", points: above("aic") }, { name: "BIC", points: above("bic") }], "rank", { zero: true, years: true });
  };

  // ---- the page

  const draw = () => {
    add(main, "h1", data.title);
    if (data.formula) add(add(main, "p", null, "soft"), "code", data.formula);
    const v = add(main, "div", null, `verdict ${data.verdict.verdict.split(" ")[0]}`);
    add(v, "strong", data.verdict.verdict[0].toUpperCase() + data.verdict.verdict.slice(1));
    add(v, "p", data.verdict.text);
    if (data.verdict.details.length) {
      const ul = add(v, "ul");
      data.verdict.details.forEach((d) => add(ul, "li", d));
    }
    const facts = add(main, "ul", null, "facts");
    data.facts.forEach(([name, value]) => { const li = add(facts, "li", name + " "); add(li, "b", value); });

    if (data.ranks) return ranks();

    const comps = section("Components", "In the units of your table. s.e.: approximate standard error.");
    table(comps, [{ text: "Effect" }, { text: "Trait" }, { text: "With" }, { text: "Estimate", n: true },
      { text: "s.e.", n: true }, { text: "Ratio", n: true }, { text: "s.e.", n: true }, { text: "", cls: "mark" },
      { text: "What the ratio is", cls: "words" }],
    data.components.map((c) => [c.effect, c.trait_i, c.kind === "covariance" ? c.trait_j : "", figure(c.estimate, 5),
      figure(c.se, 3), fixed(c.ratio), fixed(c.ratio_se), c.mark, c.words]));

    const name = (c) => c.effect + (data.traits > 1 || c.trait_i.includes("[") || c.kind === "covariance" ? " " + c.trait_i : "") +
      (c.kind === "covariance" ? " \u2013 " + c.trait_j : "");
    const bar = (c) => ({ label: name(c), value: c.ratio, se: c.ratio_se, mark: c.mark });
    const dots = data.components.filter((c) => has(c.ratio));
    if (dots.length) {
      const g = grid(section("Ratios and correlations"), true);
      intervals(g, "Parts of the phenotypic variance", dots.filter((c) => c.kind === "variance").map(bar), 0, 1);
      intervals(g, "Correlations", dots.filter((c) => c.kind === "covariance").map(bar), -1, 1);
    }

    if (data.curves.length) {
      const g = grid(section(`Along ${data.curves[0].control}`, "Bands: 1.96 standard errors on either side."), true);
      const series = (of, se) => data.curves.map((c) => ({ name: c.effect,
        points: c.points.filter((q) => has(q[of])).map((q) => ({ x: q.x, y: q[of], se: q[se] })) }));
      lines(g, "Variances", "Variance of each effect at each value.", series("variance", "se"), data.curves[0].control,
        { band: true, zero: true });
      lines(g, "Parts of the phenotypic variance", "That of a genetic effect is the heritability.",
        series("ratio", "ratio_se"), data.curves[0].control, { band: true, zero: true, top: 1 });
    }

    const levels = data.effects.filter((e) => e.solutions.counts.length);
    if (levels.length) {
      const g = grid(section("Predictions"));
      levels.forEach((e) => {
        const what = `${e.effect}, ${e.trait}`, word = e.animals ? "breeding values" : "predicted effects";
        histogram(g, what, `${e.count} ${word}.`, e.solutions, word, "var(--one)");
        if (e.accuracies.counts.length) histogram(g, `Accuracy: ${what}`, "Correlation of true and predicted values.",
          e.accuracies, "accuracy", "var(--three)");
      });
    }
    const trends = data.effects.filter((e) => e.trend.length > 1);
    if (trends.length) {
      const g = grid(section("Genetic trend", "Mean breeding value of the animals born in each year."), true);
      trends.forEach((e) => lines(g, `${e.effect}, ${e.trait}`, "", [{ name: e.trait,
        points: e.trend.map((t) => ({ x: t.year, y: t.mean, n: t.animals + " animals" })) }], data.born || "year of birth",
        { years: true }));
    }
    const best = data.effects.filter((e) => e.best.length);
    if (best.length) {
      const s = section("Best animals", "Highest breeding values; turn the order round where less is better.");
      best.forEach((e, i) => {
        const d = add(s, "details");
        d.open = i === 0;
        add(d, "summary", `${e.effect}, ${e.trait}`);
        table(d, [{ text: "Animal" }, { text: "Breeding value", n: true }, { text: "s.e.", n: true },
          { text: "Accuracy", n: true }, { text: "Records", n: true }, { text: "Inbreeding", n: true }, { text: "Sire" },
          { text: "Dam" }],
        e.best.map((b) => [b.id, figure(b.solution, 4), figure(b.se, 3), fixed(b.accuracy, 2),
          b.records >= 0 ? String(b.records) : "", fixed(b.inbreeding, 3), b.sire, b.dam]));
      });
    }
    if (data.eigen.length) {
      const g = grid(section("Eigenvalues", data.random_regression ? "" :
        "Traits in units of their phenotypic standard deviations."), true);
      data.eigen.forEach((e) => eigen(g, e));
    }
    if (data.residuals.length) {
      const g = grid(section("Residuals", "Against fitted values. A funnel or a bend asks for another scale or model."));
      data.residuals.forEach((t) => scatter(g, t.trait,
        t.points.length < t.count ? `${t.points.length} of ${t.count} records, evenly taken.` : `${t.count} records.`, t.points));
    }
    if (data.iterates.length > 1) way(grid(section("The search", data.search), true), data.iterates);
    if (data.notes.length) {
      const ul = add(section("What was done with the data"), "ul");
      data.notes.forEach((n) => add(ul, "li", n));
    }
    add(main, "p", data.made, "soft");
  };
  try { draw(); } catch (e) { failed(e); }
  body.dataset.pictures = String(document.querySelectorAll("svg").length);
  body.dataset.done = "yes";
})();
