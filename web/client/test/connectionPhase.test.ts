import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import { checkTransition, PHASE_TRANSITIONS, type PhaseKind } from '../src/connectionPhase.js';
import type { HelperClientOptions } from '../src/options.js';
import {
  expectNoImpossibleMove,
  helloMessage,
  makeConnection,
  movesSoFar,
  toChecking,
  toExplaining,
  toGreeting,
  toOpening,
  toReady,
  toWaiting,
  type Rig,
} from './connectionRig.js';
import { FakeWebSocket } from './FakeWebSocket.js';
import { tick } from './harness.js';

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

// The check itself, unwatched, for the tests of what it does with an impossible move.
const { checkTransition: realCheckTransition } =
  await vi.importActual<typeof import('../src/connectionPhase.js')>('../src/connectionPhase.js');

interface Move {
  when: string;
  from: PhaseKind;
  options?: Partial<HelperClientOptions>;
  reach?: (rig: Rig) => Promise<void>;
  act: (rig: Rig) => Promise<void> | void;
  /** The moves the act makes, in order. */
  moves: string[];
  check: (rig: Rig) => void;
}

const lastStatus = (rig: Rig) => rig.reported.statuses.at(-1);

const MOVES: Move[] = [
  {
    when: 'connect() begins an attempt',
    from: 'idle',
    reach: async (rig) => {
      rig.browser.holdPermission = true;
    },
    act: (rig) => void rig.connection.connect(),
    moves: ['idle → checking'],
    check: (rig) => expect(lastStatus(rig)?.state).toBe('connecting'),
  },
  {
    when: 'Safari on an https page refuses at once',
    from: 'idle',
    reach: async (rig) => {
      rig.browser.webkitOnHttps = true;
    },
    act: (rig) => void rig.connection.connect(),
    moves: ['idle → checking', 'checking → idle'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ blockedReason: 'webkit-https' }),
  },
  {
    when: 'the browser lets the attempt go on',
    from: 'checking',
    reach: toChecking,
    act: (rig) => rig.answerPermission('granted'),
    moves: ['checking → opening'],
    check: (rig) => expect(rig.connection.socket).toBe(FakeWebSocket.latest),
  },
  {
    when: 'the local-network permission is denied',
    from: 'checking',
    reach: toChecking,
    act: (rig) => rig.answerPermission('denied'),
    moves: ['checking → idle'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ blockedReason: 'local-network-denied' }),
  },
  {
    when: 'the browser would ask and there was no click',
    from: 'checking',
    reach: async (rig) => {
      rig.browser.gesture = false;
      await toChecking(rig);
    },
    act: (rig) => rig.answerPermission('prompt'),
    moves: ['checking → idle'],
    check: (rig) => expect(lastStatus(rig)?.state).toBe('needs-gesture'),
  },
  {
    when: 'the browser refuses to create the WebSocket',
    from: 'checking',
    reach: toChecking,
    act: async (rig) => {
      rig.browser.refuseWebSocket = true;
      await rig.answerPermission('granted');
    },
    moves: ['checking → idle'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ blockedReason: 'websocket-refused' }),
  },
  {
    when: 'the page stops trying while the browser is asked',
    from: 'checking',
    reach: toChecking,
    act: (rig) => rig.connection.stopTrying(),
    moves: ['checking → idle'],
    check: (rig) => expect(rig.connection.socket).toBeNull(),
  },
  {
    when: 'the socket opens',
    from: 'opening',
    reach: toOpening,
    act: () => FakeWebSocket.latest.accept(),
    moves: ['opening → greeting'],
    check: (rig) => expect(rig.connection.status.state).toBe('connecting'),
  },
  {
    when: 'the socket fails before opening',
    from: 'opening',
    reach: toOpening,
    act: async (rig) => {
      rig.browser.holdPermission = true;
      FakeWebSocket.latest.failToConnect();
      await tick();
    },
    moves: ['opening → explaining'],
    check: (rig) => expect(rig.connection.socket).toBeNull(),
  },
  {
    when: 'the page hangs up while the socket opens',
    from: 'opening',
    reach: toOpening,
    act: (rig) => {
      rig.connection.stopTrying();
      rig.connection.close();
    },
    moves: ['opening → idle'],
    check: () => expect(FakeWebSocket.latest.closedWith?.code).toBe(1000),
  },
  {
    when: 'the helper greets',
    from: 'greeting',
    reach: toGreeting,
    act: () => FakeWebSocket.latest.receiveJson(helloMessage({ version: '2.0.0' })),
    moves: ['greeting → ready'],
    check: (rig) => {
      expect(rig.connection.hello?.version).toBe('2.0.0');
      expect(rig.connection.status.state).toBe('ready');
      expect(rig.reported.ready).toBe(1);
    },
  },
  {
    when: 'the greeting names another sample format',
    from: 'greeting',
    reach: toGreeting,
    act: () => FakeWebSocket.latest.receiveJson(helloMessage({ format: 's16le' })),
    moves: ['greeting → idle'],
    check: (rig) => {
      expect(FakeWebSocket.latest.closedWith?.code).toBe(4000);
      expect(lastStatus(rig)?.state).toBe('incompatible-helper');
    },
  },
  {
    when: 'the first message is not a greeting',
    from: 'greeting',
    reach: toGreeting,
    act: () => FakeWebSocket.latest.receiveJson({ type: 'pong' }),
    moves: ['greeting → idle'],
    check: () => expect(FakeWebSocket.latest.closedWith?.code).toBe(4000),
  },
  {
    when: 'no greeting comes in time',
    from: 'greeting',
    reach: toGreeting,
    act: () => tick(5000),
    moves: ['greeting → idle'],
    check: () => expect(FakeWebSocket.latest.closedWith?.code).toBe(4002),
  },
  {
    when: 'the helper closes before greeting (a retry is armed)',
    from: 'greeting',
    reach: toGreeting,
    act: () => FakeWebSocket.latest.drop(),
    moves: ['greeting → failed', 'failed → waiting'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ state: 'helper-not-running', retryInMs: 500 }),
  },
  {
    when: 'the helper closes before greeting and retrying is off',
    from: 'greeting',
    options: { reconnect: false },
    reach: toGreeting,
    act: () => FakeWebSocket.latest.drop(),
    moves: ['greeting → failed', 'failed → idle'],
    check: (rig) => expect(lastStatus(rig)?.retryInMs).toBeUndefined(),
  },
  {
    when: 'the page hangs up before the greeting',
    from: 'greeting',
    reach: toGreeting,
    act: (rig) => rig.connection.close(),
    moves: ['greeting → idle'],
    check: () => expect(FakeWebSocket.latest.closedWith?.code).toBe(1000),
  },
  {
    when: 'the connection is lost',
    from: 'ready',
    reach: toReady,
    act: () => FakeWebSocket.latest.drop(),
    moves: ['ready → failed', 'failed → waiting'],
    check: (rig) => {
      expect(rig.reported.lost).toBe(1);
      expect(lastStatus(rig)).toMatchObject({ state: 'connecting', retryInMs: 500 });
      expect(rig.connection.hello).toBeNull();
    },
  },
  {
    when: 'a ping gets no pong in time',
    from: 'ready',
    reach: toReady,
    act: () => tick(15_000 + 10_000),
    moves: ['ready → failed', 'failed → waiting'],
    check: (rig) => {
      expect(FakeWebSocket.latest.closedWith?.code).toBe(4001);
      expect(rig.reported.lost).toBe(1);
    },
  },
  {
    when: 'the page stops trying while told of the loss',
    from: 'ready',
    reach: toReady,
    act: (rig) => {
      rig.owner.onLost = () => rig.connection.stopTrying();
      FakeWebSocket.latest.drop();
    },
    moves: ['ready → failed', 'failed → idle'],
    check: (rig) => {
      expect(lastStatus(rig)?.retryInMs).toBeUndefined();
      expect(vi.getTimerCount()).toBe(0);
    },
  },
  {
    when: 'the page hangs up while connected',
    from: 'ready',
    reach: toReady,
    act: (rig) => {
      rig.connection.stopTrying();
      rig.connection.close();
    },
    moves: ['ready → idle'],
    check: (rig) => {
      expect(FakeWebSocket.latest.closedWith?.code).toBe(1000);
      expect(rig.reported.lost).toBe(0);
    },
  },
  {
    when: 'nothing listens on the port (a retry is armed)',
    from: 'explaining',
    reach: toExplaining,
    act: (rig) => rig.answerPermission('unsupported'),
    moves: ['explaining → failed', 'failed → waiting'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ state: 'helper-not-running', retryInMs: 500 }),
  },
  {
    when: 'something on the port refused the page (a retry is armed)',
    from: 'explaining',
    reach: toExplaining,
    act: async (rig) => {
      rig.browser.somethingListens = true;
      await rig.answerPermission('unsupported');
    },
    moves: ['explaining → failed', 'failed → waiting'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ state: 'refused', retryInMs: 500 }),
  },
  {
    when: 'the local-network permission was denied meanwhile',
    from: 'explaining',
    reach: toExplaining,
    act: (rig) => rig.answerPermission('denied'),
    moves: ['explaining → idle'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ blockedReason: 'local-network-denied' }),
  },
  {
    when: 'the browser question was left unanswered',
    from: 'explaining',
    reach: toExplaining,
    act: (rig) => rig.answerPermission('prompt'),
    moves: ['explaining → idle'],
    check: (rig) => expect(lastStatus(rig)).toMatchObject({ blockedReason: 'local-network-unanswered' }),
  },
  {
    when: 'the page stops trying while the failure is explained',
    from: 'explaining',
    reach: toExplaining,
    act: (rig) => rig.connection.stopTrying(),
    moves: ['explaining → idle'],
    check: (rig) => expect(rig.connection.socket).toBeNull(),
  },
  {
    when: 'the retry fires',
    from: 'waiting',
    reach: toWaiting,
    act: async (rig) => {
      rig.browser.holdPermission = true;
      await tick(500);
    },
    moves: ['waiting → checking'],
    check: (rig) => expect(lastStatus(rig)?.state).toBe('connecting'),
  },
  {
    when: 'connect() tries at once instead of waiting',
    from: 'waiting',
    reach: toWaiting,
    act: (rig) => {
      rig.browser.holdPermission = true;
      void rig.connection.connect();
    },
    moves: ['waiting → checking'],
    check: (rig) => expect(lastStatus(rig)?.state).toBe('connecting'),
  },
  {
    when: 'the page stops trying while a retry is armed',
    from: 'waiting',
    reach: toWaiting,
    act: (rig) => rig.connection.stopTrying(),
    moves: ['waiting → idle'],
    check: () => expect(vi.getTimerCount()).toBe(0),
  },
];

