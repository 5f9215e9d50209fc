"use strict";

// --- The data ----------------------------------------------------------------------------------------------

const data = JSON.parse(document.getElementById("data").textContent);
const lowerMessages = data.messages.map((text) => text.toLowerCase());
const MomentKinds = ["reset", "retry"];
const kMostCards = 8;  // of all logs by themselves, of each log on demand
const kPageOfRecords = 400;
const kMostThreads = 500;

const kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
const letterValues = new Map([...kLetters].map((letter, value) => [letter, value]));

/** The numbers of a text, five bits in each letter, the lowest first; a sixth bit says that the next letter goes on. */
function* numbersOf(text) {
  let number = 0, unit = 1;
  for (const letter of text) {
    const value = letterValues.get(letter);
    number += (value & 31) * unit;
    if (value & 32) {
      unit *= 32;
    } else {
      yield number;
      number = 0;
      unit = 1;
    }
  }
}

/** Takes one number of a text after the other. */
function reader(text) {
  const numbers = [...numbersOf(text)];
  let at = 0;
  const next = () => numbers[at++];
  const signed = () => {
    const number = next();
    return number % 2 === 0 ? number / 2 : -(number + 1) / 2;
  };
  return {next, signed, isEmpty: () => at >= numbers.length};
}

/** Numbers that mostly stay: how many come before each change, and the change. */
function steady(text) {
  const numbers = reader(text);
  let value = 0, left = numbers.isEmpty() ? Infinity : numbers.next();
  return () => {
    while (left === 0) {
      value += numbers.signed();
      left = numbers.isEmpty() ? Infinity : numbers.next();
    }
    --left;
    return value;
  };
}

/** Numbers that mostly follow each other as they did the last time. */
function* repeated(text) {
  const numbers = reader(text), following = new Map();
  let last = 0, highest = 0;
  for (;;) {
    for (let expected = numbers.next(); expected > 0; --expected) yield last = following.get(last);
    if (numbers.isEmpty()) return;
    const number = highest + 1 - numbers.next();
    highest = Math.max(highest, number);
    following.set(last, number);
    yield last = number;
  }
}

/** What is behind the number of a shape: all of a record but its place, time and thread. The shape 0 is a gap. */
function unpackShapes(columns) {
  const shapes = [null], numbers = reader(columns.shape_table);
  let text = 0;
  while (!numbers.isEmpty()) {
    const [source, line, func, level, flaw, stage, trouble] = columns.site_table[numbers.next()];
    text += numbers.signed();
    shapes.push({source, line, func, level, flaw, stage, text, size: numbers.next(), cut: numbers.next(),
                 trouble: trouble < 0 ? null : data.troubles[trouble]});
  }
  return shapes;
}

function unpackThreads(columns) {
  const threads = [], numbers = reader(columns.thread_table);
  let process = 0, thread = 0;
  while (!numbers.isEmpty()) {
    process += numbers.signed();
    thread += numbers.signed();
    threads.push(`${process}~${thread}`);
  }
  return threads;
}

/** Undoes the columns that the records of a log come in. */
function unpack(log, logIndex) {
  const columns = log.records, shapes = unpackShapes(columns), threads = unpackThreads(columns);
  const holes = steady(columns.holes), jobNumbers = steady(columns.jobs), threadIndices = steady(columns.threads);
  const gaps = reader(columns.gaps), times = reader(columns.times);
  const records = [];
  let end = 0, time = columns.begin;
  for (const shape of repeated(columns.shapes)) {
    const record = {log: logIndex, offset: end + holes(), time, job: jobNumbers()};
    if (shape === 0) {
      record.leftOut = gaps.next();
      record.size = gaps.next();
    } else {
      time += times.signed();
      Object.assign(record, shapes[shape], {time, thread: threads[threadIndices()]});
    }
    end = record.offset + record.size;
    records.push(record);
  }
  return records;
}

/** Gives a job the rows of its timeline; times count from its start. */
function unpackTimeline(job) {
  const stages = reader(job.stages), attempts = reader(job.attempts), moments = reader(job.moments), progress = reader(job.progress);
  Object.assign(job, {stages: [], attempts: [], moments: [], progress: []});
  for (let end = 0, offset = job.offset; !stages.isEmpty();) {
    const kind = stages.next(), attempt = stages.next(), begin = end + stages.signed(), took = stages.signed();
    const limit = stages.next() * 1000;
    offset += stages.signed();
    end = begin + took;
    job.stages.push([kind, attempt, begin, took, limit, offset]);
  }
  for (let begin = 0, offset = job.offset; !attempts.isEmpty();) {
    begin += attempts.signed();
    const took = attempts.signed(), limit = attempts.next() * 1000, outcome = data.outcomes[attempts.next()];
    offset += attempts.signed();
    job.attempts.push([job.attempts.length + 1, begin, took, limit, outcome, offset]);
  }
  for (let time = 0, offset = job.offset; !moments.isEmpty();) {
    const kind = moments.next();
    time += moments.signed();
    offset += moments.signed();
    job.moments.push([kind, time, offset]);
  }
  for (let time = 0, percent = 0; !progress.isEmpty();) {
    time += progress.signed();
    percent += progress.signed();
    job.progress.push([time, percent]);
  }
  return job;
}

