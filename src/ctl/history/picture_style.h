// How the page of a timeline's picture looks: its style sheet and the signs of its events.
#pragma once

#include <string_view>

// Colours are chosen for contrast in light and in dark: 4.5 to 1 for text, 3 to 1 for signs.
inline constexpr std::string_view PICTURE_STYLE = R"css(
:root{color-scheme:light dark;--back:#fff;--text:#1b1f24;--soft:#57606a;--line:#d0d7de;--tip:#f6f8fa;
--master:#0b5cad;--on-master:#fff;--slave:#d5dde6;--on-slave:#1b1f24;--acting:#b34700;--on-acting:#fff;
--waits:#f2d675;--on-waits:#1b1f24;--stopped:#656d76;--on-stopped:#fff;--bad:#c4161c;--data:#1a7f37}
@media screen and (prefers-color-scheme:dark){:root{--back:#14181d;--text:#e6eaf0;--soft:#a3adb9;
--line:#3a434e;--tip:#222931;--master:#5aa7f5;--on-master:#0c1116;--slave:#36404c;--on-slave:#e6eaf0;
--acting:#ff9a4d;--on-acting:#0c1116;--waits:#d9b94a;--on-waits:#0c1116;--stopped:#8b949e;
--on-stopped:#0c1116;--bad:#ff7b72;--data:#56d364}}
@media print{:root{color-scheme:light}}
*{box-sizing:border-box}
body{margin:0;padding:16px;background:var(--back);color:var(--text);
font:14px/1.45 system-ui,"DejaVu Sans",sans-serif;overflow-wrap:anywhere}
h1{font-size:1.35rem;margin:0 0 .2em}h2{font-size:1.05rem;margin:1.2em 0 .3em}
h2 small{font-weight:normal;color:var(--soft);margin-left:.6em}
p{margin:.2em 0}.soft{color:var(--soft)}.bad{color:var(--bad);font-weight:600}
.row{display:grid;grid-template-columns:100px minmax(0,1fr)}
.names{position:relative;font-size:12px;color:var(--soft)}.names span{position:absolute;left:0}
svg{display:block;overflow:visible;font-size:12px}.lane{position:relative}
.lane svg.l{width:100%;height:110px}.axis{margin-top:1em}.axis svg.l{width:100%;height:22px}
.lane:hover,.lane:focus-within{z-index:1}
.grid{stroke:var(--line)}.tick{stroke:var(--soft)}.axis text{fill:var(--soft)}
.b rect{stroke:var(--soft);stroke-width:1}.b text{font-weight:600}
.b.master rect{fill:var(--master)}.b.master text{fill:var(--on-master)}
.b.slave rect{fill:var(--slave)}.b.slave text{fill:var(--on-slave)}
.b.acting rect{fill:var(--acting)}.b.acting text{fill:var(--on-acting)}
.b.waiting rect{fill:var(--waits)}.b.waiting text{fill:var(--on-waits)}
.b.stopped rect{fill:var(--stopped)}.b.stopped text{fill:var(--on-stopped)}
.b.silent rect,.b.unknown rect{fill:url(#hatch)}.b.silent text,.b.unknown text{fill:var(--text);
paint-order:stroke;stroke:var(--back);stroke-width:4px}
.b.changing rect{stroke-dasharray:3 2;stroke:var(--text)}
.m{fill:var(--text);stroke:var(--text);color:var(--text);text-decoration:none;outline:none;cursor:pointer}
.m .n{stroke:none;fill:var(--text)}.in{fill:var(--back);stroke:none;font-weight:700;text-anchor:middle}
.hollow{fill:var(--back)}
.take-over,.step-down{fill:var(--acting);stroke:var(--acting)}
.push,.sync,.fetch{fill:var(--data);stroke:var(--data)}
.failed,.trouble,.flapping,.re-sync,.missed{fill:var(--bad);stroke:var(--bad)}
.silence,.slave-silent{fill:var(--back);stroke:var(--bad)}
.m:hover use,.m:hover rect,.m:focus use,.m:focus rect{stroke:var(--text);stroke-width:3}
.t{display:none;pointer-events:none}.m:hover .t,.m:focus .t{display:block}
.m:hover .t{position:relative}.t div{background:var(--tip);color:var(--text);
border:1px solid var(--soft);border-radius:4px;padding:6px 10px;max-width:900px}
code{font:12px/1.4 ui-monospace,"DejaVu Sans Mono",monospace;color:var(--soft)}
.legend{display:flex;flex-wrap:wrap;gap:4px 18px;list-style:none;padding:0;margin:1.2em 0;
font-size:12px;color:var(--soft)}.legend li{display:flex;align-items:center;gap:6px}
.legend svg{width:18px;height:18px;flex:none;overflow:hidden}
table{border-collapse:collapse;width:100%}td,th{text-align:left;vertical-align:top;
padding:4px 14px 4px 0;border-top:1px solid var(--line)}th{font-size:12px;color:var(--soft)}
td.w{white-space:nowrap}tr:target{background:var(--tip);outline:2px solid var(--soft)}
@media(max-width:1199px){svg .wide{display:none}}
@media(max-width:699px){.row{grid-template-columns:minmax(0,1fr)}.names,svg .middle{display:none}
body{padding:12px}thead{display:none}tr,td{display:block;padding:0}tr{padding:6px 0;
border-top:1px solid var(--line)}td{border:0}td.w{display:inline;margin-right:.6em}}
@media print{body{padding:0;font-size:10pt}*{print-color-adjust:exact;-webkit-print-color-adjust:exact}
.lane,tr,h2{break-inside:avoid}h2{break-after:avoid}thead{display:table-header-group}.t{display:none!important}}
)css";

// Each stands over the point at which it is used. Those of the roles reach down through the band.
inline constexpr std::string_view PICTURE_SIGNS = R"svg(
<svg width="0" height="0" style="position:absolute" aria-hidden="true"><defs>
<pattern id="hatch" width="7" height="7" patternUnits="userSpaceOnUse" patternTransform="rotate(45)">
<path d="M0 0V7" style="stroke:var(--soft);stroke-width:2;opacity:.55"/></pattern>
<g id="s-take-over"><path d="M0 0V40" stroke-width="2"/><path d="M0 0L14 6L0 12Z"/></g>
<g id="s-step-down"><path d="M0 0V40" stroke-width="2"/><path class="hollow" d="M0 1L-13 6.500L0 12Z"/></g>
<g id="s-start"><path d="M0 0V40"/><circle cy="6" r="5"/></g>
<g id="s-stop"><path d="M0 0V40"/><path d="M-5 1H5V11H-5Z"/></g>
<g id="s-push"><path d="M0 -7L7 6H-7Z"/></g>
<g id="s-sync"><path d="M0 7L7 -6H-7Z"/></g>
<g id="s-fetch"><path d="M0 -7L7 0L0 7L-7 0Z"/></g>
<g id="s-change"><path d="M-2 -7H2V-2H7V2H2V7H-2V2H-7V-2H-2Z"/></g>
<g id="s-trouble"><path d="M0 -8L9 7H-9Z"/><text class="in" y="5.500">!</text></g>
<g id="s-flapping"><circle r="8"/><text class="in" y="4">F</text></g>
<g id="s-re-sync"><circle r="8"/><text class="in" y="4">R</text></g>
<g id="s-clock"><circle r="8"/><text class="in" y="4">C</text></g>
<g id="s-waiting"><circle r="8"/><text class="in" y="4">W</text></g>
</defs></svg>
)svg";
