import { render } from "preact";
import { useEffect, useState } from "preact/hooks";
import { currentSession, logout, setSessionLostHandler } from "./api";
import { go, parseRoute, Route, routeHash } from "./route";
import { SignIn } from "./views/SignIn";
import { Browse } from "./views/Browse";
import { Versions } from "./views/Versions";
import { LogView } from "./views/Log";

function useRoute(): Route {
  const [route, setRoute] = useState(() => parseRoute(location.hash));
  useEffect(() => {
    const on = () => setRoute(parseRoute(location.hash));
    addEventListener("hashchange", on);
    return () => removeEventListener("hashchange", on);
  }, []);
  return route;
}

function App() {
  const route = useRoute();
  const session = currentSession();
  const [notice, setNotice] = useState("");

  useEffect(() => {
    setSessionLostHandler(() => {
      const here = location.hash;
      if (!here.startsWith("#/signin")) {
        setNotice("Your session has ended. Sign in again to go on where you were.");
        location.replace(routeHash("signin", { next: here || "#/browse" }));
      }
    });
  }, []);

  useEffect(() => {
    // The address may already be the sign-in page (the session-lost handler
    // moved there before this render saw the change).
    if (!session && route.view !== "signin" && !location.hash.startsWith("#/signin")) {
      location.replace(routeHash("signin", { next: location.hash || "#/browse" }));
    }
  }, [session, route.view]);

  useEffect(() => {
    const titles: Record<string, string> = {
      signin: "Sign in",
      browse: "Files",
      versions: "Versions",
      log: "Activity log",
    };
    document.title = `${titles[route.view]} · Tidepool`;
  }, [route.view]);

  if (route.view === "signin" || !session) {
    return <SignIn next={route.q.next} notice={notice} onDone={() => setNotice("")} />;
  }

  const signOut = async () => {
    await logout().catch(() => undefined);
    go("signin");
  };

  return (
    <div class="app">
      <a class="skip" href="#main" onClick={(e) => { e.preventDefault(); document.getElementById("main")?.focus(); }}>
        Skip to content
      </a>
      <header class="top">
        <span class="brand">Tidepool</span>
        <nav aria-label="Main">
          <a href={routeHash("browse")} aria-current={route.view === "browse" || route.view === "versions" ? "page" : undefined}>
            Files
          </a>
          <a href={routeHash("log")} aria-current={route.view === "log" ? "page" : undefined}>
            Activity log
          </a>
        </nav>
        <span class="who">
          <span aria-label="Signed in as">{session.account}</span>
          <button type="button" onClick={signOut}>
            Sign out
          </button>
        </span>
      </header>
      <main id="main" tabIndex={-1}>
        {route.view === "browse" && <Browse q={route.q} />}
        {route.view === "versions" && <Versions q={route.q} />}
        {route.view === "log" && <LogView q={route.q} />}
      </main>
    </div>
  );
}

render(<App />, document.getElementById("app")!);
