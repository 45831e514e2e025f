// The one way the front-end talks to the server: every call goes to
// /webapi/entry.cgi as a POST whose parameters are JSON values, and carries
// the session's request token so that writing methods are accepted.

export const ENTRY = "/webapi/entry.cgi";

export class ApiError extends Error {
  constructor(
    readonly code: number,
    readonly serverMessage: string,
    readonly api: string,
    readonly method: string,
    readonly param?: string,
  ) {
    super(`${api}.${method}: ${code} ${serverMessage}`);
  }
}

export type Params = Record<string, unknown>;

interface Session {
  account: string;
  token: string;
}

// Shared by the tabs of this origin, so that a folder opened in a new tab
// needs no second sign-in; the cookie still decides whether the session lives.
const SESSION_KEY = "tidepool.session";

export function currentSession(): Session | null {
  const raw = localStorage.getItem(SESSION_KEY);
  if (!raw) return null;
  try {
    const s = JSON.parse(raw) as Session;
    return typeof s.account === "string" && typeof s.token === "string" ? s : null;
  } catch {
    return null;
  }
}

function saveSession(s: Session | null) {
  if (s) localStorage.setItem(SESSION_KEY, JSON.stringify(s));
  else localStorage.removeItem(SESSION_KEY);
}

// Called when the server says the session is gone, so the app can bring
// back the sign-in page and return to where the user was afterwards.
let onSessionLost: (code: number) => void = () => {};
export function setSessionLostHandler(fn: (code: number) => void) {
  onSessionLost = fn;
}

// Every value travels as JSON text, so "12" stays a string and 12 a number.
export function encodeParams(api: string, method: string, params: Params): URLSearchParams {
  const body = new URLSearchParams();
  body.set("api", api);
  body.set("method", method);
  body.set("version", "1");
  for (const [k, v] of Object.entries(params)) {
    if (v === undefined) continue;
    body.set(k, JSON.stringify(v));
  }
  return body;
}

export async function call<T = unknown>(api: string, method: string, params: Params = {}): Promise<T> {
  const session = currentSession();
  const headers: Record<string, string> = { "Content-Type": "application/x-www-form-urlencoded" };
  if (session) headers["X-Tidepool-Token"] = session.token;
  let res: Response;
  try {
    res = await fetch(ENTRY, {
      method: "POST",
      headers,
      body: encodeParams(api, method, params),
      credentials: "same-origin",
    });
  } catch {
    throw new ApiError(-1, "network", api, method);
  }
  let doc: unknown;
  try {
    doc = await res.json();
  } catch {
    throw new ApiError(-2, `HTTP ${res.status}`, api, method);
  }
  const env = doc as { success?: boolean; data?: T; error?: { code?: number; errors?: Record<string, unknown> } };
  if (env.success) return env.data as T;
  const code = env.error?.code ?? -2;
  const errors = env.error?.errors ?? {};
  const message = typeof errors.message === "string" ? errors.message : "";
  const param = typeof errors.name === "string" ? errors.name : undefined;
  // 106 is a session that timed out; a request with no session at all (the
  // cookie gone) is refused as anonymous.
  if (code === 106 || (code === 105 && /anonymous/.test(message))) {
    saveSession(null);
    onSessionLost(code);
  }
  throw new ApiError(code, message, api, method, param);
}

export async function login(account: string, passwd: string): Promise<void> {
  saveSession(null);
  const data = await call<{ sid: string; token: string }>("KSTX.API.Auth", "login", { account, passwd });
  saveSession({ account, token: data.token });
}

export async function logout(): Promise<void> {
  try {
    await call("KSTX.API.Auth", "logout");
  } finally {
    saveSession(null);
  }
}

// A download is a real form POST into a hidden frame: the browser streams
// the answer to disk instead of the page holding it in memory.
export function submitDownload(api: string, method: string, params: Params) {
  const session = currentSession();
  const form = document.createElement("form");
  form.method = "POST";
  form.action = ENTRY;
  form.target = downloadFrame().name;
  form.hidden = true;
  const fields = encodeParams(api, method, params);
  if (session) fields.set("_token", session.token);
  for (const [k, v] of fields) {
    const input = document.createElement("input");
    input.type = "hidden";
    input.name = k;
    input.value = v;
    form.appendChild(input);
  }
  document.body.appendChild(form);
  form.submit();
  form.remove();
}

function downloadFrame(): HTMLIFrameElement {
  let frame = document.getElementById("tp-download-frame") as HTMLIFrameElement | null;
  if (!frame) {
    frame = document.createElement("iframe");
    frame.id = "tp-download-frame";
    frame.name = "tp-download-frame";
    frame.hidden = true;
    frame.title = "downloads";
    document.body.appendChild(frame);
  }
  return frame;
}
