import { useEffect, useState } from "preact/hooks";
import { call } from "../api";
import { errorText } from "../errors";
import { formatSize, formatTime } from "../format";
import { TaskNode, VersionRec, downloadName } from "../model";
import { routeHash } from "../route";
import { Progress, fraction, runDownload, runRestore } from "../tasks";

interface VersionAnswer {
  items: VersionRec[];
  permanent_id: string;
  is_removed: boolean;
}

export function Versions({ q }: { q: Record<string, string> }) {
  const [answer, setAnswer] = useState<VersionAnswer | null>(null);
  const [error, setError] = useState("");
  const [message, setMessage] = useState("");
  const [task, setTask] = useState<{ label: string; progress: Progress | null } | null>(null);
  const [reload, setReload] = useState(0);
  const name = q.name || (q.path ?? "").split("/").pop() || "";

  useEffect(() => {
    let live = true;
    setError("");
    call<VersionAnswer>("KSTX.Tidepool.Node", "list_version", { target: q.target, path: q.path, node_id: q.node || undefined })
      .then((a) => live && setAnswer(a))
      .catch((e) => live && setError(errorText(e)));
    return () => {
      live = false;
    };
  }, [q.target, q.path, q.node, reload]);

  const nodeOf = (v: VersionRec): TaskNode => ({
    node_id: String(v.node_id),
    permanent_id: answer?.permanent_id ?? "",
    sync_id: String(v.sync_id),
    file_type: 0,
    path: q.path,
    name,
  });

  const restore = async (v: VersionRec) => {
    setMessage("");
    setTask({ label: "Restoring", progress: null });
    try {
      await runRestore({ target: q.target, nodes: [nodeOf(v)], override: true, includeRemoved: false }, (p) => setTask({ label: "Restoring", progress: p }));
      setMessage(`Restored the version of ${formatTime(v.modify_time)} in place.`);
      setReload((r) => r + 1);
    } catch (e) {
      setMessage(errorText(e));
    } finally {
      setTask(null);
    }
  };

  const download = async (v: VersionRec) => {
    setMessage("");
    setTask({ label: "Preparing the download", progress: null });
    const n = nodeOf(v);
    try {
      await runDownload(q.target, [n], downloadName([n]), false, (p) => setTask({ label: "Preparing the download", progress: p }), () => false);
      setMessage("The download has started.");
    } catch (e) {
      setMessage(errorText(e));
    } finally {
      setTask(null);
    }
  };

  const folder = (q.path ?? "").replace(/\/[^/]*$/, "") || "/";
  return (
    <section aria-labelledby="versions-title">
      <p>
        <a href={routeHash("browse", { target: q.target, path: folder })} onClick={(e) => { if (history.length > 1) { e.preventDefault(); history.back(); } }}>
          ← Back to the folder
        </a>
      </p>
      <h1 id="versions-title">Versions of {name}</h1>
      <p class="path">{q.path}</p>
      {answer?.is_removed && <p class="notice">This file has been removed; its earlier versions are kept.</p>}
      {error && <p class="error" role="alert">{error}</p>}
      {message && <p class="notice" role="status">{message}</p>}
      {task && (
        <div class="progress" role="status">
          <label>
            {task.label}…
            <progress max={1} value={fraction(task.progress)} />
          </label>
        </div>
      )}
      {answer && (
        <table class="versions">
          <thead>
            <tr>
              <th scope="col">Modified</th>
              <th scope="col">Saved</th>
              <th scope="col">Size</th>
              <th scope="col">By</th>
              <th scope="col"><span class="visually-hidden">Actions</span></th>
            </tr>
          </thead>
          <tbody>
            {answer.items.map((v, i) => (
              <tr key={v.sync_id}>
                <td>
                  {formatTime(v.modify_time)}
                  {i === 0 && !answer.is_removed && <span class="tag">current</span>}
                </td>
                <td>{formatTime(v.create_time)}</td>
                <td>{formatSize(v.size)}</td>
                <td>{v.version_updater || "–"}</td>
                <td class="buttons">
                  {q.folder && (
                    <a href={routeHash("browse", { target: q.target, node: q.folder, path: folder, at: v.create_time })}
                      aria-label={`The folder as it stood at ${formatTime(v.create_time)}`}>
                      Folder then
                    </a>
                  )}
                  <button type="button" disabled={!!task} onClick={() => download(v)} aria-label={`Download the version of ${formatTime(v.modify_time)}`}>
                    Download
                  </button>
                  <button type="button" disabled={!!task} onClick={() => restore(v)} aria-label={`Restore the version of ${formatTime(v.modify_time)}`}>
                    Restore
                  </button>
                </td>
              </tr>
            ))}
          </tbody>
        </table>
      )}
    </section>
  );
}
