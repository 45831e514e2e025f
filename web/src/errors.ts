// Turns a server's answer code into a sentence a person can act on. The
// server's own short message is kept only where the code alone says little.
import { ApiError } from "./api";

const SENTENCES: Record<number, string> = {
  [-1]: "The server cannot be reached. Check the connection and try again.",
  [-2]: "The server gave an answer that could not be read. Try again in a moment.",
  100: "The server failed unexpectedly while handling this. Try again; if it keeps happening, ask your administrator.",
  101: "The request was malformed and the server refused it.",
  102: "The request was too large for the server.",
  103: "The server does not offer this action.",
  105: "You are not allowed to do this.",
  106: "Your session has ended. Please sign in again.",
  114: "Some of the settings given are not valid.",
  117: "The archive could not be made.",
  120: "A value given for this action is missing or not valid.",
  400: "The account name or password is wrong.",
  402: "Only an administrator may do this.",
  403: "You do not have permission for this item.",
  404: "The update server could not be reached.",
  405: "Another download of yours is still being prepared. Wait for it to end, or cancel it.",
  406: "Another restore is running. Wait for it to end and try again.",
  407: "The same purge is already waiting to run.",
  408: "This account is disabled.",
  409: "This account has expired.",
  410: "A measurement is already running.",
  411: "Too many failed sign-ins. Wait a while and try again.",
  501: "The sync service is not ready. Ask your administrator to check it.",
  502: "The service is frozen because a volume is nearly full. Nothing can be changed until space is freed.",
  503: "The repository is being moved to another volume. Try again when the move has finished.",
  600: "There is not enough free space for this.",
  601: "The volume given is not valid.",
  602: "The volume is read-only.",
  603: "This share is not available: it may be unmounted or locked.",
  604: "The repository cannot be moved there.",
  800: "A document's password is missing or wrong.",
};

// Messages of code 401 that deserve their own sentence.
const GENERAL: Record<string, string> = {
  "download task is not yet done": "The download is not ready yet.",
  "invalid task id": "This download is no longer available. Start it again.",
  "failed to query node": "This item no longer exists.",
  "no target specified": "No folder was chosen.",
  "restore task failed": "The restore failed.",
  "download task failed": "The download could not be prepared.",
};

export function errorText(err: unknown): string {
  if (!(err instanceof ApiError)) {
    return err instanceof Error ? `Something went wrong: ${err.message}` : "Something went wrong.";
  }
  if (err.code === 402 && /switch auth/i.test(err.serverMessage)) {
    return "The server could not act in that user's name.";
  }
  if (err.code === 403 && /admin/i.test(err.serverMessage)) return SENTENCES[402];
  if (err.code === 120) {
    return err.param ? `The value of “${err.param}” is missing or not valid.` : SENTENCES[120];
  }
  if (err.code === 401 || err.code === 402) {
    const known = GENERAL[err.serverMessage];
    if (known) return known;
    if (err.code === 402 && /admin-only/.test(err.serverMessage)) return SENTENCES[402];
    if (err.serverMessage) return `The server could not do this: ${err.serverMessage}.`;
    return "The server could not do this.";
  }
  if (err.code === 501 && /not enabled/.test(err.serverMessage)) {
    return "This share is not synced by the service.";
  }
  const sentence = SENTENCES[err.code];
  if (sentence) return sentence;
  return err.serverMessage
    ? `The server refused this (${err.code}): ${err.serverMessage}.`
    : `The server refused this (code ${err.code}).`;
}
