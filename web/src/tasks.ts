// The long-running calls (restore, download): start, follow `status` until
// `current` meets `total`, then finish.
import { call, submitDownload, Params } from "./api";
import { TaskNode } from "./model";

export interface Progress {
  current: number;
  total: number;
}

const sleep = (ms: number) => new Promise((r) => setTimeout(r, ms));

// Share of the work done, 0..1; a task that has not counted yet is at 0.
export function fraction(p: Progress | null): number {
  if (!p || !(p.total > 0)) return 0;
  return Math.min(1, Math.max(0, p.current / p.total));
}

async function follow(api: string, onProgress: (p: Progress) => void, cancelled: () => boolean) {
  for (;;) {
    if (cancelled()) throw new Error("cancelled");
    const p = await call<Progress>(api, "status");
    onProgress(p);
    if (p.current >= p.total) return p;
    await sleep(400);
  }
}

export interface RestoreOptions {
  target: string;
  nodes: TaskNode[];
  copyTo?: string;
  override: boolean;
  includeRemoved: boolean;
}

export async function runRestore(o: RestoreOptions, onProgress: (p: Progress) => void): Promise<Progress> {
  const params: Params = {
    target: o.target,
    nodes: o.nodes,
    override: o.override,
    include_removed: o.includeRemoved,
  };
  if (o.copyTo) params.copy_to = o.copyTo;
  await call("KSTX.Tidepool.Node.Restore", "start", params);
  try {
    return await follow("KSTX.Tidepool.Node.Restore", onProgress, () => false);
  } finally {
    await call("KSTX.Tidepool.Node.Restore", "finish").catch(() => undefined);
  }
}

export async function runDownload(
  target: string,
  nodes: TaskNode[],
  outname: string,
  includeRemoved: boolean,
  onProgress: (p: Progress) => void,
  cancelled: () => boolean,
): Promise<void> {
  const { task_id } = await call<{ task_id: number }>("KSTX.Tidepool.Node.Download", "start", {
    target,
    nodes,
    include_removed: includeRemoved,
  });
  try {
    await follow("KSTX.Tidepool.Node.Download", onProgress, cancelled);
  } catch (e) {
    await call("KSTX.Tidepool.Node.Download", "stop").catch(() => undefined);
    throw e;
  }
  submitDownload("KSTX.Tidepool.Node.Download", "finish", { task_id, nodes, outname });
}
