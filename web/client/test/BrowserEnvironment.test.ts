import { afterEach, describe, expect, it, vi } from 'vitest';
import {
  browserEnvironment,
  hasUserActivation,
  probeHttp,
  queryLocalNetworkPermission,
} from '../src/BrowserEnvironment.js';

afterEach(() => {
  vi.unstubAllGlobals();
  vi.useRealTimers();
});

function stubPermissions(answers: Record<string, PermissionState | Error>) {
  const asked: string[] = [];
  vi.stubGlobal('navigator', {
    permissions: {
      query: async ({ name }: { name: string }) => {
        asked.push(name);
        const answer = answers[name];
        if (answer === undefined || answer instanceof Error) throw answer ?? new TypeError(`unknown ${name}`);
        return { state: answer };
      },
    },
  });
  return asked;
}

describe('queryLocalNetworkPermission', () => {
  it('asks for "loopback-network" first (Chrome 145 onwards)', async () => {
    const asked = stubPermissions({ 'loopback-network': 'granted', 'local-network-access': 'denied' });
    expect(await queryLocalNetworkPermission()).toBe('granted');
    expect(asked).toEqual(['loopback-network']);
  });

  it('falls back to "local-network-access" (Chrome 142-144)', async () => {
    const asked = stubPermissions({ 'local-network-access': 'prompt' });
    expect(await queryLocalNetworkPermission()).toBe('prompt');
    expect(asked).toEqual(['loopback-network', 'local-network-access']);
  });

  it('is "unsupported" where the browser knows neither name, or has no permissions API', async () => {
    stubPermissions({});
    expect(await queryLocalNetworkPermission()).toBe('unsupported');
    vi.stubGlobal('navigator', {});
    expect(await queryLocalNetworkPermission()).toBe('unsupported');
    vi.stubGlobal('navigator', undefined);
    expect(await queryLocalNetworkPermission()).toBe('unsupported');
  });
});

describe('hasUserActivation', () => {
  it('reads navigator.userActivation.isActive', () => {
    vi.stubGlobal('navigator', { userActivation: { isActive: false } });
    expect(hasUserActivation()).toBe(false);
    vi.stubGlobal('navigator', { userActivation: { isActive: true } });
    expect(hasUserActivation()).toBe(true);
  });

  it('assumes a gesture where the browser cannot tell', () => {
    vi.stubGlobal('navigator', {});
    expect(hasUserActivation()).toBe(true);
  });
});

describe('probeHttp', () => {
  it('is true when anything answers, asking without CORS, cache or credentials', async () => {
    const fetch = vi.fn(async () => new Response(null, { status: 426 }));
    vi.stubGlobal('fetch', fetch);
    expect(await probeHttp('http://127.0.0.1:52849/')).toBe(true);
    expect(fetch).toHaveBeenCalledWith(
      'http://127.0.0.1:52849/',
      expect.objectContaining({ mode: 'no-cors', cache: 'no-store', credentials: 'omit' }),
    );
  });

  it('is false when the request fails', async () => {
    vi.stubGlobal('fetch', async () => {
      throw new TypeError('Failed to fetch');
    });
    expect(await probeHttp('http://127.0.0.1:1/')).toBe(false);
  });

  it('is false when nothing answers within the time-out', async () => {
    vi.useFakeTimers();
    vi.stubGlobal('fetch', (_url: string, init: RequestInit) =>
      new Promise((_resolve, reject) => init.signal?.addEventListener('abort', () => reject(new Error('aborted')))),
    );
    const answer = probeHttp('http://127.0.0.1:52849/', 2000);
    await vi.advanceTimersByTimeAsync(2000);
    expect(await answer).toBe(false);
  });
});

describe('browserEnvironment', () => {
  it('uses the page\'s own WebSocket unless given another', () => {
    class Socket {}
    vi.stubGlobal('WebSocket', Socket);
    expect(browserEnvironment().WebSocket).toBe(Socket);
    class Other {}
    expect(browserEnvironment({ WebSocket: Other as never }).WebSocket).toBe(Other);
  });

  it('says clearly when there is no WebSocket at all', () => {
    vi.stubGlobal('WebSocket', undefined);
    expect(() => browserEnvironment().WebSocket).toThrow(/no WebSocket/);
  });

  it('tells a page served from localhost by its address', () => {
    vi.stubGlobal('location', { hostname: 'localhost', protocol: 'http:' });
    expect(browserEnvironment().pageIsLoopback()).toBe(true);
    vi.stubGlobal('location', { hostname: 'app.velmora.example', protocol: 'https:' });
    expect(browserEnvironment().pageIsLoopback()).toBe(false);
  });
});
