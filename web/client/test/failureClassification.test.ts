import { afterEach, describe, expect, it, vi } from 'vitest';
import type { BrowserEnvironment, LocalNetworkPermission } from '../src/BrowserEnvironment.js';
import { classifyFailure, queryPermission } from '../src/failureClassification.js';
import { FakeWebSocket } from './FakeWebSocket.js';

const HTTP_URL = 'http://127.0.0.1:52849/';

function environment(permission: LocalNetworkPermission, answers: boolean, loopbackPage = false) {
  const probes: string[] = [];
  const env: BrowserEnvironment = {
    WebSocket: FakeWebSocket,
    queryLocalNetworkPermission: async () => permission,
    hasUserActivation: () => true,
    refusesLoopbackWebSocket: () => false,
    probeHttp: async (url) => {
      probes.push(url);
      return answers;
    },
    pageIsLoopback: () => loopbackPage,
  };
  return { env, probes };
}

describe('why a connection failed before opening', () => {
  it('blames a denied permission without probing', async () => {
    const { env, probes } = environment('denied', true);
    expect(await classifyFailure(env, HTTP_URL, () => true)).toBe('local-network-denied');
    expect(probes).toEqual([]);
  });

  it('blames an unanswered permission on a public page without probing', async () => {
    const { env, probes } = environment('prompt', true);
    expect(await classifyFailure(env, HTTP_URL, () => true)).toBe('local-network-unanswered');
    expect(probes).toEqual([]);
  });

  it('probes the port over HTTP on a localhost page even while the permission is unanswered', async () => {
    const { env, probes } = environment('prompt', false, true);
    expect(await classifyFailure(env, HTTP_URL, () => true)).toBe('helper-not-running');
    expect(probes).toEqual([HTTP_URL]);
  });

  it.each<[LocalNetworkPermission, boolean, string]>([
    ['granted', true, 'refused'],
    ['granted', false, 'helper-not-running'],
    ['unsupported', true, 'refused'],
    ['unsupported', false, 'helper-not-running'],
  ])('with the permission %s and an HTTP answer %s, says %s', async (permission, answers, cause) => {
    const { env } = environment(permission, answers);
    expect(await classifyFailure(env, HTTP_URL, () => true)).toBe(cause);
  });

  it('takes a probe that throws for no answer', async () => {
    const { env } = environment('granted', true);
    env.probeHttp = async () => {
      throw new Error('network down');
    };
    expect(await classifyFailure(env, HTTP_URL, () => true)).toBe('helper-not-running');
  });

  it('gives no answer once the attempt is no longer current, and then does not probe', async () => {
    const { env, probes } = environment('granted', true);
    expect(await classifyFailure(env, HTTP_URL, () => false)).toBeNull();
    expect(probes).toEqual([]);
  });

  it('gives no answer when the attempt was abandoned during the probe', async () => {
    const { env, probes } = environment('granted', true);
    let current = true;
    env.probeHttp = async (url) => {
      probes.push(url);
      current = false;
      return true;
    };
    expect(await classifyFailure(env, HTTP_URL, () => current)).toBeNull();
    expect(probes).toEqual([HTTP_URL]);
  });
});

describe('the permission question', () => {
  afterEach(() => {
    vi.useRealTimers();
  });

  it('counts a query that fails as unsupported', async () => {
    const { env } = environment('granted', false);
    env.queryLocalNetworkPermission = async () => {
      throw new TypeError('unknown permission');
    };
    expect(await queryPermission(env)).toBe('unsupported');
  });

  it('counts a query that never settles as unsupported after a second', async () => {
    vi.useFakeTimers();
    const { env } = environment('granted', false);
    env.queryLocalNetworkPermission = () => new Promise<LocalNetworkPermission>(() => {});
    let answer: LocalNetworkPermission | undefined;
    void queryPermission(env).then((permission) => (answer = permission));
    await vi.advanceTimersByTimeAsync(999);
    expect(answer).toBeUndefined();
    await vi.advanceTimersByTimeAsync(1);
    expect(answer).toBe('unsupported');
  });
});
