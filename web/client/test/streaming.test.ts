import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import { HelperError } from '../src/HelperError.js';
import { FakeWebSocket, frameOf } from './FakeWebSocket.js';
import { connectReady, makeClient, startStreaming, tick } from './harness.js';

beforeEach(() => {
  vi.useFakeTimers();
  FakeWebSocket.reset();
});
afterEach(() => {
  vi.useRealTimers();
});

const APP = 'Velmora Audio Helper';
const HELPER_ERRORS = [
  ['pass_required', `This page needs updating to use ${APP}. Reload Velmora and try again.`],
  [
    'pass_invalid',
    `${APP} couldn't confirm this Velmora page. Check that your computer's clock is right, then reload Velmora and try again.`,
  ],
  [
    'permission_timeout',
    `Linux is still waiting for you to allow "System Audio Recording" for ${APP}. Answer the prompt, then try again.`,
  ],
  ['permission_denied', 'Audio recording permission was denied.'],
  ['device_error', 'The sound server went away.'],
] as const;

describe('start()', () => {
  it('sends the pass from getPass() and resolves on "started"', async () => {
    const { client, recorded } = makeClient();
    const socket = await connectReady(client);
    const started = client.start();
    expect(client.streamStatus.state).toBe('starting');
    await tick();
    expect(socket.sentMessages).toEqual([{ type: 'start', pass: 'pass-1' }]);
    socket.receiveJson({ type: 'started' });
    await expect(started).resolves.toBeUndefined();
    expect(client.streamStatus.state).toBe('streaming');
    expect(recorded.streams.map((s) => s.state)).toEqual(['starting', 'streaming']);
  });

  it('fetches a fresh pass for every start', async () => {
    const { client, getPass } = makeClient();
    const socket = await startStreaming(client);
    const stopped = client.stop();
    socket.receiveJson({ type: 'stopped' });
    await stopped;
    const again = client.start();
    await tick();
    socket.receiveJson({ type: 'started' });
    await again;
    expect(getPass).toHaveBeenCalledTimes(2);
    expect(socket.sentMessages.filter((m) => m.type === 'start').map((m) => m.pass)).toEqual(['pass-1', 'pass-2']);
  });

  it.each(HELPER_ERRORS)('rejects with the helper\'s "%s" code and message', async (code, message) => {
    const { client } = makeClient();
    const socket = await connectReady(client);
    const started = client.start();
    await tick();
    socket.receiveJson({ type: 'error', code, message });
    const error = await started.then(
      () => null,
      (e: unknown) => e,
    );
    expect(error).toBeInstanceOf(HelperError);
    expect(error).toBeInstanceOf(Error);
    expect(error).toMatchObject({ code, message, name: 'HelperError', fromHelper: true });
    expect(client.streamStatus.state).toBe(code === 'device_error' ? 'device-error' : 'stopped');
    expect(client.streamStatus.error).toBe(error);
    expect(client.status.state).toBe('ready');
  });

  it('also reports a device error at start as a "deviceError" event', async () => {
    const { client, recorded } = makeClient();
    const socket = await connectReady(client);
    const started = client.start().catch(() => undefined);
    await tick();
    socket.receiveJson({ type: 'error', code: 'device_error', message: 'No sound server' });
    await started;
    expect(recorded.deviceErrors.map((e) => e.message)).toEqual(['No sound server']);
    expect(recorded.errors).toEqual([]);
  });

  it('rejects with "not_ready" when not connected', async () => {
    const { client } = makeClient();
    const error = await client.start().catch((e: HelperError) => e);
    expect(error).toMatchObject({ code: 'not_ready', fromHelper: false });
  });

  it('rejects with "pass_unavailable" when getPass() fails, and sends nothing', async () => {
    const { client } = makeClient({ getPass: () => Promise.reject(new Error('HTTP 500')) });
    const socket = await connectReady(client);
    const error = await client.start().catch((e: HelperError) => e);
    expect(error).toMatchObject({ code: 'pass_unavailable' });
    expect((error as Error).message).toContain('HTTP 500');
    expect(socket.sent).toEqual([]);
    expect(client.streamStatus.state).toBe('stopped');
  });

  it('rejects with "pass_unavailable" when getPass() returns no pass', async () => {
    const { client } = makeClient({ getPass: async () => '' });
    const socket = await connectReady(client);
    await expect(client.start()).rejects.toMatchObject({ code: 'pass_unavailable' });
    expect(socket.sent).toEqual([]);
  });

  it('shares one request when called again while starting', async () => {
    const { client, getPass } = makeClient();
    const socket = await connectReady(client);
    const first = client.start();
    const second = client.start();
    expect(second).toBe(first);
    await tick();
    socket.receiveJson({ type: 'started' });
    await Promise.all([first, second]);
    expect(getPass).toHaveBeenCalledTimes(1);
    expect(socket.sentTypes).toEqual(['start']);
  });

  it('gives up after the start time-out and withdraws the request', async () => {
    // No keep-alive here: unanswered pings would end the connection first.
    const { client } = makeClient({ startTimeoutMs: 130_000, pingIntervalMs: 1e9 });
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    await tick(129_999);
    expect(client.streamStatus.state).toBe('starting');
    await tick(1);
    expect(await started).toMatchObject({ code: 'start_timeout' });
    expect(socket.sentTypes).toEqual(['start', 'stop']);
    socket.receiveJson({ type: 'started' });
    expect(client.streamStatus.state).toBe('stopped');
  });

  it('rejects with "connection_lost" when the connection ends while waiting', async () => {
    const { client } = makeClient();
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    await tick();
    socket.drop();
    expect(await started).toMatchObject({ code: 'connection_lost' });
  });

  it('rejects with "connection_lost" when the connection ends while the pass is fetched', async () => {
    let release!: (pass: string) => void;
    const { client } = makeClient({ getPass: () => new Promise<string>((r) => (release = r)) });
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    socket.drop();
    release('late-pass');
    expect(await started).toMatchObject({ code: 'connection_lost' });
    expect(socket.sent).toEqual([]);
  });

  it('rejects with "taken_over" when another page starts first', async () => {
    const { client, recorded } = makeClient();
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    await tick();
    socket.receiveJson({ type: 'stopped', reason: 'taken_over' });
    expect(await started).toMatchObject({ code: 'taken_over' });
    expect(client.streamStatus.state).toBe('taken-over');
    expect(recorded.takenOver).toBe(1);
  });

  it('rejects with "stopped_by_helper" when the helper stops on its own while starting', async () => {
    const { client } = makeClient();
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    await tick();
    socket.receiveJson({ type: 'stopped' });
    expect(await started).toMatchObject({ code: 'stopped_by_helper' });
  });
});

