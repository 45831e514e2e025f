// Paging of long lists: which rows a page asks for, and which page numbers
// the pager offers around the current one.

export interface Page {
  offset: number;
  limit: number;
}

export function pageRequest(page: number, size: number): Page {
  const p = Number.isInteger(page) && page > 0 ? page : 1;
  return { offset: (p - 1) * size, limit: size };
}

export function pageCount(total: number, size: number): number {
  if (!(total > 0) || !(size > 0)) return 1;
  return Math.ceil(total / size);
}

// Page numbers to offer: the first, the last and a window around `current`,
// with null where numbers are left out.
export function pagerItems(current: number, count: number, window = 2): (number | null)[] {
  if (count <= 1) return [1];
  const c = Math.min(Math.max(1, current), count);
  const keep = new Set<number>([1, count]);
  for (let p = c - window; p <= c + window; p++) if (p >= 1 && p <= count) keep.add(p);
  const sorted = [...keep].sort((a, b) => a - b);
  const out: (number | null)[] = [];
  for (let i = 0; i < sorted.length; i++) {
    if (i > 0 && sorted[i] - sorted[i - 1] > 1) out.push(null);
    out.push(sorted[i]);
  }
  return out;
}
