#!/usr/bin/python3
"""Encodes frames of OPERA, ORVEL S and ORVEL L: docs/formats.md in Python, with no part of the library.

    encoder.py opera   K2QRX             the chips of a frame, 1 = carrier on
    encoder.py orvel-s K2QRX
    encoder.py orvel-l K2QRX FN31
    encoder.py --stages orvel-s K2QRX    everything on the way to them

The LDPC codes are read from docs/ldpc-s.txt and docs/ldpc-l.txt.
"""

import pathlib
import sys

DOCS = pathlib.Path(__file__).resolve().parent.parent / "docs"

LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
DIGITS = "0123456789"
PLACES = (" " + LETTERS + DIGITS, LETTERS + DIGITS, DIGITS, " " + LETTERS, " " + LETTERS, " " + LETTERS)
LOCATOR_PLACES = ("ABCDEFGHIJKLMNOPQR", "ABCDEFGHIJKLMNOPQR", DIGITS, DIGITS, LETTERS[:24], LETTERS[:24])

OPERA_WHITENING = "111000010101011111100110110100000001100100010101011"


class Refused(ValueError):
    """A callsign or locator that no frame can carry."""


# ---- Callsign and locator --------------------------------------------------------------------------------------------


def upper(text):
    """Upper case of the 26 letters only."""
    return "".join(chr(ord(c) - 32) if "a" <= c <= "z" else c for c in text)


def normalise_call(text):
    """Six characters with the digit in the third place."""
    call = upper(text.lstrip(" ").split(" ")[0])
    if call[2:3] not in tuple(DIGITS):
        call = " " + call
    if len(call) > 6:
        raise Refused(text)
    call = call.ljust(6)
    if any(character not in place for character, place in zip(call, PLACES)):
        raise Refused(text)
    return call


def pack_call(call):
    value = 0
    for character, place in zip(call, PLACES):
        value = value * len(place) + place.index(character)
    return value


def pack_locator(text):
    if len(text) not in (4, 6) or any(c not in place for c, place in zip(upper(text), LOCATOR_PLACES)):
        raise Refused(text)
    place = [alphabet.index(c) for c, alphabet in zip(upper(text), LOCATOR_PLACES)]
    square = ((place[0] * 18 + place[1]) * 10 + place[2]) * 10 + place[3]
    return square * 577 + (place[4] * 24 + place[5] + 1 if len(place) == 6 else 0)


# ---- Bits ------------------------------------------------------------------------------------------------------------


def to_bits(value, count):
    """Most significant bit first."""
    return [value >> (count - 1 - i) & 1 for i in range(count)]


def add(a, b):
    return [x ^ y for x, y in zip(a, b)]


def text_of(bits):
    return "".join(map(str, bits))


def manchester(coded):
    chips = [1]
    for bit in coded:
        chips += [1 - bit, bit]
    return chips


# ---- OPERA -----------------------------------------------------------------------------------------------------------


def opera_crc(bits):
    """16 checksum bits over the text of the bits."""
    crc = 0
    for character in text_of(bits).encode("ascii"):
        crc ^= character
        for _ in range(8):
            crc = crc >> 1 ^ (0xA001 if crc & 1 else 0)
    return to_bits(crc & 0xFF or 27, 8) + to_bits(crc >> 8 or 43, 8)


def encode_opera(call, show):
    message = to_bits(pack_call(call), 28)
    message += opera_crc(message)
    message += opera_crc(message)[-3:]
    vector = [0] * 4 + message
    show("message", text_of(vector))
    vector = add(vector, map(int, OPERA_WHITENING))
    show("whitened", text_of(vector))

    numbers = [vector[3 * g] * 4 + vector[3 * g + 1] * 2 + vector[3 * g + 2] for g in range(17)]
    words = [[bin(number & j).count("1") % 2 for j in range(1, 8)] for number in numbers]
    show("words", " ".join(text_of(word) for word in words))
    coded = [words[k % 17][k // 17] for k in range(119)]
    show("coded", text_of(coded))
    return manchester(coded)


# ---- ORVEL -----------------------------------------------------------------------------------------------------------


def orvel_crc(bits, start):
    crc = start
    for bit in bits:
        feedback = crc >> 15 ^ bit
        crc = crc << 1 & 0xFFFF ^ (0x1021 if feedback else 0)
    return to_bits(crc, 16)


def whitening(seed, count):
    out = []
    for _ in range(count):
        out.append(seed & 1)
        seed = seed >> 1 | ((seed ^ seed >> 2 ^ seed >> 3 ^ seed >> 5) & 1) << 19
    return out


def read_code(name):
    """Length, message places and checks of a code."""
    checks = []
    for line in (DOCS / name).read_text(encoding="ascii").splitlines():
        kind, *numbers = line.split()
        if kind == "bits":
            length = int(numbers[0])
        elif kind == "message":
            places = list(map(int, numbers))
        elif kind == "check":
            checks.append(set(map(int, numbers)))
    return length, places, checks


def ldpc_encode(name, message):
    """The code word that has the message in its places and satisfies all checks, by elimination."""
    length, places, checks = read_code(name)
    word = [0] * length
    for place, bit in zip(places, message):
        word[place] = bit
    unknown = set(range(length)) - set(places)
    # Each check becomes: sum of its unknown bits = parity of its message bits.
    rows = [[check & unknown, sum(word[v] for v in check - unknown) % 2] for check in checks]
    for bit in unknown:
        pivot = next(row for row in rows if bit in row[0] and len(row) == 2)
        pivot.append(bit)
        for row in rows:
            if row is not pivot and bit in row[0]:
                row[0] = row[0] ^ pivot[0]
                row[1] ^= pivot[1]
    for _, parity, bit in rows:
        word[bit] = parity
    return word


def encode_orvel(payload, crc_start, seed, code, show):
    message = payload + orvel_crc(payload, crc_start)
    show("message", text_of(message))
    message = add(message, whitening(seed, len(message)))
    show("whitened", text_of(message))
    coded = ldpc_encode(code, message)
    show("coded", text_of(coded))
    return manchester(coded)


# ---- All -------------------------------------------------------------------------------------------------------------


def encode(protocol, call, locator=None, show=lambda name, text: None):
    """The chips of a frame as a list of 0 and 1; show(name, text) is called at every stage."""
    call = normalise_call(call)
    show("callsign", "'%s' = %d" % (call, pack_call(call)))
    payload = to_bits(pack_call(call), 28)
    if protocol == "opera":
        return encode_opera(call, show)
    if protocol == "orvel-s":
        return encode_orvel(payload, 0xFFFF, 370081, "ldpc-s.txt", show)
    if protocol == "orvel-l":
        show("locator", "'%s' = %d" % (upper(locator), pack_locator(locator)))
        return encode_orvel(payload + to_bits(pack_locator(locator), 25), 0x1D0F, 246727, "ldpc-l.txt", show)
    raise ValueError("no such protocol: " + protocol)


def main(arguments):
    stages = arguments[:1] == ["--stages"]
    arguments = arguments[stages:]
    if len(arguments) != {"opera": 2, "orvel-s": 2, "orvel-l": 3}.get(arguments[0] if arguments else None):
        print(__doc__, file=sys.stderr)
        return 2
    show = (lambda name, text: print("%-9s %s" % (name, text))) if stages else (lambda name, text: None)
    try:
        chips = encode(*arguments, show=show)
    except Refused as refused:
        print("encoder.py: '%s' cannot be carried by a frame" % refused, file=sys.stderr)
        return 2
    show("chips", text_of(chips))
    if not stages:
        print(text_of(chips))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
