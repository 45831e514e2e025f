import { useEffect, useLayoutEffect, useMemo, useRef, useState } from "preact/hooks";
import { call } from "../api";
import { errorText } from "../errors";
import { formatSize, formatTime, fromLocalInput, toLocalInput } from "../format";
import { ListAnswer, NodeRec, TaskNode, downloadName, isFolder, taskNode } from "../model";
import { pageCount, pageRequest } from "../paging";
import { go, routeHash } from "../route";
import { Progress, fraction, runDownload, runRestore } from "../tasks";
import { Pager } from "./Pager";
import { TimeTravel } from "./TimeTravel";

export const PAGE_SIZE = 200;

// On a phone the filters start folded away, unless some are in use.
const narrow = typeof matchMedia === "function" && matchMedia("(max-width: 640px)").matches;

type Q = Record<string, string>;

const SORTS: { key: string; label: string }[] = [
  { key: "name", label: "Name" },
  { key: "mtime", label: "Modified" },
  { key: "v_file_size", label: "Size" },
];

interface Crumb {
  node: string;
  name: string;
  path: string;
}

// The address of a folder: the current options are kept, the page is not.
function folderLink(q: Q, node: string, path: string, target = q.target) {
  return routeHash("browse", { ...q, target, node, path, page: undefined });
}

