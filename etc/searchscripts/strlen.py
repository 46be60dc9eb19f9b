#!/usr/bin/env python3
"""strlen: adds the length of a field to every row.

    ... | strlen <field> [<dest>]

Reads rows as CSV on standard input and writes them back as CSV on standard
output, with <dest> (default "<field>_len") set to the number of characters
of <field>. A row without <field> (or with an empty one) gets no <dest>.
Python's csv module reads an empty value and an absent one alike, so both
come back absent.
"""
import csv
import sys


def main(argv):
    if len(argv) < 2 or len(argv) > 3:
        sys.stderr.write("usage: strlen <field> [<dest>]\n")
        return 2
    field = argv[1]
    dest = argv[2] if len(argv) == 3 else field + "_len"
    reader = csv.reader(sys.stdin)
    header = next(reader, None)
    if header is None:
        return 0
    if dest not in header:
        header.append(dest)
    pos = header.index(field) if field in header else -1
    out_pos = header.index(dest)
    writer = csv.writer(sys.stdout, lineterminator="\n", quoting=csv.QUOTE_MINIMAL)
    writer.writerow(header)
    for row in reader:
        row += [""] * (len(header) - len(row))
        if pos >= 0 and row[pos] != "":
            row[out_pos] = str(len(row[pos]))
        writer.writerow(row)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
