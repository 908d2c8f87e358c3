"""Usage: judge.py FILE: each line of FILE is "warning<TAB>critical<TAB>exit status<TAB>output"
of one `kvctl check`; its exit status must be the state that nagiosplugin.Range gives for the
round trip in its performance data. Prints "N lines judged, M mismatched"; exits 1 on a
mismatch."""
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
