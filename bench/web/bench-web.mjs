// The front-end in headless chromium against the demo over loopback, timed
// by the browser's own clock (Navigation Timing, performance marks):
//   1. the size of what the browser loads, gzipped;
//   2. the first view: the sign-in form usable, from a cold cache; a folder
//      usable when a signed-in user opens its address;
//   3. a folder of 100,000 entries: one page (200 rows) in the document and
//      on screen after its `list` answer arrived, at the first page and at
//      offset 50,000, and how many `list` requests opening it took.
// usage: node bench-web.mjs BASE_URL UI_DIR BIG_NODE_ID
import { createRequire } from "node:module";
import { readFileSync } from "node:fs";
import { gzipSync } from "node:zlib";
import { join, dirname } from "node:path";
import { fileURLToPath } from "node:url";

const here = dirname(fileURLToPath(import.meta.url));
const require = createRequire(join(here, "../../web/package.json"));
const { chromium } = require("playwright-core");
const [base, ui, big] = process.argv.slice(2);
const runs = Number(process.env.BENCH_RUNS ?? 10);

const median = (xs) => {
  const s = [...xs].sort((a, b) => a - b);
  return s[Math.floor(s.length / 2)];
};
const ms = (x) => `${x.toFixed(1)} ms`;

for (const f of ["app.js", "app.css", "index.html"]) {
  const raw = readFileSync(join(ui, f));
  console.log(`${f}: ${raw.length} bytes, ${gzipSync(raw, { level: 9 }).length} gzipped`);
}

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"],
});

// Sign-in form usable: time from navigation start until its button exists.
const signinTimes = [];
const dcl = [];
for (let i = 0; i < runs; i++) {
  const context = await browser.newContext();
  const page = await context.newPage();
  await page.goto(base);
  await page.getByRole("button", { name: "Sign in" }).waitFor();
  signinTimes.push(await page.evaluate(() => performance.now()));
  dcl.push(await page.evaluate(() => performance.getEntriesByType("navigation")[0].domContentLoadedEventEnd));
  await context.close();
}
console.log(`first view (sign-in form usable, cold cache): p50 ${ms(median(signinTimes))}, max ${ms(Math.max(...signinTimes))}; DOMContentLoaded p50 ${ms(median(dcl))}`);

const context = await browser.newContext({ viewport: { width: 1280, height: 800 } });
const page = await context.newPage();
let listRequests = 0;
page.on("request", (r) => {
  if (r.url().includes("/webapi/entry.cgi") && /(^|&)method=list(&|$)/.test(r.postData() ?? "")) listRequests++;
});
await page.goto(base);
await page.getByLabel("Account").fill("alice");
await page.getByLabel("Password").fill("alice-demo");
await page.getByRole("button", { name: "Sign in" }).click();
await page.getByRole("link", { name: /My Tidepool/ }).click();
await page.locator("table.nodes tbody tr").first().waitFor();
const home = page.url();

// A signed-in user opening a folder's address: the page loads and the
// folder's rows are on screen.
const folderTimes = [];
for (let i = 0; i < runs; i++) {
  await page.goto(home);
  await page.reload();
  await page.waitForFunction(() => performance.getEntriesByName("tp:list-painted").length > 0);
  folderTimes.push(await page.evaluate(() => performance.getEntriesByName("tp:list-painted")[0].startTime));
}
console.log(`first view (home folder on screen after loading its address): p50 ${ms(median(folderTimes))}`);

async function bigPage(pageNo) {
  const answer = [], rendered = [], painted = [], requests = [];
  for (let i = 0; i < runs; i++) {
    await page.goto(base + "#/browse");
    // The root listing's own request is over before the count starts.
    await page.getByRole("link", { name: /My Tidepool/ }).waitFor();
    await page.evaluate(() => performance.clearMarks());
    listRequests = 0;
    const hash = `#/browse?target=mine&node=${big}&path=%2Fbig&sort=name&dir=ASC${pageNo > 1 ? `&page=${pageNo}` : ""}`;
    await page.evaluate((h) => (location.hash = h), hash);
    // The marks of this answer: a mark of the root listing may still land
    // after the clear, so each is the first one after the answer.
    const marks = () => {
      const answer = performance.getEntriesByName("tp:list-answer")[0]?.startTime;
      if (answer === undefined) return null;
      const after = (n) => performance.getEntriesByName(n).find((e) => e.startTime >= answer)?.startTime;
      const rendered = after("tp:list-rendered");
      const painted = after("tp:list-painted");
      return rendered === undefined || painted === undefined ? null : [answer, rendered, painted];
    };
    await page.waitForFunction(marks, null, { timeout: 60000 });
    const m = await page.evaluate(marks);
    answer.push(m[0]);
    rendered.push(m[1] - m[0]);
    painted.push(m[2] - m[0]);
    requests.push(listRequests);
    const rows = await page.locator("table.nodes tbody tr").count();
    if (rows !== 200) throw new Error(`expected 200 rows, saw ${rows}`);
  }
  console.log(
    `100,000-entry folder, page ${pageNo} (200 rows): answer to rows in the document p50 ${ms(median(rendered))} (max ${ms(Math.max(...rendered))}), ` +
      `to screen p50 ${ms(median(painted))} (max ${ms(Math.max(...painted))}); list requests per opening: ${[...new Set(requests)].join(", ")}`,
  );
}
await bigPage(1);
await bigPage(251);
await browser.close();
