#!/usr/bin/env node
// Runs the demo: `npm run demo` in web/, then open the printed address.
import { parseArgs } from 'node:util';
import { startDemoServer } from './DemoServer.js';

const { values } = parseArgs({
  options: {
    port: { type: 'string', default: process.env.DEMO_PORT ?? '5180' },
    host: { type: 'string', default: '127.0.0.1' },
    key: { type: 'string' },
  },
});

const port = Number(values.port);
if (!Number.isInteger(port) || port < 0 || port > 65535) {
  console.error(`demo: --port must be a port number, not ${values.port}`);
  process.exit(2);
}

try {
  const demo = await startDemoServer({
    port,
    host: values.host,
    ...(values.key ? { keyFile: values.key } : {}),
    onPass: (origin) => console.log(`Issued a start pass for ${origin}`),
  });
  console.log(`Demo page: ${demo.url}`);
  // scripts/run.sh allows the page in its helper's own settings and says so itself.
  if (process.env.VELMORA_DEMO_ORIGIN_ALLOWED !== '1') {
    console.log('The helper admits this page once you allow it (once per computer):');
    console.log('  velmora-audio-helper settings add-origin "http://localhost:*"');
  }
  console.log('Passes are signed with the DEVELOPMENT key: use a helper built with the dev preset.');
  const stop = () => void demo.close().then(() => process.exit(0));
  process.on('SIGINT', stop);
  process.on('SIGTERM', stop);
} catch (error) {
  const code = (error as NodeJS.ErrnoException).code;
  console.error(
    code === 'EADDRINUSE'
      ? `demo: port ${port} is in use; pick another with --port`
      : `demo: ${error instanceof Error ? error.message : String(error)}`,
  );
  process.exit(1);
}
