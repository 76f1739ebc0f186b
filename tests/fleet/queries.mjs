// Runs the SQL of README's "Fleets" section, as written there, on an export:
//   node tests/fleet/queries.mjs README.md OUT
// The block that starts "-- load into DuckDB" is run first, with its 'OUT/...' paths taken to
// be the export's folder; then each block that starts "-- query: NAME". Prints one JSON object:
// the engine's version, the load's time, and each query's rows and time (milliseconds).
import { readFileSync } from 'node:fs';
import { DuckDBInstance } from '@duckdb/node-api';

const [readme, out] = process.argv.slice(2);
if (!readme || !out) {
  console.error('usage: node queries.mjs README.md OUT');
  process.exit(2);
}
const text = readFileSync(readme, 'utf8');
const start = text.indexOf('\n## Fleets');
if (start < 0) throw new Error(`${readme} has no "Fleets" section`);
const section = text.slice(start, text.indexOf('\n## ', start + 1));
const blocks = [...section.matchAll(/```sql\n([\s\S]*?)```/g)].map((m) => m[1]);
const load = blocks.find((b) => b.startsWith('-- load into DuckDB'));
const queries = blocks.filter((b) => b.startsWith('-- query: '));
if (!load || queries.length === 0) throw new Error('the Fleets section lacks its load block or its queries');

const db = await DuckDBInstance.create(':memory:');
const con = await db.connect();
const version = (await con.runAndReadAll('SELECT version() AS v')).getRowObjectsJson()[0].v;
let t0 = performance.now();
const folder = out.replace(/'/g, "''");
for (const statement of load.replace(/'OUT\//g, `'${folder}/`).split(/;\s*$/m)) {
  if (statement.replace(/--.*$/gm, '').trim()) await con.run(statement);
}
const result = { engine: `DuckDB ${version}`, load_ms: performance.now() - t0, queries: {} };
for (const q of queries) {
  const name = q.slice('-- query: '.length, q.indexOf('\n'));
  t0 = performance.now();
  const reader = await con.runAndReadAll(q);
  const ms = performance.now() - t0;
  result.queries[name] = { ms, rows: reader.getRowObjectsJson() };
}
console.log(JSON.stringify(result));
