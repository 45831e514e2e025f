import { pagerItems } from "../paging";

export function Pager(props: { page: number; count: number; onPage: (p: number) => void }) {
  if (props.count <= 1) return null;
  return (
    <nav class="pager" aria-label="Pages">
      <button type="button" disabled={props.page <= 1} onClick={() => props.onPage(props.page - 1)}>
        Previous
      </button>
      {pagerItems(props.page, props.count).map((p, i) =>
        p === null ? (
          <span key={`gap${i}`} aria-hidden="true">…</span>
        ) : (
          <button type="button" key={p} aria-current={p === props.page ? "page" : undefined} aria-label={`Page ${p}`} onClick={() => props.onPage(p)}>
            {p}
          </button>
        ),
      )}
      <button type="button" disabled={props.page >= props.count} onClick={() => props.onPage(props.page + 1)}>
        Next
      </button>
    </nav>
  );
}
