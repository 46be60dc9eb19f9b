#!/usr/bin/env python3
"""Generates src/util/generated_UTF8FindEngine.{h,cc}: the charset tables and
the sorted alias table that UTF8Converter::find_engine searches.

Source of the mappings: the charmaps of the C library's locale data
(/usr/share/i18n/charmaps/*.gz, Debian package "locales"). Each charmap line
"<Uxxxx> /xHH/xHH ..." maps a byte sequence to a code point; range lines
"<Uaaaa>..<Ubbbb> /xHH..." map consecutive sequences to consecutive code
points. When one byte sequence appears twice, the first line wins.

Usage: scripts/gen_utf8_tables.py [--charmaps DIR] [--out DIR]
Running it again over the same charmaps reproduces the committed files byte
for byte.

Engines (conversion routines of UTF8Converter):
  sbcs     one byte -> one code point through a 256-entry table
  dbcs     single bytes and lead+trail pairs through a table
  mbcs     dbcs plus three-byte sequences after 0x8F (EUC-JP, JIS X 0212 part)
           and four-byte sequences (GB18030) through ranges
  utf8     validation and pass-through
  utf16le, utf16be, utf32le, utf32be
           fixed byte order, a byte order mark at the start may flip it
  ucs2     two-byte units without surrogate pairs, little-endian unless a
           byte order mark says otherwise

Which names map to which table (all names normalised: lower case, letters
and digits only) is the ALIASES list below; the generated table lists them
again in sorted order with the table each one uses.
"""

import argparse
import gzip
import os
import re
import sys

# (table id, charmap file, kind). Kinds: "sbcs" for one-byte charsets,
# "dbcs" for one- and two-byte ones, "eucjp" and "gb18030" for the two
# multi-byte sets with longer sequences, "x0212" for the three-byte part of
# EUC-JP taken on its own (its two trailing bytes).
TABLES = [
    ("ascii", "ANSI_X3.4-1968", "sbcs"),
    ("iso88591", "ISO-8859-1", "sbcs"),
    ("iso88592", "ISO-8859-2", "sbcs"),
    ("iso88593", "ISO-8859-3", "sbcs"),
    ("iso88594", "ISO-8859-4", "sbcs"),
    ("iso88595", "ISO-8859-5", "sbcs"),
    ("iso88596", "ISO-8859-6", "sbcs"),
    ("iso88597", "ISO-8859-7", "sbcs"),
    ("iso88598", "ISO-8859-8", "sbcs"),
    ("iso88599", "ISO-8859-9", "sbcs"),
    ("iso885910", "ISO-8859-10", "sbcs"),
    ("iso885911", "ISO-8859-11", "sbcs"),
    ("iso885913", "ISO-8859-13", "sbcs"),
    ("iso885914", "ISO-8859-14", "sbcs"),
    ("iso885915", "ISO-8859-15", "sbcs"),
    ("iso885916", "ISO-8859-16", "sbcs"),
    ("cp1250", "CP1250", "sbcs"),
    ("cp1251", "CP1251", "sbcs"),
    ("cp1252", "CP1252", "sbcs"),
    ("cp1253", "CP1253", "sbcs"),
    ("cp1254", "CP1254", "sbcs"),
    ("cp1255", "CP1255", "sbcs"),
    ("cp1256", "CP1256", "sbcs"),
    ("cp1257", "CP1257", "sbcs"),
    ("cp1258", "CP1258", "sbcs"),
    ("cp437", "IBM437", "sbcs"),
    ("cp737", "CP737", "sbcs"),
    ("cp775", "CP775", "sbcs"),
    ("cp850", "IBM850", "sbcs"),
    ("cp852", "IBM852", "sbcs"),
    ("cp855", "IBM855", "sbcs"),
    ("cp857", "IBM857", "sbcs"),
    ("cp858", "IBM858", "sbcs"),
    ("cp860", "IBM860", "sbcs"),
    ("cp861", "IBM861", "sbcs"),
    ("cp862", "IBM862", "sbcs"),
    ("cp863", "IBM863", "sbcs"),
    ("cp864", "IBM864", "sbcs"),
    ("cp865", "IBM865", "sbcs"),
    ("cp866", "IBM866", "sbcs"),
    ("cp869", "IBM869", "sbcs"),
    ("cp874", "IBM874", "sbcs"),
    ("tis620", "TIS-620", "sbcs"),
    ("koi8r", "KOI8-R", "sbcs"),
    ("koi8u", "KOI8-U", "sbcs"),
    ("koi8ru", "KOI8-RU", "sbcs"),
    ("koi8t", "KOI8-T", "sbcs"),
    ("macintosh", "MACINTOSH", "sbcs"),
    ("maccyrillic", "MAC-CYRILLIC", "sbcs"),
    ("maccentraleurope", "MAC-CENTRALEUROPE", "sbcs"),
    ("ibm037", "IBM037", "sbcs"),
    ("ibm273", "IBM273", "sbcs"),
    ("ibm277", "IBM277", "sbcs"),
    ("ibm278", "IBM278", "sbcs"),
    ("ibm280", "IBM280", "sbcs"),
    ("ibm284", "IBM284", "sbcs"),
    ("ibm285", "IBM285", "sbcs"),
    ("ibm297", "IBM297", "sbcs"),
    ("ibm500", "IBM500", "sbcs"),
    ("ibm1047", "IBM1047", "sbcs"),
    ("jisx0201", "JIS_X0201", "sbcs"),
    ("big5", "BIG5", "dbcs"),
    ("cp949", "CP949", "dbcs"),
    ("gbk", "GBK", "dbcs"),
    ("shiftjis", "SHIFT_JIS", "dbcs"),
    ("cp932", "WINDOWS-31J", "dbcs"),
    ("jisx0212", "EUC-JP", "x0212"),
    ("eucjp", "EUC-JP", "eucjp"),
    ("gb18030", "GB18030", "gb18030"),
]

