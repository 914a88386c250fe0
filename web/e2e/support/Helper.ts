// The real helper, run privately for the browser tests: its settings and log live in the private
// folders of the given environment, it listens on a free port, and it admits http://localhost:*.
import { existsSync, readdirSync, readFileSync } from 'node:fs';
import { connect } from 'node:net';
import path from 'node:path';
import { Child, freePort, run, waitUntil } from './processes.js';

export class Helper {
  readonly executable: string;
  readonly port: number;
  readonly env: NodeJS.ProcessEnv;
  #process: Child | null = null;

  private constructor(executable: string, port: number, env: NodeJS.ProcessEnv) {
    this.executable = executable;
    this.port = port;
    this.env = env;
  }

  /** Configures (port, allowed origin) and starts the helper; resolves once it listens. */
  static async start(executable: string, env: NodeJS.ProcessEnv, allowedOrigin = 'http://localhost:*'): Promise<Helper> {
    if (!existsSync(executable)) throw new Error(`No helper executable at ${executable}`);
    const helper = new Helper(executable, await freePort(), env);
    await helper.settings('set', 'port', String(helper.port));
    await helper.settings('add-origin', allowedOrigin);
    await helper.launch();
    return helper;
  }

  /** Runs `velmora-audio-helper settings ...` in the private environment. */
  async settings(...args: string[]): Promise<string> {
    const result = await run(this.executable, ['settings', ...args], this.env, 10_000);
    if (result.code !== 0) {
      throw new Error(`velmora-audio-helper settings ${args.join(' ')} failed (${result.code}):\n${result.output}`);
    }
    return result.output;
  }

  get running(): boolean {
    return this.#process?.running ?? false;
  }

  /** Starts the helper (again) and waits until it accepts connections. */
  async launch(): Promise<void> {
    const logDir = this.env.XDG_STATE_HOME ?? '/tmp';
    // VELMORA_HELPER_ARGS replaces the default arguments (space-separated) where needed.
    const args = process.env.VELMORA_HELPER_ARGS?.split(' ').filter(Boolean) ?? ['--no-welcome'];
    this.#process = new Child(this.executable, args, this.env, path.join(logDir, 'helper-output.log'));
    try {
      await waitUntil('the helper to listen', async () => {
        if (!this.#process?.running) throw new Error('the helper exited during start-up');
        return listens(this.port);
      }, 20_000, 100);
    } catch (error) {
      throw new Error(`${(error as Error).message}\n--- helper output\n${this.output()}\n--- helper log\n${this.log()}`);
    }
  }

  async stop(): Promise<void> {
    await this.#process?.stop();
  }

  async kill(): Promise<void> {
    await this.#process?.kill();
  }

  output(): string {
    return this.#process?.output() ?? '';
  }

  /** The helper's own log file, for failure messages. */
  log(): string {
    const folder = path.join(this.env.XDG_STATE_HOME ?? '', 'velmora-audio-helper');
    if (!existsSync(folder)) return '';
    return readdirSync(folder)
      .filter((name) => name.endsWith('.log'))
      .map((name) => readFileSync(path.join(folder, name), 'utf8'))
      .join('\n');
  }
}

function listens(port: number): Promise<boolean> {
  return new Promise((resolve) => {
    const socket = connect({ host: '127.0.0.1', port });
    socket.once('connect', () => {
      socket.destroy();
      resolve(true);
    });
    socket.once('error', () => resolve(false));
  });
}