export function Browse({ q }: { q: Q }) {
  const target = q.target ?? "";
  const at = q.at ? Number(q.at) : null;
  const page = Number(q.page) || 1;
  const sort = q.sort || "name";
  const dir = q.dir || "ASC";
  const showRemoved = q.removed !== "0";
  const [list, setList] = useState<ListAnswer | null>(null);
  const [error, setError] = useState("");
  const [crumbs, setCrumbs] = useState<Crumb[]>([]);
  const [selected, setSelected] = useState<Set<string>>(new Set());
  const [dialog, setDialog] = useState<"restore" | null>(null);
  const [task, setTask] = useState<{ label: string; progress: Progress | null; cancel?: boolean } | null>(null);
  const cancelRef = useRef(false);
  const [message, setMessage] = useState("");
  const [reload, setReload] = useState(0);
  const [loading, setLoading] = useState(false);
  const [patternInput, setPatternInput] = useState(q.pattern ?? "");
  const [bounds, setBounds] = useState({ after: q.after ?? "", before: q.before ?? "", min: q.min ?? "", max: q.max ?? "" });

  useEffect(() => setPatternInput(q.pattern ?? ""), [q.pattern]);
  useEffect(() => setBounds({ after: q.after ?? "", before: q.before ?? "", min: q.min ?? "", max: q.max ?? "" }), [q.after, q.before, q.min, q.max]);
  const bound = (key: keyof typeof bounds) => (e: Event) => setBounds({ ...bounds, [key]: (e.target as HTMLInputElement).value });

  // One `list` request per page shown.
  useEffect(() => {
    let live = true;
    setError("");
    setLoading(true);
    setSelected(new Set());
    const { offset, limit } = pageRequest(page, PAGE_SIZE);
    const params = target
      ? {
          target,
          node_id: q.node ? Number(q.node) : undefined,
          path: q.path || "/",
          sort_by: sort,
          sort_direction: dir,
          list_removed: showRemoved,
          list_remove: showRemoved,
          offset,
          limit,
          pattern: q.pattern || undefined,
          list_file_type: q.type || undefined,
          ver_ctime_upper_bound: at ?? undefined,
          ver_mtime_lower_bound: q.after ? Number(q.after) : undefined,
          ver_mtime_upper_bound: q.before ? Number(q.before) : undefined,
          ver_file_size_lower_bound: q.min ? kbToBytes(q.min) : undefined,
          ver_file_size_upper_bound: q.max ? kbToBytes(q.max) : undefined,
        }
      : { offset, limit };
    call<ListAnswer>("KSTX.Tidepool.Node", "list", params)
      .then((a) => {
        if (!live) return;
        performance.mark("tp:list-answer");
        setList(a);
        setLoading(false);
      })
      .catch((e) => {
        if (!live) return;
        setList(null);
        setLoading(false);
        setError(errorText(e));
      });
    return () => {
      live = false;
    };
  }, [target, q.node, q.path, page, sort, dir, showRemoved, q.pattern, q.type, at, q.after, q.before, q.min, q.max, reload]);

  // Breadcrumbs from the parent chain; a folder the chain cannot reach (one
  // that is removed now) falls back on its path.
  useEffect(() => {
    if (!target || !q.node) {
      setCrumbs([]);
      return;
    }
    let live = true;
    call<{ items: { node_id: string; name: string; path: string }[] }>("KSTX.Tidepool.Node", "list_parent", {
      target,
      node_id: Number(q.node),
    })
      .then((a) => {
        if (!live) return;
        const chain = [...a.items].sort((x, y) => depth(x.path) - depth(y.path));
        if (!chain.some((c) => c.node_id === q.node)) throw new Error("incomplete chain");
        setCrumbs(chain.map((c) => ({ node: c.node_id, name: c.name, path: c.path })));
      })
      .catch(() => {
        if (!live) return;
        const parts = (q.path || "/").split("/").filter(Boolean);
        setCrumbs([
          { node: "", name: target.startsWith("@") ? target.slice(1) : "Tidepool", path: "/" },
          ...parts.map((p, i) => ({ node: i === parts.length - 1 ? q.node : "", name: p, path: "/" + parts.slice(0, i + 1).join("/") })),
        ]);
      });
    return () => {
      live = false;
    };
  }, [target, q.node]);

  // Marks for the browser's own timeline (scripts/bench web): the page's
  // rows are in the document, and then on screen.
  useLayoutEffect(() => {
    if (!list) return;
    performance.mark("tp:list-rendered");
    requestAnimationFrame(() => setTimeout(() => performance.mark("tp:list-painted"), 0));
  }, [list]);

  const items = list?.items ?? [];
  const chosen = useMemo(() => items.filter((n) => selected.has(n.node_id)), [items, selected]);

  const setQ = (patch: Q) => go("browse", { ...q, ...patch });
  const toggle = (id: string) => {
    const next = new Set(selected);
    if (next.has(id)) next.delete(id);
    else next.add(id);
    setSelected(next);
  };
  const toggleAll = () => {
    setSelected(selected.size === items.length ? new Set() : new Set(items.map((n) => n.node_id)));
  };

  const download = async () => {
    const nodes = chosen.map((n) => taskNode(n, at));
    setMessage("");
    cancelRef.current = false;
    setTask({ label: "Preparing the download", progress: null, cancel: true });
    try {
      await runDownload(target, nodes, downloadName(chosen), showRemoved, (p) => setTask({ label: "Preparing the download", progress: p, cancel: true }), () => cancelRef.current);
      setMessage(`The download of ${describe(chosen)} has started.`);
    } catch (e) {
      setMessage(cancelRef.current ? "The download was cancelled." : errorText(e));
    } finally {
      setTask(null);
    }
  };

  const restore = async (copyTo: string, override: boolean, includeRemoved: boolean) => {
    setDialog(null);
    const what = describe(chosen);
    setMessage("");
    setTask({ label: `Restoring ${what}`, progress: null });
    try {
      const nodes = await Promise.all(chosen.map((n) => restorable(target, n, at)));
      const done = await runRestore({ target, nodes, copyTo: copyTo || undefined, override, includeRemoved }, (p) =>
        setTask({ label: `Restoring ${what}`, progress: p }),
      );
      if (done.total === 0) {
        setMessage("Nothing was restored: what you chose was already removed at this moment. Use Time travel to go back to before it was removed.");
        return;
      }
      setMessage(`Restored ${what}${copyTo ? ` into ${copyTo}` : ""}.`);
      setReload((r) => r + 1);
      // The service versions what came back a moment later; look again then.
      setTimeout(() => setReload((r) => r + 1), 4000);
    } catch (e) {
      setMessage(errorText(e));
    } finally {
      setTask(null);
    }
  };

  if (!target) {
    return (
      <section aria-labelledby="files-title">
        <h1 id="files-title">Files</h1>
        {error && <p class="error" role="alert">{error}</p>}
        <ul class="roots">
          {items.map((n) => (
            <li key={n.view_id}>
              <a href={folderLink(q, n.node_id, "/", n.is_share ? "@" + n.name : "mine")}>
                <span class="icon folder" aria-hidden="true" />
                {n.name}
                {n.is_share && <span class="tag">share</span>}
              </a>
            </li>
          ))}
        </ul>
        {list && items.length === 0 && <p>There is nothing here for you yet.</p>}
      </section>
    );
  }

  const total = list?.total ?? 0;
  return (
    <section aria-labelledby="files-title">
      <nav aria-label="Breadcrumbs" class="crumbs">
        <ol>
          <li>
            <a href={routeHash("browse", { at: q.at })}>All</a>
          </li>
          {crumbs.map((c, i) => (
            <li key={c.path}>
              {i === crumbs.length - 1 || !c.node ? (
                <span aria-current={i === crumbs.length - 1 ? "location" : undefined}>{c.name}</span>
              ) : (
                <a href={folderLink(q, c.node, c.path)}>{c.name}</a>
              )}
            </li>
          ))}
        </ol>
      </nav>
      <h1 id="files-title" class="visually-hidden">
        {crumbs.length ? crumbs[crumbs.length - 1].name : "Folder"}
      </h1>

      <TimeTravel target={target} node={q.node} at={at} onPick={(t) => setQ({ at: t ? String(t) : "", page: "" })} />
      {at && (
        <p class="banner" role="status">
          Showing this folder as it stood at <strong>{formatTime(at)}</strong>.{" "}
          <label>
            Moment
            <input type="datetime-local" step="1" value={toLocalInput(at)}
              onChange={(e) => {
                const t = fromLocalInput((e.target as HTMLInputElement).value);
                if (t) setQ({ at: String(t), page: "" });
              }} />
          </label>{" "}
          <button type="button" onClick={() => setQ({ at: "", page: "" })}>Back to now</button>
        </p>
      )}

      <details class="filterbox" open={!narrow || !!(q.pattern || q.type || q.after || q.before || q.min || q.max)}>
      <summary>Filters</summary>
      <form class="filters" role="search" onSubmit={(e) => { e.preventDefault(); setQ({ pattern: patternInput, ...bounds, page: "" }); }}>
        <label>
          Name
          <input type="search" value={patternInput} placeholder="e.g. *.txt" onInput={(e) => setPatternInput((e.target as HTMLInputElement).value)} />
        </label>
        <label>
          Show
          <select value={q.type || "any"} onChange={(e) => setQ({ type: (e.target as HTMLSelectElement).value === "any" ? "" : (e.target as HTMLSelectElement).value, page: "" })}>
            <option value="any">Files and folders</option>
            <option value="file">Files only</option>
            <option value="folder">Folders only</option>
          </select>
        </label>
        <label>
          Modified after
          <input type="datetime-local" value={bounds.after ? toLocalInput(Number(bounds.after)) : ""}
            onChange={(e) => setBounds({ ...bounds, after: String(fromLocalInput((e.target as HTMLInputElement).value) ?? "") })} />
        </label>
        <label>
          Modified before
          <input type="datetime-local" value={bounds.before ? toLocalInput(Number(bounds.before)) : ""}
            onChange={(e) => setBounds({ ...bounds, before: String(fromLocalInput((e.target as HTMLInputElement).value) ?? "") })} />
        </label>
        <label>
          At least (KB)
          <input type="number" min="0" step="any" inputMode="decimal" size={6} value={bounds.min} onInput={bound("min")} />
        </label>
        <label>
          At most (KB)
          <input type="number" min="0" step="any" inputMode="decimal" size={6} value={bounds.max} onInput={bound("max")} />
        </label>
        <label class="check">
          <input type="checkbox" checked={showRemoved} onChange={() => setQ({ removed: showRemoved ? "0" : "", page: "" })} />
          Removed items
        </label>
        <button type="submit">Filter</button>
      </form>
      </details>

      <div class="actions" role="toolbar" aria-label="Selection">
        <span aria-live="polite">{chosen.length ? `${chosen.length} selected` : "Nothing selected"}</span>
        <button type="button" disabled={!chosen.length || !!task} onClick={() => setDialog("restore")}>Restore…</button>
        <button type="button" disabled={!chosen.length || !!task} onClick={download}>Download</button>
      </div>

      {message && <p class={task ? "" : "notice"} role="status">{message}</p>}
      {task && (
        <div class="progress" role="status">
          <label>
            {task.label}
            {task.progress && task.progress.total > 0 ? ` (${task.progress.current} of ${task.progress.total})` : "…"}
            <progress max={1} value={fraction(task.progress)} />
          </label>{" "}
          {task.cancel && (
            <button type="button" onClick={() => (cancelRef.current = true)}>
              Cancel
            </button>
          )}
        </div>
      )}
      {error && <p class="error" role="alert">{error}</p>}

      {!error && <table class="nodes" aria-busy={loading}>
        <caption class="visually-hidden">Contents, {total} items</caption>
        <thead>
          <tr>
            <th scope="col" class="sel">
              <input type="checkbox" aria-label="Select all on this page" checked={items.length > 0 && selected.size === items.length} onChange={toggleAll} />
            </th>
            {SORTS.map((s) => (
              <th scope="col" key={s.key} aria-sort={sort === s.key ? (dir === "ASC" ? "ascending" : "descending") : undefined}>
                <button type="button" class="sort" onClick={() => setQ({ sort: s.key, dir: sort === s.key && dir === "ASC" ? "DESC" : "ASC", page: "" })}>
                  {s.label}
                  {sort === s.key ? (dir === "ASC" ? " ▲" : " ▼") : ""}
                </button>
              </th>
            ))}
            <th scope="col">Versions</th>
          </tr>
        </thead>
        <tbody>
          {items.map((n) => (
            <Row key={n.node_id} n={n} q={q} checked={selected.has(n.node_id)} onToggle={() => toggle(n.node_id)} />
          ))}
        </tbody>
      </table>}
      {list && items.length === 0 && <p>This folder is empty{at ? " at that moment" : ""}.</p>}
      <Pager page={page} count={pageCount(total, PAGE_SIZE)} onPage={(p) => setQ({ page: p > 1 ? String(p) : "" })} />

      {dialog === "restore" && (
        <RestoreDialog what={describe(chosen)} onCancel={() => setDialog(null)} onStart={restore} />
      )}
    </section>
  );
}

