"""Usage: judge.py FILE of "warning<TAB>critical<TAB>exit status<TAB>output" lines of `kvctl
check`: the exit status must be nagiosplugin.Range's state for the round trip in the perfdata.
Prints "N lines judged, M mismatched"."""
import re
import sys

import nagiosplugin

n = bad = 0
with open(sys.argv[1], encoding="utf-8") as lines:
    for line in lines:
        w, c, rc, out = line.rstrip("\n").split("\t", 3)
        n += 1
        m = re.match(r"^KAVELO \w+ - [^|]* \| .rtt.=([0-9.]+)s;", out)
        want = -1
        if m:
            value = float(m.group(1))
            if c and not nagiosplugin.Range(c).match(value):
                want = 2
            elif w and not nagiosplugin.Range(w).match(value):
                want = 1
            else:
                want = 1 if "collector not running" in out else 0
        if want != int(rc):
            bad += 1
            print("MISMATCH (nagiosplugin: %d): %s" % (want, line.rstrip()))
print("%d lines judged, %d mismatched" % (n, bad))
sys.exit(1 if bad else 0)
