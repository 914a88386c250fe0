import { defineConfig } from 'vitest/config';

// Unit tests: no helper, no browser, no network.
export default defineConfig({
  test: {
    include: ['client/test/**/*.test.ts', 'pass-issuer/test/**/*.test.ts', 'demo/test/**/*.test.ts'],
    environment: 'node',
  },
});
