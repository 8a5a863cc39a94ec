#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/ from the input formats of the
three targets (see the *_check.h headers). Run from anywhere; it replaces the
seed-*.bin files it owns and leaves the others alone: regression-* (inputs
of findings) and found-* (what long runs added, merged down to one input per
new edge)."""

import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def blob(data):
    if isinstance(data, str):
        data = data.encode()
    if len(data) < 0xF0:
        return bytes([len(data)]) + data
    assert len(data) < 4096
    return bytes([0xF0 | (len(data) >> 8), len(data) & 0xFF]) + data


def varint(n):
    n &= (1 << 64) - 1
    out = bytearray()
    while True:
        b = n & 0x7F
        n >>= 7
        if n:
            out.append(b | 0x80)
        else:
            out.append(b)
            return bytes(out)


def field_varint(number, value):
    return varint(number << 3) + varint(value)


def field_bytes(number, data):
    if isinstance(data, str):
        data = data.encode()
    return varint((number << 3) | 2) + varint(len(data)) + data


def write(target, name, data):
    directory = os.path.join(HERE, "corpus", target)
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, "seed-" + name + ".bin"), "wb") as out:
        out.write(data)


def lru_key(index):
    return ("%20d" % index).encode()


# --- fuzz_stored_records ----------------------------------------------------

KINDS = ["fvhash", "trusted_signers", "signers_cache", "general_policy",
         "process_policy", "enrichment", "enrichment_lru"]


def params(start=0, count=255, rstart=1, rcount=2, bound_start=0,
           bound_limit=0, stop_after=0, absent_at=255):
    return bytes([start, count, rstart, rcount, bound_start, bound_limit,
                  stop_after, absent_at])


def records(pairs):
    return b"".join(blob(k) + blob(v) for k, v in pairs)


def stored_records_seeds():
    string_keys = [b"abc", b"ABC", b"a\x00b", b"Zerla::Persistence::KVStore::NullKey",
                   b"Zerla::Persistence::DB::NullKey", b"\xff" * 40]
    good_values = {
        "fvhash": [field_varint(1, 1), b""],
        "trusted_signers": [field_bytes(1, "Signer Inc."), b""],
        "signers_cache": [field_bytes(1, "c0ffee") + field_varint(2, 1700000000) +
                          field_varint(3, 7), b""],
        "general_policy": [field_bytes(1, b"\x00policy\x00"), b""],
        "process_policy": [field_bytes(1, b"blob"), b""],
        "enrichment": [field_bytes(1, field_varint(1, 1700000000) + field_varint(2, 3)) +
                       field_bytes(2, "/usr/bin/ls") +
                       field_bytes(3, field_bytes(2, "vendor") + field_varint(5, 1)) +
                       field_bytes(4, "ab" * 32) +
                       b"\x31" + struct.pack("<d", 0.5) + field_bytes(7, "ent"), b""],
        "enrichment_lru": [field_bytes(1, "deadbeef"), b""],
    }
    bad_values = [b"\xff", field_bytes(1, b"\xc3\x28"), b"\x0a\x05ab"]
    general_keys = [field_varint(1, 5), field_varint(1, 321), field_varint(1, 0),
                    field_varint(1, 0xFFFFFFFF), b"\x08", b"\x10\x01"]
    process_keys = [field_bytes(1, "proc") + field_varint(2, 5),
                    field_varint(2, 5) + field_bytes(1, "proc"),  # fields out of order
                    field_bytes(1, "") + field_varint(2, 0),
                    field_bytes(1, b"\xff\xfe") + field_varint(2, 1),
                    field_bytes(1, "z" * 300)]
    for kind_index, kind in enumerate(KINDS):
        if kind == "general_policy":
            keys = general_keys
        elif kind == "process_policy":
            keys = process_keys
        else:
            keys = string_keys
        goods = good_values[kind]
        for paranoid in (0, 1):
            selector = bytes([(kind_index << 1) | paranoid])
            mode = "paranoid" if paranoid else "lenient"
            clean = [(k, goods[i % len(goods)]) for i, k in enumerate(keys)]
            write("fuzz_stored_records", "%s-%s-clean" % (kind, mode),
                  selector + params(bound_start=1 | (1 << 2), bound_limit=2 | (3 << 2),
                                    stop_after=3, absent_at=1) + records(clean))
            mixed = list(clean)
            for i, bad in enumerate(bad_values):
                mixed.insert(1 + 2 * i, (keys[(i + 1) % len(keys)] + b"\x01", bad))
            write("fuzz_stored_records", "%s-%s-damaged" % (kind, mode),
                  selector + params(start=2, count=3, rstart=0, rcount=255,
                                    bound_start=3 | (2 << 2), bound_limit=0) + records(mixed))


# --- fuzz_lru_index ---------------------------------------------------------

def lru_raw(key):
    return b"\x00" + blob(key)


def lru_number(index):
    return b"\x01" + struct.pack("<Q", index & ((1 << 64) - 1))


def lru_patched(index, at, byte):
    return b"\x02" + struct.pack("<Q", index) + bytes([at, byte])


def lru_index_seeds():
    write("fuzz_lru_index", "empty", b"")
    write("fuzz_lru_index", "numbers", lru_number(7) + lru_number(1000) + lru_number(12))
    write("fuzz_lru_index", "max", lru_number((1 << 64) - 1) + lru_number(1))
    write("fuzz_lru_index", "digits-overflow", lru_raw(b"99999999999999999999"))
    write("fuzz_lru_index", "blank-inside", lru_raw(b"  12 34") + lru_number(5))
    write("fuzz_lru_index", "damaged-last", lru_number(3) + lru_patched(9, 19, ord("x")))
    write("fuzz_lru_index", "nul-byte", lru_patched(41, 0, 0) + lru_number(2))
    write("fuzz_lru_index", "above-digits", lru_number(8) + lru_raw(b"\xff"))
    write("fuzz_lru_index", "empty-key", lru_raw(b"") + lru_number(4))


# --- fuzz_families ----------------------------------------------------------

OP = {"fvhash_put": 0, "fvhash_check": 1, "fvhash_acp": 2, "signers_put": 3,
      "signers_check": 4, "cache_set": 5, "cache_get": 6, "cache_acp": 7,
      "general_set": 8, "general_get": 9, "general_bulk": 10,
      "general_clear_or_loaded": 11, "process_set": 12, "process_get": 13,
      "process_for_each": 14, "process_bulk": 15, "process_clear_or_loaded": 16,
      "enrichment_put": 17, "enrichment_get": 19, "enrichment_delete": 21,
      "enrichment_multi_get": 22, "enrichment_clear": 23, "null_parameters": 24,
      "verify": 25}


def op(name):
    return bytes([OP[name]])


def text(data):
    """A fresh text argument (selector below 0x80)."""
    return b"\x00" + blob(data)


def earlier(index, upper=False):
    return bytes([0x80 | (0x40 if upper else 0) | index])


def module(selector):
    return bytes([selector])


def enrichment_value(sha, last_used=None, image=b"/bin/true", score=1.5):
    out = blob(image) + blob(b"family") + blob(b"vendor") + struct.pack("<II", 2, 3) + b"\x01"
    out += text(sha) + blob(b"md5") + struct.pack("<d", score) + b"\x01" + blob(b"ent")
    if last_used is None:
        out += b"\x00"
    else:
        out += b"\x01" + struct.pack("<qQ", last_used, 9)
    return out


def families_seeds():
    write("fuzz_families", "fvhash",
          op("fvhash_put") + b"\x03" + b"\x01" + text("ABCDEF") + b"\x00" + text("") +
          b"\x01" + text("beef") + op("fvhash_check") + text("abcdef") +
          op("fvhash_check") + earlier(0) + op("fvhash_acp") + b"\x02" + text("KEY") +
          b"\x01\x01" + text("") + b"\x00" + op("verify"))
    write("fuzz_families", "signers",
          op("signers_put") + b"\x02" + blob("Name") + text("HASH") + blob(b"\xc3\x28") +
          text("x") + op("signers_put") + b"\x01" + blob("") + text("Hash") +
          op("signers_check") + text("hash") + op("verify"))
    write("fuzz_families", "cache",
          op("cache_set") + b"\x02" + text("k1") + blob("c1") + text("k2") + blob("c2") +
          op("cache_get") + earlier(0) + op("cache_get") + text("absent") +
          op("cache_acp") + b"\x02" + text("old") + blob("c3") +
          struct.pack("<qQ", 1000, 5) + text("new") + blob("c4") +
          struct.pack("<qQ", 4000000000, 6) + op("cache_get") + earlier(3) +
          op("cache_get") + earlier(4) + op("verify"))
    write("fuzz_families", "general",
          op("general_set") + module(1) + blob(b"\x00p\x00") + op("general_get") +
          module(1) + b"\x01" + op("general_get") + module(0) + b"\x01" +
          op("general_set") + module(29) + blob("x") + op("general_bulk") + b"\x02" +
          module(40) + module(2) + b"\x03" + blob("a") + blob("b") + blob("c") +
          op("general_clear_or_loaded") + b"\x00" + op("general_get") + module(40) +
          b"\x01" + op("verify"))
    write("fuzz_families", "process",
          op("process_set") + text("  Proc.EXE ") + module(2) + blob("policy") +
          op("process_get") + text("proc.exe") + module(2) + b"\x01" +
          op("process_set") + text(b"\xff\xfe") + module(3) + blob("p") +
          op("process_set") + text("p") + module(3) + blob("") +
          op("process_bulk") + b"\x02" + text("Raw") + module(0) + text("") + module(0) +
          b"\x01" + blob("v") + op("process_for_each") + op("process_clear_or_loaded") +
          b"\x00" + op("verify"))
    write("fuzz_families", "enrichment",
          op("enrichment_put") + text("H1") + enrichment_value("sha1") + b"\x00" +
          op("enrichment_put") + text("h2") + enrichment_value("sha2", 5000000000) + b"\x01" +
          op("enrichment_get") + earlier(0) + b"\x01" + op("enrichment_get") +
          earlier(0, upper=True) + b"\x00" + op("enrichment_multi_get") + b"\x02" +
          earlier(0) + earlier(2) + op("enrichment_delete") + earlier(0) + b"\x01" +
          op("enrichment_delete") + earlier(0) + b"\x00" + op("verify") +
          op("enrichment_put") + text("") + enrichment_value("s") + b"\x00" +
          op("enrichment_put") + text("bad") + enrichment_value("s", image=b"\xc3\x28") +
          b"\x00" + op("enrichment_clear") + b"\x01" + op("verify"))
    write("fuzz_families", "nulls",
          b"".join(op("null_parameters") + bytes([i]) for i in range(5)) +
          op("null_parameters") + b"\x05" + text("k"))


if __name__ == "__main__":
    stored_records_seeds()
    lru_index_seeds()
    families_seeds()