# name -> (engine, table id or None). Names of one charset stay together.
ALIASES = [
    # US-ASCII
    ("ansi", "ascii"), ("ansix341968", "ascii"), ("ansix341986", "ascii"), ("ascii", "ascii"),
    ("cp367", "ascii"), ("csascii", "ascii"), ("ibm367", "ascii"), ("iso646irv1991", "ascii"),
    ("iso646us", "ascii"), ("isoir6", "ascii"), ("us", "ascii"), ("usascii", "ascii"),
    # ISO 8859
    ("cp819", "iso88591"), ("ibm819", "iso88591"), ("iso88591", "iso88591"), ("iso885911987", "iso88591"),
    ("isoir100", "iso88591"), ("l1", "iso88591"), ("latin1", "iso88591"), ("csisolatin1", "iso88591"),
    ("iso88592", "iso88592"), ("iso885921987", "iso88592"), ("isoir101", "iso88592"), ("l2", "iso88592"),
    ("latin2", "iso88592"), ("csisolatin2", "iso88592"),
    ("iso88593", "iso88593"), ("iso885931988", "iso88593"), ("isoir109", "iso88593"), ("l3", "iso88593"),
    ("latin3", "iso88593"), ("csisolatin3", "iso88593"),
    ("iso88594", "iso88594"), ("iso885941988", "iso88594"), ("isoir110", "iso88594"), ("l4", "iso88594"),
    ("latin4", "iso88594"), ("csisolatin4", "iso88594"),
    ("cyrillic", "iso88595"), ("iso88595", "iso88595"), ("iso885951988", "iso88595"), ("isoir144", "iso88595"),
    ("csisolatincyrillic", "iso88595"),
    ("arabic", "iso88596"), ("asmo708", "iso88596"), ("ecma114", "iso88596"), ("iso88596", "iso88596"),
    ("iso885961987", "iso88596"), ("isoir127", "iso88596"), ("csisolatinarabic", "iso88596"),
    ("ecma118", "iso88597"), ("elot928", "iso88597"), ("greek", "iso88597"), ("greek8", "iso88597"),
    ("iso88597", "iso88597"), ("iso885971987", "iso88597"), ("isoir126", "iso88597"),
    ("csisolatingreek", "iso88597"),
    ("hebrew", "iso88598"), ("iso88598", "iso88598"), ("iso885981988", "iso88598"), ("iso88598i", "iso88598"),
    ("isoir138", "iso88598"), ("csisolatinhebrew", "iso88598"),
    ("iso88599", "iso88599"), ("iso885991989", "iso88599"), ("isoir148", "iso88599"), ("l5", "iso88599"),
    ("latin5", "iso88599"), ("csisolatin5", "iso88599"),
    ("iso885910", "iso885910"), ("iso8859101992", "iso885910"), ("isoir157", "iso885910"),
    ("l6", "iso885910"), ("latin6", "iso885910"), ("csisolatin6", "iso885910"),
    ("iso885911", "iso885911"),
    ("iso885913", "iso885913"), ("isoir179", "iso885913"), ("l7", "iso885913"), ("latin7", "iso885913"),
    ("iso885914", "iso885914"), ("iso8859141998", "iso885914"), ("isoceltic", "iso885914"),
    ("isoir199", "iso885914"), ("l8", "iso885914"), ("latin8", "iso885914"),
    ("iso885915", "iso885915"), ("iso8859151998", "iso885915"), ("l9", "iso885915"), ("latin0", "iso885915"),
    ("latin9", "iso885915"),
    ("iso885916", "iso885916"), ("iso8859162001", "iso885916"), ("isoir226", "iso885916"),
    ("l10", "iso885916"), ("latin10", "iso885916"),
    # Windows code pages
    ("cp1250", "cp1250"), ("windows1250", "cp1250"),
    ("cp1251", "cp1251"), ("windows1251", "cp1251"),
    ("cp1252", "cp1252"), ("windows1252", "cp1252"),
    ("cp1253", "cp1253"), ("windows1253", "cp1253"),
    ("cp1254", "cp1254"), ("windows1254", "cp1254"),
    ("cp1255", "cp1255"), ("windows1255", "cp1255"),
    ("cp1256", "cp1256"), ("windows1256", "cp1256"),
    ("cp1257", "cp1257"), ("windows1257", "cp1257"),
    ("cp1258", "cp1258"), ("windows1258", "cp1258"),
    # DOS code pages
    ("cp437", "cp437"), ("ibm437", "cp437"), ("cspc8codepage437", "cp437"),
    ("cp737", "cp737"), ("ibm737", "cp737"),
    ("cp775", "cp775"), ("ibm775", "cp775"),
    ("850", "cp850"), ("cp850", "cp850"), ("ibm850", "cp850"), ("cspc850multilingual", "cp850"),
    ("852", "cp852"), ("cp852", "cp852"), ("ibm852", "cp852"),
    ("855", "cp855"), ("cp855", "cp855"), ("ibm855", "cp855"),
    ("857", "cp857"), ("cp857", "cp857"), ("ibm857", "cp857"),
    ("858", "cp858"), ("cp858", "cp858"), ("ibm858", "cp858"), ("ibm00858", "cp858"),
    ("860", "cp860"), ("cp860", "cp860"), ("ibm860", "cp860"),
    ("861", "cp861"), ("cp861", "cp861"), ("ibm861", "cp861"), ("cpis", "cp861"),
    ("862", "cp862"), ("cp862", "cp862"), ("ibm862", "cp862"),
    ("863", "cp863"), ("cp863", "cp863"), ("ibm863", "cp863"),
    ("864", "cp864"), ("cp864", "cp864"), ("ibm864", "cp864"),
    ("865", "cp865"), ("cp865", "cp865"), ("ibm865", "cp865"),
    ("866", "cp866"), ("cp866", "cp866"), ("ibm866", "cp866"), ("csibm866", "cp866"),
    ("869", "cp869"), ("cp869", "cp869"), ("ibm869", "cp869"), ("cpgr", "cp869"),
    # Thai
    ("cp874", "cp874"), ("ibm874", "cp874"),
    ("tis620", "tis620"), ("tis62025291", "tis620"), ("tis62025330", "tis620"), ("isoir166", "tis620"),
    ("tis6200", "tis620"),
    # Cyrillic KOI8
    ("koi8", "koi8r"), ("koi8r", "koi8r"), ("cskoi8r", "koi8r"), ("koi8u", "koi8u"), ("koi8ru", "koi8ru"), ("koi8t", "koi8t"),
    # Macintosh
    ("mac", "macintosh"), ("macintosh", "macintosh"), ("macroman", "macintosh"), ("csmacintosh", "macintosh"),
    ("maccyrillic", "maccyrillic"), ("maccentraleurope", "maccentraleurope"), ("macce", "maccentraleurope"),
    # EBCDIC
    ("cp037", "ibm037"), ("ebcdiccpca", "ibm037"), ("ebcdiccpus", "ibm037"), ("ibm037", "ibm037"),
    ("cp273", "ibm273"), ("ibm273", "ibm273"),
    ("ebcdiccpdk", "ibm277"), ("ebcdiccpno", "ibm277"), ("ibm277", "ibm277"),
    ("cp278", "ibm278"), ("ebcdiccpfi", "ibm278"), ("ebcdiccpse", "ibm278"), ("ibm278", "ibm278"),
    ("cp280", "ibm280"), ("ebcdiccpit", "ibm280"), ("ibm280", "ibm280"),
    ("cp284", "ibm284"), ("ebcdiccpes", "ibm284"), ("ibm284", "ibm284"),
    ("cp285", "ibm285"), ("ebcdiccpgb", "ibm285"), ("ibm285", "ibm285"),
    ("cp297", "ibm297"), ("ebcdiccpfr", "ibm297"), ("ibm297", "ibm297"),
    ("cp500", "ibm500"), ("ebcdiccpbe", "ibm500"), ("ebcdiccpch", "ibm500"), ("ibm500", "ibm500"),
    ("cp1047", "ibm1047"), ("ibm1047", "ibm1047"),
    # Japanese
    ("jisx0201", "jisx0201"), ("x0201", "jisx0201"),
    ("jisx0212", "jisx0212"), ("jisx02121990", "jisx0212"), ("x0212", "jisx0212"),
    ("mskanji", "shiftjis"), ("shiftjis", "shiftjis"), ("sjis", "shiftjis"), ("csshiftjis", "shiftjis"),
    ("cp932", "cp932"), ("ibm943", "cp932"), ("mscp932", "cp932"), ("ms932", "cp932"),
    ("cseucpkdfmtjapanese", "eucjp"), ("eucjp", "eucjp"), ("ujis", "eucjp"),
    # Chinese
    ("big5", "big5"), ("bigfive", "big5"), ("cnbig5", "big5"), ("cp950", "big5"), ("csbig5", "big5"),
    ("chinese", "gbk"), ("cp936", "gbk"), ("csgb2312", "gbk"), ("euccn", "gbk"), ("gb2312", "gbk"),
    ("gbk", "gbk"), ("ms936", "gbk"),
    ("gb18030", "gb18030"),
    # Korean
    ("cp949", "cp949"), ("cseuckr", "cp949"), ("euckr", "cp949"), ("korean", "cp949"),
    ("ksc5601", "cp949"), ("ksc56011987", "cp949"), ("uhc", "cp949"),
    # Unicode forms (no table)
    ("cp65001", "@utf8"), ("unicode11utf8", "@utf8"), ("unicode20utf8", "@utf8"), ("utf8", "@utf8"),
    ("unicodelittle", "@utf16le"), ("utf16le", "@utf16le"),
    ("unicodebig", "@utf16be"), ("utf16", "@utf16be"), ("utf16be", "@utf16be"),
    ("ucs4", "@utf32be"), ("ucs4be", "@utf32be"), ("utf32", "@utf32be"), ("utf32be", "@utf32be"),
    ("csucs4", "@utf32be"), ("iso10646ucs4", "@utf32be"),
    ("ucs4le", "@utf32le"), ("utf32le", "@utf32le"),
    ("csunicode", "@ucs2"), ("iso10646ucs2", "@ucs2"), ("ucs2", "@ucs2"), ("ucs2le", "@ucs2"),
    ("ucs2be", "@utf16be"),
]

