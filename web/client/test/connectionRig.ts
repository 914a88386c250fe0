// A connection on its own, without the client around it, and the ways to bring it into each of
// its phases. The test files that use it watch checkTransition and end each test with
// expectNoImpossibleMove().
import { expect, vi } from 'vitest';
import type { LocalNetworkPermission, WebSocketConstructor } from '../src/BrowserEnvironment.js';
import { checkTransition } from '../src/connectionPhase.js';
import { HelperConnection } from '../src/HelperConnection.js';
import { resolveOptions, type HelperClientOptions } from '../src/options.js';
import type { ConnectionStatus } from '../src/status.js';
import { FakeWebSocket } from './FakeWebSocket.js';
import { tick } from './harness.js';

interface FakeBrowser {
  permission: LocalNetworkPermission;
  gesture: boolean;
  somethingListens: boolean;
  webkitOnHttps: boolean;
  refuseWebSocket: boolean;
  /** Permission queries wait for answerPermission() instead of answering at once. */
  holdPermission: boolean;
  /** HTTP probes wait for answerProbe() instead of answering at once. */
  holdProbe: boolean;
}

/** A connection on its own, over a fake WebSocket and a fake browser, with what it reports kept. */
export function makeConnection(options: Partial<HelperClientOptions> = {}) {
  const browser: FakeBrowser = {
    permission: 'unsupported',
    gesture: true,
    somethingListens: false,
    webkitOnHttps: false,
    refuseWebSocket: false,
    holdPermission: false,
    holdProbe: false,
  };
  const heldPermissions: Array<(answer: LocalNetworkPermission) => void> = [];
  const heldProbes: Array<(answer: boolean) => void> = [];
  const Socket = function (url: string) {
    if (browser.refuseWebSocket) throw new DOMException('The operation is insecure.', 'SecurityError');
    return new FakeWebSocket(url);
  } as unknown as WebSocketConstructor;
  const settings = resolveOptions({
    getPass: async () => 'pass',
    reconnect: { jitter: 0 },
    ...options,
    environment: {
      WebSocket: Socket,
      queryLocalNetworkPermission: () =>
        browser.holdPermission
          ? new Promise<LocalNetworkPermission>((resolve) => heldPermissions.push(resolve))
          : Promise.resolve(browser.permission),
      hasUserActivation: () => browser.gesture,
      refusesLoopbackWebSocket: () => browser.webkitOnHttps,
      probeHttp: () =>
        browser.holdProbe
          ? new Promise<boolean>((resolve) => heldProbes.push(resolve))
          : Promise.resolve(browser.somethingListens),
      pageIsLoopback: () => false,
      pageOrigin: () => 'https://app.velmora.example',
    },
  }).connection;
  const reported = { statuses: [] as ConnectionStatus[], ready: 0, lost: 0 };
  // What the owner does when told, as a page's listeners might.
  const owner: { onStatus?: (status: ConnectionStatus) => void; onLost?: () => void } = {};
  const connection = new HelperConnection(settings, {
    statusChanged: (status) => {
      reported.statuses.push(status);
      owner.onStatus?.(status);
    },
    ready: () => reported.ready++,
    lost: () => {
      reported.lost++;
      owner.onLost?.();
    },
    message: () => {},
    audio: () => {},
  });
  return {
    connection,
    browser,
    reported,
    owner,
    /** Answers the oldest permission query still waiting. */
    async answerPermission(answer: LocalNetworkPermission) {
      heldPermissions.shift()!(answer);
      await tick();
    },
    /** Answers the oldest HTTP probe still waiting. */
    async answerProbe(somethingListens: boolean) {
      heldProbes.shift()!(somethingListens);
      await tick();
    },
  };
}

export type Rig = ReturnType<typeof makeConnection>;

/** Every move the connection made since the last mockClear(), as "from → to". */
export const movesSoFar = () => vi.mocked(checkTransition).mock.calls.map(([from, to]) => `${from} → ${to}`);

// ---- ways to bring a fresh connection into each phase -----------------------------------------

export async function toChecking(rig: Rig) {
  rig.browser.holdPermission = true;
  void rig.connection.connect();
  await tick();
}
export async function toOpening(rig: Rig) {
  void rig.connection.connect();
  await tick();
}
export async function toGreeting(rig: Rig) {
  await toOpening(rig);
  FakeWebSocket.latest.accept();
}
export async function toReady(rig: Rig) {
  await toOpening(rig);
  FakeWebSocket.latest.acceptWithHello();
}
/** The socket failed before opening; the failure's permission question waits for an answer. */
export async function toExplaining(rig: Rig) {
  await toOpening(rig);
  rig.browser.holdPermission = true;
  FakeWebSocket.latest.failToConnect();
  await tick();
}
/** Nothing listens, so a retry is armed 500 ms out. */
export async function toWaiting(rig: Rig) {
  await toOpening(rig);
  FakeWebSocket.latest.failToConnect();
  await tick();
}

/** Fails the test when the connection asked for a move the table does not allow. */
export function expectNoImpossibleMove(): void {
  // Such a move throws inside the connection, often where nobody awaits it.
  const refused = vi.mocked(checkTransition).mock.results.filter((result) => result.type === 'throw');
  expect(refused.map((result) => String(result.value))).toEqual([]);
}

/** The greeting of a helper this client can use; fields can be overridden. */
export function helloMessage(overrides: Record<string, unknown> = {}) {
  return {
    type: 'hello',
    app: 'velmora-audio-helper',
    version: '1.0.0',
    platform: 'linux',
    sampleRate: 16000,
    channels: 1,
    format: 'f32le',
    ...overrides,
  };
}
