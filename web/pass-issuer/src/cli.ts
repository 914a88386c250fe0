#!/usr/bin/env node
// velmora-issue-pass: issue a start pass, or print a key's public half, from the command line.
import { readFileSync } from 'node:fs';
import { parseArgs } from 'node:util';
import { generateSigningKey, issuePass, loadSigningKey, publicKeyBase64 } from './index.js';

const usage = `Usage:
  velmora-issue-pass issue --key <private-key.pem> --origin <origin> [--iat <seconds>] [--nonce <text>]
  velmora-issue-pass public-key --key <private-key.pem>
  velmora-issue-pass keygen`;

function main(argv: string[]): number {
  const { values, positionals } = parseArgs({
    args: argv,
    allowPositionals: true,
    options: {
      key: { type: 'string' },
      origin: { type: 'string' },
      iat: { type: 'string' },
      nonce: { type: 'string' },
      help: { type: 'boolean', short: 'h' },
    },
  });
  const command = positionals[0];
  if (values.help || !command) {
    console.log(usage);
    return values.help ? 0 : 2;
  }
  if (command === 'keygen') {
    const { privateKeyPem, publicKey } = generateSigningKey();
    process.stdout.write(privateKeyPem);
    console.error(`Public key (build it into the helper): ${publicKey}`);
    return 0;
  }
  if (!values.key) throw new Error('--key is required');
  const key = loadSigningKey(readFileSync(values.key));
  if (command === 'public-key') {
    console.log(publicKeyBase64(key));
    return 0;
  }
  if (command === 'issue') {
    if (!values.origin) throw new Error('--origin is required');
    const now = values.iat === undefined ? undefined : Number(values.iat);
    if (now !== undefined && !Number.isFinite(now)) throw new Error(`--iat is not a number: ${values.iat}`);
    console.log(
      issuePass(key, {
        origin: values.origin,
        ...(now === undefined ? {} : { now }),
        ...(values.nonce === undefined ? {} : { nonce: values.nonce }),
      }),
    );
    return 0;
  }
  throw new Error(`Unknown command ${command}\n${usage}`);
}

try {
  process.exitCode = main(process.argv.slice(2));
} catch (error) {
  console.error(`velmora-issue-pass: ${error instanceof Error ? error.message : String(error)}`);
  process.exitCode = 1;
}
