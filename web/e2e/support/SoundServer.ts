// A private PulseAudio server for the browser tests, started the same way as the C++ tests'
// fixture (tests/support/SoundServer): its own runtime, home and configuration folders under a
// temporary directory, its own socket, null sinks "speakers" (48 kHz stereo, the default) and
// "headphones", and a silent "microphone". Nothing is shared with a user's session.
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { Child, run, waitUntil } from './processes.js';

export class SoundServer {
  static readonly speakers = 'speakers';

  readonly directory: string;
  #daemon: Child | null = null;
  #tones: Child[] = [];
  #toneCount = 0;

  private constructor(directory: string) {
    this.directory = directory;
  }

  /** Starts the server and waits until it answers; throws with the daemon's output otherwise. */
  static async start(): Promise<SoundServer> {
    // Short base: the socket path must fit in sockaddr_un.
    const server = new SoundServer(mkdtempSync('/tmp/velmora-sound-'));
    for (const folder of ['runtime', 'home', 'config', 'state', 'data']) {
      mkdirSync(path.join(server.directory, folder), { recursive: true, mode: 0o700 });
    }
    writeFileSync(
      path.join(server.directory, 'default.pa'),
      [
        `load-module module-native-protocol-unix auth-anonymous=1 socket=${server.socket}`,
        'load-module module-null-sink sink_name=speakers rate=48000 channels=2',
        'load-module module-null-sink sink_name=headphones rate=44100 channels=2',
        'load-module module-null-source source_name=microphone rate=48000 channels=1',
        'set-default-sink speakers',
        '',
      ].join('\n'),
    );
    await server.launch();
    return server;
  }

  get socket(): string {
    return path.join(this.directory, 'native');
  }

  /** "unix:<socket>", for PULSE_SERVER. */
  get address(): string {
    return `unix:${this.socket}`;
  }

  /** Environment for clients of this server: private folders and PULSE_SERVER. */
  environment(): NodeJS.ProcessEnv {
    const env: NodeJS.ProcessEnv = {};
    for (const [key, value] of Object.entries(process.env)) {
      if (!/^(XDG_|HOME$|PULSE_|PIPEWIRE_|DISPLAY$|WAYLAND_|DBUS_SESSION_BUS_)/.test(key)) env[key] = value;
    }
    return {
      ...env,
      HOME: path.join(this.directory, 'home'),
      XDG_RUNTIME_DIR: path.join(this.directory, 'runtime'),
      XDG_CONFIG_HOME: path.join(this.directory, 'config'),
      XDG_STATE_HOME: path.join(this.directory, 'state'),
      XDG_DATA_HOME: path.join(this.directory, 'data'),
      PULSE_SERVER: this.address,
    };
  }

  get running(): boolean {
    return this.#daemon?.running ?? false;
  }

  /**
   * Plays a sine tone of `hz` at amplitude 0.5 into `sink` (48 kHz stereo float32) with pacat.
   * With 100 ms of latency rather than the fixture's 20 ms: on a busy machine a shorter buffer
   * underruns and puts gaps into the tone.
   */
  playTone(hz: number, seconds: number, sink = SoundServer.speakers, rate = 48000): Child {
    const frames = Math.round(seconds * rate);
    const samples = new Float32Array(frames * 2);
    for (let i = 0; i < frames; i++) {
      const value = 0.5 * Math.sin((2 * Math.PI * hz * i) / rate);
      samples[2 * i] = value;
      samples[2 * i + 1] = value;
    }
    const file = path.join(this.directory, `tone-${++this.#toneCount}.raw`);
    writeFileSync(file, new Uint8Array(samples.buffer));
    const tone = new Child(
      'pacat',
      ['--playback', '--raw', `--device=${sink}`, '--format=float32le', `--rate=${rate}`, '--channels=2', '--latency-msec=100', file],
      this.environment(),
      path.join(this.directory, `tone-${this.#toneCount}.out`),
    );
    this.#tones.push(tone);
    return tone;
  }

  /**
   * Records from the silent microphone as a meeting app would during a call: parec, with stream
   * properties that name the app (for example {"application.id": "us.zoom.Zoom"}).
   */
  recordAs(properties: Record<string, string>): Child {
    const recorder = new Child(
      'parec',
      ['--device=microphone', '--raw', ...Object.entries(properties).map(([key, value]) => `--property=${key}=${value}`)],
      this.environment(),
      '/dev/null',
    );
    this.#tones.push(recorder);
    return recorder;
  }

  /** Plays a sound file (WAV) into `sink` with paplay. */
  playFile(file: string, sink = SoundServer.speakers): Child {
    const player = new Child(
      'paplay',
      [`--device=${sink}`, file],
      this.environment(),
      path.join(this.directory, `play-${++this.#toneCount}.out`),
    );
    this.#tones.push(player);
    return player;
  }

  /** Kills the daemon abruptly, as a crash would; clients see the connection drop. */
  async kill(): Promise<void> {
    await Promise.all(this.#tones.map((tone) => tone.kill()));
    await this.#daemon?.kill();
  }

  /** Stops everything it started and removes its folder. */
  async stop(): Promise<void> {
    await Promise.all(this.#tones.map((tone) => tone.stop()));
    await this.#daemon?.stop();
    rmSync(this.directory, { recursive: true, force: true });
  }

  daemonOutput(): string {
    return this.#daemon?.output() ?? '';
  }

  async #pactl(...args: string[]) {
    return run('pactl', args, this.environment(), 2000);
  }

  private async launch(): Promise<void> {
    this.#daemon = new Child(
      'pulseaudio',
      [
        '-n',
        '--daemonize=no',
        '--exit-idle-time=-1',
        '--disallow-exit',
        '--use-pid-file=no',
        '--realtime=no',
        '--high-priority=no',
        '--log-target=stderr',
        '-F',
        path.join(this.directory, 'default.pa'),
      ],
      this.environment(),
      path.join(this.directory, 'pulseaudio.log'),
    );
    try {
      await waitUntil(
        'the private sound server to answer',
        async () => {
          if (!this.#daemon?.running) throw new Error('pulseaudio exited during start-up');
          return (await this.#pactl('info')).code === 0;
        },
        20_000,
        100,
      );
      await waitUntil(
        'the speakers to be the default sink',
        async () => (await this.#pactl('get-default-sink')).output.trim() === SoundServer.speakers,
        10_000,
        100,
      );
    } catch (error) {
      throw new Error(`${(error as Error).message}\n--- pulseaudio.log\n${this.daemonOutput()}`);
    }
  }
}
