// Loads a qor-trace export into the trace engine of the Chrome DevTools
// Performance panel and compares what the panel would draw with the source
// trace files (Timeline layout, in part order; a cut file's partial last line
// is ignored and its open sections end at the last time stamp of their thread).
//
//   node check_export.mjs EXPORT SOURCE...
//
// Every source section must come out as an entry of its thread (named as in
// the source) with the same name, start and end (within the source's
// microsecond) and nesting depth. Exit status 0 when all do.
import fs from 'node:fs';
import * as Trace from '@paulirish/trace_engine';
import {polyfillDOMRect} from '@paulirish/trace_engine/analyze-trace.mjs';

const [exported, ...sources] = process.argv.slice(2);
const expected = new Map();  // tid -> sections in begin order
const names = new Map();
const open = new Map();  // tid -> open sections; a section may end in a later part
const last = new Map();
for (const source of sources) {
  for (const line of fs.readFileSync(source, 'utf8').split('\n')) {
    let event;
    try {
      event = JSON.parse(line.replace(/^,/, ''));
    } catch {
      continue;  // header, trailer, a cut line
    }
    const stack = open.get(event.tid) ?? [];
    open.set(event.tid, stack);
    if (event.ts !== undefined) last.set(event.tid, event.ts);
    if (event.ph === 'M' && event.name === 'thread_name' && !names.has(event.tid)) names.set(event.tid, event.args.name);
    if (event.ph === 'B') {
      const section = {name: event.name, start: event.ts, end: undefined, depth: stack.length};
      stack.push(section);
      if (!expected.has(event.tid)) expected.set(event.tid, []);
      expected.get(event.tid).push(section);
    }
    if (event.ph === 'E' && stack.length > 0) stack.pop().end = event.ts;
  }
}
for (const [tid, stack] of open) for (const section of stack) section.end = last.get(tid);

polyfillDOMRect();
// Node 18 (Debian 12) lacks this one; the engine's insights use it.
Array.prototype.toSorted ??= function(compare) {
  return [...this].sort(compare);
};
const model = Trace.TraceModel.Model.createWithAllHandlers();
await model.parse(JSON.parse(fs.readFileSync(exported, 'utf8')).traceEvents);
const {Renderer} = model.parsedTrace().data;

const problems = [];
let compared = 0;
const within = (value, micros) => value >= micros && value < micros + 1;
for (const [tid, sections] of expected) {
  const thread = Renderer.processes.get(1)?.threads.get(tid);
  if (!thread) {
    problems.push(`thread ${tid} is missing`);
    continue;
  }
  if (names.has(tid) && thread.name !== names.get(tid)) problems.push(`thread ${tid} is named ${thread.name}`);
  const entries = thread.entries.filter(entry => entry.ph === 'X');
  if (entries.length !== sections.length) problems.push(`thread ${tid}: ${entries.length} entries, ${sections.length} sections`);
  sections.forEach((section, i) => {
    const entry = entries[i];
    const depth = Renderer.entryToNode.get(entry)?.depth;
    compared += 1;
    if (!entry || entry.name !== section.name || !within(entry.ts, section.start) ||
        !within(entry.ts + entry.dur, section.end) || depth !== section.depth) {
      problems.push(`thread ${tid}, section ${i}: ${JSON.stringify(section)} came out as ` +
                    JSON.stringify(entry && {name: entry.name, ts: entry.ts, dur: entry.dur, depth}));
    }
  });
}
for (const problem of problems.slice(0, 20)) console.log(problem);
console.log(`${exported}: ${compared - problems.length} of ${compared} sections drawn right`);
process.exit(problems.length === 0 && compared > 0 ? 0 : 1);
