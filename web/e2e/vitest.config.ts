import { fileURLToPath } from 'node:url';
import { defineConfig } from 'vitest/config';

// The browser tests: one real helper, one sound server and one Chromium, in order.
export default defineConfig({
  resolve: {
    alias: {
      '@velmora/audio-helper-client': fileURLToPath(new URL('../client/src/index.ts', import.meta.url)),
      '@velmora/pass-issuer': fileURLToPath(new URL('../pass-issuer/src/index.ts', import.meta.url)),
    },
  },
  // An address, not "localhost": the bundler would otherwise look that name up at start, which
  // fails on a machine whose /etc/hosts does not name it (a freshly bootstrapped Debian root).
  server: { host: '127.0.0.1' },
  test: {
    root: fileURLToPath(new URL('..', import.meta.url)),
    include: ['e2e/**/*.test.ts'],
    environment: 'node',
    testTimeout: 60_000,
    hookTimeout: 90_000,
    fileParallelism: false,
    sequence: { concurrent: false },
  },
});
