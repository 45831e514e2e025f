// Bundles the front-end into one script and one style sheet.
// usage: node build.mjs OUTDIR
import { build } from "esbuild";
import { copyFileSync, mkdirSync } from "node:fs";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const here = dirname(fileURLToPath(import.meta.url));
const out = process.argv[2] ?? join(here, "dist");
mkdirSync(out, { recursive: true });
await build({
  entryPoints: { app: join(here, "src/main.tsx") },
  bundle: true,
  minify: true,
  sourcemap: false,
  target: ["es2020"],
  format: "iife",
  jsx: "automatic",
  jsxImportSource: "preact",
  outdir: out,
  logLevel: "warning",
});
await build({
  entryPoints: { app: join(here, "src/style.css") },
  bundle: true,
  minify: true,
  outdir: out,
  logLevel: "warning",
});
copyFileSync(join(here, "index.html"), join(out, "index.html"));
