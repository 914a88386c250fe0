import { readFileSync } from 'node:fs';
import { request } from 'node:http';
import { afterAll, beforeAll, describe, expect, it } from 'vitest';
import { checkPass, loadSigningKey, publicKeyBase64, publicKeyFromBase64 } from '@velmora/pass-issuer';
import { DEVELOPMENT_KEY_FILE, startDemoServer, type RunningDemoServer } from '../server/DemoServer.js';

let demo: RunningDemoServer;
const issued: string[] = [];

beforeAll(async () => {
  demo = await startDemoServer({ port: 0, onPass: (origin) => issued.push(origin) });
});
afterAll(async () => {
  await demo.close();
});

// node's fetch refuses to set Origin itself, so the raw client plays the browser.
function call(method: string, path: string, headers: Record<string, string> = {}) {
  return new Promise<{ status: number; type: string; body: string }>((resolve, reject) => {
    const req = request({ host: '127.0.0.1', port: demo.port, method, path, headers }, (res) => {
      let body = '';
      res.setEncoding('utf8');
      res.on('data', (chunk: string) => (body += chunk));
      res.on('end', () => resolve({ status: res.statusCode ?? 0, type: String(res.headers['content-type']), body }));
    });
    req.on('error', reject);
    req.end();
  });
}

describe('the demo server', () => {
  it('issues a pass for its own origin that the helper\'s check accepts', async () => {
    const origin = `http://localhost:${demo.port}`;
    const response = await call('POST', '/pass', { Origin: origin });
    expect(response.status).toBe(200);
    const { pass } = JSON.parse(response.body) as { pass: string };
    const publicKey = publicKeyFromBase64(publicKeyBase64(loadSigningKey(readFileSync(DEVELOPMENT_KEY_FILE))));
    expect(checkPass(pass, [publicKey], origin)).toMatchObject({ ok: true, payload: { v: 1, origin } });
    expect(issued).toContain(origin);
  });

  it('issues passes for the 127.0.0.1 form of its address too', async () => {
    const response = await call('POST', '/pass', { Origin: `http://127.0.0.1:${demo.port}` });
    expect(response.status).toBe(200);
  });

  it('refuses a pass to another origin and to a request without one', async () => {
    expect((await call('POST', '/pass', { Origin: 'https://elsewhere.example' })).status).toBe(403);
    expect((await call('POST', '/pass', { Origin: `http://localhost:${demo.port + 1}` })).status).toBe(403);
    expect((await call('POST', '/pass')).status).toBe(403);
  });

  it('asks for POST on /pass', async () => {
    expect((await call('GET', '/pass', { Origin: `http://localhost:${demo.port}` })).status).toBe(405);
  });

  it('serves the page, its script and the client library', async () => {
    const page = await call('GET', '/');
    expect(page.status).toBe(200);
    expect(page.type).toContain('text/html');
    expect(page.body).toContain('"@velmora/audio-helper-client": "/lib/index.js"');
    expect((await call('GET', '/style.css')).type).toContain('text/css');
  });

  it('serves nothing outside its folders', async () => {
    for (const path of ['/lib/../../package.json', '/lib/%2e%2e/%2e%2e/package.json', '/%2e%2e/server/DemoServer.ts', '/lib/%00']) {
      expect((await call('GET', path)).status).toBe(404);
    }
  });

  it('answers an unknown path with 404 and other methods with 405', async () => {
    expect((await call('GET', '/nothing-here.js')).status).toBe(404);
    expect((await call('DELETE', '/')).status).toBe(405);
  });
});
