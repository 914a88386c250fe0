import { spawn, type ChildProcess } from 'node:child_process';
import { createWriteStream, readFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { setTimeout as delay } from 'node:timers/promises';

/** A child process with its output in a file; stop() ends it (and only it) and waits. */
export class Child {
  readonly process: ChildProcess;
  readonly outputFile: string;
  #exit: Promise<number | null>;
  #exited = false;

  constructor(command: string, args: string[], env: NodeJS.ProcessEnv, outputFile: string) {
    this.outputFile = outputFile;
    const output = createWriteStream(outputFile, { flags: 'a' });
    this.process = spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
    this.process.stdout?.pipe(output);
    this.process.stderr?.pipe(output);
    this.#exit = new Promise((resolve) => {
      this.process.once('exit', (code) => {
        this.#exited = true;
        resolve(code);
      });
      this.process.once('error', () => {
        this.#exited = true;
        resolve(null);
      });
    });
  }

  get running(): boolean {
    return !this.#exited;
  }

  output(): string {
    try {
      return readFileSync(this.outputFile, 'utf8');
    } catch {
      return '';
    }
  }

  /** Exit code, or null when killed; waits at most `timeoutMs`. */
  async waitForExit(timeoutMs: number): Promise<number | null | 'timeout'> {
    return Promise.race([this.#exit, delay(timeoutMs).then(() => 'timeout' as const)]);
  }

  /** SIGTERM, then SIGKILL after `graceMs`. */
  async stop(graceMs = 3000): Promise<void> {
    if (this.#exited) return;
    this.process.kill('SIGTERM');
    if ((await this.waitForExit(graceMs)) === 'timeout') await this.kill();
  }

  /** SIGKILL at once, as a crash would look. */
  async kill(): Promise<void> {
    if (this.#exited) return;
    this.process.kill('SIGKILL');
    await this.waitForExit(10_000);
  }
}

/** Runs a command to completion within `timeoutMs`; never throws for a failing command. */
export function run(
  command: string,
  args: string[],
  env: NodeJS.ProcessEnv,
  timeoutMs = 10_000,
): Promise<{ code: number | null; output: string; timedOut: boolean }> {
  return new Promise((resolve) => {
    const child = spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
    let output = '';
    child.stdout.on('data', (chunk: Buffer) => (output += chunk.toString()));
    child.stderr.on('data', (chunk: Buffer) => (output += chunk.toString()));
    let timedOut = false;
    const timer = setTimeout(() => {
      timedOut = true;
      child.kill('SIGKILL');
    }, timeoutMs);
    child.once('error', (error) => {
      clearTimeout(timer);
      resolve({ code: null, output: output + String(error), timedOut });
    });
    child.once('close', (code) => {
      clearTimeout(timer);
      resolve({ code, output, timedOut });
    });
  });
}

/** Polls `condition` every `intervalMs` until it holds or `timeoutMs` passes. */
export async function waitUntil(
  what: string,
  condition: () => boolean | Promise<boolean>,
  timeoutMs: number,
  intervalMs = 50,
): Promise<void> {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    if (await condition()) return;
    if (Date.now() >= deadline) throw new Error(`Timed out after ${timeoutMs} ms waiting for ${what}`);
    await delay(intervalMs);
  }
}

/** A loopback TCP port that was free a moment ago. */
export function freePort(): Promise<number> {
  return new Promise((resolve, reject) => {
    const server = createServer();
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const address = server.address();
      server.close(() => (typeof address === 'object' && address ? resolve(address.port) : reject(new Error('no port'))));
    });
  });
}
