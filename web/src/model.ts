// The records the server answers, as the views use them.

export interface NodeRec {
  view_id: string;
  node_id: string;
  sync_id?: string;
  name: string;
  path: string;
  permanent_id?: string;
  absolute_path: string;
  mtime: number | string;
  v_file_size?: number;
  file_type: number;
  is_removed: boolean;
  ver_cnt: number | string;
  is_share?: boolean;
}

export interface ListAnswer {
  items: NodeRec[];
  total: number;
}

export interface VersionRec {
  path: string;
  hash: string;
  size: number;
  sync_id: number;
  node_id: number;
  version_updater: string;
  create_time: number;
  modify_time: number;
}

export interface TaskNode {
  node_id: string;
  permanent_id: string;
  sync_id?: string;
  ver_ctime_upper_bound?: number;
  file_type: number;
  path: string;
  name: string;
}

export const isFolder = (n: { file_type: number }) => n.file_type === 1;

// What a restore or a download names: the node as it stood at `at` (a
// folder with the tree of that moment), or as it stands now.
export function taskNode(n: NodeRec, at: number | null): TaskNode {
  const t: TaskNode = {
    node_id: n.node_id,
    permanent_id: n.permanent_id ?? "",
    file_type: n.file_type,
    path: n.path,
    name: n.name,
  };
  if (n.sync_id) t.sync_id = n.sync_id;
  if (at) t.ver_ctime_upper_bound = at;
  return t;
}

// The name a download is saved under: one item's own name without its
// extension, "Tidepool" for a selection.
export function downloadName(nodes: { name: string; file_type: number }[]): string {
  if (nodes.length !== 1) return "Tidepool";
  const n = nodes[0];
  if (n.file_type === 1) return n.name;
  const dot = n.name.lastIndexOf(".");
  return dot > 0 ? n.name.slice(0, dot) : n.name;
}
