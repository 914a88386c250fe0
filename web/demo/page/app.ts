import {
  createHelperMediaStream,
  encodeWav,
  HelperClient,
  measureLevel,
  SampleHistory,
  SAMPLE_RATE,
  type ConnectionState,
  type ConnectionStatus,
  type HelperMediaStream,
  type StreamState,
  type StreamStatus,
} from '@velmora/audio-helper-client';
import { EventLog } from './EventLog.js';
import { LevelMeter } from './LevelMeter.js';
import { Waveform } from './Waveform.js';

const CONNECTION_LABELS: Record<ConnectionState, string> = {
  idle: 'Not connected',
  'needs-gesture': 'Waiting for you',
  connecting: 'Connecting…',
  ready: 'Connected',
  'helper-not-running': 'Helper not running',
  refused: 'Refused by the helper',
  'blocked-by-browser': 'Blocked by the browser',
  'incompatible-helper': 'Incompatible helper',
};

const STREAM_LABELS: Record<StreamState, string> = {
  stopped: 'Stopped',
  starting: 'Starting…',
  streaming: 'Streaming',
  'taken-over': 'Taken over',
  'device-error': 'Device error',
};

type Tone = 'muted' | 'ok' | 'warn' | 'bad' | 'live';

function element<T extends HTMLElement = HTMLElement>(id: string): T {
  const found = document.getElementById(id);
  if (!found) throw new Error(`The page has no #${id}`);
  return found as T;
}

