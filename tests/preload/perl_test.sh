#!/usr/bin/env bash
# Perl under the library: hashes, string building, regular expressions and sorting. The
# output must equal the same run on the C library's allocator and hold the known totals.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v perl >/dev/null || fail "perl is missing (package perl)"
scale=1
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && scale=10
cat >"$scratch/workload.pl" <<'PL'
use strict; use warnings;
use Digest::MD5 qw(md5_hex);
my $scale = shift;
my $n = 200000 * $scale;
my %h;
for my $i (1 .. $n) { $h{"k$i"} = join("-", ($i) x (1 + $i % 9)); }
delete $h{"k$_"} for grep { $_ % 4 == 0 } 1 .. $n;
my $keys = keys %h;
my $len = 0; $len += length $_ for values %h;
print "hash $keys $len\n";
# Regular expressions: captures, substitutions, splitting.
my $text = join " ", map { "id=$_ name=user$_ mail=user$_\@example.org" } 1 .. 50000 * $scale;
my @ids = $text =~ /id=(\d+)/g;
(my $masked = $text) =~ s/(\w+)\@example\.org/<$1>/g;
my @words = split /\s+/, $masked; my $words = @words;
print "regex ", scalar(@ids), " $words ", md5_hex($masked), "\n";
# Sorting: numeric, text and by computed key.
my @sorted = sort { length($h{$a}) <=> length($h{$b}) or $a cmp $b } keys %h;
my @numbers = sort { $a <=> $b } map { ($_ * 7919) % 100003 } 1 .. $n;
print "sort $sorted[0] $sorted[-1] $numbers[0] $numbers[-1] ", md5_hex(join ",", @sorted[0 .. 999]), "\n";
# The memory map, written aside so that stdout compares across runs.
if ($ENV{QUORLA_EVIDENCE}) {
  open my $in, "<", "/proc/self/maps" or die; open my $out, ">", $ENV{QUORLA_EVIDENCE} or die;
  print $out $_ while <$in>;
}
PL
expected=$(perl "$scratch/workload.pl" "$scale") || fail "perl without the library exited with $?"
actual=$(QUORLA_EVIDENCE="$scratch/evidence" preloaded perl "$scratch/workload.pl" "$scale") ||
  fail "perl under the library failed"
[ "$actual" = "$expected" ] || fail "perl printed
$actual
instead of
$expected"
# Totals known without running anything: keys not divisible by 4, ids 1..50000*scale,
# and each record splits into three words.
n=$((200000 * scale)); records=$((50000 * scale))
grep -qx "hash $((n - n / 4)) [0-9]*" <<<"$actual" || fail "perl: wrong key count in '$actual'"
grep -q "^regex $records $((3 * records)) " <<<"$actual" || fail "perl: wrong regex counts in '$actual'"
pass "perl workload matches the run without the library"
expect_mapped perl <"$scratch/evidence"