describe('stop()', () => {
  it('sends "stop" and resolves on "stopped"', async () => {
    const { client } = makeClient();
    const socket = await startStreaming(client);
    let resolved = false;
    const stopped = client.stop().then(() => (resolved = true));
    expect(client.streamStatus.state).toBe('stopped');
    await tick();
    expect(socket.sentTypes).toEqual(['start', 'stop']);
    expect(resolved).toBe(false);
    socket.receiveJson({ type: 'stopped' });
    await stopped;
    expect(resolved).toBe(true);
  });

  it('drops audio that arrives after stop() was called', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    void client.stop();
    socket.receiveBinary(frameOf(new Float32Array(1600)));
    expect(recorded.audio).toHaveLength(0);
  });

  it('withdraws a start that is still fetching its pass', async () => {
    let release!: (pass: string) => void;
    const { client } = makeClient({ getPass: () => new Promise<string>((r) => (release = r)) });
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    const stopped = client.stop();
    release('pass');
    expect(await started).toMatchObject({ code: 'cancelled' });
    socket.receiveJson({ type: 'stopped' });
    await stopped;
    expect(socket.sentTypes).toEqual(['stop']);
    expect(client.streamStatus).toEqual({ state: 'stopped' });
  });

  it('ignores a "started" that answers a withdrawn start', async () => {
    const { client, recorded } = makeClient();
    const socket = await connectReady(client);
    const started = client.start().catch((e: HelperError) => e);
    await tick();
    const stopped = client.stop();
    expect(await started).toMatchObject({ code: 'cancelled' });
    socket.receiveJson({ type: 'started' });
    socket.receiveJson({ type: 'stopped' });
    await stopped;
    socket.receiveBinary(frameOf(new Float32Array(1600)));
    expect(client.streamStatus.state).toBe('stopped');
    expect(recorded.audio).toHaveLength(0);
  });

  it('resolves at once when not connected', async () => {
    const { client } = makeClient();
    await expect(client.stop()).resolves.toBeUndefined();
  });

  it('resolves after the stop time-out when the helper does not answer', async () => {
    const { client } = makeClient({ stopTimeoutMs: 5000 });
    await startStreaming(client);
    let resolved = false;
    void client.stop().then(() => (resolved = true));
    await tick(4999);
    expect(resolved).toBe(false);
    await tick(1);
    expect(resolved).toBe(true);
  });

  it('clears a taken-over or device-error state', async () => {
    const { client } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'stopped', reason: 'taken_over' });
    expect(client.streamStatus.state).toBe('taken-over');
    void client.stop();
    expect(client.streamStatus).toEqual({ state: 'stopped' });
  });
});