// A file that is removed now is restored from its last version, not from
// its removal, which would restore nothing.
async function restorable(target: string, n: NodeRec, at: number | null): Promise<TaskNode> {
  const t = taskNode(n, at);
  if (!n.is_removed || isFolder(n) || at) return t;
  const v = await call<{ items: { sync_id: number }[] }>("KSTX.Tidepool.Node", "list_version", {
    target,
    path: n.path,
    node_id: n.node_id,
  });
  if (v.items.length) t.sync_id = String(v.items[0].sync_id);
  return t;
}

// Sizes are asked in KB; the server counts bytes.
export function kbToBytes(kb: string): number | undefined {
  const v = Number(kb);
  return Number.isFinite(v) && v > 0 ? Math.round(v * 1024) : undefined;
}

function depth(path: string) {
  return path.split("/").filter(Boolean).length;
}

function describe(nodes: NodeRec[]) {
  if (nodes.length === 1) return nodes[0].name;
  return `${nodes.length} items`;
}

function Row({ n, q, checked, onToggle }: { n: NodeRec; q: Q; checked: boolean; onToggle: () => void }) {
  const folder = isFolder(n);
  const versions = routeHash("versions", { target: q.target, node: n.node_id, path: n.path, name: n.name, folder: q.node });
  return (
    <tr class={n.is_removed ? "removed" : ""}>
      <td class="sel">
        <input type="checkbox" aria-label={`Select ${n.name}`} checked={checked} onChange={onToggle} />
      </td>
      <td class="name">
        <span class={folder ? "icon folder" : "icon file"} aria-hidden="true" />
        {folder && !n.is_removed ? <a href={folderLink(q, n.node_id, n.path)}>{n.name}</a> : folder ? <a href={folderLink(q, n.node_id, n.path)}>{n.name}</a> : <a href={versions}>{n.name}</a>}
        {n.is_removed && <span class="tag removed-tag">removed</span>}
      </td>
      <td>{formatTime(n.mtime as number)}</td>
      <td>{folder ? "–" : formatSize(n.v_file_size)}</td>
      <td>{folder ? "" : <a href={versions} aria-label={`Versions of ${n.name}`}>{typeof n.ver_cnt === "number" ? n.ver_cnt : "–"}</a>}</td>
    </tr>
  );
}

