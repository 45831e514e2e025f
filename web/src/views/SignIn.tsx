import { useState } from "preact/hooks";
import { login } from "../api";
import { errorText } from "../errors";
import { safeReturn } from "../route";

export function SignIn(props: { next?: string; notice: string; onDone: () => void }) {
  const [account, setAccount] = useState("");
  const [passwd, setPasswd] = useState("");
  const [busy, setBusy] = useState(false);
  const [error, setError] = useState("");

  const submit = async (e: Event) => {
    e.preventDefault();
    setBusy(true);
    setError("");
    try {
      await login(account.trim(), passwd);
      props.onDone();
      location.replace(safeReturn(props.next));
    } catch (err) {
      setError(errorText(err));
      setBusy(false);
    }
  };

  return (
    <main class="signin" id="main">
      <form onSubmit={submit} aria-labelledby="signin-title">
        <h1 id="signin-title">Sign in to Tidepool</h1>
        {props.notice && !error && <p class="notice" role="status">{props.notice}</p>}
        {error && <p class="error" role="alert">{error}</p>}
        <label>
          Account
          <input name="account" autoComplete="username" required value={account}
            onInput={(e) => setAccount((e.target as HTMLInputElement).value)} />
        </label>
        <label>
          Password
          <input name="password" type="password" autoComplete="current-password" required value={passwd}
            onInput={(e) => setPasswd((e.target as HTMLInputElement).value)} />
        </label>
        <button type="submit" class="primary" disabled={busy}>
          {busy ? "Signing in…" : "Sign in"}
        </button>
      </form>
    </main>
  );
}