EXPECTED_ALIASES = 275
EXPECTED_TABLES = 69

ENGINE_OF_KIND = {"sbcs": "SBCS", "dbcs": "DBCS", "x0212": "DBCS", "eucjp": "MBCS", "gb18030": "MBCS"}

LINE_RE = re.compile(r"^<U([0-9A-Fa-f]+)>(?:\.\.<U([0-9A-Fa-f]+)>)?\s+((?:/x[0-9A-Fa-f]{2})+)")


def read_charmap(path):
    """Returns a list of (bytes, codepoint) in file order, ranges expanded.
    The mapping stands between "CHARMAP" and "END CHARMAP"; a few files lack
    those lines and are read whole."""
    with gzip.open(path, "rt", encoding="latin-1") as f:
        lines = f.read().splitlines()
    if any(line.startswith("CHARMAP") for line in lines):
        start = next(i for i, line in enumerate(lines) if line.startswith("CHARMAP")) + 1
        lines = lines[start:]
    out = []
    for line in lines:
        if line.startswith("END CHARMAP"):
            break
        m = LINE_RE.match(line)
        if not m:
            continue
        first = int(m.group(1), 16)
        last = int(m.group(2), 16) if m.group(2) else first
        seq = bytes(int(h, 16) for h in m.group(3).split("/x")[1:])
        for i in range(last - first + 1):
            out.append((increment(seq, i), first + i))
    return out


