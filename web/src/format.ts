// Times and sizes as people read them. Times are shown in the browser's
// own zone; the server speaks in seconds since the epoch.

export function formatSize(bytes: number | string | undefined): string {
  if (typeof bytes !== "number" || !Number.isFinite(bytes) || bytes < 0) return "–";
  if (bytes < 1024) return `${bytes} B`;
  const units = ["KB", "MB", "GB", "TB", "PB"];
  let v = bytes / 1024;
  let i = 0;
  while (v >= 1024 && i < units.length - 1) {
    v /= 1024;
    i++;
  }
  return `${v < 10 ? v.toFixed(1) : Math.round(v)} ${units[i]}`;
}

function pad(n: number): string {
  return n < 10 ? `0${n}` : String(n);
}

// "2026-11-24 17:05:09" in local time; "–" for what is not a time.
export function formatTime(seconds: number | string | undefined): string {
  if (typeof seconds !== "number" || !Number.isFinite(seconds) || seconds <= 0) return "–";
  const d = new Date(seconds * 1000);
  return (
    `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ` +
    `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`
  );
}

// How long ago, relative to `now` (seconds), in the largest unit that fits.
export function formatAgo(seconds: number, now: number): string {
  const d = Math.max(0, Math.round(now - seconds));
  if (d < 60) return "just now";
  const units: [number, string][] = [
    [86400 * 365, "year"],
    [86400 * 30, "month"],
    [86400, "day"],
    [3600, "hour"],
    [60, "minute"],
  ];
  for (const [size, name] of units) {
    if (d >= size) {
      const n = Math.floor(d / size);
      return `${n} ${name}${n === 1 ? "" : "s"} ago`;
    }
  }
  return "just now";
}

// The value of an <input type="datetime-local"> for a moment, and back.
export function toLocalInput(seconds: number): string {
  const d = new Date(seconds * 1000);
  return (
    `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}T` +
    `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`
  );
}

export function fromLocalInput(value: string): number | null {
  const m = /^(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d)(?::(\d\d))?$/.exec(value);
  if (!m) return null;
  const d = new Date(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], m[6] ? +m[6] : 0);
  return Math.floor(d.getTime() / 1000);
}
