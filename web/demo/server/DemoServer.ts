// The demo's development server: serves the page and the client library, and issues start passes
// for the page's own origin with the development key, the way a web application's server would.
import { existsSync } from 'node:fs';
import { readFile } from 'node:fs/promises';
import { createServer, type IncomingMessage, type RequestListener, type Server, type ServerResponse } from 'node:http';
import { createServer as createHttpsServer } from 'node:https';
import type { AddressInfo } from 'node:net';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { issuePass, loadSigningKey } from '@velmora/pass-issuer';
import type { KeyObject } from 'node:crypto';

// The web/ folder, whether this runs compiled (demo/dist/server) or from source (demo/server).
const webRoot = findWebRoot(path.dirname(fileURLToPath(import.meta.url)));
const repoRoot = path.resolve(webRoot, '..');

/** The committed development key; its public half is built into the helper's dev preset only. */
export const DEVELOPMENT_KEY_FILE = path.join(repoRoot, 'keys', 'dev-pass-key.DEVELOPMENT-ONLY.pem');

export interface DemoServerOptions {
  /** TCP port; 0 picks a free one. Default 5180. */
  port?: number;
  /** Address to listen on. Default 127.0.0.1 (this computer only). */
  host?: string;
  /** PEM file of the pass signing key. Default the development key. */
  keyFile?: string;
  /**
   * Origins the server issues passes for. Default: http://localhost:<port> and
   * http://127.0.0.1:<port>, the two ways of opening the demo.
   */
  allowedOrigins?: string[];
  /** Called for each pass issued (for logs and tests). */
  onPass?: (origin: string) => void;
  /**
   * Serve https with this certificate and key (PEM) instead of plain http, as a web application
   * is served: the default origins then start with https://.
   */
  tls?: { cert: string | Buffer; key: string | Buffer };
}

export interface RunningDemoServer {
  /** The page's address, such as http://localhost:5180/ (https:// when serving with tls). */
  url: string;
  port: number;
  server: Server;
  close(): Promise<void>;
}

// Where each public path prefix is served from.
const MOUNTS: Array<{ prefix: string; folder: string }> = [
  { prefix: '/lib/', folder: path.join(webRoot, 'client', 'dist') },
  { prefix: '/app/', folder: path.join(webRoot, 'demo', 'dist', 'page') },
  { prefix: '/', folder: path.join(webRoot, 'demo', 'public') },
];

const TYPES: Record<string, string> = {
  '.html': 'text/html; charset=utf-8',
  '.css': 'text/css; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8',
  '.map': 'application/json; charset=utf-8',
  '.svg': 'image/svg+xml',
  '.png': 'image/png',
  '.ico': 'image/x-icon',
};

export async function startDemoServer(options: DemoServerOptions = {}): Promise<RunningDemoServer> {
  const key = loadSigningKey(await readFile(options.keyFile ?? DEVELOPMENT_KEY_FILE));
  const host = options.host ?? '127.0.0.1';
  let allowed = new Set<string>(options.allowedOrigins ?? []);
  const listener: RequestListener = (request, response) => {
    handle(request, response, key, allowed, options.onPass).catch((error: unknown) => {
      if (!response.headersSent) send(response, 500, 'text/plain; charset=utf-8', 'Internal error\n');
      console.error('Demo server error:', error);
    });
  };
  const server: Server = options.tls ? createHttpsServer(options.tls, listener) : createServer(listener);
  const scheme = options.tls ? 'https' : 'http';
  await new Promise<void>((resolve, reject) => {
    server.once('error', reject);
    server.listen(options.port ?? 5180, host, () => {
      server.off('error', reject);
      resolve();
    });
  });
  const port = (server.address() as AddressInfo).port;
  if (!options.allowedOrigins) {
    allowed = new Set([`${scheme}://localhost:${port}`, `${scheme}://127.0.0.1:${port}`]);
  }
  return {
    url: `${scheme}://localhost:${port}/`,
    port,
    server,
    close: () =>
      new Promise<void>((resolve) => {
        server.close(() => resolve());
        server.closeAllConnections();
      }),
  };
}

async function handle(
  request: IncomingMessage,
  response: ServerResponse,
  key: KeyObject,
  allowed: ReadonlySet<string>,
  onPass: ((origin: string) => void) | undefined,
): Promise<void> {
  const url = new URL(request.url ?? '/', 'http://demo.invalid');
  if (url.pathname === '/pass') {
    issue(request, response, key, allowed, onPass);
    return;
  }
  if (request.method !== 'GET' && request.method !== 'HEAD') {
    send(response, 405, 'text/plain; charset=utf-8', 'Method not allowed\n', { Allow: 'GET, HEAD' });
    return;
  }
  const file = resolveStatic(url.pathname);
  if (!file) {
    send(response, 404, 'text/plain; charset=utf-8', 'Not found\n');
    return;
  }
  let body: Buffer;
  try {
    body = await readFile(file);
  } catch {
    send(response, 404, 'text/plain; charset=utf-8', 'Not found\n');
    return;
  }
  const type = TYPES[path.extname(file)] ?? 'application/octet-stream';
  send(response, 200, type, request.method === 'HEAD' ? '' : body, { 'Cache-Control': 'no-cache' });
}

/**
 * POST /pass: a pass for the page that asks, bound to the origin its browser names. Only this
 * server's own origins get one: any other site could otherwise have passes issued for itself.
 */
function issue(
  request: IncomingMessage,
  response: ServerResponse,
  key: KeyObject,
  allowed: ReadonlySet<string>,
  onPass: ((origin: string) => void) | undefined,
): void {
  request.resume();
  if (request.method !== 'POST') {
    sendJson(response, 405, { error: 'Use POST to ask for a pass.' }, { Allow: 'POST' });
    return;
  }
  const origin = request.headers.origin;
  if (!origin || !allowed.has(origin)) {
    sendJson(response, 403, { error: `No pass for origin ${origin ?? '(none)'}.` });
    return;
  }
  const pass = issuePass(key, { origin });
  onPass?.(origin);
  sendJson(response, 200, { pass });
}

function resolveStatic(pathname: string): string | null {
  let decoded: string;
  try {
    decoded = decodeURIComponent(pathname);
  } catch {
    return null;
  }
  if (decoded.includes('\0')) return null;
  const mount = MOUNTS.find((m) => decoded.startsWith(m.prefix));
  if (!mount) return null;
  let relative = decoded.slice(mount.prefix.length);
  if (relative === '' || relative.endsWith('/')) relative += 'index.html';
  const file = path.resolve(mount.folder, relative);
  // Nothing outside the mounted folder, whatever "../" the path holds.
  if (file !== mount.folder && !file.startsWith(mount.folder + path.sep)) return null;
  return file;
}

function sendJson(response: ServerResponse, status: number, value: unknown, headers: Record<string, string> = {}): void {
  send(response, status, 'application/json; charset=utf-8', JSON.stringify(value), {
    'Cache-Control': 'no-store',
    ...headers,
  });
}

function send(
  response: ServerResponse,
  status: number,
  type: string,
  body: string | Buffer,
  headers: Record<string, string> = {},
): void {
  response.writeHead(status, {
    'Content-Type': type,
    'Content-Length': Buffer.byteLength(body),
    'X-Content-Type-Options': 'nosniff',
    ...headers,
  });
  response.end(body);
}

function findWebRoot(start: string): string {
  for (let folder = start; ; folder = path.dirname(folder)) {
    if (existsSync(path.join(folder, 'demo', 'public', 'index.html'))) return folder;
    if (path.dirname(folder) === folder) throw new Error(`No demo/public/index.html above ${start}`);
  }
}
