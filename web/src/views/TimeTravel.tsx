import { useEffect, useState } from "preact/hooks";
import { call } from "../api";
import { errorText } from "../errors";
import { formatTime } from "../format";
import { bucketsFor, RANGES } from "../timeline";

interface Bucket {
  timestamp: number;
  activity_count: number;
}

// A histogram of the folder's changes; picking a bar shows the tree as it
// stood at the end of that bar's span.
export function TimeTravel(props: { target: string; node?: string; at: number | null; onPick: (t: number | null) => void }) {
  const [open, setOpen] = useState(props.at !== null);
  const [range, setRange] = useState(RANGES[1].seconds);
  const [buckets, setBuckets] = useState<Bucket[] | null>(null);
  const [error, setError] = useState("");

  useEffect(() => {
    if (!open) return;
    let live = true;
    const now = Math.floor(Date.now() / 1000);
    const { start, end, interval } = bucketsFor(range, now);
    setError("");
    call<{ items: Bucket[] }>("KSTX.Tidepool.Node", "activity", {
      target: props.target,
      node_id: props.node || undefined,
      start_date: start,
      end_date: end,
      interval,
      tz_offset: 0,
    })
      .then((a) => live && setBuckets(a.items.filter((b) => b.activity_count > 0)))
      .catch((e) => live && setError(errorText(e)));
    return () => {
      live = false;
    };
  }, [open, range, props.target, props.node]);

  const interval = bucketsFor(range, 0).interval;
  const max = Math.max(1, ...(buckets ?? []).map((b) => b.activity_count));
  return (
    <div class="timetravel">
      <button type="button" aria-expanded={open} onClick={() => setOpen(!open)}>
        Time travel
      </button>
      {open && (
        <div class="timeline">
          <label>
            Span
            <select value={range} onChange={(e) => setRange(Number((e.target as HTMLSelectElement).value))}>
              {RANGES.map((r) => (
                <option key={r.seconds} value={r.seconds}>{r.label}</option>
              ))}
            </select>
          </label>
          {error && <p class="error" role="alert">{error}</p>}
          {buckets && buckets.length === 0 && <p>No changes in this span.</p>}
          <ol class="bars" aria-label="Moments with changes">
            {(buckets ?? []).map((b) => {
              const end = b.timestamp + interval - 1;
              const active = props.at !== null && props.at >= b.timestamp && props.at <= end;
              return (
                <li key={b.timestamp}>
                  <button type="button" class={active ? "bar active" : "bar"} aria-pressed={active}
                    title={`${b.activity_count} changes until ${formatTime(end)}`}
                    aria-label={`${b.activity_count} changes, up to ${formatTime(end)}`}
                    onClick={() => props.onPick(end)}>
                    <span class="fill" style={{ height: `${Math.max(8, (100 * b.activity_count) / max)}%` }} />
                    <span class="when">{formatTime(b.timestamp).slice(5, 16)}</span>
                  </button>
                </li>
              );
            })}
          </ol>
        </div>
      )}
    </div>
  );
}