describe('while streaming', () => {
  it('delivers each binary message as a Float32Array of 1 600 samples', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    const samples = Float32Array.from({ length: 1600 }, (_, i) => Math.sin(i / 10) * 0.5);
    socket.receiveBinary(frameOf(samples));
    socket.receiveBinary(frameOf(samples.map((s) => -s)));
    expect(recorded.audio).toHaveLength(2);
    expect(recorded.audio[0]).toBeInstanceOf(Float32Array);
    expect(recorded.audio[0]).toHaveLength(1600);
    expect(Array.from(recorded.audio[0]!)).toEqual(Array.from(samples));
    expect(recorded.audio[1]![1]).toBeCloseTo(-samples[1]!, 7);
    expect(client.framesReceived).toBe(2);
  });

  it('ignores audio before "started"', async () => {
    const { client, recorded } = makeClient();
    const socket = await connectReady(client);
    socket.receiveBinary(frameOf(new Float32Array(1600)));
    expect(recorded.audio).toHaveLength(0);
  });

  it('reports "taken_over": state taken-over, a takenOver event, and no more audio', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'stopped', reason: 'taken_over' });
    expect(client.streamStatus.state).toBe('taken-over');
    expect(client.streamStatus.error?.code).toBe('taken_over');
    expect(recorded.takenOver).toBe(1);
    socket.receiveBinary(frameOf(new Float32Array(1600)));
    expect(recorded.audio).toHaveLength(0);
    expect(client.status.state).toBe('ready');
  });

  it('reports "call_ended" with the app key, name and id', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'call_ended', app: 'teams', name: 'Microsoft Teams', id: 'teams-for-linux' });
    expect(recorded.callsEnded).toEqual([{ app: 'teams', name: 'Microsoft Teams', id: 'teams-for-linux' }]);
    expect(client.streamStatus.state).toBe('streaming');
  });

  it('reports "device_error": state device-error and a deviceError event', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'error', code: 'device_error', message: 'The sound server went away.' });
    expect(client.streamStatus.state).toBe('device-error');
    expect(recorded.deviceErrors).toHaveLength(1);
    expect(recorded.deviceErrors[0]).toMatchObject({ code: 'device_error', message: 'The sound server went away.' });
    socket.receiveBinary(frameOf(new Float32Array(1600)));
    expect(recorded.audio).toHaveLength(0);
  });

  it('reports other errors as "error" events without changing the stream', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'error', code: 'bad_request', message: 'Unknown message type PING' });
    expect(recorded.errors.map((e) => [e.code, e.message])).toEqual([['bad_request', 'Unknown message type PING']]);
    expect(client.streamStatus.state).toBe('streaming');
  });

  it('reports a "stopped" the page did not ask for as a stop by the helper', async () => {
    const { client } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'stopped' });
    expect(client.streamStatus.state).toBe('stopped');
    expect(client.streamStatus.error?.code).toBe('stopped_by_helper');
  });

  it('ignores messages of unknown types and malformed text', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    socket.receiveJson({ type: 'future_feature', x: 1 });
    socket.receiveText('not json');
    socket.receiveJson([1, 2]);
    expect(client.streamStatus.state).toBe('streaming');
    expect(client.status.state).toBe('ready');
    expect(recorded.errors).toEqual([]);
  });

  it('keeps working when a listener throws', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    const thrown: unknown[] = [];
    const onError = (e: unknown) => thrown.push(e);
    // Vitest fails a run on uncaught errors; collect this test's expected one instead.
    const saved = process.listeners('uncaughtException');
    process.removeAllListeners('uncaughtException');
    process.on('uncaughtException', onError);
    try {
      client.on('audio', () => {
        throw new Error('listener bug');
      });
      socket.receiveBinary(frameOf(new Float32Array(1600)));
      await tick();
    } finally {
      process.removeAllListeners('uncaughtException');
      for (const listener of saved) process.on('uncaughtException', listener);
    }
    expect(recorded.audio).toHaveLength(1);
    expect(thrown.map((e) => (e as Error).message)).toEqual(['listener bug']);
    expect(client.streamStatus.state).toBe('streaming');
  });
});

