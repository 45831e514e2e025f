// What a person does in the front-end, in Debian's chromium driven headless
// by playwright-core, against a running demo system.
// usage: node scenarios.mjs BASE_URL OUT_DIR [DATA_ROOT]
// Screenshots go to OUT_DIR; DATA_ROOT ("/" inside the sandbox) is where the
// demo's volumes are seen, to check restored files on disk.
import { createRequire } from "node:module";
import { execFileSync } from "node:child_process";
import { mkdirSync, readFileSync, existsSync } from "node:fs";
import { join, dirname } from "node:path";
import { fileURLToPath } from "node:url";
import assert from "node:assert/strict";

const here = dirname(fileURLToPath(import.meta.url));
const require = createRequire(join(here, "../../web/package.json"));
const { chromium } = require("playwright-core");

const [base, out, dataRoot = "/"] = process.argv.slice(2);
mkdirSync(out, { recursive: true });
const alicesHome = join(dataRoot, "volume1/homes/alice/Tidepool");

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"],
});

const failures = [];
async function scenario(name, width, fn) {
  const context = await browser.newContext({ viewport: { width, height: 800 }, acceptDownloads: true });
  const page = await context.newPage();
  page.setDefaultTimeout(15000);
  const started = Date.now();
  try {
    await fn(page, context);
    console.log(`ok   ${name} (${Date.now() - started} ms)`);
  } catch (e) {
    failures.push(name);
    console.log(`FAIL ${name}: ${e.stack ?? e}`);
  } finally {
    await page.screenshot({ path: join(out, `${name}.png`), fullPage: true }).catch(() => {});
    await context.close();
  }
}

async function signIn(page, account, password) {
  await page.getByLabel("Account").fill(account);
  await page.getByLabel("Password").fill(password);
  await page.getByRole("button", { name: "Sign in" }).click();
  await page.getByRole("button", { name: "Sign out" }).waitFor();
}

function row(page, name) {
  return page.locator("table.nodes tbody tr").filter({ has: page.getByRole("link", { name, exact: true }) });
}

await scenario("restore-deleted-notes", 1280, async (page) => {
  assert.ok(!existsSync(join(alicesHome, "notes.txt")), "notes.txt is gone before the restore");
  await page.goto(base);
  await signIn(page, "alice", "alice-demo");
  await page.getByRole("link", { name: /My Tidepool/ }).click();
  const notes = row(page, "notes.txt");
  await notes.getByText("removed").waitFor();

  // Back to the moment before the deletion: the bar before the last one.
  await page.getByRole("button", { name: "Time travel" }).click();
  const bars = page.getByRole("list", { name: "Moments with changes" }).getByRole("button");
  await bars.nth(2).waitFor();
  assert.equal(await bars.count(), 3, "three moments of change in the demo's history");
  await bars.nth(1).click();
  await page.getByText("Showing this folder as it stood at").waitFor();
  // notes.txt still exists at that moment.
  await notes.getByText("removed").waitFor({ state: "detached" });
  assert.ok(/[?&]at=\d+/.test(page.url()), "the moment is part of the address");

  await notes.getByRole("checkbox").check();
  await page.getByRole("button", { name: "Restore…" }).click();
  await page.getByRole("dialog").getByRole("button", { name: "Restore" }).click();
  await page.getByText("Restored notes.txt.").waitFor();

  // The file is on disk at once, and in today's listing once the service
  // has versioned it, which the page looks for again by itself.
  assert.equal(readFileSync(join(alicesHome, "notes.txt"), "utf8"), "Shopping: milk\n");
  await page.getByRole("button", { name: "Back to now" }).click();
  await page.waitForFunction(() => !location.hash.includes("at="));
  // A live notes.txt is listed (the removed node may stay beside it).
  const live = () =>
    [...document.querySelectorAll("table.nodes tbody tr")].some(
      (tr) => tr.querySelector("td.name a")?.textContent === "notes.txt" && !tr.querySelector(".removed-tag"),
    );
  // Loaded afresh, so that no row of the moment before is still on screen.
  for (let tries = 0; ; tries++) {
    await page.reload();
    try {
      await page.waitForFunction(live, null, { timeout: 8000 });
      break;
    } catch (e) {
      if (tries === 3) throw e;
    }
  }
});

