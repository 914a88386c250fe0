import { generateKeyPairSync, verify } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { describe, expect, it } from 'vitest';
import {
  checkPass,
  generateSigningKey,
  issuePass,
  loadSigningKey,
  publicKeyBase64,
  publicKeyFromBase64,
} from '../src/index.js';

const repoRoot = fileURLToPath(new URL('../../../', import.meta.url));
const devKeyPem = readFileSync(`${repoRoot}keys/dev-pass-key.DEVELOPMENT-ONLY.pem`, 'utf8');
const devKey = loadSigningKey(devKeyPem);
const ORIGIN = 'http://localhost:5180';
const NOW = 1_800_000_000;

function parts(pass: string) {
  const [payload, signature] = pass.split('.') as [string, string];
  return {
    payloadText: Buffer.from(payload, 'base64url').toString('utf8'),
    payloadBytes: Buffer.from(payload, 'base64url'),
    signature: Buffer.from(signature, 'base64url'),
    raw: [payload, signature] as const,
  };
}

describe('the development key', () => {
  it('is the key whose public half the dev preset builds into the helper', () => {
    const presets = JSON.parse(readFileSync(`${repoRoot}CMakePresets.json`, 'utf8')) as {
      configurePresets: Array<{ name: string; cacheVariables?: Record<string, string> }>;
    };
    const base = presets.configurePresets.find((p) => p.name === 'base');
    expect(publicKeyBase64(devKey)).toBe(base?.cacheVariables?.VELMORA_DEV_KEYS);
  });
});

describe('issuePass', () => {
  it('is base64url payload "." base64url signature, without padding', () => {
    const pass = issuePass(devKey, { origin: ORIGIN });
    expect(pass).toMatch(/^[A-Za-z0-9_-]+\.[A-Za-z0-9_-]+$/);
  });

  it('carries {"v":1,"origin","iat","nonce"}', () => {
    const pass = issuePass(devKey, { origin: ORIGIN, now: NOW, nonce: 'n-1' });
    expect(JSON.parse(parts(pass).payloadText)).toEqual({ v: 1, origin: ORIGIN, iat: NOW, nonce: 'n-1' });
  });

  it('uses the current time and a fresh random nonce by default', () => {
    const before = Math.floor(Date.now() / 1000);
    const passes = Array.from({ length: 50 }, () => issuePass(devKey, { origin: ORIGIN }));
    const payloads = passes.map((p) => JSON.parse(parts(p).payloadText) as { iat: number; nonce: string });
    for (const payload of payloads) {
      expect(payload.iat).toBeGreaterThanOrEqual(before);
      expect(payload.iat).toBeLessThanOrEqual(Math.floor(Date.now() / 1000));
      expect(payload.nonce).toMatch(/^[A-Za-z0-9_-]{22}$/);
    }
    expect(new Set(payloads.map((p) => p.nonce)).size).toBe(50);
  });

  it('signs the payload bytes with P-256 and SHA-256 as a raw 64-byte r||s', () => {
    const pass = issuePass(devKey, { origin: ORIGIN });
    const { payloadBytes, signature } = parts(pass);
    expect(signature).toHaveLength(64);
    const publicKey = publicKeyFromBase64(publicKeyBase64(devKey));
    expect(verify('sha256', payloadBytes, { key: publicKey, dsaEncoding: 'ieee-p1363' }, signature)).toBe(true);
    const tampered = Buffer.from(payloadBytes);
    tampered.writeUInt8(tampered.readUInt8(tampered.length - 2) ^ 1, tampered.length - 2);
    expect(verify('sha256', tampered, { key: publicKey, dsaEncoding: 'ieee-p1363' }, signature)).toBe(false);
  });

  it('accepts the key as PEM text as well as a KeyObject', () => {
    const pass = issuePass(devKeyPem, { origin: ORIGIN });
    expect(checkPass(pass, [publicKeyFromBase64(publicKeyBase64(devKey))], ORIGIN).ok).toBe(true);
  });

  it('stores the origin in the form browsers send', () => {
    const pass = issuePass(devKey, { origin: 'HTTPS://App.Example/' });
    expect(JSON.parse(parts(pass).payloadText).origin).toBe('https://app.example');
  });

  it.each(['', 'null', 'app.example', 'ftp://app.example', 'https://app.example/login', 'https://app.example?x=1', 'https://u@app.example'])(
    'refuses the origin %j',
    (origin) => {
      expect(() => issuePass(devKey, { origin })).toThrow(TypeError);
    },
  );

  it('refuses an empty nonce and a time that is not a number', () => {
    expect(() => issuePass(devKey, { origin: ORIGIN, nonce: '' })).toThrow(/nonce/);
    expect(() => issuePass(devKey, { origin: ORIGIN, now: Number.NaN })).toThrow(/time/);
  });
});

