#!/usr/bin/env python3
"""Differential check of QelCore's XML parser against expat over the XML files of the system.

Finds every regular file named *.xml under the corpus root (default /usr/share), asks
`xmllint --noout --nonet` which of them are well-formed, and has both xml_events (our parser) and
sax_events.py (expat through xml.sax) print their event streams: start tags, attributes with the
meaning of their values, end tags. For every file that xmllint accepts, our parser must accept it
too and give the same stream as expat. A file may be exempt only through ALLOWED below, with the
grammar construct that makes it differ. The files that xmllint rejects are parsed as well, and
whether our parser rejects them too is reported (not judged: the grammar accepts some documents
that XML forbids, such as mismatched end tags or undeclared entities).

  corpus_check.py --events build/dev/tests/XML/xml_events [--root /usr/share] [--min-files 200]

Exit code 0 when every accepted file agrees; 1 on any disagreement or when the corpus is too small.
"""
import argparse
import concurrent.futures
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))

# Files that xmllint accepts but our parser may reject or report differently, each with the
# construct of the grammar that is the cause: kind "rejected" or "differs", and the reason.
ALLOWED = {
    "/usr/share/doc/libpugixml-dev/examples/samples/weekly-shift_jis.xml": (
        "rejected",
        "Name: the grammar reads bytes, not decoded characters; Shift_JIS double-byte element names "
        "carry trail bytes that are no NameChar, e.g. 業務コード holds 0x81 0x5B ('['), 予定項目 "
        "0x97 0x5C ('\\'), 実施事項 0x8E 0x7B ('{')"),
    "/usr/share/doc/libpugixml-dev/examples/samples/weekly-utf-16.xml": (
        "rejected",
        "document: a UTF-16 document (byte-order mark FE FF, a NUL byte before every ASCII "
        "character); the grammar reads bytes, so the first bytes match neither prolog nor element"),
}


def find_files(root):
    found = []
    for folder, _, names in os.walk(root):
        for name in names:
            if name.endswith(".xml"):
                path = os.path.join(folder, name)
                if os.path.isfile(path) and not os.path.islink(path):
                    found.append(path)
    return sorted(found)


def xmllint(path):
    """Whether xmllint finds the file well-formed, and its first complaint."""
    run = subprocess.run(["xmllint", "--noout", "--nonet", path], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE)
    message = run.stderr.decode("utf-8", "replace").strip().splitlines()
    return run.returncode == 0, (message[0] if message else f"exit code {run.returncode}")


def split_streams(output):
    """{file: (events, status)} from the output of xml_events or sax_events.py."""
    streams = {}
    current, events = None, []
    for line in output.decode("utf-8", "surrogateescape").split("\n"):
        if line.startswith("== "):
            current, events = line[3:], []
        elif current is None:
            continue
        elif line == "OK" or line.startswith("REJECTED"):
            streams[current] = (events, line)
            current = None
        else:
            events.append(line)
    return streams


def strip_line(event):
    """An event of sax_events.py without its line number, and the line number."""
    text, _, line = event.rpartition("\t@")
    return (text, line) if text else (event, "?")


