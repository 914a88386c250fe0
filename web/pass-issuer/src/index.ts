// Issues start passes for the audio helper: base64url(payload) "." base64url(signature), where the
// payload is the JSON text {"v":1,"origin":…,"iat":…,"nonce":…} and the signature is ECDSA P-256
// with SHA-256 over exactly those bytes, as raw r||s (64 bytes, not DER).
import {
  createPrivateKey,
  createPublicKey,
  generateKeyPairSync,
  KeyObject,
  randomBytes,
  sign,
  verify,
} from 'node:crypto';

/** What a pass says. */
export interface PassPayload {
  /** Format version, always 1. */
  v: 1;
  /** The origin of the page the pass is for, such as "https://app.velmora.example". */
  origin: string;
  /** Issue time in seconds since 1970 (UTC). The helper accepts it for five minutes either way. */
  iat: number;
  /** Single-use identifier: the helper accepts each nonce once. */
  nonce: string;
}

export interface IssuePassOptions {
  /** The page's origin, exactly as the browser sends it in the Origin header. */
  origin: string;
  /** Issue time in seconds since 1970; default now. */
  now?: number;
  /** Default: 16 random bytes, base64url. */
  nonce?: string;
}

/** How long the helper accepts a pass around its issue time, in seconds, either way. */
export const PASS_WINDOW_SECONDS = 300;

/**
 * Reads the signing key (a PEM or DER private key, or a KeyObject) and checks that it is a P-256
 * private key, so that a wrong key fails here rather than as "pass_invalid" in every browser.
 */
export function loadSigningKey(key: string | Buffer | KeyObject): KeyObject {
  const keyObject = key instanceof KeyObject ? key : createPrivateKey(key);
  if (keyObject.type !== 'private') {
    throw new TypeError('The pass signing key must be a private key');
  }
  if (keyObject.asymmetricKeyType !== 'ec' || keyObject.asymmetricKeyDetails?.namedCurve !== 'prime256v1') {
    throw new TypeError(
      `The pass signing key must be an EC key on curve P-256 (prime256v1), not ${describeKey(keyObject)}`,
    );
  }
  return keyObject;
}

/** Issues one pass for a page of the given origin. Call it for every start: passes are single-use. */
export function issuePass(key: KeyObject | string | Buffer, options: IssuePassOptions): string {
  const signingKey = loadSigningKey(key);
  const payload: PassPayload = {
    v: 1,
    origin: checkOrigin(options.origin),
    iat: options.now ?? Math.floor(Date.now() / 1000),
    nonce: options.nonce ?? randomBytes(16).toString('base64url'),
  };
  if (!Number.isFinite(payload.iat)) throw new TypeError('The issue time must be a finite number of seconds');
  if (payload.nonce.length === 0) throw new TypeError('The nonce must not be empty');
  const payloadBytes = Buffer.from(JSON.stringify(payload), 'utf8');
  const signature = sign('sha256', payloadBytes, { key: signingKey, dsaEncoding: 'ieee-p1363' });
  return `${payloadBytes.toString('base64url')}.${signature.toString('base64url')}`;
}

/**
 * The public half in the form the helper is built with: standard base64 of the 65-byte
 * uncompressed point (0x04, X, Y).
 */
export function publicKeyBase64(key: KeyObject): string {
  const jwk = createPublicKey(key).export({ format: 'jwk' });
  if (jwk.kty !== 'EC' || jwk.crv !== 'P-256' || !jwk.x || !jwk.y) {
    throw new TypeError('Not a P-256 key');
  }
  const point = Buffer.concat([Buffer.from([4]), Buffer.from(jwk.x, 'base64url'), Buffer.from(jwk.y, 'base64url')]);
  return point.toString('base64');
}

/** Reads a public key given in the helper's form (base64 of the uncompressed point). */
export function publicKeyFromBase64(text: string): KeyObject {
  const point = Buffer.from(text, 'base64');
  if (point.length !== 65 || point[0] !== 4) {
    throw new TypeError('A helper public key is base64 of 65 bytes starting with 0x04');
  }
  return createPublicKey({
    key: {
      kty: 'EC',
      crv: 'P-256',
      x: point.subarray(1, 33).toString('base64url'),
      y: point.subarray(33).toString('base64url'),
    },
    format: 'jwk',
  });
}