def increment(seq, n):
    """The byte sequence n places after seq. Four-byte GB18030 sequences
    count in their mixed radix; others step the last byte."""
    if n == 0:
        return seq
    if len(seq) == 4:
        return from_linear(to_linear(seq) + n)
    return seq[:-1] + bytes([seq[-1] + n])


def to_linear(seq):
    b1, b2, b3, b4 = seq
    return (((b1 - 0x81) * 10 + (b2 - 0x30)) * 126 + (b3 - 0x81)) * 10 + (b4 - 0x30)


def from_linear(v):
    b4 = v % 10 + 0x30
    v //= 10
    b3 = v % 126 + 0x81
    v //= 126
    b2 = v % 10 + 0x30
    b1 = v // 10 + 0x81
    return bytes([b1, b2, b3, b4])


def usable(cp):
    return cp < 0xD800 or 0xDFFF < cp <= 0x10FFFF


class Table:
    def __init__(self, tid, kind, entries):
        self.tid = tid
        self.kind = kind
        self.single = [0xFFFF] * 256
        self.pairs = {}
        self.ranges = []
        seen = set()
        for seq, cp in entries:
            if seq in seen or not usable(cp):
                continue
            seen.add(seq)
            if kind == "x0212":
                if len(seq) == 3 and seq[0] == 0x8F:
                    self.pairs[(seq[1], seq[2])] = cp
                elif len(seq) == 1 and seq[0] < 0x80:
                    self.single[seq[0]] = cp
                continue
            if len(seq) == 1:
                assert cp <= 0xFFFD, (tid, cp)
                self.single[seq[0]] = cp
            elif len(seq) == 2:
                self.pairs[(seq[0], seq[1])] = cp
            elif len(seq) == 4 and kind == "gb18030":
                self.add_range(to_linear(seq), cp)
            # EUC-JP's three-byte sequences live in the jisx0212 table.
        for lead, _ in self.pairs:
            self.single[lead] = 0xFFFE
        if kind == "eucjp":
            self.single[0x8F] = 0xFFFE

    def add_range(self, linear, cp):
        if self.ranges:
            l0, c0, n = self.ranges[-1]
            if l0 + n == linear and c0 + n == cp:
                self.ranges[-1] = (l0, c0, n + 1)
                return
        self.ranges.append((linear, cp, 1))


