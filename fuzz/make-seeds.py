#!/usr/bin/env python3
"""Writes the committed seed corpora under fuzz/corpus/<target>/ (run again after a change).

Each seed is a small, meaningful input in the target's own input format (described at the top
of each fuzzer's source): valid messages, and the edge cases the server must answer properly.
"""
import pathlib
import shutil
import struct

root = pathlib.Path(__file__).resolve().parent / "corpus"


def write(target, seeds):
    folder = root / target
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name, data in seeds.items():
        (folder / name).write_bytes(data if isinstance(data, bytes) else data.encode())


# page_message_fuzzer: flags byte (bits 0-1 origin, bit 2 fresh valid pass), text, [NUL payload]
ORIGIN_PLAIN, ORIGIN_EMPTY, ORIGIN_LOCAL, ORIGIN_UNNORMALISED = 0, 1, 2, 3
FRESH_PASS = 4


def page(flags, text, payload=None):
    data = bytes([flags]) + text.encode()
    if payload is not None:
        data += b"\0" + payload.encode()
    return data


write("page_message_fuzzer", {
    "ping": page(ORIGIN_PLAIN, '{"type":"ping"}'),
    "stop": page(ORIGIN_PLAIN, '{"type":"stop"}'),
    "start-without-pass": page(ORIGIN_PLAIN, '{"type":"start"}'),
    "start-empty-pass": page(ORIGIN_LOCAL, '{"type":"start","pass":""}'),
    "start-pass-not-text": page(ORIGIN_PLAIN, '{"type":"start","pass":42}'),
    "start-valid-pass": page(FRESH_PASS | ORIGIN_PLAIN, '{"type":"start","pass":"$PASS"}'),
    "start-valid-pass-unnormalised-origin":
        page(FRESH_PASS | ORIGIN_UNNORMALISED, '{"pass":"$PASS","type":"start"}'),
    "start-malformed-pass": page(ORIGIN_PLAIN, '{"type":"start","pass":"abc.def.ghi"}'),
    "start-unsigned-pass": page(ORIGIN_PLAIN, '{"type":"start","pass":"eyJ2IjoxfQ.AAAA"}'),
    "start-signed-expired-payload": page(
        ORIGIN_PLAIN, '{"type":"start","pass":"$PASS"}',
        '{"v":1,"origin":"https://page.example","iat":1700000000,"nonce":"n0"}'),
    "start-signed-other-origin": page(
        ORIGIN_PLAIN, '{"type":"start","pass":"$PASS"}',
        '{"v":1,"origin":"https://elsewhere.example","iat":1700000000,"nonce":"n1"}'),
    "start-signed-payload-wrong-types": page(
        ORIGIN_EMPTY, '{"type":"start","pass":"$PASS"}',
        '{"v":"1","origin":null,"iat":"soon","nonce":7}'),
    "start-signed-payload-not-json": page(ORIGIN_PLAIN, '{"type":"start","pass":"$PASS"}', "v=1"),
    "empty-object": page(ORIGIN_PLAIN, "{}"),
    "array": page(ORIGIN_PLAIN, "[]"),
    "number": page(ORIGIN_PLAIN, "42"),
    "invalid-json": page(ORIGIN_PLAIN, '{"type":'),
    "type-not-text": page(ORIGIN_PLAIN, '{"type": 5}'),
    "unknown-type-case": page(ORIGIN_PLAIN, '{"type":"PING"}'),
    "unknown-type-escaped-nul": page(ORIGIN_PLAIN, '{"type":"a\\u0000b"}'),
    "unknown-type-unicode": page(ORIGIN_PLAIN, '{"type":"\u00e9\U0001f3a7"}'),
    "duplicate-type": page(ORIGIN_PLAIN, '{"type":"ping","type":"stop"}'),
    "deep-nesting": page(ORIGIN_PLAIN, '{"type":"ping","x":' + "[" * 200 + "]" * 200 + "}"),
    "invalid-utf8": bytes([ORIGIN_PLAIN]) + b'{"type":"\xff\xfe"}',
    "empty": bytes([ORIGIN_PLAIN]),
})


# upgrade_request_fuzzer: piece-size byte (bit 7: a page without Origin is allowed), request bytes
def request(headers, request_line="GET / HTTP/1.1", extra=b""):
    text = request_line + "\r\n" + "".join(h + "\r\n" for h in headers) + "\r\n"
    return text.encode() + extra


upgrade = [
    "Host: 127.0.0.1:52849",
    "Upgrade: websocket",
    "Connection: Upgrade",
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==",
    "Sec-WebSocket-Version: 13",
]
one_frame = bytes([0x81, 0x85, 1, 2, 3, 4]) + bytes(c ^ k for c, k in zip(b"hello", b"\1\2\3\4\1"))
ALLOW_ABSENT = 0x80

