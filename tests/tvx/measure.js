// Looks at a report as a browser shows it, from within the page: least contrast of a text with what lies behind it (as
// the guidelines for web content reckon it), smallest letters, texts of pictures that are cut off, and how far the page
// is wider than its window. Sent to the page around it.
(() => {
  const light = (c) => c.map((x) => x / 255).map((x) => (x <= 0.03928 ? x / 12.92 : ((x + 0.055) / 1.055) ** 2.4))
    .reduce((s, x, i) => s + x * [0.2126, 0.7152, 0.0722][i], 0);
  const rgb = (text) => text.match(/[\d.]+/g).map(Number);
  const behind = (e) => {
    for (; e; e = e.parentElement) {
      const c = rgb(getComputedStyle(e).backgroundColor);
      if (c.length < 4 || c[3] > 0) return c;
    }
    return [255, 255, 255];
  };
  const contrast = (a, b) => { const [x, y] = [light(a), light(b)].sort((p, q) => q - p); return (x + 0.05) / (y + 0.05); };
  const worst = { contrast: 99, contrast_of: "", font: 99, font_of: "", clipped: 0, clipped_of: "" };
  document.querySelectorAll("details").forEach((d) => { d.open = true; });
  for (const e of document.body.querySelectorAll("*")) {
    const own = [...e.childNodes].some((n) => n.nodeType === 3 && n.textContent.trim());
    if (!own || ["SCRIPT", "STYLE", "title"].includes(e.tagName)) continue;
    const svg = e.closest("svg"), style = getComputedStyle(e);
    const k = contrast(rgb(svg ? style.fill : style.color).slice(0, 3), behind(e).slice(0, 3));
    if (k < worst.contrast) { worst.contrast = k; worst.contrast_of = e.textContent; }
    const scale = svg ? svg.getBoundingClientRect().width / svg.viewBox.baseVal.width : 1;
    const size = parseFloat(style.fontSize) * scale;
    if (size < worst.font) { worst.font = size; worst.font_of = e.textContent; }
    if (svg) {
      const a = e.getBoundingClientRect(), b = svg.getBoundingClientRect();
      if (a.left < b.left - 1 || a.right > b.right + 1 || a.top < b.top - 1 || a.bottom > b.bottom + 1) {
        ++worst.clipped; worst.clipped_of += " | " + e.textContent; }
    }
  }
  worst.overflow = document.documentElement.scrollWidth - document.documentElement.clientWidth;
  worst.width = document.documentElement.clientWidth;
  worst.dark = matchMedia("(prefers-color-scheme: dark)").matches;
  window.parent.postMessage("MEASURES " + JSON.stringify(worst) + " END", "*");
})();
