import { mkdtempSync, rmSync } from 'node:fs';
import path from 'node:path';
import { chromium, type BrowserContext } from 'playwright-core';

/** Debian's Chromium; the tests never download a browser. */
export const CHROMIUM = process.env.CHROMIUM_PATH ?? '/usr/bin/chromium';

export const CHROMIUM_ARGS = [
  '--headless',
  '--no-sandbox',
  '--disable-gpu',
  '--disable-quic',
  '--no-first-run',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
];

export interface Browser {
  context: BrowserContext;
  close(): Promise<void>;
}

/** Chromium with a fresh profile and private home folders, removed again by close(). */
export async function launchBrowser(env: NodeJS.ProcessEnv, extraArgs: string[] = []): Promise<Browser> {
  const profile = mkdtempSync('/tmp/velmora-chromium-');
  const context = await chromium.launchPersistentContext(path.join(profile, 'profile'), {
    executablePath: CHROMIUM,
    headless: true,
    args: [...CHROMIUM_ARGS, ...extraArgs],
    env: {
      ...env,
      HOME: path.join(profile, 'home'),
      XDG_CONFIG_HOME: path.join(profile, 'config'),
      XDG_CACHE_HOME: path.join(profile, 'cache'),
    },
    viewport: { width: 1280, height: 1000 },
    acceptDownloads: true,
  });
  return {
    context,
    async close() {
      await context.close();
      rmSync(profile, { recursive: true, force: true });
    },
  };
}
