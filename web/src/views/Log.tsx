import { useEffect, useState } from "preact/hooks";
import { call, submitDownload } from "../api";
import { errorText } from "../errors";
import { formatTime, fromLocalInput, toLocalInput } from "../format";
import { LOG_TYPES, LogRecord, describeLog } from "../logtext";
import { pageCount, pageRequest } from "../paging";
import { go } from "../route";
import { Pager } from "./Pager";

const LOG_PAGE = 50;

export function LogView({ q }: { q: Record<string, string> }) {
  const page = Number(q.page) || 1;
  const [answer, setAnswer] = useState<{ items: LogRecord[]; total: number } | null>(null);
  const [error, setError] = useState("");
  const [keyword, setKeyword] = useState(q.q ?? "");
  const [message, setMessage] = useState("");
  useEffect(() => setKeyword(q.q ?? ""), [q.q]);

  useEffect(() => {
    let live = true;
    setError("");
    const { offset, limit } = pageRequest(page, LOG_PAGE);
    call<{ items: LogRecord[]; total: number }>("KSTX.Tidepool.Log", "list", {
      target: "",
      share_type: "all",
      offset,
      limit,
      log_type: q.type ? [Number(q.type)] : undefined,
      keyword: q.q || undefined,
      datefrom: q.from ? Number(q.from) : undefined,
      dateto: q.to ? Number(q.to) : undefined,
    })
      .then((a) => live && setAnswer(a))
      .catch((e) => {
        if (!live) return;
        setAnswer(null);
        setError(errorText(e));
      });
    return () => {
      live = false;
    };
  }, [page, q.type, q.q, q.from, q.to]);

  const setQ = (patch: Record<string, string>) => go("log", { ...q, ...patch, page: patch.page ?? "" });
  const exportCsv = () => {
    setMessage("The export has started; the browser saves it as export.csv.");
    submitDownload("KSTX.Tidepool.Log", "export", { type: "csv" });
  };

  return (
    <section aria-labelledby="log-title">
      <h1 id="log-title">Activity log</h1>
      <form class="filters" role="search" onSubmit={(e) => { e.preventDefault(); setQ({ q: keyword.trim() }); }}>
        <label>
          Kind
          <select value={q.type ?? ""} onChange={(e) => setQ({ type: (e.target as HTMLSelectElement).value })}>
            <option value="">Everything</option>
            {LOG_TYPES.map((t) => (
              <option key={t.code} value={String(t.code)}>{t.label}</option>
            ))}
          </select>
        </label>
        <label>
          From
          <input type="datetime-local" value={q.from ? toLocalInput(Number(q.from)) : ""}
            onChange={(e) => setQ({ from: String(fromLocalInput((e.target as HTMLInputElement).value) ?? "") })} />
        </label>
        <label>
          To
          <input type="datetime-local" value={q.to ? toLocalInput(Number(q.to)) : ""}
            onChange={(e) => setQ({ to: String(fromLocalInput((e.target as HTMLInputElement).value) ?? "") })} />
        </label>
        <label>
          Keyword
          <input type="search" value={keyword} onInput={(e) => setKeyword((e.target as HTMLInputElement).value)} />
        </label>
        <button type="submit">Filter</button>
        <button type="button" onClick={exportCsv}>Export CSV</button>
      </form>
      {message && <p class="notice" role="status">{message}</p>}
      {error && <p class="error" role="alert">{error}</p>}
      {answer && answer.items.length === 0 && <p>No activity matches.</p>}
      <ol class="log">
        {(answer?.items ?? []).map((r, i) => (
          <li key={`${r.time}-${i}`}>
            <time dateTime={new Date(r.time * 1000).toISOString()}>{formatTime(r.time)}</time>
            <span>{describeLog(r)}</span>
          </li>
        ))}
      </ol>
      <Pager page={page} count={pageCount(answer?.total ?? 0, LOG_PAGE)} onPage={(p) => setQ({ page: p > 1 ? String(p) : "" })} />
    </section>
  );
}
