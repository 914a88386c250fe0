import { afterEach, beforeEach, describe, expect, it } from 'vitest';
import { vi } from 'vitest';
import { isLoopbackHost, isWebKitRefusingLoopback } from '../src/BrowserEnvironment.js';
import { HelperClient } from '../src/HelperClient.js';
import { FakeWebSocket } from './FakeWebSocket.js';
import { connectReady, makeClient, tick } from './harness.js';

beforeEach(() => {
  vi.useFakeTimers();
  FakeWebSocket.reset();
});
afterEach(() => {
  vi.useRealTimers();
});

describe('finding the helper', () => {
  it('connects to the default port on the loopback address', async () => {
    const { client } = makeClient();
    void client.connect();
    await tick();
    expect(FakeWebSocket.latest.url).toBe('ws://127.0.0.1:52849/');
    expect(client.url).toBe('ws://127.0.0.1:52849/');
  });

  it('connects to a port the user changed', async () => {
    const { client } = makeClient({ port: 61234 });
    void client.connect();
    await tick();
    expect(FakeWebSocket.latest.url).toBe('ws://127.0.0.1:61234/');
  });

  it('rejects a port outside 1-65535 and a missing getPass', () => {
    expect(() => makeClient({ port: 0 })).toThrow(RangeError);
    expect(() => makeClient({ port: 70000 })).toThrow(RangeError);
    expect(() => makeClient({ port: 1.5 })).toThrow(RangeError);
    expect(() => new HelperClient({} as never)).toThrow(/getPass/);
  });

  it('asks for binary messages as ArrayBuffer', async () => {
    const { client } = makeClient();
    void client.connect();
    await tick();
    expect(FakeWebSocket.latest.binaryType).toBe('arraybuffer');
  });

  it('is ready after a hello announcing f32le, 16000 Hz, one channel', async () => {
    const { client, recorded } = makeClient();
    const outcome = client.connect();
    await tick();
    expect(client.status.state).toBe('connecting');
    FakeWebSocket.latest.acceptWithHello({ version: '1.2.3', product: 'velmora' });
    const status = await outcome;
    expect(status.state).toBe('ready');
    expect(status.message).toContain('1.2.3');
    expect(client.hello).toMatchObject({ version: '1.2.3', product: 'velmora', platform: 'linux' });
    expect(recorded.states.map((s) => s.state)).toEqual(['connecting', 'ready']);
  });

  it('is not ready between opening and the hello', async () => {
    const { client } = makeClient();
    void client.connect();
    await tick();
    FakeWebSocket.latest.accept();
    expect(client.status.state).toBe('connecting');
    await expect(client.start()).rejects.toMatchObject({ code: 'not_ready' });
  });

  it('connect() while ready resolves at once without a second connection', async () => {
    const { client } = makeClient();
    await connectReady(client);
    const status = await client.connect();
    expect(status.state).toBe('ready');
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it('connect() while connecting joins the attempt under way', async () => {
    const { client } = makeClient();
    const first = client.connect();
    await tick();
    const second = client.connect();
    FakeWebSocket.latest.acceptWithHello();
    expect((await first).state).toBe('ready');
    expect((await second).state).toBe('ready');
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it('disconnect() closes normally, returns to idle and stops retrying', async () => {
    const { client } = makeClient();
    const socket = await connectReady(client);
    client.disconnect();
    expect(socket.closedWith?.code).toBe(1000);
    expect(client.status.state).toBe('idle');
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(1);
  });
});

describe('an incompatible helper', () => {
  it.each([
    ['another sample format', { format: 's16le' }],
    ['another sample rate', { sampleRate: 48000 }],
    ['two channels', { channels: 2 }],
    ['another program', { app: 'something-else' }],
  ])('is reported for %s and the connection is closed without retrying', async (_name, hello) => {
    const { client } = makeClient();
    const outcome = client.connect();
    await tick();
    const socket = FakeWebSocket.latest;
    socket.acceptWithHello(hello);
    const status = await outcome;
    expect(status.state).toBe('incompatible-helper');
    expect(socket.closedWith?.code).toBe(4000);
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(1);
    expect(client.status.state).toBe('incompatible-helper');
  });

  it('names the formats in its message', async () => {
    const { client } = makeClient();
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.acceptWithHello({ format: 's16le', version: '9.0.0' });
    const status = await outcome;
    expect(status.message).toContain('s16le');
    expect(status.message).toContain('f32le');
  });

  it('is reported when the first message is not a hello', async () => {
    const { client } = makeClient();
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.accept();
    FakeWebSocket.latest.receiveJson({ type: 'pong' });
    expect((await outcome).state).toBe('incompatible-helper');
  });

  it('is reported when the first message is not JSON', async () => {
    const { client } = makeClient();
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.accept();
    FakeWebSocket.latest.receiveText('HTTP/1.1 200 OK');
    expect((await outcome).state).toBe('incompatible-helper');
  });

  it('is reported when no hello arrives within the hello time-out', async () => {
    const { client } = makeClient({ helloTimeoutMs: 3000 });
    const outcome = client.connect();
    await tick();
    const socket = FakeWebSocket.latest;
    socket.accept();
    await tick(2999);
    expect(client.status.state).toBe('connecting');
    await tick(1);
    expect((await outcome).state).toBe('incompatible-helper');
    expect(socket.closedWith?.code).toBe(4002);
  });
});

describe('a failed connection', () => {
  it('is "helper-not-running" when nothing answers on the port', async () => {
    const { client, probes } = makeClient({}, { somethingListens: false });
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    const status = await outcome;
    expect(status.state).toBe('helper-not-running');
    expect(status.message).toMatch(/not running/);
    expect(probes).toEqual(['http://127.0.0.1:52849/']);
  });

  it('is "refused" when something answers HTTP on the port, with the command that allows the page', async () => {
    const { client } = makeClient({}, { somethingListens: true });
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    const status = await outcome;
    expect(status.state).toBe('refused');
    expect(status.message).toContain('velmora-audio-helper settings add-origin http://localhost:5180');
  });

  it('is "blocked-by-browser" when the permission turned to denied during the attempt', async () => {
    const { client, browser, probes } = makeClient({}, { permission: 'prompt' });
    const outcome = client.connect();
    await tick();
    browser.permission = 'denied';
    FakeWebSocket.latest.failToConnect();
    const status = await outcome;
    expect(status).toMatchObject({ state: 'blocked-by-browser', blockedReason: 'local-network-denied' });
    expect(probes).toEqual([]);
  });

  it('retries with doubling delays up to the maximum, and finds a helper that starts later', async () => {
    const { client, recorded } = makeClient({ reconnect: { initialDelayMs: 500, maxDelayMs: 4000, jitter: 0 } });
    void client.connect();
    await tick();
    const delays: number[] = [];
    for (let i = 0; i < 5; i++) {
      FakeWebSocket.latest.failToConnect();
      await tick();
      const status = client.status;
      expect(status.state).toBe('helper-not-running');
      delays.push(status.retryInMs!);
      const before = FakeWebSocket.instances.length;
      await tick(status.retryInMs! - 1);
      expect(FakeWebSocket.instances).toHaveLength(before);
      await tick(1);
      expect(FakeWebSocket.instances).toHaveLength(before + 1);
    }
    expect(delays).toEqual([500, 1000, 2000, 4000, 4000]);
    FakeWebSocket.latest.acceptWithHello();
    expect(client.status.state).toBe('ready');
    expect(recorded.states.at(-1)?.state).toBe('ready');
  });

  it('spreads retry delays by the jitter', async () => {
    const { client } = makeClient({ reconnect: { initialDelayMs: 1000, jitter: 0.2 } });
    void client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    await tick();
    expect(client.status.retryInMs).toBeGreaterThanOrEqual(800);
    expect(client.status.retryInMs).toBeLessThanOrEqual(1200);
  });

  it('keeps retrying a refused page, since the user may allow it meanwhile', async () => {
    const { client, browser } = makeClient({}, { somethingListens: true });
    void client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    await tick();
    expect(client.status.state).toBe('refused');
    await tick(client.status.retryInMs!);
    browser.somethingListens = true;
    FakeWebSocket.latest.acceptWithHello();
    expect(client.status.state).toBe('ready');
  });

  it('does not retry when reconnecting is switched off', async () => {
    const { client } = makeClient({ reconnect: false });
    void client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    await tick();
    expect(client.status.state).toBe('helper-not-running');
    expect(client.status.retryInMs).toBeUndefined();
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it('is "helper-not-running" when the connection closes after opening but before the hello', async () => {
    const { client } = makeClient();
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.accept();
    FakeWebSocket.latest.drop();
    expect((await outcome).state).toBe('helper-not-running');
  });

  it('ignores events of a socket it has given up on', async () => {
    const { client } = makeClient();
    const socket = await connectReady(client);
    client.disconnect();
    socket.receiveJson({ type: 'started' });
    socket.drop();
    await tick(60_000);
    expect(client.status.state).toBe('idle');
    expect(FakeWebSocket.instances).toHaveLength(1);
  });
});

describe('what the browser allows', () => {
  it('does not connect and reports "blocked-by-browser" when the local-network permission is denied', async () => {
    const { client } = makeClient({}, { permission: 'denied' });
    const status = await client.connect();
    expect(status.state).toBe('blocked-by-browser');
    expect(status.blockedReason).toBe('local-network-denied');
    expect(status.message).toMatch(/site settings/);
    expect(FakeWebSocket.instances).toHaveLength(0);
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(0);
  });

  it('waits for a user gesture while the permission is "prompt"', async () => {
    const { client, browser } = makeClient({}, { permission: 'prompt', gesture: false });
    const status = await client.connect();
    expect(status.state).toBe('needs-gesture');
    expect(FakeWebSocket.instances).toHaveLength(0);
    browser.gesture = true;
    void client.connect();
    await tick();
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it('connects from a gesture while the permission is "prompt"', async () => {
    const { client } = makeClient({}, { permission: 'prompt', gesture: true });
    void client.connect();
    await tick();
    FakeWebSocket.latest.acceptWithHello();
    expect(client.status.state).toBe('ready');
  });

  it('connects without a gesture when the permission is granted or unknown to the browser', async () => {
    for (const permission of ['granted', 'unsupported'] as const) {
      FakeWebSocket.reset();
      const { client } = makeClient({}, { permission, gesture: false });
      void client.connect();
      await tick();
      expect(FakeWebSocket.instances).toHaveLength(1);
    }
  });

  it('keeps retrying without a gesture after the user clicked and allowed it', async () => {
    const { client, browser } = makeClient({}, { permission: 'prompt', gesture: true });
    void client.connect();
    await tick();
    browser.gesture = false;
    browser.permission = 'granted';
    FakeWebSocket.latest.failToConnect();
    await tick();
    expect(client.status.state).toBe('helper-not-running');
    await tick(client.status.retryInMs!);
    expect(FakeWebSocket.instances).toHaveLength(2);
  });

  it('names the unanswered permission when the prompt was closed, without probing or asking again until a click', async () => {
    const { client, browser, probes } = makeClient({}, { permission: 'prompt', gesture: true, somethingListens: true });
    const outcome = client.connect();
    await tick();
    browser.gesture = false;
    FakeWebSocket.latest.failToConnect();
    const status = await outcome;
    expect(status).toMatchObject({ state: 'blocked-by-browser', blockedReason: 'local-network-unanswered' });
    expect(status.message).toMatch(/Local network access/);
    expect(status.message).not.toMatch(/not running/);
    expect(status.retryInMs).toBeUndefined();
    expect(probes).toEqual([]);
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(1);
    // A connect() without a click does not make the browser ask again.
    expect((await client.connect()).state).toBe('needs-gesture');
    expect(FakeWebSocket.instances).toHaveLength(1);
    // A click asks again, and this time the user allows it.
    browser.gesture = true;
    const again = client.connect();
    await tick();
    expect(FakeWebSocket.instances).toHaveLength(2);
    browser.permission = 'granted';
    FakeWebSocket.latest.acceptWithHello();
    expect((await again).state).toBe('ready');
  });

  it('still probes from a page served from localhost, whose requests the permission does not cover', async () => {
    const { client, probes } = makeClient({}, { permission: 'prompt', loopbackPage: true, somethingListens: true });
    const outcome = client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    expect((await outcome).state).toBe('refused');
    expect(probes).toHaveLength(1);
  });

  it('needs no gesture on a page served from localhost, which the browser never asks about', async () => {
    const { client } = makeClient({}, { permission: 'prompt', gesture: false, loopbackPage: true });
    void client.connect();
    await tick();
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it.each([
    ['localhost', true],
    ['app.localhost', true],
    ['127.0.0.1', true],
    ['127.1.2.3', true],
    ['[::1]', true],
    ['app.velmora.example', false],
    ['192.168.1.10', false],
    ['localhost.example.com', false],
  ])('counts %s as loopback: %s', (host, loopback) => {
    expect(isLoopbackHost(host)).toBe(loopback);
  });

  it('reconnects without a gesture once a connection has worked', async () => {
    const { client, browser } = makeClient({}, { permission: 'prompt', gesture: true });
    const socket = await connectReady(client);
    browser.gesture = false;
    socket.drop();
    await tick(client.status.retryInMs!);
    expect(FakeWebSocket.instances).toHaveLength(2);
  });

  it('reports Safari on an https page plainly without trying', async () => {
    const { client } = makeClient({}, { webkitOnHttps: true });
    const status = await client.connect();
    expect(status).toMatchObject({ state: 'blocked-by-browser', blockedReason: 'webkit-https' });
    expect(status.message).toMatch(/Safari/);
    expect(FakeWebSocket.instances).toHaveLength(0);
  });

  it('reports a WebSocket the browser refuses to create', async () => {
    class Refusing {
      constructor() {
        throw new DOMException('The operation is insecure.', 'SecurityError');
      }
    }
    const { client } = makeClient({ environment: { WebSocket: Refusing as never } });
    const status = await client.connect();
    expect(status).toMatchObject({ state: 'blocked-by-browser', blockedReason: 'websocket-refused' });
    expect(status.message).toContain('insecure');
  });

  it('treats a permission query that never answers as unsupported after a second', async () => {
    const { client } = makeClient({
      environment: { queryLocalNetworkPermission: () => new Promise(() => {}) },
    });
    void client.connect();
    await tick(999);
    expect(FakeWebSocket.instances).toHaveLength(0);
    await tick(1);
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it('treats a permission query that throws as unsupported', async () => {
    const { client } = makeClient({
      environment: {
        queryLocalNetworkPermission: () => Promise.reject(new Error('boom')),
      },
    });
    void client.connect();
    await tick();
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it.each([
    ['Safari on macOS, https', 'Mozilla/5.0 (Macintosh; Intel Mac OS X 14_4) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.4 Safari/605.1.15', 'https:', true],
    ['Safari on macOS, http', 'Mozilla/5.0 (Macintosh; Intel Mac OS X 14_4) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.4 Safari/605.1.15', 'http:', false],
    ['Safari on iPhone', 'Mozilla/5.0 (iPhone; CPU iPhone OS 17_4 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.4 Mobile/15E148 Safari/604.1', 'https:', true],
    ['Chrome on iPhone', 'Mozilla/5.0 (iPhone; CPU iPhone OS 17_4 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) CriOS/123.0.6312.52 Mobile/15E148 Safari/604.1', 'https:', true],
    ['Chrome on macOS', 'Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/147.0.0.0 Safari/537.36', 'https:', false],
    ['Edge on Windows', 'Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/147.0.0.0 Safari/537.36 Edg/147.0.0.0', 'https:', false],
    ['headless Chromium on Linux', 'Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) HeadlessChrome/156.0.0.0 Safari/537.36', 'https:', false],
    ['Firefox on Linux', 'Mozilla/5.0 (X11; Linux x86_64; rv:140.0) Gecko/20100101 Firefox/140.0', 'https:', false],
    ['Chrome on Android', 'Mozilla/5.0 (Linux; Android 14) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/147.0.0.0 Mobile Safari/537.36', 'https:', false],
  ])('recognises %s', (_name, userAgent, protocol, refuses) => {
    expect(isWebKitRefusingLoopback(userAgent, protocol)).toBe(refuses);
  });
});
