#!/usr/bin/perl
# Usage: judge.pl FILE of "warning<TAB>critical<TAB>exit status<TAB>output" lines of `kvctl check`:
# the perfdata must parse (Monitoring::Plugin::Performance) to one 'rtt' in seconds, min 0, the
# printed value and the given ranges ('@' ones, which it lacks, as empty fields), and the exit
# status must be Monitoring::Plugin::Threshold's. Prints "N lines judged, M mismatched".
use strict;
use warnings;
use Monitoring::Plugin::Performance;
use Monitoring::Plugin::Threshold;

my @words = qw(OK WARNING CRITICAL UNKNOWN);
my ($n, $bad) = (0, 0);
while (my $line = <>) {
    chomp $line;
    my ($w, $c, $rc, $out) = split /\t/, $line, 4;
    $n++;
    my ($text, $perf) = $out =~ /^KAVELO (\w+) - [^|]*(?: \| (.*))?$/ ? ($1, $2) : ("", "");
    my @p = Monitoring::Plugin::Performance->parse_perfstring($perf // "");
    my $field = sub { $_[0] =~ /^@/ ? "" : $_[0] };
    my ($value) = ($perf // "") =~ /=([0-9.]+)s;/;
    my $ok = @p == 1 && $p[0]->label eq "rtt" && $p[0]->uom eq "s" && $p[0]->min == 0
      && defined $value && $p[0]->value == $value
      && ($p[0]->warning // "") eq $field->($w) && ($p[0]->critical // "") eq $field->($c);
    my %t = (($w ne "" ? (warning => $w) : ()), ($c ne "" ? (critical => $c) : ()));
    my $want = Monitoring::Plugin::Threshold->set_thresholds(%t)->get_status($value // -1);
    $want = 1 if $want == 0 && $out =~ /collector not running/;
    if (!$ok || $words[$rc] ne $text || $rc != $want) {
        $bad++;
        print "MISMATCH (library: $words[$want]): $line\n";
    }
}
print "$n lines judged, $bad mismatched\n";
exit($bad ? 1 : 0);
