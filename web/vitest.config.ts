import { fileURLToPath } from 'node:url';
import { defineConfig } from 'vitest/config';

// Unit tests: no helper, no browser, no network. The packages are read from source, so the
// tests need no build first.
export default defineConfig({
  resolve: {
    alias: {
      '@velmora/audio-helper-client': fileURLToPath(new URL('./client/src/index.ts', import.meta.url)),
      '@velmora/pass-issuer': fileURLToPath(new URL('./pass-issuer/src/index.ts', import.meta.url)),
    },
  },
  // An address, not "localhost": the bundler would otherwise look that name up at start, which
  // fails on a machine whose /etc/hosts does not name it (a freshly bootstrapped Debian root).
  server: { host: '127.0.0.1' },
  test: {
    include: ['client/test/**/*.test.ts', 'pass-issuer/test/**/*.test.ts', 'demo/test/**/*.test.ts'],
    environment: 'node',
  },
});
