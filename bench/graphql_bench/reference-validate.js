// graphql-js parsing and validating each document of a batch (JSON lines {"name", "sdl"?,
// "query"}), repeated for at least 0.2 s; prints {"name", "microseconds", "errors"} per line.
'use strict';
const graphql = require('graphql');
const lines = require('fs').readFileSync(0, 'utf8').split('\n').filter((l) => l.trim());
let schema;
for (const line of lines) {
  const input = JSON.parse(line);
  if (input.sdl) {
    schema = graphql.buildSchema(input.sdl);
    continue;
  }
  let runs = 0;
  let errors = 0;
  const start = process.hrtime.bigint();
  let elapsed = 0n;
  try {
    do {
      errors = graphql.validate(schema, graphql.parse(input.query)).length;
      ++runs;
      elapsed = process.hrtime.bigint() - start;
    } while (elapsed < 200000000n && runs < 100000);
    console.log(JSON.stringify({ name: input.name, microseconds: Number(elapsed) / 1000 / runs, errors }));
  } catch (e) {
    console.log(JSON.stringify({ name: input.name, failed: String(e).slice(0, 80) }));
  }
}