const logs = data.logs;
const records = [];
const jobs = [];
logs.forEach((log, index) => {
  log.first = records.length;
  for (const record of unpack(log, index)) records.push(record);
  log.last = records.length;
  for (const job of log.jobs) jobs.push(Object.assign(unpackTimeline(job), {log: index, state_name: data.states[job.state]}));
});
records.forEach((record, index) => { record.index = index; });

const isHarmless = (record) => record.trouble !== null && record.trouble[0] === "harmless";
const messageOf = (record) => data.messages[record.text];

/** Where a byte is: counted from where the log that it stood in began, and whether that log has begun anew since. */
function placeOf(log, offset) {
  const begin = log.beginnings.findLast((beginning) => beginning <= offset);
  return {byte: offset - begin, isGone: begin !== log.beginnings.at(-1)};
}
const namedLog = (log, place) => log.name + (place.isGone ? ", before it began anew" : "");

/** The record at a place of a log, or the last one in front of it. */
function recordAt(logIndex, offset) {
  let low = logs[logIndex].first, high = logs[logIndex].last - 1;
  while (low < high) {
    const middle = (low + high + 1) >> 1;
    if (records[middle].offset <= offset) low = middle;
    else high = middle - 1;
  }
  return records[low];
}

function recordsOf(job) {
  const own = [];
  for (let i = logs[job.log].first; i < logs[job.log].last; ++i) {
    if (records[i].job === job.number && !records[i].leftOut) own.push(records[i]);
  }
  return own;
}

// --- Words -------------------------------------------------------------------------------------------------

