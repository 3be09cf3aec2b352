// The reference implementation's verdict on a batch of documents, one JSON line in, one out:
//   {"schema": NAME, "sdl": TEXT}                    defines a schema (no answer)
//   {"id", "schema", "query", "variables"?, "operationName"?, "fixture"?}
//        -> {"id", "phase": "syntax"|"validation"|"execution"|"ok"|"crash", "errors", "data"?}
//   {"id", "schema", "print": true}       -> {"id", "sdl": printSchema(buildSchema(sdl))}
//   {"id", "schema", "introspect": true}  -> {"id", "data": answer to the standard query}
// Run with NODE_PATH=/usr/share/nodejs, where Debian installs node-graphql.
'use strict';
const graphql = require('graphql');
const readline = require('readline');

const schemas = {};
const errorsOf = (errors) =>
  errors.map((e) => ({ message: e.message, locations: e.locations || [] }));

function answer(line) {
  const input = JSON.parse(line);
  if (input.sdl !== undefined) {
    schemas[input.schema] = graphql.buildSchema(input.sdl);
    return null;
  }
  const schema = schemas[input.schema];
  if (input.print) return { id: input.id, sdl: graphql.printSchema(schema) };
  if (input.introspect) {
    const query = graphql.getIntrospectionQuery({
      descriptions: true, specifiedByUrl: true, directiveIsRepeatable: true,
      schemaDescription: true, inputValueDeprecation: true,
    });
    return { id: input.id, data: graphql.graphqlSync({ schema, source: query }).data };
  }
  let document;
  try {
    document = graphql.parse(input.query);
  } catch (e) {
    if (e instanceof graphql.GraphQLError)
      return { id: input.id, phase: 'syntax', errors: errorsOf([e]) };
    return { id: input.id, phase: 'crash', errors: [{ message: String(e), locations: [] }] };
  }
  const invalid = graphql.validate(schema, document);
  if (invalid.length) return { id: input.id, phase: 'validation', errors: errorsOf(invalid) };
  const result = graphql.execute({
    schema, document, rootValue: input.fixture || {},
    variableValues: input.variables || {}, operationName: input.operationName,
  });
  if (!('data' in result) || result.data === null && result.errors)
    return { id: input.id, phase: 'execution', errors: errorsOf(result.errors || []) };
  return {
    id: input.id, phase: 'ok', errors: errorsOf(result.errors || []),
    data: JSON.parse(JSON.stringify(result.data)),
  };
}

const lines = readline.createInterface({ input: process.stdin });
lines.on('line', (line) => {
  if (!line.trim()) return;
  let out;
  try {
    out = answer(line);
  } catch (e) {
    out = { id: JSON.parse(line).id, phase: 'crash', errors: [{ message: String(e), locations: [] }] };
  }
  if (out) process.stdout.write(JSON.stringify(out) + '\n');
});
lines.on('close', () => process.stderr.write('graphql-js ' + graphql.version + '\n'));