/** A new signing key (PKCS#8 PEM) and its public half in the helper's form. */
export function generateSigningKey(): { privateKeyPem: string; publicKey: string } {
  const { privateKey } = generateKeyPairSync('ec', { namedCurve: 'prime256v1' });
  return {
    privateKeyPem: privateKey.export({ format: 'pem', type: 'pkcs8' }).toString(),
    publicKey: publicKeyBase64(privateKey),
  };
}

export type PassCheck =
  | { ok: true; payload: PassPayload }
  | { ok: false; reason: 'missing' | 'malformed' | 'signature' | 'payload' | 'origin' | 'expired' };

/**
 * Checks a pass the way the helper does, except that it keeps no record of used nonces.
 * For tests and for checking a server's set-up; the helper's own answer is the one that counts.
 */
export function checkPass(
  pass: string | undefined,
  publicKeys: KeyObject[],
  origin: string,
  now: number = Date.now() / 1000,
): PassCheck {
  if (pass === undefined || pass.length === 0) return { ok: false, reason: 'missing' };
  const pieces = pass.split('.');
  if (pieces.length !== 2) return { ok: false, reason: 'malformed' };
  const payloadBytes = decodeBase64Piece(pieces[0]!);
  const signature = decodeBase64Piece(pieces[1]!);
  if (!payloadBytes || !signature || signature.length !== 64) return { ok: false, reason: 'malformed' };
  const signed = publicKeys.some((key) =>
    verify('sha256', payloadBytes, { key, dsaEncoding: 'ieee-p1363' }, signature),
  );
  if (!signed) return { ok: false, reason: 'signature' };
  let payload: unknown;
  try {
    payload = JSON.parse(payloadBytes.toString('utf8'));
  } catch {
    return { ok: false, reason: 'payload' };
  }
  if (typeof payload !== 'object' || payload === null || Array.isArray(payload)) return { ok: false, reason: 'payload' };
  const { v, origin: passOrigin, iat, nonce } = payload as Record<string, unknown>;
  if (typeof v !== 'number' || Math.trunc(v) !== 1) return { ok: false, reason: 'payload' };
  if (typeof passOrigin !== 'string') return { ok: false, reason: 'payload' };
  if (typeof iat !== 'number') return { ok: false, reason: 'payload' };
  if (typeof nonce !== 'string' || nonce.length === 0) return { ok: false, reason: 'payload' };
  if (normalizeOrigin(passOrigin) !== normalizeOrigin(origin)) return { ok: false, reason: 'origin' };
  if (!(Math.abs(now - iat) <= PASS_WINDOW_SECONDS)) return { ok: false, reason: 'expired' };
  return { ok: true, payload: { v: 1, origin: passOrigin, iat, nonce } };
}

function decodeBase64Piece(piece: string): Buffer | null {
  let text = piece.replaceAll('-', '+').replaceAll('_', '/');
  while (text.length % 4 !== 0) text += '=';
  if (!/^[A-Za-z0-9+/]*={0,2}$/.test(text)) return null;
  return Buffer.from(text, 'base64');
}

function normalizeOrigin(origin: string): string {
  return origin.replace(/^[ \t]+|[ \t]+$/g, '').toLowerCase().replace(/\/+$/, '');
}

function checkOrigin(origin: string): string {
  let url: URL;
  try {
    url = new URL(origin);
  } catch {
    throw new TypeError(`Not an origin: ${JSON.stringify(origin)}`);
  }
  const bare = origin.toLowerCase().replace(/\/+$/, '');
  if ((url.protocol !== 'https:' && url.protocol !== 'http:') || url.origin !== bare) {
    throw new TypeError(
      `Not an origin: ${JSON.stringify(origin)} (expected scheme://host[:port], such as https://app.example)`,
    );
  }
  return url.origin;
}

function describeKey(key: KeyObject): string {
  const curve = key.asymmetricKeyDetails?.namedCurve;
  return curve ? `${key.asymmetricKeyType} (${curve})` : String(key.asymmetricKeyType);
}
