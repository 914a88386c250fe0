const hostIsLittleEndian = new Uint8Array(new Uint16Array([1]).buffer)[0] === 1;

/**
 * Copies one binary audio message (little-endian 32-bit floats) into a new Float32Array that the
 * caller owns. Trailing bytes that do not make a whole sample are ignored.
 */
export function decodeFrame(data: ArrayBuffer | ArrayBufferView): Float32Array<ArrayBuffer> {
  const bytes = ArrayBuffer.isView(data)
    ? new Uint8Array(data.buffer, data.byteOffset, data.byteLength)
    : new Uint8Array(data);
  const count = Math.floor(bytes.byteLength / 4);
  if (hostIsLittleEndian) {
    // slice() copies, so the frame stays valid after the socket reuses or detaches its buffer.
    return new Float32Array(bytes.slice(0, count * 4).buffer);
  }
  const view = new DataView(bytes.buffer, bytes.byteOffset, count * 4);
  const samples = new Float32Array(count);
  for (let i = 0; i < count; i++) samples[i] = view.getFloat32(i * 4, true);
  return samples;
}

/** Whether a WebSocket message's data is binary (an audio frame) rather than text. */
export function isBinaryMessage(data: unknown): data is ArrayBuffer | ArrayBufferView {
  return data instanceof ArrayBuffer || ArrayBuffer.isView(data) || isArrayBufferLike(data);
}

// An ArrayBuffer from another realm (a worker or frame) fails instanceof but still names itself.
function isArrayBufferLike(value: unknown): boolean {
  return Object.prototype.toString.call(value) === '[object ArrayBuffer]';
}