def wrap(items, indent="  ", width=110):
    lines, cur = [], indent
    for it in items:
        s = it + ","
        if len(cur) + len(s) + 1 > width:
            lines.append(cur.rstrip())
            cur = indent
        cur += s + " "
    if cur.strip():
        lines.append(cur.rstrip())
    return "\n".join(lines)


HEADER = """\
// Generated by scripts/gen_utf8_tables.py from the C library's charmaps.
// Do not edit: change the script and run it again.
//
// The tables behind UTF8Converter: one UTF8Table per charset and the sorted
// list of normalised charset names (lower case, letters and digits only)
// with the conversion routine and table each one uses. Read-only data; any
// thread may read it.
#pragma once

#include <cstddef>
#include <cstdint>

// The conversion routines of UTF8Converter.
enum UTF8Engine : uint8_t {
  UTF8_ENGINE_SBCS,     // one byte, through UTF8Table::single
  UTF8_ENGINE_DBCS,     // one or two bytes, through single and rows
  UTF8_ENGINE_MBCS,     // DBCS plus 0x8F+two bytes (extra) and four-byte ranges
  UTF8_ENGINE_UTF8,
  UTF8_ENGINE_UTF16LE,
  UTF8_ENGINE_UTF16BE,
  UTF8_ENGINE_UTF32LE,
  UTF8_ENGINE_UTF32BE,
  UTF8_ENGINE_UCS2
};

// Values of UTF8Table::single that are not code points.
constexpr uint16_t UTF8_TABLE_NONE = 0xFFFF;  // byte maps to nothing
constexpr uint16_t UTF8_TABLE_LEAD = 0xFFFE;  // first byte of a longer sequence

// Trail bytes lo..hi of one lead byte; their code points start at
// UTF8Table::cps[offset]. A code point of 0 at a position other than the
// pair that maps to U+0000 never occurs; unmapped pairs hold 0xFFFFFFFF.
struct UTF8TableRow {
  uint8_t lo;
  uint8_t hi;
  uint32_t offset;
};

// Four-byte sequences whose linear index runs from `linear` for `count`
// values map to code points from `codepoint` on.
struct UTF8TableRange {
  uint32_t linear;
  uint32_t codepoint;
  uint32_t count;
};

struct UTF8Table {
  const char* name;
  const uint16_t* single;        // 256 entries
  const UTF8TableRow* rows;      // 256 entries, or null for one-byte sets
  const uint32_t* cps;
  const UTF8Table* extra;        // two bytes after 0x8F, or null
  const UTF8TableRange* ranges;  // four-byte sequences, or null
  size_t nranges;
};

struct UTF8FindEngineRow {
  const char* name;
  UTF8Engine engine;
  const UTF8Table* table;  // null for the Unicode forms
};

extern const UTF8FindEngineRow generated_UTF8FindEngine_rows[];
extern const size_t generated_UTF8FindEngine_size;
"""