async function fetchPass(): Promise<string> {
  // The server binds the pass to the Origin header the browser sends with this POST.
  const response = await fetch('/pass', { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{}' });
  const body = (await response.json().catch(() => ({}))) as { pass?: string; error?: string };
  if (!response.ok || typeof body.pass !== 'string') {
    throw new Error(body.error ?? `the pass request failed with HTTP ${response.status}`);
  }
  return body.pass;
}

const params = new URLSearchParams(location.search);
const helperPort = Number(params.get('helperPort') ?? '') || undefined;
const client = new HelperClient({ getPass: fetchPass, ...(helperPort ? { port: helperPort } : {}) });
const history = new SampleHistory(60);
const log = new EventLog(element<HTMLOListElement>('events'));
const waveform = new Waveform(element<HTMLCanvasElement>('waveform'));
const meter = new LevelMeter({
  meter: element('meter'),
  fill: element('meter-fill'),
  peak: element('meter-peak'),
  level: element('level-readout'),
  peakText: element('peak-readout'),
});

const ui = {
  pill: element('connection-pill'),
  pillText: element('connection-pill-text'),
  connectionState: element('connection-state'),
  connectionMessage: element('connection-message'),
  facts: element('helper-facts'),
  version: element('fact-version'),
  platform: element('fact-platform'),
  format: element('fact-format'),
  address: element('fact-address'),
  streamState: element('stream-state'),
  streamMessage: element('stream-message'),
  connect: element<HTMLButtonElement>('connect'),
  disconnect: element<HTMLButtonElement>('disconnect'),
  start: element<HTMLButtonElement>('start'),
  stop: element<HTMLButtonElement>('stop'),
  download: element<HTMLButtonElement>('download'),
  received: element('stat-received'),
  frames: element('stat-frames'),
  buffered: element('stat-buffered'),
  mediaToggle: element<HTMLInputElement>('mediastream-toggle'),
  mediaTrack: element('ms-track'),
  mediaContext: element('ms-context'),
  mediaLevel: element('ms-level'),
};

let receivedSamples = 0;

function render(): void {
  const status: ConnectionStatus = client.status;
  const stream: StreamStatus = client.streamStatus;
  ui.connectionState.textContent = CONNECTION_LABELS[status.state];
  ui.connectionState.dataset.state = status.state;
  const retry = status.retryInMs !== undefined && status.state !== 'connecting'
    ? ` Trying again in ${Math.max(1, Math.round(status.retryInMs / 1000))} s.`
    : '';
  ui.connectionMessage.textContent = status.message + retry;
  const hello = client.hello;
  ui.facts.hidden = !hello;
  if (hello) {
    ui.version.textContent = hello.version;
    ui.platform.textContent = hello.platform;
    ui.format.textContent = `${hello.format} · ${hello.sampleRate / 1000} kHz · ${hello.channels === 1 ? 'mono' : `${hello.channels} ch`}`;
    ui.address.textContent = new URL(client.url).host;
  }

  ui.streamState.textContent = STREAM_LABELS[stream.state];
  ui.streamState.dataset.state = stream.state;
  ui.streamMessage.textContent = streamMessage(stream, status.state);

  const ready = status.state === 'ready';
  const busy = stream.state === 'streaming' || stream.state === 'starting';
  ui.connect.disabled = ready || status.state === 'connecting';
  ui.disconnect.disabled = status.state === 'idle';
  ui.start.disabled = !ready || busy;
  ui.start.textContent = stream.state === 'taken-over' || stream.state === 'device-error' ? 'Start again' : 'Start';
  ui.stop.disabled = !busy;
  ui.download.disabled = history.length === 0;

  const [tone, text] = pill(status.state, stream.state);
  ui.pill.dataset.tone = tone;
  ui.pillText.textContent = text;
}

function streamMessage(stream: StreamStatus, connection: ConnectionState): string {
  switch (stream.state) {
    case 'streaming':
      return 'Receiving the computer\'s audio output: 16 kHz mono, one frame every 100 ms.';
    case 'starting':
      return 'Asking the server for a start pass and the helper for audio…';
    case 'taken-over':
      return 'Another page started streaming and now receives the audio. Start again to take it back.';
    case 'device-error':
      return `${stream.error?.message ?? 'The capture broke.'} Start again once the sound system is back.`;
    case 'stopped':
      if (stream.error) return stream.error.message;
      return connection === 'ready'
        ? 'Ready. Start streaming the computer\'s audio output.'
        : 'Connect, then start streaming the computer\'s audio output.';
  }
}

function pill(connection: ConnectionState, stream: StreamState): [Tone, string] {
  if (connection === 'ready') {
    if (stream === 'streaming') return ['live', 'Streaming'];
    if (stream === 'taken-over') return ['warn', 'Taken over'];
    if (stream === 'device-error') return ['bad', 'Device error'];
    return ['ok', 'Connected'];
  }
  if (connection === 'blocked-by-browser' || connection === 'incompatible-helper') return ['bad', CONNECTION_LABELS[connection]];
  if (connection === 'refused' || connection === 'helper-not-running') return ['warn', CONNECTION_LABELS[connection]];
  return ['muted', CONNECTION_LABELS[connection]];
}

client.on('state', (status) => {
  if (status.state === 'ready') log.add('info', 'helper', `Connected to the helper ${status.hello?.version ?? ''} on ${client.hello?.platform ?? ''}.`);
  if (status.state === 'refused' || status.state === 'blocked-by-browser' || status.state === 'incompatible-helper') {
    log.add('bad', CONNECTION_LABELS[status.state], status.message);
  }
  render();
});
client.on('stream', (stream) => {
  if (stream.state === 'streaming') log.add('info', 'stream', 'Streaming started.');
  if (stream.state === 'stopped' && stream.error && stream.error.code !== 'taken_over') {
    log.add('warn', stream.error.code.replaceAll('_', ' '), stream.error.message);
  }
  if (stream.state !== 'streaming') meter.reset();
  render();
});
client.on('takenOver', () => log.add('warn', 'taken over', 'Another page started streaming; this page no longer receives audio.'));
client.on('deviceError', (error) => log.add('bad', 'device error', error.message));
client.on('error', (error) => log.add('bad', error.code.replaceAll('_', ' '), error.message));
client.on('callEnded', (call) => log.add('call', 'call ended', `${call.name} (${call.app}, ${call.id})`));
client.on('audio', (frame) => {
  history.append(frame);
  waveform.push(frame);
  receivedSamples += frame.length;
  const level = measureLevel(frame);
  meter.update(level.dbfs, level.peak > 0 ? 20 * Math.log10(level.peak) : -Infinity);
});

ui.connect.addEventListener('click', () => void client.connect());
ui.disconnect.addEventListener('click', () => client.disconnect());
ui.start.addEventListener('click', () => {
  client.start().catch(() => {
    // The stream status carries the reason; render() shows it.
  });
});
ui.stop.addEventListener('click', () => void client.stop());
ui.download.addEventListener('click', () => {
  const wav = encodeWav(history.latest());
  const url = URL.createObjectURL(new Blob([wav], { type: 'audio/wav' }));
  const link = document.createElement('a');
  link.href = url;
  link.download = `velmora-${new Date().toISOString().replace(/[:.]/g, '-').slice(0, 19)}.wav`;
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(url), 10_000);
});
element('clear-events').addEventListener('click', () => log.clear());

// The MediaStream panel measures the stream with an analyser; nothing is played.
let media: { stream: HelperMediaStream; analyser: AnalyserNode; buffer: Float32Array<ArrayBuffer> } | null = null;
let mediaDbfs: number | null = null;
ui.mediaToggle.addEventListener('change', async () => {
  if (ui.mediaToggle.checked) {
    try {
      const stream = await createHelperMediaStream(client);
      const analyser = stream.context.createAnalyser();
      analyser.fftSize = 2048;
      stream.context.createMediaStreamSource(stream.stream).connect(analyser);
      media = { stream, analyser, buffer: new Float32Array(analyser.fftSize) };
      const track = stream.stream.getAudioTracks()[0];
      ui.mediaTrack.textContent = track ? `${track.readyState} · ${track.kind}` : 'none';
      ui.mediaContext.textContent = `${stream.context.sampleRate / 1000} kHz · ${stream.context.state}`;
    } catch (error) {
      ui.mediaToggle.checked = false;
      ui.mediaTrack.textContent = 'unavailable';
      log.add('bad', 'mediastream', error instanceof Error ? error.message : String(error));
    }
  } else if (media) {
    await media.stream.close();
    media = null;
    mediaDbfs = null;
    ui.mediaTrack.textContent = 'off';
    ui.mediaContext.textContent = '—';
    ui.mediaLevel.textContent = '—';
  }
});

function frameLoop(): void {
  waveform.draw();
  meter.draw();
  ui.received.textContent = `${(receivedSamples / SAMPLE_RATE).toFixed(1)} s`;
  ui.frames.textContent = client.framesReceived.toLocaleString();
  ui.buffered.textContent = `${(history.length / SAMPLE_RATE).toFixed(1)} s of 60 s`;
  ui.download.disabled = history.length === 0;
  if (media) {
    media.analyser.getFloatTimeDomainData(media.buffer);
    const level = measureLevel(media.buffer);
    mediaDbfs = level.dbfs;
    ui.mediaLevel.textContent = Number.isFinite(level.dbfs) ? `${level.dbfs.toFixed(1)} dBFS` : 'silent';
    ui.mediaContext.textContent = `${media.stream.context.sampleRate / 1000} kHz · ${media.stream.context.state}`;
  }
  requestAnimationFrame(frameLoop);
}

// For automated checks of the page: the client and what it received.
Object.assign(window, {
  velmoraDemo: {
    client,
    history,
    latestSamples: (count: number) => Array.from(history.latest(count)),
    mediaStreamDbfs: () => mediaDbfs,
  },
});

render();
requestAnimationFrame(frameLoop);
// Connects at once where the browser allows it without asking; otherwise waits for a click.
void client.connect();