describe('loadSigningKey', () => {
  it('refuses keys that would only produce passes the helper rejects', () => {
    const rsa = generateKeyPairSync('rsa', { modulusLength: 1024 }).privateKey;
    const p384 = generateKeyPairSync('ec', { namedCurve: 'secp384r1' }).privateKey;
    const ed25519 = generateKeyPairSync('ed25519').privateKey;
    expect(() => loadSigningKey(rsa)).toThrow(/P-256.*rsa/);
    expect(() => loadSigningKey(p384)).toThrow(/secp384r1/);
    expect(() => loadSigningKey(ed25519)).toThrow(/ed25519/);
    expect(() => loadSigningKey(generateKeyPairSync('ec', { namedCurve: 'prime256v1' }).publicKey)).toThrow(/private/);
    expect(() => loadSigningKey('not a pem')).toThrow();
  });
});

describe('keys in the helper\'s form', () => {
  it('round-trips a generated key', () => {
    const { privateKeyPem, publicKey } = generateSigningKey();
    expect(Buffer.from(publicKey, 'base64')).toHaveLength(65);
    expect(publicKey).toMatch(/^[A-Za-z0-9+/]{87}=$/);
    const pass = issuePass(privateKeyPem, { origin: ORIGIN });
    expect(checkPass(pass, [publicKeyFromBase64(publicKey)], ORIGIN).ok).toBe(true);
  });

  it('refuses a public key that is not a 65-byte uncompressed point', () => {
    expect(() => publicKeyFromBase64('AAAA')).toThrow(TypeError);
  });
});

describe('checkPass', () => {
  const keys = [publicKeyFromBase64(publicKeyBase64(devKey))];
  const pass = issuePass(devKey, { origin: ORIGIN, now: NOW, nonce: 'abc' });

  it('accepts a pass within five minutes of its issue time, either way', () => {
    expect(checkPass(pass, keys, ORIGIN, NOW)).toEqual({
      ok: true,
      payload: { v: 1, origin: ORIGIN, iat: NOW, nonce: 'abc' },
    });
    expect(checkPass(pass, keys, ORIGIN, NOW + 300).ok).toBe(true);
    expect(checkPass(pass, keys, ORIGIN, NOW - 300).ok).toBe(true);
  });

  it.each([
    ['no pass', undefined, 'missing'],
    ['an empty pass', '', 'missing'],
    ['three parts', `${pass}.x`, 'malformed'],
    ['one part', pass.split('.')[0], 'malformed'],
    ['a 63-byte signature', `${pass.split('.')[0]}.${Buffer.alloc(63, 1).toString('base64url')}`, 'malformed'],
    ['a signature of another key', issuePass(generateSigningKey().privateKeyPem, { origin: ORIGIN, now: NOW }), 'signature'],
  ])('refuses %s', (_name, candidate, reason) => {
    expect(checkPass(candidate, keys, ORIGIN, NOW)).toEqual({ ok: false, reason });
  });

  it('refuses another origin, and a pass outside its window', () => {
    expect(checkPass(pass, keys, 'http://localhost:5181', NOW)).toEqual({ ok: false, reason: 'origin' });
    expect(checkPass(pass, keys, ORIGIN, NOW + 300.001)).toEqual({ ok: false, reason: 'expired' });
    expect(checkPass(pass, keys, ORIGIN, NOW - 300.001)).toEqual({ ok: false, reason: 'expired' });
  });

  it('matches the origin without regard to case or trailing slashes', () => {
    expect(checkPass(pass, keys, 'HTTP://LocalHost:5180/', NOW).ok).toBe(true);
  });

  it('accepts padding and the standard alphabet alike', () => {
    const [payload, signature] = pass.split('.') as [string, string];
    const toStandard = (s: string) => {
      const t = s.replaceAll('-', '+').replaceAll('_', '/');
      return t + '='.repeat((4 - (t.length % 4)) % 4);
    };
    expect(checkPass(`${toStandard(payload)}.${toStandard(signature)}`, keys, ORIGIN, NOW).ok).toBe(true);
  });
});