function RestoreDialog(props: { what: string; onCancel: () => void; onStart: (copyTo: string, override: boolean, includeRemoved: boolean) => void }) {
  const [mode, setMode] = useState<"place" | "copy">("place");
  const [copyTo, setCopyTo] = useState("");
  const [override, setOverride] = useState(true);
  const [includeRemoved, setIncludeRemoved] = useState(false);
  const form = useRef<HTMLFormElement>(null);
  // Escape closes; Tab stays inside the dialog; focus goes back to the
  // button that opened it. Set up as the dialog appears, before any key.
  useLayoutEffect(() => {
    const opener = document.activeElement as HTMLElement | null;
    form.current?.querySelector<HTMLElement>("input")?.focus();
    const keys = (e: KeyboardEvent) => {
      if (e.key === "Escape") props.onCancel();
      if (e.key !== "Tab" || !form.current) return;
      const all = [...form.current.querySelectorAll<HTMLElement>("input, button, select")].filter((el) => !el.hasAttribute("disabled"));
      const first = all[0];
      const last = all[all.length - 1];
      if (e.shiftKey && document.activeElement === first) {
        e.preventDefault();
        last.focus();
      } else if (!e.shiftKey && document.activeElement === last) {
        e.preventDefault();
        first.focus();
      }
    };
    addEventListener("keydown", keys);
    return () => {
      removeEventListener("keydown", keys);
      opener?.focus();
    };
  }, []);
  return (
    <div class="dialog-backdrop">
      <form ref={form} class="dialog" role="dialog" aria-modal="true" aria-labelledby="restore-title"
        onSubmit={(e) => { e.preventDefault(); props.onStart(mode === "copy" ? copyTo.trim() : "", override, includeRemoved); }}>
        <h2 id="restore-title">Restore {props.what}</h2>
        <fieldset>
          <legend>Where</legend>
          <label class="check">
            <input type="radio" name="where" checked={mode === "place"} onChange={() => setMode("place")} />
            In place, where it was
          </label>
          <label class="check">
            <input type="radio" name="where" checked={mode === "copy"} onChange={() => setMode("copy")} />
            Into another folder
          </label>
          {mode === "copy" && (
            <label>
              Folder on the server
              <input required value={copyTo} placeholder="/volume1/homes/you/Tidepool/restored" onInput={(e) => setCopyTo((e.target as HTMLInputElement).value)} />
            </label>
          )}
        </fieldset>
        <label class="check">
          <input type="checkbox" checked={override} onChange={() => setOverride(!override)} />
          Replace what is there now
        </label>
        <label class="check">
          <input type="checkbox" checked={includeRemoved} onChange={() => setIncludeRemoved(!includeRemoved)} />
          Bring back removed items inside folders
        </label>
        <div class="buttons">
          <button type="button" onClick={props.onCancel}>Cancel</button>
          <button type="submit" class="primary">Restore</button>
        </div>
      </form>
    </div>
  );
}
