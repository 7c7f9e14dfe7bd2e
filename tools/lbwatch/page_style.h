#pragma once

namespace lbwatch {

/// The style of both pages. Colours are told apart by lightness and shape too: failed reaches
/// higher, not watched is hatched.
inline constexpr const char* page_style = R"(:root {
  --page: #f6f7f9; --card: #ffffff; --ink: #1d2430; --soft: #5d6878; --line: #e2e6ec;
  --good: #3d9a6c; --bad: #c8423f; --unknown: #a9b1bd; --hatch: #bcc5d0; --accent: #3566b0;
  --good-soft: #e4f3ea; --bad-soft: #fbe7e6;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #12161c; --card: #1b2129; --ink: #e6eaf0; --soft: #98a3b3; --line: #2b333e;
    --good: #46a878; --bad: #e0605b; --unknown: #667080; --hatch: #465160; --accent: #7aa7e8;
    --good-soft: #1b3529; --bad-soft: #442322;
  }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--page); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif; }
main, header.top, footer { max-width: 1040px; margin: 0 auto; padding: 0 20px; }
header.top { padding-top: 36px; padding-bottom: 8px; }
h1 { font-size: 26px; line-height: 1.25; font-weight: 650; margin: 0 0 4px; letter-spacing: -.01em; }
h2 { font-size: 18px; font-weight: 620; margin: 0; }
p { margin: 0; }
.sub { color: var(--soft); }
.card { background: var(--card); border: 1px solid var(--line); border-radius: 12px;
  padding: 20px 22px; margin: 18px 0; }
.card > header { display: flex; flex-wrap: wrap; gap: 4px 14px; align-items: baseline; }
.card > header .sub { font-size: 14px; }
.big { margin-left: auto; font-size: 22px; font-weight: 620; font-variant-numeric: tabular-nums; }
.state { font-size: 13px; font-weight: 600; padding: 1px 10px; border-radius: 99px;
  background: var(--line); color: var(--soft); }
.state.active { background: var(--good-soft); color: var(--good); }
.state.failed { background: var(--bad-soft); color: var(--bad); }
.band { display: block; width: 100%; height: 32px; margin-top: 14px; }
rect.active, i.active { fill: var(--good); background: var(--good); }
rect.failed, i.failed { fill: var(--bad); background: var(--bad); }
rect.unknown, i.unknown { fill: var(--unknown); background: var(--unknown); }
rect.unwatched { fill: url(#hatch); } rect.stripe { fill: var(--hatch); }
i.unwatched { background: repeating-linear-gradient(90deg, var(--hatch) 0 2px, transparent 2px 5px); }
.axis { display: flex; justify-content: space-between; color: var(--soft); font-size: 12px;
  margin-top: 4px; font-variant-numeric: tabular-nums; }
.legend { list-style: none; display: flex; flex-wrap: wrap; gap: 4px 18px; padding: 0;
  margin: 14px 0 0; color: var(--soft); font-size: 13px; }
.legend i, figcaption i { display: inline-block; width: 12px; height: 12px; border-radius: 3px;
  margin-right: 6px; vertical-align: -1px; }
dl.figures { display: grid; grid-template-columns: repeat(auto-fit, minmax(120px, 1fr));
  gap: 12px 18px; margin: 18px 0 0; }
dl.figures div { min-width: 0; }
dt { color: var(--soft); font-size: 12.5px; }
dd { margin: 0; font-weight: 560; font-variant-numeric: tabular-nums; }
figure { margin: 22px 0 0; }
figcaption { color: var(--soft); font-size: 13px; display: flex; flex-wrap: wrap; gap: 2px 16px;
  margin-bottom: 6px; }
figcaption b { color: var(--ink); font-weight: 560; }
i.rtt { background: var(--accent); } i.loss { background: var(--bad); }
.chart svg { display: block; width: 100%; height: 120px; overflow: visible; }
.hours svg { display: block; width: 100%; height: 40px; }
path.rtt { fill: none; stroke: var(--accent); stroke-width: 1.6; vector-effect: non-scaling-stroke;
  stroke-linejoin: round; }
rect.loss { fill: var(--bad); opacity: .75; }
rect.base { fill: var(--line); } line.base { stroke: var(--line); }
table { border-collapse: collapse; width: 100%; margin-top: 20px; font-size: 14px; }
th { text-align: left; color: var(--soft); font-weight: 500; font-size: 12.5px; }
th, td { padding: 6px 14px 6px 0; border-bottom: 1px solid var(--line); vertical-align: top;
  font-variant-numeric: tabular-nums; }
td:last-child, th:last-child { padding-right: 0; }
td[data-name=Reason] { overflow-wrap: anywhere; }
tbody tr:last-child td { border-bottom: 0; }
.none { color: var(--soft); margin-top: 16px; font-size: 14px; }
ul.details { list-style: none; margin: 14px 0 0; padding: 0; color: var(--soft); font-size: 14px; }
ul.details b { color: var(--ink); font-weight: 560; }
ol.events { list-style: none; margin: 12px 0 0; padding: 0; font-size: 14px; }
ol.events li { padding: 6px 0; border-bottom: 1px solid var(--line); display: flex; gap: 14px;
  overflow-wrap: anywhere; }
ol.events li:last-child { border-bottom: 0; }
ol.events time { color: var(--soft); white-space: nowrap; font-variant-numeric: tabular-nums; }
.notice { border-radius: 10px; padding: 10px 16px; margin: 16px 0 0; background: var(--bad-soft);
  color: var(--bad); font-weight: 560; }
footer { color: var(--soft); font-size: 13px; padding-top: 10px; padding-bottom: 44px; }
footer p { max-width: 74ch; }
footer p + p { margin-top: 8px; }
@media (max-width: 640px) {
  main, header.top, footer { padding-left: 14px; padding-right: 14px; }
  header.top { padding-top: 22px; }
  .card { padding: 16px; border-radius: 10px; }
  .big { margin-left: 0; width: 100%; }
  table.outages thead { display: none; }
  table.outages, table.outages tbody { display: block; }
  table.outages tr { display: grid; grid-template-columns: 1fr 1fr; gap: 2px 12px; padding: 10px 0;
    border-bottom: 1px solid var(--line); }
  table.outages td { display: block; border: 0; padding: 0; }
  table.outages td::before { content: attr(data-name); display: block; color: var(--soft);
    font-size: 12px; }
  ol.events li { display: block; }
  ol.events time { display: block; }
}
@media print { body { background: #fff; } .card { break-inside: avoid; } }
)";

}  // namespace lbwatch
