// The published wiki's one script: the search box, and source lines marked
// for "#L10-L20" anchors. Pages read the same without it.
(function () {
  "use strict";
  var me = document.currentScript;
  var root = (me && me.getAttribute("data-root")) || "";
  var box = document.querySelector(".search");
  var input = document.getElementById("search");
  var list = document.getElementById("search-results");
  var index = null;
  var loading = false;
  var pending = null;

  // The index is a script (file:// pages cannot fetch), loaded on first use.
  function load(then) {
    if (index) { then(); return; }
    pending = then;
    if (loading) return;
    loading = true;
    var tag = document.createElement("script");
    tag.src = root + "search-index.js";
    tag.onload = function () {
      index = window.OSTREL_SEARCH_INDEX || { pages: [] };
      if (pending) pending();
    };
    document.head.appendChild(tag);
  }

  // Each hit: [score, page, section or null, what matched].
  function search(query) {
    var words = query.toLowerCase().split(/\s+/).filter(function (w) { return w.length > 0; });
    if (!words.length) return [];
    var hits = [];
    index.pages.forEach(function (page) {
      var title = (page.t + " " + page.i).toLowerCase();
      var score = 0;
      words.forEach(function (w) { if (title.indexOf(w) >= 0) score += 10; });
      var best = score ? [score, page, null, "title"] : null;
      // A matching section adds to the title's score, and the hit links to it.
      page.s.forEach(function (s) {
        var sc = 0, why = "text";
        words.forEach(function (w) {
          if (s[2].some(function (y) { return y.toLowerCase() === w; })) { sc += 8; why = "symbol"; }
          else if (s[2].some(function (y) { return y.toLowerCase().indexOf(w) >= 0; })) { sc += 5; why = "symbol"; }
          else if (s[0].toLowerCase().indexOf(w) >= 0) sc += 4;
          else if ((" " + s[3] + " ").indexOf(" " + w) >= 0) sc += 1;
        });
        if (sc && (!best || score + sc > best[0])) best = [score + sc, page, s, why];
      });
      if (best) hits.push(best);
    });
    hits.sort(function (a, b) { return b[0] - a[0] || (a[1].t < b[1].t ? -1 : 1); });
    return hits.slice(0, 20);
  }

  function show() {
    var hits = search(input.value);
    list.textContent = "";
    hits.forEach(function (hit) {
      var page = hit[1], section = hit[2];
      var li = document.createElement("li");
      var a = document.createElement("a");
      a.href = root + page.u + (section && section[1] ? "#" + section[1] : "");
      a.textContent = page.t || page.i;
      var where = document.createElement("span");
      where.className = "where";
      where.textContent = (section && section[0] ? section[0] + " · " : "") + hit[3];
      a.appendChild(where);
      li.appendChild(a);
      list.appendChild(li);
    });
    list.hidden = hits.length === 0;
  }

  if (box && input && list) {
    box.hidden = false;
    input.addEventListener("focus", function () { load(function () {}); });
    input.addEventListener("input", function () { load(show); });
    input.addEventListener("keydown", function (e) {
      if (e.key === "Escape") { input.value = ""; list.hidden = true; }
      if (e.key === "Enter") { var first = list.querySelector("a"); if (first) first.click(); }
    });
    document.addEventListener("click", function (e) { if (!box.contains(e.target)) list.hidden = true; });
  }

  // Source views: bring the first line of a cited range into view.
  function mark() {
    var m = /^#L(\d+)-L(\d+)$/.exec(location.hash);
    if (!m) return;
    var line = document.getElementById("L" + m[1]);
    if (line) line.scrollIntoView({ block: "center" });
  }
  window.addEventListener("hashchange", mark);
  if (document.querySelector("pre.source")) mark();
})();