await scenario("restore-removed-file-at-375", 375, async (page) => {
  // Without time travel: a removed file comes back as its last version.
  await page.goto(base);
  await signIn(page, "alice", "alice-demo");
  await page.getByRole("link", { name: /My Tidepool/ }).click();
  const draft = row(page, "report-draft.txt");
  await draft.getByText("removed").waitFor();
  await draft.getByRole("checkbox").check();
  await page.getByRole("button", { name: "Restore…" }).click();
  await page.getByRole("dialog").getByRole("button", { name: "Restore" }).click();
  await page.getByText("Restored report-draft.txt.").waitFor();
  assert.equal(readFileSync(join(alicesHome, "report-draft.txt"), "utf8"), "Report v1\n");
});

await scenario("download-folder-zip", 1280, async (page) => {
  await page.goto(base);
  await signIn(page, "alice", "alice-demo");
  await page.getByRole("link", { name: /My Tidepool/ }).click();
  // A size bound narrows the folder, and back undoes it.
  await row(page, "report.txt").waitFor();
  await page.getByLabel("At most (KB)").fill("0.012");
  await page.getByRole("button", { name: "Filter" }).click();
  await page.waitForFunction(() => location.hash.includes("max=0.012"));
  const shows = (name) => page.evaluate((n) => [...document.querySelectorAll("td.name a")].some((a) => a.textContent === n), name);
  await page.waitForFunction(() => ![...document.querySelectorAll("td.name a")].some((a) => a.textContent === "notes.txt"));
  assert.ok(await shows("report.txt"), "report.txt, of 10 bytes, stays");
  await page.goBack();
  await row(page, "notes.txt").first().waitFor();

  await row(page, "projects").getByRole("checkbox").check();
  const download = page.waitForEvent("download", { timeout: 30000 });
  await page.getByRole("button", { name: "Download" }).click();
  const file = await download;
  assert.equal(file.suggestedFilename(), "projects.zip");
  const zip = join(out, "projects.zip");
  await file.saveAs(zip);
  const listing = execFileSync("unzip", ["-Z1", zip], { encoding: "utf8" }).split("\n").filter(Boolean);
  assert.ok(listing.includes("projects/plan.txt"), `the archive holds projects/plan.txt: ${listing}`);
  assert.ok(listing.includes("projects/drafts/idea.txt"), "and the subfolder's file");
  const plan = execFileSync("unzip", ["-p", zip, "projects/plan.txt"], { encoding: "utf8" });
  assert.equal(plan, "Plan, first draft\nPlan, second draft\nPlan, final\n");
  await page.getByText("The download of projects has started.").waitFor();
});

await scenario("export-log", 1280, async (page) => {
  await page.goto(base + "#/log");
  await signIn(page, "admin", "admin-demo");
  await page.getByRole("heading", { name: "Activity log" }).waitFor();
  await page.locator("ol.log li").first().waitFor();
  const download = page.waitForEvent("download");
  await page.getByRole("button", { name: "Export CSV" }).click();
  const file = await download;
  assert.equal(file.suggestedFilename(), "export.csv");
  const csv = join(out, "export.csv");
  await file.saveAs(csv);
  const lines = readFileSync(csv, "utf8").split("\n").filter(Boolean);
  assert.ok(lines.length > 10, `the export has the demo's records (${lines.length} lines)`);
  assert.ok(lines.some((l) => l.includes("notes.txt")), "among them notes.txt");

  // Filters: a keyword, then a kind; each is part of the address.
  await page.getByLabel("Keyword").fill("notes.txt");
  await page.getByRole("button", { name: "Filter" }).click();
  await page.waitForFunction(() => location.hash.includes("q=notes.txt"));
  // Only the records of notes.txt: removed, restored, added again.
  await page.waitForFunction(() => {
    const shown = [...document.querySelectorAll("ol.log li")].map((li) => li.textContent ?? "");
    return shown.length >= 3 && shown.every((t) => t.includes("/notes.txt"));
  });
  await page.getByText("alice removed the file /notes.txt in alice's home.").waitFor();
  await page.getByLabel("Kind").selectOption({ label: "Removed" });
  await page.waitForFunction(() => location.hash.includes("type=14"));
  await page.waitForFunction(() => document.querySelectorAll("ol.log li").length === 1);
  await page.getByText("alice removed the file /notes.txt").waitFor();
  await page.goBack();
  await page.waitForFunction(() => !location.hash.includes("type="));
  await page.waitForFunction(() => document.querySelectorAll("ol.log li").length >= 2);
});

