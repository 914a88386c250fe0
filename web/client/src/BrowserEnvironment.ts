// What the client needs from the browser, gathered in one place so that tests can replace it.

/** The part of the WebSocket API the client uses. */
export interface WebSocketLike {
  readonly readyState: number;
  binaryType: string;
  onopen: ((event: unknown) => void) | null;
  onmessage: ((event: { data: unknown }) => void) | null;
  onerror: ((event: unknown) => void) | null;
  onclose: ((event: { code?: number; reason?: string; wasClean?: boolean }) => void) | null;
  send(data: string): void;
  close(code?: number, reason?: string): void;
}

export type WebSocketConstructor = new (url: string) => WebSocketLike;

/**
 * The browser's answer for the permission that guards requests from a web page to this computer's
 * own addresses ("Local Network Access"): 'unsupported' where the browser has no such permission.
 */
export type LocalNetworkPermission = 'granted' | 'denied' | 'prompt' | 'unsupported';

export interface BrowserEnvironment {
  WebSocket: WebSocketConstructor;
  /** Asks the browser for the local-network permission without prompting. */
  queryLocalNetworkPermission(): Promise<LocalNetworkPermission>;
  /** Whether the page is inside a user gesture right now (true where the browser cannot tell). */
  hasUserActivation(): boolean;
  /** Whether this browser refuses ws:// to the loopback address from this page (Safari on https). */
  refusesLoopbackWebSocket(): boolean;
  /** Whether anything answers plain HTTP at the given address (see probeHttp). */
  probeHttp(url: string): Promise<boolean>;
  /** Whether the page itself comes from this computer (localhost), where no permission applies. */
  pageIsLoopback(): boolean;
}

// Chrome 145 onwards names the loopback part of the permission 'loopback-network'; Chrome 142-144
// (and Firefox's implementation) use 'local-network-access' for both parts.
const PERMISSION_NAMES = ['loopback-network', 'local-network-access'] as const;

export async function queryLocalNetworkPermission(): Promise<LocalNetworkPermission> {
  const permissions = (globalThis as { navigator?: Navigator }).navigator?.permissions;
  if (!permissions || typeof permissions.query !== 'function') return 'unsupported';
  for (const name of PERMISSION_NAMES) {
    try {
      const status = await permissions.query({ name } as unknown as PermissionDescriptor);
      return status.state;
    } catch {
      // This browser does not know the name: try the next one.
    }
  }
  return 'unsupported';
}

export function hasUserActivation(): boolean {
  const activation = (globalThis as { navigator?: { userActivation?: { isActive: boolean } } }).navigator
    ?.userActivation;
  return activation ? activation.isActive : true;
}

/**
 * True for WebKit browsers (Safari, and every browser on iPhone and iPad) on an https page: they
 * treat ws://127.0.0.1 as mixed content and refuse it, whatever the user allows.
 */
export function isWebKitRefusingLoopback(userAgent: string, pageProtocol: string): boolean {
  if (pageProtocol !== 'https:') return false;
  const iosShell = /\b(CriOS|FxiOS|EdgiOS|OPiOS)\//.test(userAgent);
  const desktopSafari =
    /AppleWebKit\//.test(userAgent) &&
    /\bSafari\//.test(userAgent) &&
    !/\b(Chrome|HeadlessChrome|Chromium|Edg|OPR|SamsungBrowser)\//.test(userAgent) &&
    !/\bAndroid\b/.test(userAgent);
  return iosShell || desktopSafari;
}

/** Whether a host name names this computer's loopback interface. */
export function isLoopbackHost(hostname: string): boolean {
  const host = hostname.toLowerCase();
  return (
    host === 'localhost' ||
    host.endsWith('.localhost') ||
    /^127(\.\d{1,3}){3}$/.test(host) ||
    host === '[::1]' ||
    host === '::1'
  );
}

/**
 * Sends a plain HTTP GET (no-cors, so nothing of the answer is readable) to the address and
 * reports whether any HTTP answer came back. Used only after a WebSocket failed before opening.
 */
export async function probeHttp(url: string, timeoutMs = 2000): Promise<boolean> {
  if (typeof fetch !== 'function') return false;
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), timeoutMs);
  try {
    await fetch(url, { mode: 'no-cors', cache: 'no-store', credentials: 'omit', signal: controller.signal });
    return true;
  } catch {
    return false;
  } finally {
    clearTimeout(timer);
  }
}

/** The real browser, with any of its parts replaced by the given ones. */
export function browserEnvironment(overrides: Partial<BrowserEnvironment> = {}): BrowserEnvironment {
  const global = globalThis as { WebSocket?: WebSocketConstructor; navigator?: Navigator; location?: Location };
  return {
    // Read on use, so that a client can be created where WebSocket does not exist.
    get WebSocket(): WebSocketConstructor {
      const constructor = overrides.WebSocket ?? global.WebSocket;
      if (!constructor) throw new Error('This environment has no WebSocket');
      return constructor;
    },
    queryLocalNetworkPermission: overrides.queryLocalNetworkPermission ?? queryLocalNetworkPermission,
    hasUserActivation: overrides.hasUserActivation ?? hasUserActivation,
    refusesLoopbackWebSocket:
      overrides.refusesLoopbackWebSocket ??
      (() => isWebKitRefusingLoopback(global.navigator?.userAgent ?? '', global.location?.protocol ?? '')),
    probeHttp: overrides.probeHttp ?? ((url) => probeHttp(url)),
    pageIsLoopback: overrides.pageIsLoopback ?? (() => isLoopbackHost(global.location?.hostname ?? '')),
  };
}