def run_streams(command, files):
    run = subprocess.run(command, input="\n".join(files).encode("utf-8", "surrogateescape"),
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if run.returncode != 0:
        sys.exit(f"corpus_check: {' '.join(command)} failed with exit code {run.returncode}:\n"
                 f"{run.stderr.decode('utf-8', 'replace')[-4000:]}")
    return split_streams(run.stdout)


def describe_divergence(ours, theirs):
    """Where our events leave expat's: the index, the expat line and a short text."""
    theirs_plain = [strip_line(e) for e in theirs]
    index = 0
    while index < len(ours) and index < len(theirs_plain) and ours[index] == theirs_plain[index][0]:
        index += 1
    line = theirs_plain[index][1] if index < len(theirs_plain) else (theirs_plain[-1][1] if theirs_plain else "?")
    ours_text = ours[index] if index < len(ours) else "(end of our events)"
    theirs_text = theirs_plain[index][0] if index < len(theirs_plain) else "(end of expat's events)"
    before = ours[index - 1] if index > 0 else "(start)"
    return index, line, before, ours_text, theirs_text


def shorten(text, width=110):
    """The text for a report line: bytes that are not UTF-8 as escapes, long texts cut."""
    text = text.encode("utf-8", "surrogateescape").decode("utf-8", "backslashreplace")
    return text if len(text) <= width else text[:width - 3] + "..."


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--events", required=True, help="the xml_events program")
    arguments.add_argument("--sax", default=os.path.join(HERE, "sax_events.py"))
    arguments.add_argument("--root", default="/usr/share")
    arguments.add_argument("--min-files", type=int, default=200)
    options = arguments.parse_args()
    started = time.monotonic()

    files = find_files(options.root)
    try:
        with concurrent.futures.ThreadPoolExecutor(max_workers=(os.cpu_count() or 2) * 2) as pool:
            verdicts = dict(zip(files, pool.map(xmllint, files)))
    except FileNotFoundError:
        sys.exit("corpus_check: xmllint is missing; scripts/setup installs it (libxml2-utils)")
    accepted = [f for f in files if verdicts[f][0]]
    rejected = [f for f in files if not verdicts[f][0]]
    print(f"corpus: {len(files)} *.xml files under {options.root}; xmllint accepts {len(accepted)}, "
          f"rejects {len(rejected)}")
    if len(accepted) < options.min_files:
        print(f"FAIL: only {len(accepted)} well-formed XML files under {options.root}, at least "
              f"{options.min_files} are needed; scripts/setup installs the packages that bring them "
              f"(iso-codes, xkb-data, shared-mime-info)")
        return 1

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        ours_job = pool.submit(run_streams, [options.events, "-"], files)
        theirs_job = pool.submit(run_streams, [sys.executable, options.sax, "-"], files)
        ours_all, theirs_all = ours_job.result(), theirs_job.result()

    failures, allowed_used, expat_only_rejects, agreed = [], [], [], 0
    for path in accepted:
        ours_events, ours_status = ours_all.get(path, ([], "MISSING"))
        theirs_events, theirs_status = theirs_all.get(path, ([], "MISSING"))
        if theirs_status != "OK":
            expat_only_rejects.append((path, theirs_status, ours_status))
            continue
        if ours_status == "OK" and ours_events == [strip_line(e)[0] for e in theirs_events]:
            agreed += 1
            continue
        kind = "rejected" if ours_status != "OK" else "differs"
        index, line, before, ours_text, theirs_text = describe_divergence(ours_events, theirs_events)
        if kind == "rejected":
            last = ours_events[-1] if ours_events else "(none)"
            detail = (f"rejected after {len(ours_events)} events (last `{shorten(last)}`); the streams "
                      f"part at event #{index}, expat line {line}: expat `{shorten(theirs_text)}`, "
                      f"ours `{shorten(ours_text)}`")
        else:
            detail = (f"differs at event #{index}, line {line}: ours `{shorten(ours_text)}`, "
                      f"expat `{shorten(theirs_text)}`")
        allowance = ALLOWED.get(path)
        if allowance and allowance[0] == kind:
            allowed_used.append((path, detail, allowance[1]))
        else:
            failures.append((path, detail))

    print(f"xmllint-accepted files: {agreed} agree with expat, {len(failures)} disagree, "
          f"{len(allowed_used)} allowed, {len(expat_only_rejects)} rejected by expat itself")
    for path, detail, reason in allowed_used:
        print(f"  allowed  {path}: {detail}\n           reason: {reason}")
    for path, theirs_status, ours_status in expat_only_rejects:
        print(f"  expat rejects what xmllint accepts: {path}: {theirs_status}; ours: {ours_status}")
    for path in sorted(set(ALLOWED) - {p for p, _, _ in allowed_used}):
        print(f"  note: allow-list entry not needed (file absent or agrees now): {path}")

    print(f"xmllint-rejected files: {len(rejected)}")
    for path in rejected:
        ours_status = ours_all.get(path, ([], "MISSING"))[1]
        theirs_status = theirs_all.get(path, ([], "MISSING"))[1]
        verdict = "ours rejects too" if ours_status != "OK" else "OURS ACCEPTS"
        print(f"  {verdict:17} {path}\n"
              f"                    xmllint: {shorten(verdicts[path][1], 160)}\n"
              f"                    expat:   {shorten(theirs_status, 160)}")

    for path, detail in failures:
        print(f"FAIL {path}: {detail}")
    print(f"time: {time.monotonic() - started:.1f} s")
    print(f"corpus: {len(accepted) - len(failures)} passed, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
