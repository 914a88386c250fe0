import { vi } from 'vitest';
import type { LocalNetworkPermission } from '../src/BrowserEnvironment.js';
import { HelperClient, type ConnectionStatus, type HelperClientOptions, type StreamStatus } from '../src/HelperClient.js';
import type { HelperError } from '../src/HelperError.js';
import type { CallEnded } from '../src/protocol.js';
import { FakeWebSocket } from './FakeWebSocket.js';

export interface Browser {
  permission: LocalNetworkPermission;
  gesture: boolean;
  /** Whether something listens on the port (the HTTP probe finds it where the browser lets it through). */
  somethingListens: boolean;
  webkitOnHttps: boolean;
  /** The page itself comes from localhost. */
  loopbackPage: boolean;
}

export interface Recorded {
  states: ConnectionStatus[];
  streams: StreamStatus[];
  audio: Float32Array[];
  callsEnded: CallEnded[];
  takenOver: number;
  deviceErrors: HelperError[];
  errors: HelperError[];
}

/** A client wired to a fake WebSocket and a fake browser, with every event it emits recorded. */
export function makeClient(options: Partial<HelperClientOptions> = {}, browser: Partial<Browser> = {}) {
  const fake: Browser = {
    permission: 'unsupported',
    gesture: true,
    somethingListens: false,
    webkitOnHttps: false,
    loopbackPage: false,
    ...browser,
  };
  let passNumber = 0;
  const getPass = vi.fn(async () => `pass-${++passNumber}`);
  const probes: string[] = [];
  const client = new HelperClient({
    getPass,
    reconnect: { jitter: 0 },
    ...options,
    environment: {
      WebSocket: FakeWebSocket,
      queryLocalNetworkPermission: async () => fake.permission,
      hasUserActivation: () => fake.gesture,
      refusesLoopbackWebSocket: () => fake.webkitOnHttps,
      probeHttp: async (url: string) => {
        probes.push(url);
        // As Chromium does: a public page's fetch to this computer is blocked like its WebSocket
        // until the local-network permission is granted.
        const reachable = fake.loopbackPage || fake.permission === 'granted' || fake.permission === 'unsupported';
        return reachable && fake.somethingListens;
      },
      pageIsLoopback: () => fake.loopbackPage,
      pageOrigin: () => 'http://localhost:5180',
      ...options.environment,
    },
  });
  const recorded: Recorded = {
    states: [],
    streams: [],
    audio: [],
    callsEnded: [],
    takenOver: 0,
    deviceErrors: [],
    errors: [],
  };
  client.on('state', (s) => recorded.states.push(s));
  client.on('stream', (s) => recorded.streams.push(s));
  client.on('audio', (frame) => recorded.audio.push(frame));
  client.on('callEnded', (c) => recorded.callsEnded.push(c));
  client.on('takenOver', () => recorded.takenOver++);
  client.on('deviceError', (e) => recorded.deviceErrors.push(e));
  client.on('error', (e) => recorded.errors.push(e));
  return { client, browser: fake, getPass, probes, recorded };
}

/** Lets promises settle and advances the fake clock. */
export async function tick(ms = 0): Promise<void> {
  await vi.advanceTimersByTimeAsync(ms);
}

/** Connects and completes the handshake; returns the socket. */
export async function connectReady(client: HelperClient): Promise<FakeWebSocket> {
  const outcome = client.connect();
  await tick();
  const socket = FakeWebSocket.latest;
  socket.acceptWithHello();
  await outcome;
  return socket;
}

/** Connects, starts and answers "started"; returns the socket. */
export async function startStreaming(client: HelperClient): Promise<FakeWebSocket> {
  const socket = await connectReady(client);
  const started = client.start();
  await tick();
  socket.receiveJson({ type: 'started' });
  await started;
  return socket;
}
