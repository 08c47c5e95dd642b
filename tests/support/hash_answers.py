#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Known answers for hash_api(), computed without the library.

hash_answers.py            prints the table
hash_answers.py --check F  fails unless the file F is this table

The hash is MurmurHash2 (32 bits) with a block reader of its own. With the ordinary little-endian
reader the same code has to give the published verification value of MurmurHash2, so that only the
reader is left to be wrong; that one is checked against its definition.
"""
import sys

MASK = 0xFFFFFFFF
VERIFICATION_VALUE = 0x27864C1E
STRING_SEED = 0xAA55AA55


def read_little_endian(block):
    return int.from_bytes(block, "little")


def read_without_first_byte(block):
    value = 0
    for byte in block:
        value = ((value | byte) << 8) & MASK
    return value


def murmur2(data, seed, read):
    m = 0x5BD1E995
    h = (seed ^ len(data)) & MASK
    whole = len(data) // 4 * 4
    for start in range(0, whole, 4):
        k = read(data[start : start + 4]) * m & MASK
        k ^= k >> 24
        h = (h * m & MASK) ^ (k * m & MASK)
    tail = data[whole:]
    if tail:
        h = (h ^ int.from_bytes(tail, "little")) * m & MASK
    h ^= h >> 13
    h = h * m & MASK
    return h ^ h >> 15


def verification_value():
    """The usual self-test of hash functions: 256 keys, then the hash of their hashes."""
    hashes = b""
    for size in range(256):
        hashes += murmur2(bytes(range(size)), 256 - size, read_little_endian).to_bytes(4, "little")
    return murmur2(hashes, 0, read_little_endian)


def keys():
    yield b""
    for text in ("a", "ab", "abc", "abcd", "xbcd", "abcde", "abcdef", "abcdefg", "abcdefgh"):
        yield text.encode()
    yield from (b"abcdXfgh", b"Xbcdefgh", b"aXcdefgh", b"abcXefgh")
    yield from (b"telemetry", b"The quick brown fox jumps over the lazy dog", "Grüße".encode())
    for size in range(1, 12):
        yield b"\xff" * size
        yield bytes(range(0x80, 0x80 + size))
    yield bytes(range(1, 256))


def table():
    assert verification_value() == VERIFICATION_VALUE, hex(verification_value())
    assert read_without_first_byte(bytes([1, 2, 3, 4])) == 0x02030400
    lines = ["/* SPDX-License-" "Identifier: Apache-2.0 */",
             "/* Made by tests/support/hash_answers.py: bytes, seed, hash. */"]
    for key in keys():
        for seed in (0, STRING_SEED):
            lines.append('{"%s", 0x%08x, 0x%08x},'
                         % (key.hex(), seed, murmur2(key, seed, read_without_first_byte)))
    return "\n".join(lines) + "\n"


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--check":
        with open(sys.argv[2], encoding="ascii") as file:
            return 0 if file.read() == table() else "the table in the tree is not the computed one"
    sys.stdout.write(table())
    return 0


if __name__ == "__main__":
    sys.exit(main())
