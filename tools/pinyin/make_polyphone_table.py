#!/usr/bin/env python3
"""Builds the polyphone table (resources/pinyin/PinyinDuoyinzi.json) from the
Unihan readings that Debian ships in the `unicode-data` package.

For every character from U+4E00 to U+9FA5 the readings are taken from
kTGHZ2013 (the 2013 general standard character list) when the character has
that field, else from kHanyuPinyin, kMandarin and kXHC1983 together. Readings
are made toneless ASCII the way ICU's Latin-ASCII transform does it: tone marks
and the diaeresis are dropped, so "lǜ" becomes "lu" and "ê" becomes "e".
They are ordered most frequent first by the kHanyuPinlu counts (summed over
tones); readings without a count follow, kMandarin's readings first, then in
the order the source lists them. Only characters left with more than one
toneless reading get a row: the mapper transliterates every other character.

Output: one JSON object, keys in code point order, one row per line:
    {
    "乐":["le","yue"],
    ...
    }

Usage: make_polyphone_table.py [--unihan FILE] [--output FILE] [--compare REF]
--compare prints how far the table agrees with another table of the same shape.
The word table (make_word_table.py) is chosen against this table's first
readings: rebuild it after this one.
"""
import argparse
import bz2
import json
import os
import re
import sys
import unicodedata

FIRST, LAST = 0x4E00, 0x9FA5
FIELDS = ("kTGHZ2013", "kHanyuPinyin", "kMandarin", "kXHC1983", "kHanyuPinlu")
DEFAULT_UNIHAN = "/usr/share/unicode/Unihan_Readings.txt.bz2"
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DEFAULT_OUTPUT = os.path.join(ROOT, "resources", "pinyin", "PinyinDuoyinzi.json")


def toneless(reading):
    """'lǜ' -> 'lu', 'ǹg' -> 'ng', 'ê̄' -> 'e'; None when not plain letters."""
    decomposed = unicodedata.normalize("NFD", reading.strip())
    letters = "".join(c for c in decomposed if unicodedata.category(c) != "Mn")
    letters = letters.replace("ɡ", "g").lower()
    return letters if re.fullmatch(r"[a-z]+", letters) else None


def readings_after_colons(value):
    """'131.140:háng 408.120:xíng' or '10520.010:dà,dài' -> readings in order."""
    out = []
    for entry in value.split():
        _, _, readings = entry.rpartition(":")
        out.extend(r for r in readings.split(",") if r)
    return out


def pinlu_counts(value):
    """'xíng(2943) háng(218)' -> {'xing': 2943, 'hang': 218}, tones summed."""
    counts = {}
    for reading, count in re.findall(r"([^\s(]+)\((\d+)\)", value):
        key = toneless(reading)
        if key:
            counts[key] = counts.get(key, 0) + int(count)
    return counts


def read_unihan(path):
    fields = {}
    opener = bz2.open if path.endswith(".bz2") else open
    with opener(path, "rt", encoding="utf-8") as lines:
        for line in lines:
            if not line.startswith("U+"):
                continue
            code, field, value = line.rstrip("\n").split("\t", 2)
            if field not in FIELDS:
                continue
            point = int(code[2:], 16)
            if FIRST <= point <= LAST:
                fields.setdefault(point, {})[field] = value
    return fields


def ordered_readings(entry):
    if "kTGHZ2013" in entry:
        source = readings_after_colons(entry["kTGHZ2013"])
    else:
        source = (readings_after_colons(entry.get("kHanyuPinyin", ""))
                  + entry.get("kMandarin", "").split()
                  + readings_after_colons(entry.get("kXHC1983", "")))
    candidates = []
    for reading in source:
        plain = toneless(reading)
        if plain and plain not in candidates:
            candidates.append(plain)
    counts = pinlu_counts(entry.get("kHanyuPinlu", ""))
    mandarin = [toneless(r) for r in entry.get("kMandarin", "").split()]
    mandarin_rank = {r: i for i, r in enumerate(mandarin) if r}

    def rank(item):
        position, reading = item
        return (-counts.get(reading, 0), mandarin_rank.get(reading, len(mandarin)), position)

    return [r for _, r in sorted(enumerate(candidates), key=rank)]


def build_table(fields):
    table = {}
    for point in sorted(fields):
        readings = ordered_readings(fields[point])
        if len(readings) > 1:
            table[chr(point)] = readings
    return table


def write_table(table, path):
    rows = [json.dumps(k, ensure_ascii=False) + ":" + json.dumps(v, separators=(",", ":"))
            for k, v in table.items()]
    text = "{\n" + ",\n".join(rows) + "\n}\n"
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    temporary = path + ".tmp"
    with open(temporary, "w", encoding="utf-8") as out:
        out.write(text)
    os.replace(temporary, path)


def compare(table, reference):
    ours, theirs = set(table), set(reference)
    both = ours & theirs
    same_first = sum(1 for k in both if table[k][0] == reference[k][0])
    same_set = sum(1 for k in both if set(table[k]) == set(reference[k]))
    same_list = sum(1 for k in both if table[k] == reference[k])
    print(f"rows: ours {len(ours)}, reference {len(theirs)}, both {len(both)}, "
          f"only ours {len(ours - theirs)}, only reference {len(theirs - ours)}")
    if both:
        pct = lambda n: f"{n} ({100.0 * n / len(both):.1f}%)"
        print(f"of the rows in both: same first reading {pct(same_first)}, "
              f"same reading set {pct(same_set)}, identical list {pct(same_list)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--unihan", default=DEFAULT_UNIHAN)
    parser.add_argument("--output", default=DEFAULT_OUTPUT)
    parser.add_argument("--compare", metavar="REFERENCE")
    args = parser.parse_args()
    if not os.path.exists(args.unihan):
        sys.exit(f"{args.unihan} is missing: apt-get install unicode-data")
    table = build_table(read_unihan(args.unihan))
    write_table(table, args.output)
    print(f"wrote {len(table)} polyphonic characters to {args.output}")
    if args.compare:
        with open(args.compare, encoding="utf-8") as ref:
            compare(table, json.load(ref))


if __name__ == "__main__":
    main()
