#!/usr/bin/env python3
"""Writes damaged copies of a seed archive, one per way a block's zlib stream
can be wrong, so that the fuzzer starts at each error path of the inflater:

  SEED-bad-adler.zorba     the stream's checksum does not match its bytes
  SEED-short-output.zorba  a valid stream that inflates to fewer bytes than
                           the block holds
  SEED-long-output.zorba   a valid stream that inflates to more bytes than
                           the block holds
  SEED-truncated.zorba     a stream cut short: its stored block claims more
                           bytes than the row holds

Each replaces the first compressed block in place, keeping its length, so
the archive's rows and offsets stay as they are.

  tests/fuzz/damage_seeds.py tests/fuzz/corpus/v3-b4096.zorba
"""
import struct
import sys
import zlib


def first_stream(data):
    """Offset and length of the first zlib stream that inflates to 512+ bytes."""
    for at in range(len(data)):
        inflater = zlib.decompressobj()
        try:
            out = inflater.decompress(data[at:at + 70000])
        except zlib.error:
            continue
        if inflater.eof and len(out) >= 512:
            return at, len(data) - at - len(inflater.unused_data)
    sys.exit("no compressed block found")


def stored_stream(payload, claimed):
    """A zlib stream of one final stored block claiming `claimed` bytes."""
    header = b"\x78\x01" + b"\x01" + struct.pack("<HH", claimed, claimed ^ 0xFFFF)
    return header + payload + struct.pack(">I", zlib.adler32(payload))


def main(seed):
    data = open(seed, "rb").read()
    at, length = first_stream(data)
    stream = data[at:at + length]
    n = length - 11  # payload of a stored stream as long as the original
    variants = {
        "bad-adler": stream[:-1] + bytes([stream[-1] ^ 0x5A]),
        "short-output": stored_stream(b"s" * n, n),
        "long-output": zlib.compress(b"L" * 70000, 9).ljust(length, b"\0"),
        "truncated": stored_stream(b"t" * (n + 4), 0xFFFF)[:length],
    }
    base = seed[:-len(".zorba")] if seed.endswith(".zorba") else seed
    for name, replacement in variants.items():
        assert len(replacement) == length, name
        with open("%s-%s.zorba" % (base, name), "wb") as out:
            out.write(data[:at] + replacement + data[at + length:])


if __name__ == "__main__":
    main(sys.argv[1])
