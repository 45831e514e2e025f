// Bundles each unit test of the front-end with esbuild and runs them under
// node's own test runner. usage: node run-unit.mjs OUT_DIR
import { createRequire } from "node:module";
import { readdirSync, mkdirSync } from "node:fs";
import { spawnSync } from "node:child_process";
import { join, dirname } from "node:path";
import { fileURLToPath } from "node:url";

const here = dirname(fileURLToPath(import.meta.url));
const require = createRequire(join(here, "../../web/package.json"));
const { build } = require("esbuild");
const out = process.argv[2] ?? join(here, "out");
mkdirSync(out, { recursive: true });
const tests = readdirSync(join(here, "unit")).filter((f) => f.endsWith(".test.ts"));
await build({
  entryPoints: tests.map((f) => join(here, "unit", f)),
  bundle: true,
  platform: "node",
  format: "esm",
  outdir: out,
  outExtension: { ".js": ".mjs" },
  logLevel: "warning",
});
// The front-end's types are checked first: a type error fails the run.
const tsc = spawnSync(process.execPath, [require.resolve("typescript/bin/tsc"), "--noEmit", "-p", join(here, "../../web")], { stdio: "inherit" });
if (tsc.status !== 0) process.exit(tsc.status ?? 1);
const files = tests.map((f) => join(out, f.replace(/\.ts$/, ".mjs")));
const run = spawnSync(process.execPath, ["--test", ...files], { stdio: "inherit", env: { ...process.env, TZ: "UTC" } });
process.exit(run.status ?? 1);
