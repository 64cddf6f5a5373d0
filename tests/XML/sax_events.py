#!/usr/bin/env python3
"""Prints the canonical event stream of expat (through xml.sax) for each file given, in the form
that xml_events prints for QelCore's parser:

  == FILE
  S name<TAB>@LINE      a start tag
  A name=value<TAB>@LINE
  E name<TAB>@LINE      an end tag
  OK | REJECTED <expat's message>

The "@LINE" behind each event is the line where expat saw it; it is not compared, it only says
where in the file a difference lies. Namespace processing is off, attributes come in document
order, and only attributes written in the tag are given (not those that a DTD's ATTLIST
defaults). Within names and values a backslash, tab, line feed and carriage return are written
as \\\\, \\t, \\n and \\r.

  sax_events.py FILE...      (a single "-" reads the file names from standard input, one a line)
"""
import io
import re
import sys
import xml.sax
import xml.sax.expatreader
import xml.sax.handler


def quoted(text):
    return (text.replace("\\", "\\\\").replace("\t", "\\t").replace("\n", "\\n").replace("\r", "\\r"))


class SpecifiedOnlyReader(xml.sax.expatreader.ExpatParser):
    """An expat reader that reports only the attributes written in the document."""

    def reset(self):
        super().reset()
        self._parser.specified_attributes = True


class EventPrinter(xml.sax.handler.ContentHandler):
    def __init__(self, out):
        super().__init__()
        self.out = out
        self.locator = None

    def setDocumentLocator(self, locator):
        self.locator = locator

    def line(self):
        return self.locator.getLineNumber() if self.locator else 0

    def startElement(self, name, attrs):
        at = self.line()
        self.out.append(f"S {quoted(name)}\t@{at}")
        for attr_name in attrs.getNames():
            self.out.append(f"A {quoted(attr_name)}={quoted(attrs.getValue(attr_name))}\t@{at}")

    def endElement(self, name):
        self.out.append(f"E {quoted(name)}\t@{self.line()}")


def transcoded(path):
    """The document as UTF-8, for a declared encoding that expat can't read (Shift_JIS and other
    multi-byte code pages): Python decodes it and the declaration then says UTF-8."""
    data = open(path, "rb").read()
    match = re.match(rb"<\?xml[^>]*?encoding\s*=\s*[\"']([A-Za-z0-9._-]+)[\"']", data)
    if not match:
        return None
    text = data.decode(match.group(1).decode("ascii"))
    head = match.group(0).decode("ascii")
    return text.replace(head, head.replace(match.group(1).decode("ascii"), "UTF-8"), 1).encode("utf-8")


def events(path):
    out = parse(path)
    if out[-1].endswith("multi-byte encodings are not supported"):
        data = transcoded(path)
        if data is not None:
            source = xml.sax.xmlreader.InputSource(path)
            source.setByteStream(io.BytesIO(data))
            out = parse(source)
    return out


def parse(source):
    out = []
    reader = SpecifiedOnlyReader()
    reader.setFeature(xml.sax.handler.feature_namespaces, False)
    reader.setFeature(xml.sax.handler.feature_external_ges, False)
    reader.setFeature(xml.sax.handler.feature_external_pes, False)
    reader.setContentHandler(EventPrinter(out))
    try:
        reader.parse(source)
        out.append("OK")
    except xml.sax.SAXParseException as error:
        out.append(f"REJECTED line {error.getLineNumber()}: {error.getMessage()}")
    except (OSError, ValueError) as error:
        out.append(f"REJECTED {error}")
    return out


def main(argv):
    files = [line.rstrip("\n") for line in sys.stdin if line.strip()] if argv == ["-"] else argv
    if not files:
        print("usage: sax_events.py FILE... | sax_events.py - < LIST", file=sys.stderr)
        return 2
    stdout = sys.stdout.buffer
    for path in files:
        lines = [f"== {path}"] + events(path)
        stdout.write(("\n".join(lines) + "\n").encode("utf-8", "backslashreplace"))
    stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
