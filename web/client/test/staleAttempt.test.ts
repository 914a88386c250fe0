import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import { checkTransition } from '../src/connectionPhase.js';
import {
  expectNoImpossibleMove,
  helloMessage,
  makeConnection,
  toGreeting,
  toOpening,
  toWaiting,
} from './connectionRig.js';
import { FakeWebSocket } from './FakeWebSocket.js';
import { makeClient, tick } from './harness.js';

// Every change of phase goes through checkTransition, so watching it shows each move the
// connection makes, in order.
vi.mock('../src/connectionPhase.js', async (importOriginal) => {
  const actual = await importOriginal<typeof import('../src/connectionPhase.js')>();
  return { ...actual, checkTransition: vi.fn(actual.checkTransition) };
});

beforeEach(() => {
  vi.useFakeTimers();
  FakeWebSocket.reset();
  vi.mocked(checkTransition).mockClear();
});
afterEach(() => {
  vi.useRealTimers();
  vi.unstubAllEnvs();
  expectNoImpossibleMove();
});

describe('a stale attempt', () => {
  it('opens no socket when its permission answer comes after the page gave up and tried again', async () => {
    const rig = makeConnection();
    rig.browser.holdPermission = true;
    void rig.connection.connect();
    await tick();
    rig.connection.stopTrying();
    rig.connection.becomeIdle();
    const second = rig.connection.connect();
    await tick();
    await rig.answerPermission('granted'); // the first attempt's answer
    expect(FakeWebSocket.instances).toHaveLength(0);
    expect(rig.connection.phase).toBe('checking');
    await rig.answerPermission('granted'); // the second's
    expect(FakeWebSocket.instances).toHaveLength(1);
    FakeWebSocket.latest.acceptWithHello();
    expect((await second).state).toBe('ready');
  });

  it('reports nothing when its failure is explained after the page stopped trying', async () => {
    const rig = makeConnection();
    rig.browser.holdProbe = true;
    await toOpening(rig);
    FakeWebSocket.latest.failToConnect();
    await tick();
    rig.connection.stopTrying();
    rig.connection.becomeIdle();
    const reportedBefore = rig.reported.statuses.length;
    await rig.answerProbe(true);
    expect(rig.reported.statuses).toHaveLength(reportedBefore);
    expect(rig.connection.status.state).toBe('idle');
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(1);
  });

  it('does not retry as well when connect() already tried again at once', async () => {
    const rig = makeConnection();
    await toWaiting(rig);
    void rig.connection.connect();
    await tick();
    expect(FakeWebSocket.instances).toHaveLength(2);
    await tick(60_000);
    expect(FakeWebSocket.instances).toHaveLength(2);
    expect(rig.connection.phase).toBe('opening');
  });

  it('cannot come back with a late greeting once given up on for its silence', async () => {
    const rig = makeConnection();
    await toGreeting(rig);
    const silent = FakeWebSocket.latest;
    await tick(5000);
    silent.receiveJson(helloMessage());
    expect(rig.connection.phase).toBe('idle');
    expect(rig.connection.hello).toBeNull();
    expect(rig.connection.status.state).toBe('incompatible-helper');
    expect(rig.reported.ready).toBe(0);
  });

  it('stops where a listener of its "connecting" status stopped it', async () => {
    for (const webkitOnHttps of [false, true]) {
      FakeWebSocket.reset();
      const rig = makeConnection();
      rig.browser.webkitOnHttps = webkitOnHttps;
      rig.owner.onStatus = (status) => {
        if (status.state === 'connecting') rig.connection.stopTrying();
      };
      void rig.connection.connect();
      await tick(60_000);
      expect(rig.connection.phase).toBe('idle');
      expect(rig.reported.statuses.map((s) => s.state)).toEqual(['connecting']);
      expect(FakeWebSocket.instances).toHaveLength(0);
    }
  });

  it('is not retried when the page disconnects from a listener told of the lost stream', async () => {
    const { client, recorded } = makeClient();
    const outcome = client.connect();
    await tick();
    const socket = FakeWebSocket.latest;
    socket.acceptWithHello();
    await outcome;
    const started = client.start();
    await tick();
    socket.receiveJson({ type: 'started' });
    await started;
    client.on('stream', (status) => {
      if (status.error?.code === 'connection_lost') client.disconnect();
    });
    socket.drop();
    await tick(120_000);
    expect(FakeWebSocket.instances).toHaveLength(1);
    expect(recorded.states.some((s) => s.retryInMs !== undefined)).toBe(false);
  });
});
