// This issuer and the C++ tool `velmora-pass issue` must produce the same passes. Needs the tool:
// VELMORA_PASS_TOOL=<path to velmora-pass> (run-tests.sh passes it when it is built).
import { execFileSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { describe, expect, it } from 'vitest';
import { checkPass, issuePass, loadSigningKey, publicKeyBase64, publicKeyFromBase64 } from '../src/index.js';

const tool = process.env.VELMORA_PASS_TOOL;
const keyFile = fileURLToPath(new URL('../../../keys/dev-pass-key.DEVELOPMENT-ONLY.pem', import.meta.url));
const key = loadSigningKey(readFileSync(keyFile));
const publicKeys = [publicKeyFromBase64(publicKeyBase64(key))];

function toolIssue(...args: string[]): string {
  return execFileSync(tool!, ['issue', '--key', keyFile, ...args], { encoding: 'utf8' }).trim();
}

describe.skipIf(!tool)('agreement with velmora-pass', () => {
  it('writes the same payload bytes for the same origin, time and nonce', () => {
    const origin = 'https://app.velmora.example';
    const theirs = toolIssue('--origin', origin, '--iat', '1800000000', '--nonce', 'shared-nonce');
    const ours = issuePass(key, { origin, now: 1_800_000_000, nonce: 'shared-nonce' });
    expect(theirs.split('.')[0]).toBe(ours.split('.')[0]);
  });

  it('makes passes this package\'s check accepts, with a 64-byte raw signature', () => {
    const origin = 'http://localhost:5180';
    const pass = toolIssue('--origin', origin);
    expect(pass).toMatch(/^[A-Za-z0-9_-]+\.[A-Za-z0-9_-]+$/);
    expect(Buffer.from(pass.split('.')[1]!, 'base64url')).toHaveLength(64);
    expect(checkPass(pass, publicKeys, origin)).toMatchObject({ ok: true, payload: { v: 1, origin } });
  });

  it('signs over the payload: a pass with the payloads swapped does not verify', () => {
    const a = toolIssue('--origin', 'http://localhost:5180');
    const b = issuePass(key, { origin: 'http://localhost:5181' });
    const swapped = `${b.split('.')[0]}.${a.split('.')[1]}`;
    expect(checkPass(swapped, publicKeys, 'http://localhost:5181')).toEqual({ ok: false, reason: 'signature' });
  });
});
