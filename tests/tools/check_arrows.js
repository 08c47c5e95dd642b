// SPDX-License-Identifier: Apache-2.0
// Opens Chrome traces with the model behind about:tracing, which must bind every arrow to slices at
// both ends: node check_arrows.js MODULES TRACE..., MODULES being where npm has put traceviewer.
'use strict';

const fs = require('fs');
const path = require('path');

const top = path.resolve(process.argv[2], 'traceviewer');
const tracing = path.join(top, 'tracing');
const others = path.join(tracing, 'third_party');
// It would ask a script in an old Python for these folders.
const start = require(path.join(top, 'catapult_build', 'node_bootstrap.js'));
start.getSourcePathsForProject = () => [tracing, others, path.join(others, 'gl-matrix', 'dist'),
  ...['jszip', 'd3', 'chai', 'mocha'].map(name => path.join(others, name))];
const tr = require(path.join(tracing, 'tracing', 'index.js'));
// Its clock's resolution is guessed from the shortest distance of events: no fault of the trace's.
const harmless = new Set(['low_resolution_timer']);
console.warn = () => {}; // every warning is in the model, too

let status = 0;
let all = 0;
for (const file of process.argv.slice(3)) {
  const text = fs.readFileSync(file, 'utf8');
  const records = JSON.parse(text).traceEvents;
  const count = phase => records.filter(record => record.ph === phase).length;
  const model = new tr.Model();
  new tr.importer.Import(model, new tr.importer.ImportOptions()).importTraces([text]);
  const bound = model.flowEvents.filter(arrow => arrow.startSlice && arrow.endSlice).length;
  let slices = 0;
  model.iterateAllEvents(event => { slices += event instanceof tr.model.ThreadSlice; });
  const warnings = model.importWarnings.filter(warning => !harmless.has(warning.type));
  const given = count('X') + count('i'); // of the latter it makes slices without a length
  const fine = bound === count('s') && bound === count('f') && slices === given &&
    warnings.length === 0;
  all += bound;
  console.log(`${path.basename(file)}: ${bound} of ${count('s')} arrows, ${slices} of ${given} ` +
    `slices, ${warnings.length} warnings`);
  warnings.forEach(warning => console.log(`  ${warning.message}`));
  status = fine ? status : 1;
}
process.exit(all > 0 ? status : 1);