await scenario("session-ends-and-returns", 375, async (page, context) => {
  await page.goto(base);
  await signIn(page, "alice", "alice-demo");
  await page.getByRole("link", { name: /My Tidepool/ }).click();
  await row(page, "projects").getByRole("link", { name: "projects" }).click();
  await row(page, "plan.txt").waitFor();
  const folder = new URL(page.url()).hash;
  await context.clearCookies();
  await page.getByRole("button", { name: /Name/ }).click();
  await page.getByRole("heading", { name: "Sign in to Tidepool" }).waitFor();
  await page.getByText("Your session has ended").waitFor();
  await signIn(page, "alice", "alice-demo");
  await row(page, "plan.txt").waitFor();
  assert.ok(new URL(page.url()).hash.includes("path=%2Fprojects"), `back in the folder: ${page.url()} (was ${folder})`);
  // The breadcrumbs lead back up, and the browser's back button works.
  await page.getByRole("navigation", { name: "Breadcrumbs" }).getByRole("link", { name: "Tidepool" }).waitFor();
  await page.getByRole("link", { name: "plan.txt", exact: true }).click();
  await page.getByRole("heading", { name: "Versions of plan.txt" }).waitFor();
  await page.locator("table.versions tbody tr").nth(2).waitFor();
  assert.equal(await page.locator("table.versions tbody tr").count(), 3, "plan.txt has three versions");
  // From the oldest version to its folder as it stood then, and back.
  await page.locator("table.versions tbody tr").nth(2).getByRole("link", { name: /The folder as it stood at/ }).click();
  await page.getByText("Showing this folder as it stood at").waitFor();
  await row(page, "plan.txt").getByText("18 B").waitFor(); // "Plan, first draft\n"
  await page.goBack();
  await page.getByRole("heading", { name: "Versions of plan.txt" }).waitFor();
  await page.goBack();
  await row(page, "drafts").waitFor();
});

await scenario("shares-for-administrators", 1280, async (page, context) => {
  await page.goto(base);
  await signIn(page, "admin", "admin-demo");
  // The root holds the admin's home and the enabled share, not "archive".
  await page.getByRole("link", { name: /My Tidepool/ }).waitFor();
  await page.getByRole("link", { name: /team/ }).click();
  await row(page, "project-10").waitFor();
  assert.equal(await page.getByRole("link", { name: /archive/ }).count(), 0);
  // Natural order: project-2 before project-10.
  const names = await page.locator("table.nodes tbody td.name a").allTextContents();
  assert.ok(names.indexOf("project-2") < names.indexOf("project-10"), `natural order: ${names}`);
  const share = page.url();

  // Restore into another folder that is not there: refused with a sentence.
  await row(page, "private").getByRole("checkbox").check();
  // Escape closes the dialog and focus is back on the button that opened it.
  await page.getByRole("button", { name: "Restore…" }).click();
  await page.getByRole("dialog").waitFor();
  await page.keyboard.press("Escape");
  await page.getByRole("dialog").waitFor({ state: "detached" });
  assert.equal(await page.evaluate(() => document.activeElement?.textContent), "Restore…");
  await page.getByRole("button", { name: "Restore…" }).click();
  await page.getByLabel("Into another folder").check();
  await page.getByLabel("Folder on the server").fill("/volume1/nowhere/at-all");
  await page.getByRole("dialog").getByRole("button", { name: "Restore" }).click();
  await page.getByText("You do not have permission for this item.").waitFor();

  // bob, who may read the share but is no administrator, is told why he
  // cannot browse it from here.
  await page.getByRole("button", { name: "Sign out" }).click();
  await page.getByRole("heading", { name: "Sign in to Tidepool" }).waitFor();
  await context.clearCookies();
  await page.goto(share);
  await signIn(page, "bob", "bob-demo");
  await page.getByRole("alert").getByText("Only an administrator may do this.").waitFor();
});

await scenario("wrong-password", 375, async (page) => {
  await page.goto(base);
  await page.getByLabel("Account").fill("bob");
  await page.getByLabel("Password").fill("not-his");
  await page.getByRole("button", { name: "Sign in" }).click();
  await page.getByRole("alert").getByText("The account name or password is wrong.").waitFor();
});

await browser.close();
if (failures.length) {
  console.log(`${failures.length} scenario(s) failed: ${failures.join(", ")}`);
  process.exit(1);
}