def emit_table(t, out):
    cid = "t_" + t.tid
    out.append(f"// {t.tid}")
    out.append(f"static const uint16_t {cid}_single[256] = {{")
    out.append(wrap([str(v) for v in t.single]))
    out.append("};")
    rows_ref = cps_ref = "nullptr"
    if t.pairs:
        rows, cps = [], []
        for lead in range(256):
            trails = [b for (l, b) in t.pairs if l == lead]
            if not trails:
                rows.append("{0, 0, 0}")
                continue
            lo, hi = min(trails), max(trails)
            rows.append(f"{{{lo}, {hi}, {len(cps)}}}")
            for b in range(lo, hi + 1):
                cps.append(t.pairs.get((lead, b), 0xFFFFFFFF))
        out.append(f"static const UTF8TableRow {cid}_rows[256] = {{")
        out.append(wrap(rows))
        out.append("};")
        out.append(f"static const uint32_t {cid}_cps[{len(cps)}] = {{")
        out.append(wrap([str(v) if v != 0xFFFFFFFF else "0xFFFFFFFF" for v in cps]))
        out.append("};")
        rows_ref, cps_ref = f"{cid}_rows", f"{cid}_cps"
    ranges_ref, nranges = "nullptr", 0
    if t.ranges:
        out.append(f"static const UTF8TableRange {cid}_ranges[{len(t.ranges)}] = {{")
        out.append(wrap([f"{{{a}, {b}, {c}}}" for a, b, c in t.ranges]))
        out.append("};")
        ranges_ref, nranges = f"{cid}_ranges", len(t.ranges)
    extra = "&t_jisx0212" if t.kind == "eucjp" else "nullptr"
    out.append(f"static const UTF8Table {cid} = {{\"{t.tid}\", {cid}_single, {rows_ref}, {cps_ref}, {extra}, "
               f"{ranges_ref}, {nranges}}};")
    out.append("")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--charmaps", default="/usr/share/i18n/charmaps")
    here = os.path.dirname(os.path.abspath(__file__))
    ap.add_argument("--out", default=os.path.join(here, "..", "src", "util"))
    args = ap.parse_args()

    kinds = {tid: kind for tid, _, kind in TABLES}
    assert len(kinds) == EXPECTED_TABLES, f"{len(kinds)} tables, want {EXPECTED_TABLES}"
    names = [n for n, _ in ALIASES]
    for n in names:
        assert re.fullmatch(r"[a-z0-9]+", n), f"alias not normalised: {n}"
    dup = {n for n in names if names.count(n) > 1}
    assert not dup, f"duplicate aliases: {sorted(dup)}"
    used = {t for _, t in ALIASES if not t.startswith("@")}
    assert used == set(kinds), f"tables without alias or unknown: {sorted(used ^ set(kinds))}"
    assert len(ALIASES) == EXPECTED_ALIASES, f"{len(ALIASES)} aliases, want {EXPECTED_ALIASES}"

    cache = {}
    tables = []
    for tid, cmap, kind in TABLES:
        if cmap not in cache:
            cache[cmap] = read_charmap(os.path.join(args.charmaps, cmap + ".gz"))
        t = Table(tid, kind, cache[cmap])
        mapped = sum(1 for v in t.single if v < 0xFFFE) + len(t.pairs)
        assert mapped >= 128, f"{tid}: only {mapped} mappings read from {cmap}"
        tables.append(t)
    # jisx0212 must be defined before eucjp refers to it.
    tables.sort(key=lambda t: t.tid != "jisx0212")

    cc = ["// Generated by scripts/gen_utf8_tables.py from the C library's charmaps.",
          "// Do not edit: change the script and run it again.",
          "#include \"util/generated_UTF8FindEngine.h\"", "",
          "namespace {", ""]
    for t in tables:
        emit_table(t, cc)
    cc.append("}  // namespace")
    cc.append("")
    cc.append("// Sorted by name (bytewise) for binary search.")
    cc.append(f"const UTF8FindEngineRow generated_UTF8FindEngine_rows[{len(ALIASES)}] = {{")
    for name, target in sorted(ALIASES):
        if target.startswith("@"):
            cc.append(f"  {{\"{name}\", UTF8_ENGINE_{target[1:].upper()}, nullptr}},")
        else:
            cc.append(f"  {{\"{name}\", UTF8_ENGINE_{ENGINE_OF_KIND[kinds[target]]}, &t_{target}}},")
    cc.append("};")
    cc.append(f"const size_t generated_UTF8FindEngine_size = {len(ALIASES)};")
    cc.append("")

    with open(os.path.join(args.out, "generated_UTF8FindEngine.h"), "w") as f:
        f.write(HEADER)
    with open(os.path.join(args.out, "generated_UTF8FindEngine.cc"), "w") as f:
        f.write("\n".join(cc))
    print(f"{len(ALIASES)} aliases, {len(tables)} tables", file=sys.stderr)


if __name__ == "__main__":
    main()
