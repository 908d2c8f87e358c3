"""Usage: samples.py FILE [STATUS_FILE]: the kavelo_ samples of a Prometheus text exposition as
"name [labels] value" lines, labels decoded and sorted, values as numbers, in sorted order; with
STATUS_FILE, also writes the decoded "status" label of the sample that has labels there."""
import re
import sys

LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')


def unescape(value):
    return re.sub(r"\\(.)", lambda m: {"n": "\n"}.get(m.group(1), m.group(1)), value)


samples = []
with open(sys.argv[1], encoding="utf-8") as text:
    for line in text.read().split("\n"):
        m = re.match(r"^(kavelo_[a-zA-Z0-9_]*)(?:\{(.*)\})? (\S+)$", line)
        if m:
            labels = sorted((k, unescape(v)) for k, v in LABEL.findall(m.group(2) or ""))
            samples.append("%s %r %s" % (m.group(1), labels, float(m.group(3))))
            if len(sys.argv) > 2 and labels:
                with open(sys.argv[2], "w", encoding="utf-8") as status:
                    status.write(dict(labels)["status"])
print("\n".join(sorted(samples)))
