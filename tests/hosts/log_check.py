#!/usr/bin/env python3
"""Checks of default log files for the host scripts. Each command prints what it found and exits
with 1 (with the reason on standard output) when the files are not as they must be.

  log_check.py sequence ENTRIES
      the messages are "entry 000001", "entry 000002", ... without a gap; prints Count=<n>
  log_check.py several ARCHIVE CURRENT LIMIT PROCESSES COUNT
      the files of several processes that logged "process P entry NNNNN" with rollovers
  log_check.py whole FILE
      the file holds whole entries only; prints Count=<n> and each message in order
  log_check.py stderr FILE
      counts the whole entries "unwritable N" in a captured standard error stream
  log_check.py writes TRACE_PREFIX ENTRIES EXPECTED
      every write(2) to the entries file, as strace -ff -y -xx recorded it, is one whole entry
"""
import glob
import re
import sys
import xml.etree.ElementTree as ET

SEPARATOR = "<!-- " + "=" * 72 + "  -->\n"
# How every entry in the file ends: the element's end, a blank line, the separator, a blank line.
ENTRY_END = "</LogEntry>\n\n" + SEPARATOR + "\n"
PLAIN_ENTRY = re.compile(
    r'<LogEntry Severity="(?P<severity>Alarm|Error|Warning|Debug|Informational|Verbose)" >\n'
    r"  <TimeStamp>(?P<stamp>\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})</TimeStamp>\n"
    r"  <LogName>(?P<name>[^<\n]*)</LogName>\n"
    r"  <Message>(?P<message>[^<\n]*)</Message>\n"
    + re.escape(ENTRY_END)
    + r"\Z"
)


class Failure(Exception):
    pass


def read_text(name):
    with open(name, "rb") as f:
        data = f.read()
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError as e:
        raise Failure(f"{name}: not UTF-8 ({e})")


def split_entries(text, name):
    """The file's text cut into entries; each must be a whole element with its separator."""
    entries = []
    pos = 0
    while pos < len(text):
        # Line ends that pad the file to a page boundary may stand between entries.
        while pos < len(text) and text[pos] == "\n":
            pos += 1
        if pos == len(text):
            break
        end = text.find(ENTRY_END, pos)
        if end < 0:
            raise Failure(f"{name}: bytes {pos}..{len(text)} are not a whole entry: {text[pos:pos + 200]!r}")
        chunk = text[pos:end + len(ENTRY_END)]
        if not chunk.startswith("<LogEntry") or chunk.count("<LogEntry") != 1:
            raise Failure(f"{name}: torn or merged entry at byte {pos}: {chunk[:200]!r}")
        try:
            ET.fromstring(chunk)
        except ET.ParseError as e:
            raise Failure(f"{name}: entry at byte {pos} is not well-formed ({e}): {chunk[:200]!r}")
        entries.append(chunk)
        pos = end + len(ENTRY_END)
    return entries


def plain_fields(chunk, name):
    m = PLAIN_ENTRY.match(chunk)
    if not m:
        raise Failure(f"{name}: entry not in the plain layout: {chunk[:300]!r}")
    return m


def check_sequence(entries_file):
    entries = split_entries(read_text(entries_file), entries_file)
    for i, chunk in enumerate(entries, 1):
        m = plain_fields(chunk, entries_file)
        want = "entry %06d" % i
        if m["message"] != want or m["name"] != "Qel.Host.Log" or m["severity"] != "Informational":
            raise Failure(f"{entries_file}: entry {i} is {m['severity']}/{m['name']}/{m['message']!r}, expected {want!r}")
    print(f"Count={len(entries)}")


def check_whole(name):
    entries = split_entries(read_text(name), name)
    print(f"Count={len(entries)}")
    for chunk in entries:
        print("Message=" + plain_fields(chunk, name)["message"])


def process_numbers(entries, name):
    """(process, number) of each entry, in file order."""
    out = []
    for chunk in entries:
        m = plain_fields(chunk, name)
        mm = re.fullmatch(r"process (\d+) entry (\d{5})", m["message"])
        if not mm:
            raise Failure(f"{name}: unexpected message {m['message']!r}")
        out.append((int(mm[1]), int(mm[2])))
    return out


