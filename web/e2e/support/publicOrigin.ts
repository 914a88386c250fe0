// What it takes for Chromium to treat a page served from this computer as a public web site, so
// that the page meets the local-network permission the way a real web application does.
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import path from 'node:path';
import type { CDPSession, Page } from 'playwright-core';
import { run } from './processes.js';

/** A name the client library does not take for this computer; the browser maps it to 127.0.0.1. */
export const PUBLIC_HOST = 'app.velmora.test';
/** Another site on the same server, which the helper does not allow. */
export const OTHER_PUBLIC_HOST = 'other.velmora.test';

/**
 * Chromium switches for a page at https://PUBLIC_HOST:<port>/ served from 127.0.0.1: the name
 * resolves to the loopback address, the browser counts that address and port as public, and it
 * accepts the throwaway certificate.
 */
export function publicOriginArgs(port: number): string[] {
  return [
    `--host-resolver-rules=MAP ${PUBLIC_HOST} 127.0.0.1, MAP ${OTHER_PUBLIC_HOST} 127.0.0.1`,
    `--ip-address-space-overrides=127.0.0.1:${port}=public`,
    '--ignore-certificate-errors',
  ];
}

/** A self-signed certificate for PUBLIC_HOST, valid for a day, made with openssl. */
export async function makeCertificate(): Promise<{ cert: string; key: string }> {
  const folder = mkdtempSync(path.join(process.env.TMPDIR ?? '/tmp', 'velmora-certificate-'));
  try {
    const key = path.join(folder, 'key.pem');
    const cert = path.join(folder, 'cert.pem');
    const made = await run(
      'openssl',
      [
        'req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
        '-keyout', key, '-out', cert, '-days', '1',
        '-subj', `/CN=${PUBLIC_HOST}`, '-addext', `subjectAltName=DNS:${PUBLIC_HOST},DNS:${OTHER_PUBLIC_HOST}`,
      ],
      process.env,
      20_000,
    );
    if (made.code !== 0) throw new Error(`openssl could not make a certificate:\n${made.output}`);
    return { cert: readFileSync(cert, 'utf8'), key: readFileSync(key, 'utf8') };
  } finally {
    rmSync(folder, { recursive: true, force: true });
  }
}

/**
 * The permission name Chromium uses for a public page's requests to this computer's loopback
 * address (its DevTools protocol knows it; Playwright's grantPermissions does not).
 */
export const LOOPBACK_PERMISSION = 'loopback-network';

export type PermissionSetting = 'granted' | 'denied' | 'prompt';

/**
 * Sets the permission for an origin as the user would in the site settings, through the DevTools
 * protocol. Chromium keeps a setting made this way only while the protocol session that made it
 * stays attached, so one session is held open for as long as the page lives. While set this way,
 * the browser's own answer to a prompt is not recorded: held at "prompt", a blocked attempt leaves
 * it at "prompt", exactly as a prompt the user closed does.
 */
export class LoopbackPermission {
  readonly #session: CDPSession;
  readonly #origin: string;

  private constructor(session: CDPSession, origin: string) {
    this.#session = session;
    this.#origin = origin;
  }

  static async control(page: Page, origin: string): Promise<LoopbackPermission> {
    return new LoopbackPermission(await page.context().newCDPSession(page), origin);
  }

  async set(setting: PermissionSetting, origin = this.#origin): Promise<void> {
    await this.#session.send('Browser.setPermission', { permission: { name: LOOPBACK_PERMISSION }, setting, origin });
  }
}

/** What the page itself reads for the permission. */
export function queryLoopbackPermission(page: Page): Promise<string> {
  return page.evaluate(
    async (name) => (await navigator.permissions.query({ name } as unknown as PermissionDescriptor)).state,
    LOOPBACK_PERMISSION,
  );
}
