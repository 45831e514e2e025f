// The spans the time-travel histogram offers, and the bucket size of each:
// about a hundred bars at most, whole hours, so bars line up with the clock.

export const RANGES = [
  { label: "Last day", seconds: 86400 },
  { label: "Last week", seconds: 7 * 86400 },
  { label: "Last month", seconds: 30 * 86400 },
  { label: "Last year", seconds: 365 * 86400 },
];

export function bucketsFor(range: number, now: number) {
  const hours = Math.max(1, Math.ceil(range / 3600 / 100));
  const interval = hours * 3600;
  // The last bar ends after `now`, so the newest changes have one.
  const end = Math.ceil((now + 1) / interval) * interval;
  const start = end - Math.ceil(range / interval) * interval;
  return { start, end, interval };
}
