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
  test: {
    include: ['client/test/**/*.test.ts', 'pass-issuer/test/**/*.test.ts', 'demo/test/**/*.test.ts'],
    environment: 'node',
  },
});