describe('the connection moves between its phases', () => {
  it.each(MOVES.map((move) => [`${move.from}: ${move.when}`, move] as const))('%s', async (_name, move) => {
    const rig = makeConnection(move.options);
    await move.reach?.(rig);
    expect(rig.connection.phase).toBe(move.from);
    const before = movesSoFar().length;
    await move.act(rig);
    expect(movesSoFar().slice(before)).toEqual(move.moves);
    expect(rig.connection.phase).toBe(move.moves.at(-1)!.split(' → ')[1]);
    move.check(rig);
  });

  it('has a case above for every move the table allows, and the table allows every case', () => {
    const allowed = Object.entries(PHASE_TRANSITIONS).flatMap(([from, targets]) =>
      targets.map((to) => `${from} → ${to}`),
    );
    const exercised = new Set(MOVES.flatMap((move) => move.moves));
    expect([...exercised].sort()).toEqual(allowed.sort());
  });

  it('refuses an impossible move during development, naming it', () => {
    vi.stubEnv('NODE_ENV', 'development');
    expect(() => realCheckTransition('idle', 'ready')).toThrow('impossible connection transition idle → ready');
    expect(() => realCheckTransition('ready', 'greeting')).toThrow(/ready → greeting/);
    expect(() => realCheckTransition('ready', 'idle')).not.toThrow();
  });

  it('reports an impossible move on the console in production without throwing', () => {
    vi.stubEnv('NODE_ENV', 'production');
    const console = vi.spyOn(globalThis.console, 'error').mockImplementation(() => {});
    try {
      expect(() => realCheckTransition('waiting', 'ready')).not.toThrow();
      expect(console).toHaveBeenCalledWith(expect.stringContaining('waiting → ready'));
    } finally {
      console.mockRestore();
    }
  });
});
