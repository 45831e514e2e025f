import { test } from "node:test";
import assert from "node:assert/strict";
import { ApiError } from "../../../web/src/api";
import { errorText } from "../../../web/src/errors";
import { describeLog } from "../../../web/src/logtext";
import { parseRoute, routeHash, safeReturn } from "../../../web/src/route";

const err = (code: number, message = "", param?: string) => new ApiError(code, message, "KSTX.Tidepool.Node", "list", param);

test("refusals read as sentences, never as bare codes", () => {
  for (const code of [105, 106, 403, 405, 406, 501, 502, 503, 600, 603]) {
    const text = errorText(err(code, "whatever"));
    assert.match(text, /^[A-Z].*\.$/, `code ${code}: ${text}`);
    assert.doesNotMatch(text, /\b\d{3}\b/, `code ${code} shows no number: ${text}`);
  }
  assert.equal(errorText(err(400)), "The account name or password is wrong.");
  assert.equal(errorText(err(402, "admin-only operation")), "Only an administrator may do this.");
  assert.equal(errorText(err(501, "share archive is not enabled")), "This share is not synced by the service.");
  assert.equal(errorText(err(120, "", "node_id")), "The value of “node_id” is missing or not valid.");
  assert.equal(errorText(err(401, "invalid task id")), "This download is no longer available. Start it again.");
  assert.equal(errorText(err(401, "failed to open view db")), "The server could not do this: failed to open view db.");
  // A code this page does not know still says what happened.
  assert.equal(errorText(err(777, "odd")), "The server refused this (777): odd.");
  assert.match(errorText(new Error("boom")), /boom/);
});

test("log records read as sentences about who did what where", () => {
  const base = { username: "alice", target: "user", share_name: "alice", share_type: 0, time: 1 };
  assert.equal(describeLog({ ...base, type: 14, p1: "", p2: "0", s1: "/notes.txt", s2: "laptop" }),
    "alice removed the file /notes.txt in alice's home.");
  assert.equal(describeLog({ ...base, type: 4, p1: "", p2: "1", s1: "/projects", share_name: "team", share_type: 1 }),
    "alice restored the folder /projects in share team.");
  assert.equal(describeLog({ ...base, type: 17, p2: "0", s1: "/report.txt", s2: "/report-draft.txt" }),
    "alice moved or renamed /report-draft.txt to /report.txt in alice's home.");
  assert.equal(describeLog({ ...base, username: "", type: 0, p1: "1" }), "The sync service started.");
  assert.equal(describeLog({ ...base, type: 99 }), "alice: event 99.");
});

test("every view has an address that survives a round trip", () => {
  const h = routeHash("browse", { target: "@team", node: 7, path: "/a b/c&d", page: undefined, at: "" });
  assert.equal(h, "#/browse?target=%40team&node=7&path=%2Fa+b%2Fc%26d");
  assert.deepEqual(parseRoute(h), { view: "browse", q: { target: "@team", node: "7", path: "/a b/c&d" } });
  assert.deepEqual(parseRoute(""), { view: "browse", q: {} });
  assert.deepEqual(parseRoute("#/nowhere"), { view: "browse", q: {} });
  assert.equal(parseRoute("#/log?type=4").q.type, "4");
  // A sign-in returns where the user was, but never to itself or off the page.
  assert.equal(safeReturn("#/log?page=2"), "#/log?page=2");
  assert.equal(safeReturn("#/signin?next=x"), "#/browse");
  assert.equal(safeReturn("https://elsewhere.invalid/"), "#/browse");
  assert.equal(safeReturn(undefined), "#/browse");
});
