// Why a connection to the helper failed before it opened. The browser's WebSocket reports
// "nothing listens", "the helper refused this origin" and "the browser blocked it" alike, so the
// client asks follow-up questions: the local-network permission, then a plain HTTP probe.
import type { BrowserEnvironment, LocalNetworkPermission } from './BrowserEnvironment.js';

const PERMISSION_QUERY_TIMEOUT_MS = 1000;

/** What a failed attempt most likely means for the page. */
export type FailureCause =
  /** The user (or policy) denied the local-network permission. */
  | 'local-network-denied'
  /** A public page whose local-network permission is still unanswered. */
  | 'local-network-unanswered'
  /** Something answers HTTP on the port but refused the WebSocket. */
  | 'refused'
  /** Nothing answers on the port. */
  | 'helper-not-running';

/** The browser's local-network permission, treating a query that fails or hangs as unsupported. */
export async function queryPermission(env: BrowserEnvironment): Promise<LocalNetworkPermission> {
  // A permission query that never settles must not stall the connection.
  let timer: ReturnType<typeof setTimeout> | undefined;
  const timeout = new Promise<LocalNetworkPermission>((resolve) => {
    timer = setTimeout(() => resolve('unsupported'), PERMISSION_QUERY_TIMEOUT_MS);
  });
  try {
    return await Promise.race([env.queryLocalNetworkPermission(), timeout]);
  } catch {
    return 'unsupported';
  } finally {
    clearTimeout(timer);
  }
}

/**
 * Narrows down why the WebSocket to the helper failed before opening: the permission state
 * (denied → blocked; still unanswered on a public page → blocked, since the browser stops
 * everything else too), then a plain HTTP probe of the same port — if anything answers HTTP
 * there, something listens and refused the WebSocket, which for the helper means the page's
 * origin is not allowed. Returns null as soon as `stillCurrent` says the answer is no longer
 * wanted (the page disconnected or tried again meanwhile).
 */
export async function classifyFailure(
  env: BrowserEnvironment,
  httpUrl: string,
  stillCurrent: () => boolean,
): Promise<FailureCause | null> {
  const permission = await queryPermission(env);
  if (!stillCurrent()) return null;
  if (permission === 'denied') return 'local-network-denied';
  // Chromium blocks a public page's WebSocket and fetch to this computer alike until the
  // permission is granted, so while it is unanswered the probe would learn nothing (and in a
  // browser that asks for fetch too, it would put the question to the user again unprompted).
  // The likely cause is a prompt the user closed.
  if (permission === 'prompt' && !env.pageIsLoopback()) return 'local-network-unanswered';
  let answered = false;
  try {
    answered = await env.probeHttp(httpUrl);
  } catch {
    answered = false;
  }
  if (!stillCurrent()) return null;
  return answered ? 'refused' : 'helper-not-running';
}
