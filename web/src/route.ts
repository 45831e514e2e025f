// Every view has its own address in the fragment (#/browse?...), so the
// browser's back and forward buttons and bookmarks work without any help
// from the server.

export type View = "signin" | "browse" | "versions" | "log";

export interface Route {
  view: View;
  q: Record<string, string>;
}

const VIEWS: View[] = ["signin", "browse", "versions", "log"];

export function parseRoute(hash: string): Route {
  const h = hash.replace(/^#/, "");
  const [pathPart, query = ""] = h.split("?", 2);
  const name = pathPart.replace(/^\/+/, "").split("/")[0] as View;
  const q: Record<string, string> = {};
  for (const [k, v] of new URLSearchParams(query)) q[k] = v;
  return { view: VIEWS.includes(name) ? name : "browse", q };
}

export function routeHash(view: View, q: Record<string, string | number | undefined | null> = {}): string {
  const params = new URLSearchParams();
  for (const [k, v] of Object.entries(q)) {
    if (v === undefined || v === null || v === "") continue;
    params.set(k, String(v));
  }
  const s = params.toString();
  return `#/${view}${s ? `?${s}` : ""}`;
}

export function go(view: View, q: Record<string, string | number | undefined | null> = {}) {
  const h = routeHash(view, q);
  if (location.hash !== h) location.hash = h;
}

// Where a sign-in should return to: never the sign-in page itself.
export function safeReturn(next: string | undefined): string {
  if (!next || !next.startsWith("#/") || next.startsWith("#/signin")) return "#/browse";
  return next;
}
