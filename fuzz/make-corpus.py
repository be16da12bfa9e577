#!/usr/bin/env python3
"""Writes the seed corpora under corpus/<harness>/: frames as the protocol
carries them (16-byte little-endian header, version 100, body padded to 8),
settings files and address texts, a target's answers as Find reads them,
and raw Ethernet stream frames. Run again after a change of the formats."""
import os
import struct

here = os.path.dirname(os.path.abspath(__file__))


def frame(kind, flags=0, p=(0, 0, 0, 0), body=b""):
    padded = (len(body) + 7) // 8 * 8
    pad = padded - len(body)
    length = 16 + padded + pad
    return struct.pack("<8H", 100, length, kind, flags, *p) + body + b"\0" * pad


def write(harness, seeds):
    folder = os.path.join(here, "corpus", harness)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as out:
            out.write(data)


pcm = struct.unpack("<4H", struct.pack("<Q", 0x003E00000E06))  # a format word as four parameters
stereo16 = struct.unpack("<4H", struct.pack("<Q", 0x000A00000202))
control, registration, log, linkHost = 0, 1, 2, 0x80

write("fuzz_target", {
    "discover": bytes([control]) + frame(0x0000),
    "port-list": bytes([control]) + frame(0x0002, 0, (0, 0, 1, 0)),
    "syncname": bytes([linkHost]) + frame(0x0016, 1, (0x4B45, 0x5354, 0x4152, 0x454E), b"studio"),
    "transferdata": bytes([control]) + frame(0x001C, 0, (0x8001, 0, 0, 0), b"abcdefgh"),
    "transfercheck": bytes([control]) + frame(0x001E, 0, (1, 0x1234, 0xFFFF, 0)),
    "settingvalue": bytes([control]) + frame(0x0032, 0, (1, 0, 0, 0)),
    "icon-pixels": bytes([control]) + frame(0x0040, 0, (1, 1, 1, 21)),
    "status": bytes([control]) + frame(0x0038, 0, (0, 0, 0, 1)),
    "synchro": bytes([linkHost]) + frame(0x0046, 0, (1, 0, 0, 0), struct.pack("<Q", 123456789)),
    "mtutest": bytes([control]) + frame(0x0050, 0, (0, 0, 9, 0), bytes(range(64))),
    "port-regist": bytes([registration]) + frame(0x8002, 2, (1, 1, 0, 0), b"Out A\0\0\0"),
    "status-regist": bytes([registration]) + frame(0x8003, 2, (2, 1, 0, 5), bytes(24) + b"playing"),
    "log-line": bytes([log]) + b"<14>Nov 24 08:00:00 sink: started",
})

write("fuzz_sink", {
    "format": b"\0" + frame(0x0004, 0, pcm),
    "latency": b"\0" + frame(0x0006, 0, (400, 0, 0, 0)),
    "datasize": b"\0" + frame(0x000E, 0, (0, 0, 0, 0), bytes(range(32))),
    "sinkinfo": b"\0" + frame(0x0014, 0, stereo16),
    "connectpre": b"\0" + frame(0x0012, 0, stereo16),
    "connect": b"\0" + frame(0x0008, 0, stereo16),
    "msconnect-mode1": b"\0" + frame(0x0048, 1, stereo16, bytes(16)),
    "msconnect-mode2": b"\0" + frame(0x0048, 2, stereo16, bytes(16)),
    "stream-framing0": b"\0" + frame(0x000A, 0x60, (0, 0, 0, 0), bytes(range(1, 33))),
    "stream-framing1": b"\1" + bytes(range(1, 33)) + b"\x80",
    "stream-framing2": b"\1" + b"\x81\0" + bytes(range(1, 33)),
    "status": b"\0" + frame(0x004C),
    "disconnect": b"\0" + frame(0x000C),
})

write("fuzz_stream_answers", {
    "stream-feedback": frame(0x000B, 1, (0x2000, 1, 0, 0)),
    "stream-resend": frame(0x000B, 3, (0, 0, 17, 3)),
    "connect": frame(0x0009, 1, (19642, 19643, 0, 0), bytes(8)),
    "msconnect": frame(0x0049, 1, (19642, 19643, 0x0800, 0), bytes(16)),
    "latency": frame(0x0007, 1, (40, 7, 3000, 0)),
    "sinkinfo": frame(0x0015, 1, (15000, 333, 1000, 2)),
    "datasize": frame(0x000F, 1, (1452, 0, 0, 0), bytes(range(32))),
})