describe('keep-alive', () => {
  it('sends "ping" every interval and stays connected while "pong" answers', async () => {
    const { client } = makeClient({ pingIntervalMs: 15_000, pongTimeoutMs: 10_000 });
    const socket = await connectReady(client);
    for (let i = 0; i < 3; i++) {
      await tick(15_000);
      socket.receiveJson({ type: 'pong' });
    }
    expect(socket.sentTypes).toEqual(['ping', 'ping', 'ping']);
    await tick(9_999);
    expect(client.status.state).toBe('ready');
  });

  it('drops a connection whose "pong" does not come and reconnects', async () => {
    const { client } = makeClient({ pingIntervalMs: 15_000, pongTimeoutMs: 10_000 });
    const socket = await connectReady(client);
    await tick(15_000);
    await tick(9_999);
    expect(client.status.state).toBe('ready');
    await tick(1);
    expect(socket.closedWith?.code).toBe(4001);
    expect(client.status.state).toBe('connecting');
    await tick(client.status.retryInMs!);
    expect(FakeWebSocket.instances).toHaveLength(2);
    FakeWebSocket.latest.acceptWithHello();
    expect(client.status.state).toBe('ready');
  });
});

describe('reconnecting after the helper restarts', () => {
  it('resumes streaming with a fresh pass after a lost connection', async () => {
    const { client, recorded, getPass } = makeClient();
    const first = await startStreaming(client);
    first.drop();
    expect(client.status.state).toBe('connecting');
    expect(client.streamStatus.state).toBe('stopped');
    expect(client.streamStatus.error?.code).toBe('connection_lost');
    // The helper is still down at the first retry, back at the second.
    await tick(client.status.retryInMs!);
    FakeWebSocket.latest.failToConnect();
    await tick();
    expect(client.status.state).toBe('helper-not-running');
    await tick(client.status.retryInMs!);
    const second = FakeWebSocket.latest;
    second.acceptWithHello();
    await tick();
    expect(second.sentMessages).toEqual([{ type: 'start', pass: 'pass-2' }]);
    second.receiveJson({ type: 'started' });
    await tick();
    expect(client.streamStatus.state).toBe('streaming');
    expect(getPass).toHaveBeenCalledTimes(2);
    expect(recorded.streams.map((s) => s.state)).toEqual(['starting', 'streaming', 'stopped', 'starting', 'streaming']);
  });

  it('does not resume when the page had stopped, or when resuming is switched off', async () => {
    for (const [resumeAfterReconnect, stopFirst] of [
      [true, true],
      [false, false],
    ] as const) {
      FakeWebSocket.reset();
      const { client } = makeClient({ resumeAfterReconnect });
      const socket = await startStreaming(client);
      if (stopFirst) {
        const stopped = client.stop();
        socket.receiveJson({ type: 'stopped' });
        await stopped;
      }
      socket.drop();
      await tick(client.status.retryInMs!);
      FakeWebSocket.latest.acceptWithHello();
      await tick();
      expect(FakeWebSocket.latest.sent).toEqual([]);
    }
  });

  it('does not resume after a take-over or a device error', async () => {
    for (const ending of [
      { type: 'stopped', reason: 'taken_over' },
      { type: 'error', code: 'device_error', message: 'gone' },
    ]) {
      FakeWebSocket.reset();
      const { client } = makeClient();
      const socket = await startStreaming(client);
      socket.receiveJson(ending);
      socket.drop();
      await tick(client.status.retryInMs!);
      FakeWebSocket.latest.acceptWithHello();
      await tick();
      expect(FakeWebSocket.latest.sent).toEqual([]);
    }
  });

  it('reports a failed resume as an "error" event', async () => {
    const { client, recorded } = makeClient();
    const socket = await startStreaming(client);
    socket.drop();
    await tick(client.status.retryInMs!);
    const second = FakeWebSocket.latest;
    second.acceptWithHello();
    await tick();
    second.receiveJson({ type: 'error', code: 'pass_invalid', message: 'no' });
    await tick();
    expect(recorded.errors.map((e) => e.code)).toEqual(['pass_invalid']);
    expect(client.streamStatus.state).toBe('stopped');
  });

  it('starts the back-off again from the first delay after a success', async () => {
    const { client } = makeClient({ reconnect: { initialDelayMs: 500, jitter: 0 } });
    void client.connect();
    await tick();
    FakeWebSocket.latest.failToConnect();
    await tick();
    await tick(client.status.retryInMs!);
    FakeWebSocket.latest.failToConnect();
    await tick();
    expect(client.status.retryInMs).toBe(1000);
    await tick(1000);
    const socket = FakeWebSocket.latest;
    socket.acceptWithHello();
    socket.drop();
    expect(client.status.retryInMs).toBe(500);
  });
});
