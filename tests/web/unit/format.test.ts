import { test } from "node:test";
import assert from "node:assert/strict";
import { formatAgo, formatSize, formatTime, fromLocalInput, toLocalInput } from "../../../web/src/format";
import { bucketsFor } from "../../../web/src/timeline";

test("sizes read in the largest unit that fits", () => {
  assert.equal(formatSize(0), "0 B");
  assert.equal(formatSize(1023), "1023 B");
  assert.equal(formatSize(1024), "1.0 KB");
  assert.equal(formatSize(1536), "1.5 KB");
  assert.equal(formatSize(200 * 1024 * 1024), "200 MB");
  assert.equal(formatSize(5 * 1024 ** 4), "5.0 TB");
  // The root listing answers "-" where a node has a number.
  assert.equal(formatSize("-" as unknown as number), "–");
  assert.equal(formatSize(undefined), "–");
});

test("times are shown to the second, and an input's value comes back to the same moment", () => {
  // The runner sets TZ=UTC.
  assert.equal(formatTime(1764090061), "2025-11-25 17:01:01");
  assert.equal(formatTime(0), "–");
  assert.equal(formatTime("-"), "–");
  assert.equal(toLocalInput(1764090061), "2025-11-25T17:01:01");
  assert.equal(fromLocalInput("2025-11-25T17:01:01"), 1764090061);
  assert.equal(fromLocalInput("2025-11-25T17:01"), 1764090060);
  assert.equal(fromLocalInput("yesterday"), null);
});

test("how long ago reads in the largest whole unit", () => {
  const now = 1_000_000_000;
  assert.equal(formatAgo(now - 5, now), "just now");
  assert.equal(formatAgo(now - 60, now), "1 minute ago");
  assert.equal(formatAgo(now - 7200, now), "2 hours ago");
  assert.equal(formatAgo(now - 86400 * 3, now), "3 days ago");
  assert.equal(formatAgo(now + 100, now), "just now");
});

test("time-travel buckets are whole hours that cover the span up to now", () => {
  const now = 1764090061;
  for (const range of [86400, 7 * 86400, 30 * 86400, 365 * 86400]) {
    const { start, end, interval } = bucketsFor(range, now);
    assert.equal(interval % 3600, 0);
    assert.ok(end > now && end - interval <= now, "the last bucket holds now");
    assert.ok(end - start >= range, "the span is covered");
    assert.ok((end - start) / interval <= 101, "about a hundred bars at most");
    assert.equal(start % interval, 0, "bars start on the epoch grid the server buckets by");
  }
});