upgrade_seeds = {
    "allowed-origin": bytes([5]) + request(upgrade + ["Origin: https://page.example"]),
    "refused-origin": bytes([5]) + request(upgrade + ["Origin: https://elsewhere.example"]),
    "no-origin-refused": bytes([3]) + request(upgrade),
    "no-origin-allowed": bytes([ALLOW_ABSENT | 3]) + request(upgrade),
    "lowercase-origin-header": bytes([0]) + request(upgrade + ["origin: https://page.example"]),
    "two-origin-headers": bytes([1]) + request(
        upgrade + ["ORIGIN: https://elsewhere.example", "Origin: https://page.example"]),
    "empty-origin": bytes([2]) + request(upgrade + ["Origin: "]),
    "admitted-then-frame": bytes([4]) + request(upgrade + ["Origin: https://page.example"],
                                                extra=one_frame),
    "plain-get": bytes([5]) + request(["Host: 127.0.0.1"]),
    "post-upgrade": bytes([5]) + request(upgrade, "POST / HTTP/1.1"),
    "http-1-0": bytes([5]) + request(upgrade, "GET / HTTP/1.0"),
    "missing-key": bytes([5]) + request([h for h in upgrade if "Key" not in h]),
    "version-8": bytes([5]) + request(upgrade[:-1] + ["Sec-WebSocket-Version: 8"]),
    "key-too-long": bytes([5]) + request(
        [h for h in upgrade if "Key" not in h] + ["Sec-WebSocket-Key: " + "A" * 25,
                                                  "Origin: https://page.example"]),
    "missing-host": bytes([5]) + request(upgrade[1:] + ["Origin: https://page.example"]),
    "garbage": bytes([1]) + b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
    "incomplete": bytes([0]) + b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgr",
    "bare-newlines": bytes([5]) + request(upgrade).replace(b"\r\n", b"\n"),
    "header-over-cap": bytes([5]) + request(upgrade + ["X-Filler: " + "a" * 8300]),
    # In large pieces: the parser's own limit lets this one through; the cap must not.
    "header-just-over-cap-large-pieces": bytes([5]) + request(
        upgrade + ["Origin: https://page.example", "X-Filler: " + "b" * 8100]),
    # In single bytes: refused as soon as the cap is reached, before the rest is sent.
    "header-over-cap-single-bytes": bytes([0]) + request(upgrade + ["X-Filler: " + "a" * 8300]),
    "header-just-under-cap": bytes([5]) + request(
        upgrade + ["Origin: https://page.example", "X-Filler: " + "b" * 7900]),
    "folded-header": bytes([5]) + request(upgrade + ["Origin: https://page.example", " folded"]),
}
over = len(upgrade_seeds["header-just-over-cap-large-pieces"]) - 1
assert 8192 < over < 8192 + 512, over
write("upgrade_request_fuzzer", upgrade_seeds)


# websocket_frames_fuzzer: piece-size byte (bit 7: the peer never reads), then operations
MASK = bytes([0x37, 0xFA, 0x21, 0x3D])
UNMASKED, LONG_FORM = 0x10, 0x20


def inline(header, payload, flags=0):
    return bytes([1 | flags, header]) + struct.pack("<H", len(payload)) + MASK + payload


def generated(header, length, fill=b"a", flags=0):
    return bytes([2 | flags, header]) + struct.pack("<I", length)[:3] + fill + MASK


def raw(data):
    return bytes([0, len(data)]) + data


TEXT, BINARY, CONTINUATION, CLOSE, PING, PONG = 0x1, 0x2, 0x0, 0x8, 0x9, 0xA
FIN = 0x80
NEVER_READS = 0x80

write("websocket_frames_fuzzer", {
    "text": bytes([3]) + inline(FIN | TEXT, b'{"type":"ping"}'),
    "binary-frame-size": bytes([4]) + generated(FIN | BINARY, 6400, b"\0"),
    "fragmented-text": bytes([1]) + inline(TEXT, b"hel") + inline(FIN | CONTINUATION, b"lo"),
    "ping-pong-close": bytes([2]) + inline(FIN | PING, b"p") + inline(FIN | PONG, b"")
        + inline(FIN | CLOSE, struct.pack(">H", 1000) + b"bye"),
    "ping-between-fragments": bytes([0]) + inline(TEXT, b"a") + inline(FIN | PING, b"x")
        + inline(FIN | CONTINUATION, b"b"),
    "largest-message": bytes([5]) + generated(FIN | TEXT, 65536),
    "message-over-limit": bytes([5]) + generated(FIN | TEXT, 65537),
    "fragments-over-limit": bytes([4]) + generated(BINARY, 40000) +
        generated(FIN | CONTINUATION, 30000),
    "unmasked": bytes([3]) + inline(FIN | TEXT, b"hi", UNMASKED),
    "non-minimal-length": bytes([3]) + inline(FIN | TEXT, b"hi", LONG_FORM),
    "reserved-bits": bytes([3]) + inline(FIN | 0x40 | TEXT, b"hi"),
    "reserved-opcode": bytes([3]) + inline(FIN | 0x3, b"hi"),
    "invalid-utf8": bytes([1]) + inline(FIN | TEXT, b"\xff\xfe"),
    "utf8-split-across-fragments": bytes([1]) + inline(TEXT, "\u00e9".encode()[:1])
        + inline(FIN | CONTINUATION, "\u00e9".encode()[1:]),
    "fragmented-control": bytes([2]) + inline(PING, b"x"),
    "control-too-long": bytes([2]) + inline(FIN | PING, b"p" * 200),
    "continuation-without-start": bytes([2]) + inline(FIN | CONTINUATION, b"x"),
    "close-bad-code": bytes([2]) + inline(FIN | CLOSE, struct.pack(">H", 999)),
    "close-one-byte": bytes([2]) + inline(FIN | CLOSE, b"\x03"),
    "huge-declared-length": bytes([3]) + raw(bytes([0x82, 0xFF]) + b"\x7f" + b"\xff" * 7 + MASK),
    "garbage": bytes([0]) + raw(b"GET / HTTP/1.1\r\n\r\n"),
    "echoes-pile-up": bytes([NEVER_READS | 5]) + generated(FIN | BINARY, 65536, b"\x01") * 10,
})
