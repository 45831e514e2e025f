// One sentence per activity-log record, from its type code and arguments.

export interface LogRecord {
  type: number;
  username: string;
  target: string;
  share_name: string;
  share_type: number;
  time: number;
  [key: string]: unknown;
}

export const LOG_TYPES: { code: number; label: string }[] = [
  { code: 13, label: "Added" },
  { code: 15, label: "Changed" },
  { code: 14, label: "Removed" },
  { code: 17, label: "Moved or renamed" },
  { code: 4, label: "Restored" },
  { code: 5, label: "Purged" },
  { code: 16, label: "Rotated" },
  { code: 0, label: "Service" },
];

function s(rec: LogRecord, key: string): string {
  const v = rec[key];
  return typeof v === "string" ? v : "";
}

function what(rec: LogRecord): string {
  return s(rec, "p2") === "0" ? "file" : "folder";
}

function where(rec: LogRecord): string {
  return rec.share_type === 1 ? `share ${rec.share_name}` : `${rec.share_name}'s home`;
}

export function describeLog(rec: LogRecord): string {
  const who = rec.username || "The sync service";
  switch (rec.type) {
    case 0:
      return s(rec, "p1") === "1" ? "The sync service started." : "The sync service stopped.";
    case 2:
      return `${who} ${s(rec, "p1") === "1" ? "enabled" : "disabled"} the share ${s(rec, "s1")}.`;
    case 3:
      return `${who} unlinked the client ${s(rec, "s2")} of ${s(rec, "s1")}.`;
    case 4:
      return `${who} restored the ${what(rec)} ${s(rec, "s1")} in ${where(rec)}.`;
    case 5:
      return `${who} purged every version of ${s(rec, "s1")} in ${where(rec)}.`;
    case 6:
      return `${who} purged the removed items of ${where(rec)}.`;
    case 7:
      return `${who} set the number of versions kept for ${s(rec, "s1")} to ${s(rec, "p1")}.`;
    case 8:
      return `${who} moved the repository from ${s(rec, "p1")} to ${s(rec, "p2")}.`;
    case 9:
    case 10:
      return `${who} ${s(rec, "p1") === "1" ? "turned on" : "turned off"} log rotation.`;
    case 11:
      return `${who} deleted the activity log.`;
    case 12:
      return `${who} linked the client ${s(rec, "s1")}.`;
    case 13:
      return `${who} added the ${what(rec)} ${s(rec, "s1")} in ${where(rec)}.`;
    case 14:
      return `${who} removed the ${what(rec)} ${s(rec, "s1")} in ${where(rec)}.`;
    case 15:
      return `${who} changed the ${what(rec)} ${s(rec, "s1")} in ${where(rec)}.`;
    case 16:
      return `An old version of ${s(rec, "s1")} in ${where(rec)} was rotated away.`;
    case 17:
      return `${who} moved or renamed ${s(rec, "s2")} to ${s(rec, "s1")} in ${where(rec)}.`;
    case 18:
      return `${who} copied ${s(rec, "s2")} to ${s(rec, "s1")}.`;
    case 19:
      return `${who} restored ${s(rec, "s2")} as a copy at ${s(rec, "s1")}.`;
    case 20:
      return `${who} deleted ${s(rec, "s1")} from the recycle bin.`;
    case 21:
      return `${who} restored ${s(rec, "s1")} from the recycle bin.`;
    case 22:
      return `${who} exported the activity log.`;
    default:
      return `${who}: event ${rec.type}.`;
  }
}
