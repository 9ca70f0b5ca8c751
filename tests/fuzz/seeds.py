#!/usr/bin/env python3
"""Writes the fuzzer's seed corpus (corpus/*) in the byte format that
FuzzTarget.cpp describes: each seed is a story told with the helpers below."""
import os
import struct

FIELDS = ["bus", "dev", "interface", "altsetting", "manufacturer", "model", "desc", "version", "uri", "serial"]
COMPLETED, ERROR, TIMED_OUT, CANCELLED, STALL, NO_DEVICE, OVERFLOW = range(7)
ANDROID, ACCESSORY, ACCESSORY_ALONE = 0, 1, 2
SERIAL_UNREADABLE, IDS, CONFIGURATION, PORTS, INTERFACES = 4, 8, 16, 32, 64
# fakeusb::Function, in its order
(INIT, GET_DEVICE_LIST, GET_DEVICE_DESCRIPTOR, GET_CONFIG_DESCRIPTOR, GET_MAX_PACKET_SIZE, OPEN, GET_CONFIGURATION,
 SET_CONFIGURATION, KERNEL_DRIVER_ACTIVE, DETACH_KERNEL_DRIVER, CLAIM_INTERFACE, ALLOC_TRANSFER, SUBMIT_TRANSFER,
 CANCEL_TRANSFER, GET_NEXT_TIMEOUT, HANDLE_EVENTS, GET_POLLFDS) = range(17)
# libusb errors as fail() takes them: -1 to -12 are 0 to 11
IO, NO_DEVICE_ERROR, NOT_SUPPORTED = 0, 3, 11


def u16(v):
    return struct.pack("<H", v)


def text(s):
    b = s.encode() if isinstance(s, str) else bytes(s)
    return bytes([len(b)]) + b


def header(no_connection_log=False, **fields):
    mask = sum(1 << FIELDS.index(k) for k in fields)
    out = bytes([1 if no_connection_log else 0]) + u16(mask)
    return out + b"".join(text(fields[k]) for k in FIELDS if k in fields)


establish, activity, timer, destroy = b"\x00", b"\x01", b"\x02", b"\x0d"


def read(capacity): return b"\x03" + u16(capacity)
def write(length): return b"\x04" + u16(length)
def event_handle(extra=1): return b"\x05" + bytes([extra])
def prop(number, bearer=False): return b"\x06" + bytes([(0x80 if bearer else 0) | (number + 8)])
def fail(function, error=1, skip=0): return b"\x08" + bytes([function, error, skip])
def unplug(pick=0): return b"\x0a" + bytes([pick])
def next_timeout(ms): return b"\x0b" + u16(ms)


def plug(kind, bus, address, serial, interfaces=None, configuration=None, ids=None, ports=None):
    """configuration: (value, kernel driver: 0 none, 1 active, 2 status not supported, 3 an error);
    ids: (vendor, product, serial string index); ports: from the root hub down"""
    kind |= (INTERFACES if interfaces is not None else 0) | (CONFIGURATION if configuration else 0)
    kind |= (IDS if ids else 0) | (PORTS if ports is not None else 0)
    out = b"\x09" + bytes([kind, bus, address]) + text(serial)
    if ids:
        out += u16(ids[0]) + u16(ids[1]) + bytes([ids[2]])
    if configuration:
        out += bytes(configuration)
    if ports is not None:
        out += bytes([len(ports)]) + bytes(ports)
    if interfaces is not None:
        out += bytes([len(interfaces)])
        for alts in interfaces:
            out += bytes([len(alts)])
            for number, alt, cls, sub, proto, endpoints in alts:
                out += bytes([number, alt, cls, sub, proto, len(endpoints)])
                out += b"".join(bytes([a]) + u16(size) + bytes([2]) for a, size in endpoints)
    return out


def control(status=COMPLETED, reply=b""):
    """Ends the control transfer; the reply counts only for a request that reads."""
    return b"\x07" + bytes([status, len(reply)]) + reply


def phone_sends(length=0, handshake=False, literal=None, status=COMPLETED):
    mode = (1 if handshake else 0) | (2 if literal is not None else 0)
    body = bytes([len(literal)]) + bytes(literal) if literal is not None else u16(length)
    return b"\x0e" + bytes([status, mode]) + body


def phone_takes(status=COMPLETED, partial=None):
    return b"\x0f" + bytes([status]) + u16(0 if partial is None else 0x8000 | partial)


SERIAL = "R58M40"


def switch(statuses=()):
    """The phone at 1:5 answers version 2, the six strings and the start request."""
    out = establish + control(reply=b"\x02\x00") + activity
    for status in statuses:
        out += control(status) + activity
    for _ in range(7):
        out += control() + activity
    return out


def comes_back(serial=SERIAL, ticks=2):
    return unplug(0) + plug(ACCESSORY, 1, 6, serial) + timer * ticks


def handshake_and_connect(extra=0):
    return phone_sends(extra, handshake=True) + activity + phone_takes() + activity