def check_several(archive, current, limit, processes, count):
    limit, processes, count = int(limit), int(processes), int(count)
    archive_text = read_text(archive)
    current_text = read_text(current)
    archive_entries = split_entries(archive_text, archive)
    current_entries = split_entries(current_text, current)
    archive_size = len(archive_text.encode())
    current_size = len(current_text.encode())
    if archive_size <= limit:
        raise Failure(f"archive is {archive_size} bytes, not above the limit {limit}")
    last = len(archive_entries[-1].encode())
    if archive_size - last > limit:
        raise Failure(f"archive without its last entry is {archive_size - last} bytes, above the limit {limit}: "
                      "an entry went in after the one that crossed the limit")
    if current_size > limit:
        raise Failure(f"current file is {current_size} bytes, above the limit {limit}")
    numbers = process_numbers(archive_entries, archive) + process_numbers(current_entries, current)
    per_process = {p: [] for p in range(1, processes + 1)}
    for p, n in numbers:
        if p not in per_process:
            raise Failure(f"entry of unknown process {p}")
        per_process[p].append(n)
    for p, seq in per_process.items():
        if not seq:
            raise Failure(f"process {p}: no entry in archive and current file")
        first = seq[0]
        if seq != list(range(first, first + len(seq))):
            gaps = [(a, b) for a, b in zip(seq, seq[1:]) if b != a + 1][:5]
            raise Failure(f"process {p}: numbers not contiguous from {first}: first breaks {gaps}")
        if seq[-1] != count:
            raise Failure(f"process {p}: last number {seq[-1]}, expected {count}")
    print(f"ArchiveEntries={len(archive_entries)} ArchiveBytes={archive_size} "
          f"CurrentEntries={len(current_entries)} CurrentBytes={current_size} "
          + " ".join(f"P{p}From={seq[0]}" for p, seq in per_process.items()))


def check_stderr(name):
    text = read_text(name)
    blocks = re.findall(
        r'<LogEntry Severity="Informational" >\n'
        r"  <TimeStamp>[^<\n]*</TimeStamp>\n"
        r"  <LogName>Qel\.Host\.Log</LogName>\n"
        r"  <Message>unwritable (\d+)</Message>\n"
        + re.escape(ENTRY_END), text)
    numbers = [int(b) for b in blocks]
    if numbers != sorted(numbers) or len(set(numbers)) != len(numbers):
        raise Failure(f"entries on standard error out of order or repeated")
    print(f"Blocks={len(numbers)} Starts={text.count('<LogEntry')} Ends={text.count('</LogEntry>')}")


def decode_xx(s):
    return bytes(int(h, 16) for h in re.findall(r"\\x([0-9a-f]{2})", s))


def check_writes(prefix, entries_file, expected):
    expected = int(expected)
    # With -xx the file's name behind the descriptor is shown in hex as well.
    write = re.compile(r'^write\((\d+)<((?:\\x[0-9a-f]{2})*)>, "((?:\\x[0-9a-f]{2})*)"(\.\.\.)?, (\d+)\) += (-?\d+)')
    writes = []  # (trace file, data) of the writes of entries to the entries file
    raw = []  # every write to the entries file, padding included
    for trace in sorted(glob.glob(prefix + ".*")):
        with open(trace, encoding="ascii", errors="replace") as f:
            for line in f:
                m = write.match(line)
                if not m or not decode_xx(m[2]).endswith(b"/DefaultLog.entries"):
                    continue
                data = decode_xx(m[3])
                raw.append(data)
                if data and data.strip(b"\n") == b"":
                    continue  # padding to a page boundary, written on its own
                if m[4] or len(data) != int(m[5]):
                    raise Failure(f"{trace}: write shown cut short ({len(data)} of {m[5]} bytes)")
                if int(m[6]) != int(m[5]):
                    raise Failure(f"{trace}: write of {m[5]} bytes returned {m[6]}")
                writes.append((trace, data))
    if not writes:
        raise Failure("no write to DefaultLog.entries in the trace")
    for i, (trace, data) in enumerate(writes, 1):
        text = data.decode("utf-8")
        if len(split_entries(text, f"write {i}")) != 1:
            raise Failure(f"write {i} holds more than one entry")
    file_text = read_text(entries_file)
    file_entries = split_entries(file_text, entries_file)
    threads = {t for t, _ in writes}
    if len(threads) == 1 and b"".join(raw) != file_text.encode():
        raise Failure("the writes, one after the other, are not the file")
    if len(writes) != expected or len(file_entries) != expected:
        raise Failure(f"{len(writes)} writes and {len(file_entries)} entries in the file, expected {expected}")
    sizes = sorted(len(d) for _, d in writes)
    print(f"Writes={len(writes)} Smallest={sizes[0]} Largest={sizes[-1]}")


def main(argv):
    commands = {"sequence": (check_sequence, 1), "several": (check_several, 5),
                "whole": (check_whole, 1), "stderr": (check_stderr, 1), "writes": (check_writes, 3)}
    if len(argv) < 2 or argv[1] not in commands or len(argv) - 2 != commands[argv[1]][1]:
        print(__doc__)
        return 2
    try:
        commands[argv[1]][0](*argv[2:])
    except Failure as e:
        print(f"FAIL {e}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
