import { test } from "node:test";
import assert from "node:assert/strict";
import { pageCount, pageRequest, pagerItems } from "../../../web/src/paging";
import { downloadName, taskNode, NodeRec } from "../../../web/src/model";

test("a page asks for its own rows only", () => {
  assert.deepEqual(pageRequest(1, 200), { offset: 0, limit: 200 });
  assert.deepEqual(pageRequest(3, 200), { offset: 400, limit: 200 });
  // A page number from a hand-edited address falls back to the first.
  assert.deepEqual(pageRequest(0, 50), { offset: 0, limit: 50 });
  assert.deepEqual(pageRequest(NaN, 50), { offset: 0, limit: 50 });
  assert.equal(pageCount(100000, 200), 500);
  assert.equal(pageCount(201, 200), 2);
  assert.equal(pageCount(0, 200), 1);
});

test("the pager offers the ends and a window around the current page", () => {
  assert.deepEqual(pagerItems(1, 1), [1]);
  assert.deepEqual(pagerItems(1, 4), [1, 2, 3, 4]);
  assert.deepEqual(pagerItems(250, 500), [1, null, 248, 249, 250, 251, 252, null, 500]);
  assert.deepEqual(pagerItems(1, 500), [1, 2, 3, null, 500]);
  assert.deepEqual(pagerItems(500, 500), [1, null, 498, 499, 500]);
  assert.deepEqual(pagerItems(4, 500), [1, 2, 3, 4, 5, 6, null, 500]);
  // Past the end: the last page is current.
  assert.deepEqual(pagerItems(900, 3), [1, 2, 3]);
});

test("a restore names the node as it stood at the chosen moment", () => {
  const n: NodeRec = {
    view_id: "1", node_id: "12", sync_id: "40", name: "notes.txt", path: "/notes.txt",
    permanent_id: "1012", absolute_path: "/Tidepool/notes.txt", mtime: 5, v_file_size: 3,
    file_type: 0, is_removed: true, ver_cnt: 1,
  };
  assert.deepEqual(taskNode(n, 1700000000), {
    node_id: "12", permanent_id: "1012", sync_id: "40", ver_ctime_upper_bound: 1700000000,
    file_type: 0, path: "/notes.txt", name: "notes.txt",
  });
  assert.equal(taskNode(n, null).ver_ctime_upper_bound, undefined);
  assert.equal(downloadName([n]), "notes");
  assert.equal(downloadName([{ name: "projects", file_type: 1 }]), "projects");
  assert.equal(downloadName([{ name: ".bashrc", file_type: 0 }]), ".bashrc");
  assert.equal(downloadName([n, n]), "Tidepool");
});