SEEDS = {
    "road": header(bus="1", dev="5") + plug(ANDROID, 1, 5, SERIAL) + switch() + comes_back()
    + handshake_and_connect(40) + read(100) + write(300) + phone_takes() + activity + activity
    + event_handle() + event_handle(0) + prop(2) + prop(0, bearer=True) + prop(3, bearer=True) + destroy,
    "switch-retries": header(bus="1", dev="5", manufacturer="Acme", uri="x")
    + plug(ANDROID, 1, 5, SERIAL) + establish + control(ERROR) + activity
    + control(reply=b"\x01\x00") + activity + control(ERROR) + activity
    + control(ERROR) + activity + b"".join(control() + activity for _ in range(5))
    + control(ERROR) + activity + (control() + activity) * 2 + comes_back() + activity,
    "fallback": header(bus="1", dev="5") + plug(ANDROID | SERIAL_UNREADABLE, 1, 5, SERIAL) + switch()
    + unplug(0) + plug(ACCESSORY, 1, 7, "OTHER") + timer * 24 + activity
    + handshake_and_connect() + read(16) + destroy,
    "handshake-mismatch": header(bus="1", dev="9") + plug(ACCESSORY_ALONE, 1, 9, SERIAL) + establish
    + phone_sends(literal=b"DEV") + activity + phone_sends(status=TIMED_OUT) + activity
    + phone_sends(literal=b"\xff\xff\x00\x00\x0a\x0a\x44\x45\x57\x01") + activity
    + handshake_and_connect(5) + read(5) + destroy,
    "stream": header(bus="2", dev="3") + plug(ACCESSORY, 2, 3, SERIAL) + establish + handshake_and_connect()
    + b"".join(phone_sends(n) for n in (512, 0, 16384)) + activity + read(10) + read(512) + read(0)
    + read(20000) + read(20000) + write(512) + phone_takes(partial=100) + activity + write(1)
    + phone_takes() + activity + phone_takes() + activity + write(7) + phone_takes(TIMED_OUT, partial=3)
    + activity + phone_takes() + activity + next_timeout(1500) + write(0) + phone_takes() + activity
    + phone_sends(33, status=OVERFLOW) + activity + read(64) + read(64) + write(1) + activity + destroy,
    "hostile-interfaces": header(bus="1", dev="4", interface="1") + plug(ACCESSORY, 1, 4, SERIAL, [
        [(0, 0, 0xFF, 0x42, 0x01, [(0x82, 512), (0x02, 512)])],
        [(1, 0, 0xFF, 0xFF, 0, [(0x01, 64)]), (1, 1, 0xFF, 0xFF, 0, [(0x01, 64), (0x81, 3)])],
    ]) + establish + activity + destroy,
    "handshake-read-error-with-bytes": header(bus="1", dev="5") + plug(ACCESSORY, 1, 5, "R58M40") + establish
    + phone_sends(20, status=ERROR) + activity + read(100),
    "failures": header(bus="1", dev="5") + plug(ANDROID, 1, 5, SERIAL) + switch() + fail(OPEN, IO, 1)
    + comes_back(ticks=3) + activity + timer + handshake_and_connect() + fail(SUBMIT_TRANSFER, NOT_SUPPORTED)
    + write(512) + phone_takes() + activity + phone_takes() + activity + phone_sends(7)
    + fail(CANCEL_TRANSFER, NO_DEVICE_ERROR) + destroy,
    # Destroy cancels the data read, the cancellation fails: the close waits until the phone gives it back.
    "cancel-fails-at-destroy": header(bus="1", dev="5") + plug(ACCESSORY, 1, 5, SERIAL) + establish
    + handshake_and_connect() + next_timeout(250) + activity + next_timeout(0) + fail(CANCEL_TRANSFER, IO) + destroy,
    # A phone behind a hub that answers with another's ids, beside the one asked for.
    "hub-and-strangers": header(bus="3", dev="7", serial=SERIAL) + plug(ANDROID, 3, 2, "OTHER", ids=(0x04E8, 0x6860, 0))
    + plug(ACCESSORY, 3, 7, SERIAL, ports=[1, 4, 2]) + establish + activity + handshake_and_connect() + read(8) + destroy,
    "unconfigured-driver-bound": header(bus="1", dev="5") + plug(ACCESSORY, 1, 5, SERIAL, configuration=(0, 1))
    + establish + handshake_and_connect() + destroy,
}

# An accessory whose set-up fails at one libusb call.
for name, function, error, configuration in [("config-descriptor", GET_CONFIG_DESCRIPTOR, IO, None),
                                             ("set-configuration", SET_CONFIGURATION, IO, (0, 0)),
                                             ("packet-size", GET_MAX_PACKET_SIZE, IO, None),
                                             ("kernel-driver", KERNEL_DRIVER_ACTIVE, IO, None),
                                             ("detach", DETACH_KERNEL_DRIVER, IO, (1, 1))]:
    SEEDS["setup-" + name] = header(bus="1", dev="5") + plug(ACCESSORY, 1, 5, SERIAL, configuration=configuration) \
        + fail(function, error) + establish + activity + destroy

if __name__ == "__main__":
    corpus = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
    os.makedirs(corpus, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(corpus, name), "wb") as f:
            f.write(data)