write("fuzz_inffile", {
    "setting": b"[SETTING]\r\nTargetAddress=fe80::1%12,19642\r\nCycleTime=1000\r\nASIOBufferSize=256\r\n",
    "debug": b"[DEBUG]\nDebug=7\n",
    "cr-only": b"[SETTING]\rCycleTime=500\rDebug=6\r",
    "utf16": "[SETTING]\r\nCycleTime=1000\r\n".encode("utf-16"),
    "nul": b"[SETTING]\nCycle\0Time=1\n",
})

write("fuzz_address", {
    "link-local": b"fe80::1%12,19642",
    "loopback": b"::1,19640",
    "mapped": b"::ffff:192.168.1.7,80",
    "bracketed": b"[fe80::abcd:1]",
    "full": b"2001:db8:0:0:0:0:0:1",
})


def answer(flags=1, p=(0, 0, 0, 0), body=b""):
    """One answer of a target as the find harness's responder sends it."""
    return struct.pack("<6H", len(body), flags, *p) + body


def text(*strings):
    return b"\0".join(s.encode() for s in strings) + b"\0"


target_id = struct.unpack("<4H", struct.pack("<Q", 0x454E415254534B45))
port_map = b"\x01" + bytes(511) + bytes(512)
icon_row = bytes(range(0, 128, 4)) * 4  # 32 pixels of 4 bytes

# The first byte chooses the read (the harness's switch), the answers follow
# in the order the read asks.
write("fuzz_find_answers", {
    "discover": bytes([0]) + answer(1, target_id, text("test target")) + answer(1),
    "port-list": bytes([1]) + answer(1, (1, 0, 0, 0), port_map),
    "port-classes": bytes([1]) + answer(1, (1, 0, 1, 0)) + answer(1, (2, 0, 1, 0), port_map),
    "first-target": bytes([2]) + answer(1, (1, 0, 0, 0), port_map) + answer(1, (0, 0, 19643, 1), text("Out"))
    + answer(1, (1, 2, 0, 0)) + answer(1, (0, 0, 0, 0), text("[myaddress] box")),
    "texts": bytes([3]) + answer(1, (0, 0, 0, 0), text("first text")) + answer(1, (2, 0, 0, 0))
    + answer(1, (1, 1, 0, 0), text("one")) + answer(1, (1, 2, 0, 0), text("two"))
    + answer(1, (0, 0, 0, 0), bytes(range(16))) + answer(1, (0, 0, 0, 0), text("Invalid")),
    "status": bytes([4]) + answer(1, (2, 0, 0, 0))
    + answer(1, (1, 1, 19643, 1), bytes(16) + struct.pack("<H", 2) + bytes(6) + text("playing")),
    "settings": bytes([5]) + answer(1, (2, 0, 0, 0)) + answer(1, (1, 1, 0, 100), text("Volume"))
    + answer(1, (1, 40, 0, 40), text("40")) + answer(1, (2, 5, 0, 1), text("Mode"))
    + answer(1, (2, 1, 0, 1)) + answer(1, (2, 0, 0, 0), text("low")) + answer(1, (2, 0, 1, 0), text("high")),
    "icon": bytes([6]) + answer(1, (1, 32, 4, 0)) + answer(1, (1, 1, 1, 32), icon_row)
    + answer(1, (1, 2, 1, 32), icon_row),
    "slots": bytes([7]) + answer(1, (1, 0, 0, 0)) + answer(1, (1, 7, 0, 0), text("firmware", "v2"))
    + answer(1, (1, 0x1234, 0xFFFF, 0)),
    "mtu": bytes([8]) + b"".join(answer(1, (0, 0, n, 0)) for n in (1500, 1400, 1450, 1472, 1480)),
    "writes": bytes([9]) + answer(1, (1, 5, 0, 40), text("text")) + answer(1) + answer(1)
    + answer(1, (1, 0, 0, 0)) + answer(1, (1, 1, 0, 0)) + answer(1, (1, 2, 0, 0)) + answer(1, (1, 3, 0, 0))
    + answer(1, (1, 0xD1E1, 0xFFFF, 0)),
})


def raw_frame(tag, body, short=False):
    """A stream frame from the host 02:00:00:00:00:02 to the sink
    02:00:00:00:00:01, ether type 0x88B5, link byte 1."""
    head = bytes([2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2]) + struct.pack(">H", 0x88B5)
    if not short:
        return head + bytes([0x01, tag]) + body
    return head + bytes([0x81, tag, len(body)]) + bytes(7) + body + bytes(60 - 24 - len(body))


write("fuzz_sink_raw", {
    "full": raw_frame(0x05, bytes(range(1, 65))),
    "feedback": raw_frame(0x85, bytes(range(1, 33))),
    "short": raw_frame(0x06, bytes(range(1, 13)), short=True),
})
