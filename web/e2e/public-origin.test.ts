// The demo page as every real user opens a web application: from a public https origin, under
// Chromium's local-network permission, against the real helper and a private sound server.
// Needs VELMORA_HELPER and a build of web/ (run-tests.sh does both) and openssl.
import { existsSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import type { Page } from 'playwright-core';
import { afterAll, afterEach, beforeAll, describe, expect, it } from 'vitest';
import { startDemoServer, type RunningDemoServer } from '../demo/server/DemoServer.js';
import { dbfs, dominantFrequency } from './support/analysis.js';
import { launchBrowser, type Browser } from './support/browser.js';
import { Helper } from './support/Helper.js';
import { freePort, waitUntil } from './support/processes.js';
import {
  makeCertificate,
  OTHER_PUBLIC_HOST,
  PUBLIC_HOST,
  publicOriginArgs,
  queryLoopbackPermission,
  LoopbackPermission,
} from './support/publicOrigin.js';
import { SoundServer } from './support/SoundServer.js';

const webRoot = fileURLToPath(new URL('..', import.meta.url));
const helperPath = process.env.VELMORA_HELPER;
const TONE_HZ = 440;
const TONE_DBFS = 20 * Math.log10(0.5 / Math.SQRT2);

interface DemoWindow {
  velmoraDemo: {
    client: { status: { state: string; blockedReason?: string; message: string }; framesReceived: number };
    latestSamples(count: number): number[];
  };
}

let sound: SoundServer;
let helper: Helper;
let demo: RunningDemoServer;
let browser: Browser;
let origin: string;
let page: Page;
let permission: LoopbackPermission;
const passesIssued: string[] = [];
const browserErrors: string[] = [];

async function open(): Promise<Page> {
  const opened = await browser.context.newPage();
  opened.on('pageerror', (error) => console.error(`page error: ${error.message}`));
  opened.on('console', (message) => {
    if (message.type() === 'error') browserErrors.push(message.text());
  });
  await opened.goto(`${origin}/?helperPort=${helper.port}`);
  return opened;
}

async function waitForState(on: Page, state: string, timeout = 20_000): Promise<void> {
  await on.waitForSelector(`#connection-state[data-state="${state}"]`, { timeout });
}

/** The state, its label, the message and the reason the page shows; logged for the record. */
async function shown(on: Page, what: string) {
  const status = await on.evaluate(() => (window as unknown as DemoWindow).velmoraDemo.client.status);
  const label = await on.textContent('#connection-state');
  console.log(`${what}: ${status.state}${status.blockedReason ? ` (${status.blockedReason})` : ''} "${label}": ${status.message}`);
  return { ...status, label, shownMessage: (await on.textContent('#connection-message')) ?? '' };
}

async function latestSamples(on: Page, count: number): Promise<Float32Array> {
  return Float32Array.from(await on.evaluate((n) => (window as unknown as DemoWindow).velmoraDemo.latestSamples(n), count));
}

async function framesReceived(on: Page): Promise<number> {
  return on.evaluate(() => (window as unknown as DemoWindow).velmoraDemo.client.framesReceived);
}

/** Plays the tone and checks that the page receives it at its frequency and level. */
async function expectTone(on: Page): Promise<void> {
  const tone = sound.playTone(TONE_HZ, 4);
  try {
    await waitUntil('the tone to reach the page', async () => dbfs(await latestSamples(on, 1600)) > -20, 15_000, 100);
    await on.waitForTimeout(800);
    const samples = await latestSamples(on, 8000);
    console.log(`tone received at ${dbfs(samples).toFixed(2)} dBFS, ${dominantFrequency(samples, 16000).toFixed(1)} Hz`);
    expect(Math.abs(dominantFrequency(samples, 16000) - TONE_HZ)).toBeLessThan(2);
    expect(Math.abs(dbfs(samples) - TONE_DBFS)).toBeLessThan(1.5);
  } finally {
    await tone.stop();
  }
}

describe.skipIf(!helperPath)('the demo page from a public https origin', () => {
  beforeAll(async () => {
    for (const built of ['client/dist/index.js', 'demo/dist/page/app.js']) {
      if (!existsSync(path.join(webRoot, built))) throw new Error(`web/${built} is missing: run "npm run build" in web/ first`);
    }
    const port = await freePort();
    origin = `https://${PUBLIC_HOST}:${port}`;
    sound = await SoundServer.start();
    helper = await Helper.start(helperPath!, sound.environment(), origin);
    demo = await startDemoServer({
      port,
      tls: await makeCertificate(),
      allowedOrigins: [origin],
      onPass: (passOrigin) => passesIssued.push(passOrigin),
    });
    const { PULSE_SERVER: _unused, ...browserEnv } = sound.environment();
    browser = await launchBrowser({ ...browserEnv, XDG_RUNTIME_DIR: path.join(sound.directory, 'home') }, publicOriginArgs(port));
  }, 90_000);

  afterEach((context) => {
    if (context.task.result?.state === 'fail' && helper) {
      console.log(`--- helper log\n${helper.log()}\n--- helper output\n${helper.output()}`);
    }
  });

  afterAll(async () => {
    await browser?.close();
    await demo?.close();
    await helper?.stop();
    await sound?.stop();
  }, 60_000);

  it('waits for a click on the first visit and asks nothing', async () => {
    page = await open();
    permission = await LoopbackPermission.control(page, origin);
    await waitForState(page, 'needs-gesture');
    // Headless Chromium answers any prompt with a refusal it records, so a permission still at
    // "prompt" a while later shows that the page did not make the browser ask.
    await page.waitForTimeout(1500);
    const status = await shown(page, 'first visit');
    expect(status.state).toBe('needs-gesture');
    expect(status.label).toBe('Waiting for you');
    expect(status.shownMessage).toContain('Click Connect');
    expect(await queryLoopbackPermission(page)).toBe('prompt');
  });

  it('names the browser permission, not a missing helper, when the prompt was closed', async () => {
    await permission.set('prompt');
    browserErrors.length = 0;
    await page.click('#connect');
    await waitForState(page, 'blocked-by-browser');
    const status = await shown(page, 'prompt closed');
    // The helper runs; the browser stopped the connection before it left the page.
    expect(helper.running).toBe(true);
    expect(browserErrors.join('\n')).toContain('ERR_BLOCKED_BY_LOCAL_NETWORK_ACCESS_CHECKS');
    expect(status.blockedReason).toBe('local-network-unanswered');
    expect(status.label).toBe('Blocked by the browser');
    expect(status.shownMessage).toContain('Local network access');
    expect(status.shownMessage).toContain('Click Connect');
    expect(status.shownMessage).not.toMatch(/not running/);
    expect(await queryLoopbackPermission(page)).toBe('prompt');
    // It does not ask again by itself.
    await page.waitForTimeout(2000);
    expect((await shown(page, 'prompt closed, 2 s later')).state).toBe('blocked-by-browser');
  });

  it('says how to allow the permission when it is denied', async () => {
    await permission.set('denied');
    await page.click('#connect');
    await waitForState(page, 'blocked-by-browser');
    let status = await shown(page, 'denied, after a click');
    expect(status.blockedReason).toBe('local-network-denied');
    expect(status.shownMessage).toContain('allow "Local network access"');
    // A page opened while it is denied says so at once, without trying.
    await page.reload();
    await waitForState(page, 'blocked-by-browser');
    status = await shown(page, 'denied, on opening');
    expect(status.blockedReason).toBe('local-network-denied');
    expect(await queryLoopbackPermission(page)).toBe('denied');
  });

  it('connects after a click once the permission is granted, and streams the played audio', async () => {
    await permission.set('prompt');
    await page.reload();
    await waitForState(page, 'needs-gesture');
    // The user clicks Connect and allows the browser's prompt.
    await permission.set('granted');
    await page.click('#connect');
    await waitForState(page, 'ready');
    const status = await shown(page, 'granted');
    expect(status.label).toBe('Connected');
    await page.click('#start');
    await page.waitForSelector('#stream-state[data-state="streaming"]', { timeout: 20_000 });
    expect(passesIssued).toContain(origin);
    await expectTone(page);
  });

  it('shows "Refused by the helper" on an allowed public page of an origin the helper does not allow', async () => {
    const other = `https://${OTHER_PUBLIC_HOST}:${new URL(origin).port}`;
    await permission.set('granted', other);
    const refused = await browser.context.newPage();
    await refused.goto(`${other}/?helperPort=${helper.port}`);
    await waitForState(refused, 'refused');
    const status = await shown(refused, 'other origin, granted');
    expect(status.label).toBe('Refused by the helper');
    expect(status.shownMessage).toContain(`velmora-audio-helper settings add-origin ${other}`);
    await refused.close();
  });

  it('reports a stopped helper while the permission is granted, and finds it again when it starts', async () => {
    await helper.stop();
    await waitForState(page, 'helper-not-running');
    const status = await shown(page, 'helper stopped');
    expect(status.label).toBe('Helper not running');
    expect(status.shownMessage).toContain('not running');
    expect(await queryLoopbackPermission(page)).toBe('granted');
    await helper.launch();
    await waitForState(page, 'ready', 40_000);
    await shown(page, 'helper started again');
    await page.waitForSelector('#stream-state[data-state="streaming"]', { timeout: 20_000 });
    const before = await framesReceived(page);
    await waitUntil('audio to flow again', async () => (await framesReceived(page)) > before + 5, 10_000, 100);
    await expectTone(page);
  });
});