const two = (number) => String(number).padStart(2, "0");
function clock(time, thousandths = true) {
  const date = new Date(time);
  const text = `${two(date.getUTCHours())}:${two(date.getUTCMinutes())}:${two(date.getUTCSeconds())}`;
  return thousandths ? `${text}.${String(date.getUTCMilliseconds()).padStart(3, "0")}` : text;
}
function day(time) {
  const date = new Date(time);
  return `${date.getUTCFullYear()}-${two(date.getUTCMonth() + 1)}-${two(date.getUTCDate())}`;
}
const moment = (time) => `${day(time)} ${clock(time, false)}`;
function duration(milliseconds) {
  const tenths = Math.round(milliseconds / 100);
  if (tenths < 1000) return `${(tenths / 10).toFixed(1)} s`;
  const seconds = Math.round(milliseconds / 1000);
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ${two(seconds % 60)} s`;
  return `${Math.floor(seconds / 3600)} h ${two(Math.floor(seconds / 60) % 60)} min`;
}
const grouped = (number) => String(number).replace(/\B(?=(\d{3})+$)/g, "\u202f");
const counted = (number, one, many = `${one}s`) => `${grouped(number)} ${number === 1 ? one : many}`;
function size(bytes) {
  if (bytes < 1e4) return `${bytes} bytes`;
  return bytes < 1e7 ? `${Math.round(bytes / 1e3)} kB` : `${Math.round(bytes / 1e6)} MB`;
}

// --- Elements ----------------------------------------------------------------------------------------------

function fill(element, properties, children) {
  for (const [name, value] of Object.entries(properties || {})) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (value !== null && value !== false) element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}
const html = (tag, properties, ...children) => fill(document.createElement(tag), properties, children);
const svg = (tag, properties, ...children) =>
  fill(document.createElementNS("http://www.w3.org/2000/svg", tag), properties, children);
const byId = (id) => document.getElementById(id);
const stageToken = (kind) => data.stages[kind][0];
const stageName = (kind) => data.stages[kind][1];
const stageColour = (kind) => `var(--s-${stageToken(kind)})`;

// --- Head --------------------------------------------------------------------------------------------------

function drawHead() {
  const failed = jobs.filter((job) => job.state !== "succeeded" && job.state !== "running").length;
  const name = logs.length === 1 ? logs[0].name.split(/[\\/]/).pop() : counted(logs.length, "flash log");
  byId("title").textContent = name;
  document.title = `${name}: ${counted(jobs.length, "flash", "flashes")}`;
  const began = Math.min(...logs.filter((log) => log.count > 0).map((log) => log.records.begin));
  const ended = Math.max(...logs.map((log) => log.end));
  const parts = [counted(jobs.length, "flash", "flashes") + (failed > 0 ? `, ${failed} not good` : ""),
                 counted(logs.reduce((sum, log) => sum + log.count, 0), "record"),
                 size(logs.reduce((sum, log) => sum + log.beginnings.at(-1) + log.size, 0))];
  if (Number.isFinite(began)) parts.push(`${moment(began)} to ${moment(ended)}`);
  byId("summary").textContent = parts.join(" \u00b7 ");
  byId("made").textContent = `Made by corvel_flashlog ${data.program}. Times are local to the PC that wrote the log.`;

  const words = {foreign: "foreign line", malformed: "malformed record", truncated: "truncated record",
                 cut: "overlong record"};
  const lines = [];
  logs.forEach((log, index) => {
    const name = logs.length > 1 ? `${log.name}: ` : "";
    if (log.broke_off) lines.push(`${name}Not read beyond byte ${grouped(log.size)}: ${log.broke_off}.`);
    const found = Object.entries(log.flaws).filter(([, count]) => count > 0);
    if (found.length === 0) return;
    const all = found.reduce((sum, [, count]) => sum + count, 0);
    const here = records.filter((record) => record.log === index && record.flaw).length;
    lines.push(`${name}Not in order: ${found.map(([kind, count]) => counted(count, words[kind])).join(", ")}.` +
      (here < all ? ` ${grouped(here)} of them are below, the first and the last; the others stand in the log.` : ""));
  });
  if (lines.length === 0) return;
  byId("flaws").hidden = false;
  byId("flaws").append(...lines.map((line) => html("p", {}, line)));
}

// --- Overview ----------------------------------------------------------------------------------------------

/** An error of a job in words, with the record that they lead to. */
function errorAt(job, offset) {
  const record = recordAt(job.log, offset);
  if (record.offset !== offset || record.leftOut) return null;
  const [, meaning, whatToDo] = record.trouble || ["", "", ""];
  return {record, time: record.time, said: messageOf(record), meaning, whatToDo};
}

/** What ended a job that failed; what its stages tell when no error does. */
function endingOf(job) {
  const ending = job.ending;
  if (!ending || !("said" in ending)) return ending ? errorAt(job, ending.offset) : null;
  return {record: recordAt(job.log, ending.offset), time: ending.time, said: ending.said, meaning: ending.meaning,
          whatToDo: ending.what_to_do};
}

const firstErrorOf = (job) => job.reason === null ? null : errorAt(job, job.reason);

function strip(job, longest) {
  const bar = html("div", {class: "strip", "aria-hidden": "true"});
  for (const [kind, , begin, length] of job.stages) {
    const part = html("i");
    part.style.left = `${100 * begin / longest}%`;
    part.style.width = `${100 * length / longest}%`;
    part.style.background = stageColour(kind);
    bar.append(part);
  }
  return bar;
}

function drawOverview() {
  if (jobs.length < 2) return;
  byId("overview").hidden = false;
  const longest = Math.max(1, ...jobs.map((job) => job.length));
  const many = logs.length > 1;
  const heads = [many ? "Log" : null, "#", "Start", "Took", "Attempts", "Result", "On one scale", "Why"];
  const rows = jobs.map((job, index) => {
    const reason = job.state === "succeeded" ? null : endingOf(job) || firstErrorOf(job);
    const open = () => showJob(index, true);
    return html("tr", {"data-job": index, onclick: open},
                many ? html("td", {}, logs[job.log].name.split(/[\\/]/).slice(-2).join("/")) : null,
                html("td", {class: "number"}, html("button", {type: "button", "aria-label": `Show flash ${job.number}`},
                                                   String(job.number))),
                html("td", {class: "time"}, moment(job.begin)),
                html("td", {class: "number"}, duration(job.length)),
                html("td", {class: "number"}, String(job.attempts.length)),
                html("td", {}, html("span", {class: `badge ${job.state}`}, job.state_name)),
                html("td", {}, strip(job, longest)),
                html("td", {class: "why", title: reason ? reason.said : ""}, reason ? reason.meaning || reason.said : ""));
  });
  byId("overview-table").append(
    html("thead", {}, html("tr", {}, ...heads.map((head) => head === null ? null :
      html("th", {scope: "col", class: ["#", "Took", "Attempts"].includes(head) ? "number" : null}, head)))),
    html("tbody", {}, ...rows));
}

// --- Timelines ---------------------------------------------------------------------------------------------

const cards = new Map();  // of a job's index

/** A lane for each log, in which the cards of its flashes stand; the lanes stand side by side. */
function drawLanes() {
  byId("jobs").append(...logs.map((log) => html("div", {class: "lane", role: "group", "aria-label": `Flashes of ${log.name}`},
    log.jobs.length > 0 ? null : html("p", {class: "quiet"}, (logs.length > 1 ? `${log.name}: ` : "") + "There is no flash in it."))));
  byId("jobs").classList.toggle("side", logs.length > 1);
  byId("jobs").style.setProperty("--lanes", logs.length);
}

function showJob(index, scroll) {
  const log = jobs[index].log;
  if (!cards.has(index)) {
    const beside = [...cards.keys()].filter((other) => jobs[other].log === log);
    if (beside.length >= kMostCards) {
      cards.get(beside[0]).element.remove();
      cards.delete(beside[0]);
    }
    const card = {index, element: drawCard(jobs[index])};
    cards.set(index, card);
    const next = beside.filter((other) => other > index && cards.has(other)).sort((a, b) => a - b)[0];
    byId("jobs").children[log].insertBefore(card.element, next === undefined ? null : cards.get(next).element);
    drawTimeline(jobs[index]);
  }
  for (const row of document.querySelectorAll("#overview-table tr[data-job]")) {
    row.setAttribute("aria-current", String(jobs.length > kMostCards && cards.has(Number(row.dataset.job))));
  }
  const card = cards.get(index).element;
  if (scroll) card.scrollIntoView({block: "start", inline: "nearest"});
  return card;
}

function drawError(name, error, look, ...advice) {
  return html("div", {class: look},
              html("p", {class: "name"}, name),
              html("p", {class: "said"}, `${clock(error.time)}  ${error.said}`), ...advice,
              html("button", {type: "button", class: "link", onclick: () => goToRecord(error.record)}, "Show the record"));
}

/** What ended the job comes first, with its advice; an error that it began with is told besides. */
function drawReasons(job) {
  const ending = endingOf(job), first = firstErrorOf(job);
  const meaning = (error) => error.meaning ? html("p", {}, error.meaning) : null;
  const toDo = (error) => error.whatToDo ? html("p", {class: "do"}, error.whatToDo) : null;
  if (ending === null) {
    if (first === null) return [];
    const good = job.state === "succeeded";
    return [drawError("First error", first, good ? "reason mild" : "reason", meaning(first), good ? null : toDo(first))];
  }
  const reasons = [drawError("Failed by", ending, "reason", meaning(ending), toDo(ending))];
  if (first !== null && first.record !== ending.record) reasons.push(drawError("First error", first, "reason mild first"));
  return reasons;
}

function drawStageTable(job) {
  const rows = job.stages.map(([kind, attempt, begin, length, limit, offset]) => {
    const used = limit === 0 ? 0 : Math.min(100, 100 * length / limit);
    const bar = html("span", {class: length >= limit ? "used over" : "used"}, html("i"));
    bar.firstChild.style.width = `${used}%`;
    const swatch = html("span", {class: "swatch"});
    swatch.style.background = stageColour(kind);
    return html("tr", {},
                html("td", {}, swatch, html("button", {type: "button", class: "link",
                                                       onclick: () => goToRecord(recordAt(job.log, offset))}, stageName(kind))),
                html("td", {class: "number"}, attempt === 0 ? "" : String(attempt)),
                html("td", {class: "time"}, clock(job.begin + begin)),
                html("td", {class: "number"}, duration(length)),
                limit === 0 ? html("td") : html("td", {}, bar, `of ${limit / 1000} s`));
  });
  return html("details", {},
              html("summary", {}, `${counted(job.stages.length, "stage")} in a table`),
              html("div", {class: "scroll"}, html("table", {class: "stages"},
                html("thead", {}, html("tr", {}, ...["Stage", "Attempt", "Start", "Took", "Time limit"].map(
                  (head) => html("th", {scope: "col", class: head === "Attempt" || head === "Took" ? "number" : null}, head)))),
                html("tbody", {}, ...rows))));
}

function drawCard(job) {
  const facts = [moment(job.begin), duration(job.length), counted(job.attempts.length, "attempt"),
                 job.state === "succeeded" ? null : `${job.highest} % written`,
                 counted(job.errors, "error"), counted(job.warnings, "warning"),
                 job.command_line ? "by the command line" : null, job.version ? `library ${job.version}` : null,
                 job.begin_missing ? "its beginning is missing" : null].filter((fact) => fact !== null);
  const heading = `${logs.length > 1 ? logs[job.log].name.split(/[\\/]/).slice(-2).join("/") + ", f" : "F"}lash ${job.number}`;
  return html("article", {class: "job", id: `job-${jobs.indexOf(job)}`, "aria-label": heading},
              html("header", {}, html("h3", {}, heading), html("span", {class: `badge ${job.state}`}, job.state_name),
                   html("span", {class: "facts"}, facts.join(" \u00b7 "))),
              ...drawReasons(job),
              html("div", {class: "timeline", role: "group", "aria-label": `Timeline of flash ${job.number}; arrow keys go through it`}),
              html("ul", {class: "legend", "aria-hidden": "true"}),
              drawStageTable(job));
}

const markShapes = {
  error: "M0,-6 L5.5,4.5 L-5.5,4.5 Z", warning: "M0,-5 L2,4 L-2,4 Z", reset: "M0,-5 L5,0 L0,5 L-5,0 Z",
  retry: "M-4,-5 L5,0 L-4,5 Z",
};
const markNames = {error: "error", warning: "warning", reset: "baseband reset", retry: "retry"};

/** The steps of an axis that has room for some labels. */
function tickStep(length, room) {
  const steps = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600].map((seconds) => seconds * 1000);
  return steps.find((step) => length / step <= room) || 3600000 * Math.ceil(length / 3600000 / room);
}

function axisText(time, step) {
  if (step < 60000) return `${time / 1000} s`;
  return `${time / 60000} min`;
}

function marksOf(job) {
  const marks = [];
  for (const record of recordsOf(job)) {
    if (record.level === "error" && !isHarmless(record)) marks.push(["error", record.time - job.begin, record.offset, messageOf(record)]);
    if (record.level === "warning") marks.push(["warning", record.time - job.begin, record.offset, messageOf(record)]);
  }
  for (const [kind, time, offset] of job.moments) marks.push([MomentKinds[kind], time, offset, markNames[MomentKinds[kind]]]);
  return marks.sort((a, b) => a[1] - b[1]);
}

/** When the time of each stage and attempt that has a limit would have been over, and whether it nearly was. */
function limitsOf(job) {
  const limits = [];
  const add = (name, begin, took, limit) => {
    if (limit > 0) limits.push({name, when: begin + limit, text: `${limit / 1000} s`, isNear: took >= limit * 0.8});
  };
  for (const [kind, , begin, took, limit] of job.stages) add(stageName(kind), begin, took, limit);
  for (const [, begin, took, limit] of job.attempts) add("attempt", begin, took, limit);
  return limits.sort((a, b) => a.when - b.when);
}

function drawTimeline(job) {
  const card = cards.get(jobs.indexOf(job)).element;
  const place = card.querySelector(".timeline");
  const width = Math.max(260, place.clientWidth);
  const length = Math.max(1, job.length);
  const margin = {left: 42, right: 12};
  const x = (time) => margin.left + (width - margin.left - margin.right) * Math.min(length, Math.max(0, time)) / length;
  const y = {attempt: 12, stage: 24, stageHeight: 26, curve: 68, curveHeight: 56, marks: 140, axis: 184, height: 202};
  const items = [];
  const picture = svg("svg", {viewBox: `0 0 ${width} ${y.height}`, height: y.height, role: "presentation"});

  const step = tickStep(length, Math.max(2, Math.floor(width / 90)));
  for (let time = 0; time <= length; time += step) {
    picture.append(svg("line", {class: "grid", x1: x(time), x2: x(time), y1: y.curve, y2: y.axis - 8}),
                   svg("text", {x: x(time), y: y.axis + 8, "text-anchor": time === 0 ? "start" : "middle"}, axisText(time, step)));
  }
  for (const percent of [0, 50, 100]) {
    const at = y.curve + y.curveHeight * (1 - percent / 100);
    picture.append(svg("line", {class: "grid", x1: margin.left, x2: width - margin.right, y1: at, y2: at}));
    picture.append(svg("text", {x: margin.left - 5, y: at + 4, "text-anchor": "end"}, percent === 100 ? "100 %" : String(percent)));
  }

  for (const [number, begin, took, , outcome] of job.attempts) {
    const from = x(begin), to = x(begin + took);
    const label = to - from > 75 ? `Attempt ${number}` : (to - from > 14 ? String(number) : "");
    picture.append(svg("g", {class: `attempt ${outcome}`},
                       svg("line", {x1: from + 1, x2: Math.max(from + 2, to - 1), y1: y.attempt + 5, y2: y.attempt + 5}),
                       svg("text", {x: (from + to) / 2, y: y.attempt, "text-anchor": "middle"}, label)));
  }

  for (const [kind, attempt, begin, took, limit, offset] of job.stages) {
    const from = x(begin), wide = Math.max(1.5, x(begin + took) - from);
    const name = stageName(kind);
    const fits = [name, name.split(" ").pop()].find((text) => text.length * 6.6 < wide - 6) || "";
    const tip = `${name}${attempt ? `, attempt ${attempt}` : ""}\n${duration(took)}${limit ? ` of ${limit / 1000} s` : ""}, from ${clock(job.begin + begin)}`;
    const element = svg("g", {class: "item stage"},
                        svg("rect", {x: from, y: y.stage, width: wide, height: y.stageHeight, fill: stageColour(kind)}),
                        svg("text", {x: from + wide / 2, y: y.stage + 17, "text-anchor": "middle"}, fits));
    items.push({element, time: begin, offset, tip});
  }

  let curve = "";
  if (job.progress.length > 0) {
    let last = 0;
    const at = (value) => y.curve + y.curveHeight * (1 - Math.min(100, value) / 100);
    curve = `M${x(0)},${at(0)}`;
    // It holds until it is written again; what comes soon behind is one slope.
    let before = 0;
    for (const [when, value] of job.progress) {
      const steady = value >= last && when - before < length / 30;
      curve += steady ? `L${x(when).toFixed(1)},${at(value).toFixed(1)}` : `H${x(when).toFixed(1)}V${at(value).toFixed(1)}`;
      last = value;
      before = when;
    }
    curve += `H${x(length)}`;
    picture.append(svg("path", {class: "area", d: `${curve}V${at(0)}H${x(0)}Z`}), svg("path", {class: "curve", d: curve}));
  }

  const limits = limitsOf(job).filter(({when}) => when <= length * 1.02);
  const limitMarks = [];
  let labelled = -99;
  for (const {when, text, isNear, name} of limits) {
    const from = name === "attempt" ? y.attempt - 4 : y.stage - 4;
    limitMarks.push(svg("line", {class: isNear ? "limit" : "limit spare", x1: x(when), x2: x(when), y1: isNear ? from : y.stage - 2,
                                 y2: y.stage + y.stageHeight + (isNear ? 15 : 2)},
                        svg("title", {}, `Time limit of ${name}: ${text}`)));
    if (isNear && x(when) - labelled > 40) {
      limitMarks.push(svg("text", {class: "limit-name", x: x(when) - 3, y: y.stage + y.stageHeight + 13, "text-anchor": "end"}, text));
      labelled = x(when);
    }
  }

  const seen = new Set();
  let lastWarning = -99;
  for (const [kind, when, offset, text] of marksOf(job)) {
    // Warnings come in rows; one mark tells them.
    if (kind === "warning" && x(when) - lastWarning < 5) continue;
    if (kind === "warning") lastWarning = x(when);
    // Errors have a rail, what was done about them the next one.
    const shift = {error: 0, warning: 1, retry: 15, reset: 30}[kind];
    const element = svg("g", {class: `item mark ${kind}`},
                        svg("rect", {x: x(when) - 6, y: y.marks + shift - 7, width: 12, height: 14, fill: "transparent"}),
                        svg("path", {d: markShapes[kind], transform: `translate(${x(when)},${y.marks + shift})`}));
    items.push({element, time: when, offset, tip: `${markNames[kind]} at ${clock(job.begin + when)}${text === markNames[kind] ? "" : `\n${text}`}`});
    seen.add(kind);
  }

  items.sort((a, b) => a.time - b.time);
  items.forEach((item, index) => {
    const open = () => goToRecord(recordAt(job.log, item.offset));
    fill(item.element, {
      tabindex: index === 0 ? "0" : "-1", role: "button", "aria-label": item.tip.replaceAll("\n", ", "), "data-offset": item.offset,
      onclick: open,
      onkeydown: (event) => {
        const next = {ArrowRight: index + 1, ArrowLeft: index - 1, Home: 0, End: items.length - 1}[event.key];
        if (event.key === "Enter" || event.key === " ") open();
        else if (next === undefined) return;
        else if (items[next]) {
          item.element.setAttribute("tabindex", "-1");
          items[next].element.setAttribute("tabindex", "0");
          items[next].element.focus();
        }
        event.preventDefault();
      },
      onpointerenter: (event) => showTip(item.tip, event.clientX, event.clientY),
      onpointerleave: hideTip,
      onfocus: () => {
        const box = item.element.getBoundingClientRect();
        if (item.element.matches(":focus-visible")) showTip(item.tip, box.left, box.bottom);
      },
      onblur: hideTip,
    }, []);
  });
  // Stages first: limits and marks lie above them.
  picture.append(...items.filter((item) => item.element.classList.contains("stage")).map((item) => item.element), ...limitMarks,
                 ...items.filter((item) => !item.element.classList.contains("stage")).map((item) => item.element));
  place.replaceChildren(picture);
  card.placeCursor = (when) => {
    picture.querySelector(".cursor")?.remove();
    picture.append(svg("line", {class: "cursor", x1: x(when), x2: x(when), y1: y.stage - 6, y2: y.axis - 6}));
  };

  const legend = Object.keys(markNames).filter((kind) => seen.has(kind)).map((kind) =>
    html("li", {}, svg("svg", {viewBox: "-6 -6 12 12", class: `mark ${kind}`}, svg("path", {d: markShapes[kind]})), markNames[kind]));
  if (limits.length > 0) {
    const line = svg("line", {class: limits.some(({isNear}) => isNear) ? "dash" : "dash spare", y1: -6, y2: 6});
    legend.push(html("li", {}, svg("svg", {viewBox: "-6 -6 12 12"}, line), "time limit"));
  }
  const kinds = [...new Set(job.stages.filter((stage) => stage[3] >= length / 400).map((stage) => stage[0]))].sort((a, b) => a - b);
  const swatches = kinds.map((kind) => {
    const swatch = html("span", {class: "swatch"});
    swatch.style.background = stageColour(kind);
    return html("li", {}, swatch, stageName(kind));
  });
  card.querySelector(".legend").replaceChildren(...swatches, ...legend);
}

function showTip(text, left, top) {
  const tip = byId("tip");
  tip.textContent = text;
  tip.hidden = false;
  tip.style.left = `${Math.max(8, Math.min(left + 12, innerWidth - tip.offsetWidth - 12))}px`;
  tip.style.top = `${Math.min(top + 16, innerHeight - tip.offsetHeight - 8)}px`;
}
function hideTip() { byId("tip").hidden = true; }

// --- Records -----------------------------------------------------------------------------------------------

let shown = [];     // the records that the filters let through
let firstDrawn = 0;  // of shown
let lastDrawn = 0;
let chosen = null;

function groupOf(record) {
  if (record.flaw) return "flaw";
  if (record.level === "error" || record.level === "warning") return record.level;
  return record.stage ? "stage" : "trace";
}

/** A time of the filter: of any day, or of one; null when there is none, NaN when it is none. */
function filterTime(input) {
  const text = input.value.trim();
  const found = text.match(/^(?:(\d{4}-\d\d-\d\d)[ T])?(\d{1,2}):(\d\d)(?::(\d\d)(?:[.,](\d{1,3}))?)?$/);
  input.setAttribute("aria-invalid", String(text !== "" && found === null));
  if (text === "") return null;
  if (found === null) return NaN;
  const inDay = ((Number(found[2]) * 60 + Number(found[3])) * 60 + Number(found[4] || 0)) * 1000 + Number((found[5] || "0").padEnd(3, "0"));
  return found[1] ? Date.parse(`${found[1]}T00:00:00Z`) + inDay : inDay;
}
const kDay = 86400000;
const comparable = (time, limit) => limit < kDay ? ((time % kDay) + kDay) % kDay : time;

function isInTime(time, {from, to}) {
  const isBehind = from === null || comparable(time, from) >= from;
  const isBefore = to === null || comparable(time, to) <= to;
  const isOverMidnight = from !== null && to !== null && to < from && from < kDay;
  return isOverMidnight ? isBehind || isBefore : isBehind && isBefore;
}

function currentFilter() {
  const from = filterTime(byId("filter-from")), to = filterTime(byId("filter-to"));
  return {
    text: byId("filter-text").value.trim().toLowerCase(),
    from: Number.isNaN(from) ? null : from,
    // A second that is named is meant as a whole.
    to: to === null || Number.isNaN(to) ? null : to + (/[.,]/.test(byId("filter-to").value) ? 0 : 999),
    thread: byId("filter-thread").value,
    job: byId("filter-job").value,
    levels: new Set([...document.querySelectorAll("input[name=level]:checked")].map((box) => box.value)),
  };
}

function passes(record, filter, narrow) {
  if (filter.job !== "" && filter.job !== `${record.log}:${record.job}`) return false;
  if (record.leftOut) return !narrow && filter.levels.has("trace");
  if (!filter.levels.has(groupOf(record))) return false;
  if (filter.thread !== "" && filter.thread !== `${record.log}:${record.thread}`) return false;
  if (!isInTime(record.time, filter)) return false;
  return filter.text === "" || lowerMessages[record.text].includes(filter.text) ||
         record.func.toLowerCase().includes(filter.text) || record.source.toLowerCase().includes(filter.text);
}

function applyFilter(around) {
  const filter = currentFilter();
  const narrow = filter.text !== "" || filter.thread !== "" || filter.from !== null || filter.to !== null;
  shown = records.filter((record) => passes(record, filter, narrow));
  const place = around ? shown.indexOf(around) : -1;
  firstDrawn = Math.max(0, place - 60);
  lastDrawn = Math.min(shown.length, firstDrawn + kPageOfRecords);
  drawRecords();
}

function drawRecords() {
  const real = shown.filter((record) => !record.leftOut);
  const kept = records.filter((record) => !record.leftOut).length;
  const left = records.reduce((sum, record) => sum + (record.leftOut || 0), 0);
  const cut = records.filter((record) => record.cut).length;
  byId("count").textContent = `${counted(real.length, "record")} of ${grouped(kept)} shown` +
    (left > 0 ? `; ${grouped(left)} more are left out of this page and stand in the log` : "") +
    (cut > 0 ? `; ${counted(cut, "long message")} ${cut === 1 ? "is" : "are"} shortened` : "");
  const list = byId("list");
  list.replaceChildren(...shown.slice(firstDrawn, lastDrawn).map(drawRecord));
  document.querySelector(".earlier")?.remove();
  if (firstDrawn > 0) {
    list.before(html("button", {type: "button", class: "earlier", onclick: () => {
      firstDrawn = Math.max(0, firstDrawn - kPageOfRecords);
      drawRecords();
    }}, `Show ${grouped(firstDrawn)} earlier`));
  }
  byId("more").hidden = lastDrawn >= shown.length;
  byId("more").textContent = `Show more of ${grouped(shown.length - lastDrawn)}`;
  if (chosen) markChosen(false);
}

function drawRecord(record) {
  const log = logs[record.log];
  if (record.leftOut) {
    const place = placeOf(log, record.offset);
    return html("div", {class: "record gap", role: "option", "aria-disabled": "true"},
                `${counted(record.leftOut, "record")} left out: bytes ${grouped(place.byte)} to ${grouped(place.byte + record.size)} of ${namedLog(log, place)}`);
  }
  const group = groupOf(record);
  const harmless = isHarmless(record) ? " harmless" : "";
  const level = record.flaw || (record.stage && group === "stage" ? "stage" : record.level);
  return html("div", {class: `record ${group}${harmless}`, id: `record-${record.index}`, role: "option", "aria-selected": "false",
                      "data-offset": record.offset, onclick: () => choose(record, false)},
              html("span", {class: "when", title: day(record.time)}, clock(record.time)),
              html("span", {class: "who"}, record.thread),
              html("span", {class: "level"}, level),
              html("span", {class: "where", title: `${record.func}, ${record.source}:${record.line}`}, record.func.replace(/^.*::(?=\w+::)/, "")),
              html("span", {class: "what"}, messageOf(record)));
}

function drawDetails(record) {
  const log = logs[record.log], byte = placeOf(log, record.offset);
  const place = `Byte ${grouped(byte.byte)} of ${namedLog(log, byte)}` +
    (record.source ? `, written by ${record.func} in ${record.source}:${record.line}` : "");
  return html("div", {class: "more"},
              record.trouble ? html("p", {}, record.trouble[1]) : null,
              record.trouble && record.trouble[0] !== "harmless" ? html("p", {}, `What to do: ${record.trouble[2]}`) : null,
              html("p", {class: "quiet"}, `${moment(record.time)} \u00b7 ${place}`),
              record.cut ? html("p", {class: "quiet"}, `${counted(record.cut, "byte")} of the message are left out.`) : null,
              record.job ? html("button", {type: "button", class: "link", onclick: (event) => {
                event.stopPropagation();
                goToTimeline(record);
              }}, `Show in the timeline of flash ${record.job}`) : null);
}

function markChosen(scroll) {
  document.querySelector(".record.chosen .more")?.remove();
  for (const old of document.querySelectorAll(".record.chosen")) {
    old.classList.remove("chosen");
    old.setAttribute("aria-selected", "false");
  }
  const row = byId(`record-${chosen.index}`);
  if (!row) return;
  row.classList.add("chosen");
  row.setAttribute("aria-selected", "true");
  row.append(drawDetails(chosen));
  byId("list").setAttribute("aria-activedescendant", row.id);
  if (scroll) row.scrollIntoView({block: "center"});
}

function choose(record, scroll) {
  chosen = record;
  markChosen(scroll);
  const index = jobs.findIndex((job) => job.log === record.log && job.number === record.job);
  if (index >= 0 && cards.has(index)) cards.get(index).element.placeCursor(record.time - jobs[index].begin);
}

/** As at the start; with a record that has to be among those that are shown. */
function clearFilters(record) {
  byId("filters").reset();
  fillThreads();
  if (!record) return;
  const box = document.querySelector(`input[name=level][value=${record.leftOut ? "trace" : groupOf(record)}]`);
  box.checked = true;
}

/** From a timeline to its record; the filters make room when they hide it. */
function goToRecord(record) {
  if (!shown.includes(record)) clearFilters(record);
  applyFilter(record);
  choose(record, true);
  byId("list").focus({preventScroll: true});
}

function goToTimeline(record) {
  const index = jobs.findIndex((job) => job.log === record.log && job.number === record.job);
  if (index < 0) return;
  const card = showJob(index, false);
  card.placeCursor(record.time - jobs[index].begin);
  card.scrollIntoView({block: "start", inline: "nearest"});
  // The element of the timeline that the record began, or the last one in front of it.
  const items = [...card.querySelectorAll(".item")].filter((item) => Number(item.dataset.offset) <= record.offset);
  items.sort((a, b) => Number(b.dataset.offset) - Number(a.dataset.offset))[0]?.focus({preventScroll: true});
}

/** The threads of the chosen flash, or of all: those that the log has last. */
function fillThreads() {
  const select = byId("filter-thread"), job = byId("filter-job").value, before = select.value;
  const seen = new Set();
  for (const record of [...records].reverse()) {
    if (record.leftOut || record.flaw === "foreign" || (job && job !== `${record.log}:${record.job}`)) continue;
    seen.add(`${record.log}:${record.thread}`);
  }
  const listed = [...seen].slice(0, kMostThreads).reverse(), older = seen.size - listed.length;
  select.replaceChildren(html("option", {value: ""}, "all"), ...listed.map((key) => {
    const [log, thread] = key.split(":");
    return html("option", {value: key}, logs.length > 1 ? `${thread} (${logs[log].name.split(/[\\/]/).pop()})` : thread);
  }));
  if (older > 0) {
    const hint = `${counted(older, "older one")} ${older === 1 ? "is" : "are"} listed with ${older === 1 ? "its" : "their"} flash`;
    select.firstChild.after(html("option", {disabled: true}, hint));
  }
  select.value = listed.includes(before) ? before : "";
}

function fillJobs() {
  byId("filter-job").append(html("option", {value: ""}, "all"), ...jobs.map((job) =>
    html("option", {value: `${job.log}:${job.number}`},
         (logs.length > 1 ? `${logs[job.log].name.split(/[\\/]/).slice(-2).join("/")} ` : "") + `${job.number}, ${clock(job.begin, false)}`)));
}

/** Where among the shown records the chosen one stands; one that the filters hide stands beside where it would. */
function placeOfChosen(direction) {
  if (!chosen) return direction > 0 ? -1 : shown.length;
  const next = shown.findIndex((record) => record.index >= chosen.index);
  if (next < 0) return shown.length;
  return shown[next] === chosen || direction < 0 ? next : next - 1;
}

/** The next of the shown records in a direction that is as wanted. */
function step(direction, wanted) {
  let place = placeOfChosen(direction);
  do place += direction;
  while (shown[place] && !wanted(shown[place]));
  if (!shown[place]) return;
  if (place < firstDrawn || place >= lastDrawn) applyFilter(shown[place]);
  choose(shown[place], true);
}

function onKey(event) {
  const typing = event.target.matches("input:not([type=checkbox]), select");
  if (event.key === "Escape") {
    clearFilters(chosen);
    applyFilter(chosen);
    if (typing) event.target.blur();
    return;
  }
  if (typing || event.ctrlKey || event.metaKey || event.altKey) return;
  const inList = byId("list").contains(event.target);
  const isError = (record) => !record.leftOut && record.level === "error" && !isHarmless(record);
  const isRecord = (record) => !record.leftOut;
  if (event.key === "/") byId("filter-text").focus();
  else if (event.key === "n") step(1, isError);
  else if (event.key === "p") step(-1, isError);
  else if (event.key === "t" && chosen) goToTimeline(chosen);
  else if (inList && event.key === "ArrowDown") step(1, isRecord);
  else if (inList && event.key === "ArrowUp") step(-1, isRecord);
  else return;
  event.preventDefault();
}

// --- On paper ----------------------------------------------------------------------------------------------

/** Nothing can be opened there: the tables of stages are, and what is not printed is told. */
function preparePrint() {
  for (const table of document.querySelectorAll(".job details:not([open])")) {
    table.open = true;
    table.dataset.closed = "";
  }
  const real = shown.filter((record) => !record.leftOut).length;
  const here = document.querySelectorAll("#list .record:not(.gap)").length;
  byId("printed").textContent = here === real ? "" :
    `${grouped(here)} of these ${grouped(real)} records are printed: those that were listed on the screen.`;
}

function afterPrint() {
  for (const table of document.querySelectorAll("details[data-closed]")) {
    table.open = false;
    delete table.dataset.closed;
  }
}

// --- Begin -------------------------------------------------------------------------------------------------

drawHead();
drawOverview();
fillJobs();
fillThreads();
drawLanes();
if (jobs.length <= kMostCards) {
  jobs.forEach((_, index) => showJob(index, false));
} else {
  logs.forEach((_, log) => {
    const last = (wanted) => jobs.findLastIndex((job) => job.log === log && wanted(job));
    const bad = last((job) => job.state !== "succeeded");
    const shows = bad >= 0 ? bad : last(() => true);
    if (shows >= 0) showJob(shows, false);
  });
}
applyFilter(null);

byId("filters").addEventListener("input", () => applyFilter(null));
byId("filters").addEventListener("change", (event) => {
  if (event.target.id === "filter-job") fillThreads();
  if (event.target.matches("select")) applyFilter(null);
});
byId("filters").addEventListener("submit", (event) => event.preventDefault());
byId("filter-reset").addEventListener("click", () => {
  clearFilters(chosen);
  applyFilter(chosen);
});
byId("more").addEventListener("click", () => {
  lastDrawn = Math.min(shown.length, lastDrawn + kPageOfRecords);
  drawRecords();
});
document.addEventListener("keydown", onKey);
window.addEventListener("beforeprint", preparePrint);
window.addEventListener("afterprint", afterPrint);
new ResizeObserver(() => cards.forEach((card) => drawTimeline(jobs[card.index]))).observe(byId("jobs"));
