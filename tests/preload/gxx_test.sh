#!/usr/bin/env bash
# g++ under the library: compiles a translation unit that uses <map>, <string>, <regex>,
# <iostream> and <thread>. The object file must be byte for byte the one the compiler
# makes without the library; the program, linked and run under the library, must print
# the totals that awk computes from the same input.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v g++ >/dev/null || fail "g++ is missing (package g++)"
cd "$scratch"
cat >tally.cc <<'CC'
#include <iostream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

// Sums the values of every key=value pair of the input, per key, with two threads
// each taking every other line, and prints the sums in key order.
int main() {
  std::vector<std::string> lines;
  for (std::string line; std::getline(std::cin, line);) lines.push_back(line);
  std::map<std::string, long> sums[2];
  std::vector<std::thread> workers;
  for (int part = 0; part < 2; ++part) {
    workers.emplace_back([&, part] {
      const std::regex pair("([a-z]+)=([0-9]+)");
      for (size_t i = part; i < lines.size(); i += 2) {
        for (std::sregex_iterator it(lines[i].begin(), lines[i].end(), pair), end; it != end; ++it)
          sums[part][(*it)[1].str()] += std::stol((*it)[2].str());
      }
    });
  }
  for (auto& worker : workers) worker.join();
  for (const auto& [key, value] : sums[1]) sums[0][key] += value;
  for (const auto& [key, value] : sums[0]) std::cout << key << ' ' << value << '\n';
  return 0;
}
CC
lines=20000
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && lines=400000
awk -v n="$lines" 'BEGIN { split("alpha beta gamma delta omega", k, " ");
  for (i = 1; i <= n; i++) printf "row %d %s=%d %s=%d\n", i, k[1 + i % 5], i % 1000, k[1 + i % 3], i % 77 }' >input
expected=$(awk '{ for (f = 3; f <= NF; f++) { split($f, kv, "="); sum[kv[1]] += kv[2] } }
  END { for (key in sum) print key, sum[key] }' input | LC_ALL=C sort)
flags=(-std=c++17 -O1 -pthread)
g++ "${flags[@]}" -x c++ -c -o plain.o - <tally.cc || fail "g++ without the library failed"

# The compiler proper reads the source from a pipe that stays open until its memory map
# has been read: it is then blocked on standard input, long after its loader has run.
mkfifo source
exec 3<>source
LD_PRELOAD="$QUORLA_LIBRARY" g++ "${flags[@]}" -x c++ -c -o under.o - <source 2>compile.err 3>&- &
driver=$!
compiler=""
for _ in $(seq 3000); do
  compiler=$(pgrep -P "$driver" -x cc1plus || true)
  [ -n "$compiler" ] && break
  kill -0 "$driver" 2>/dev/null || break
  sleep 0.01
done
[ -n "$compiler" ] || fail "g++ started no cc1plus: $(cat compile.err)"
map_when_reading_stdin "$compiler" >compiler.map || fail "cc1plus under the library never read its input"
cat tally.cc >&3
exec 3>&-
status=0
wait "$driver" || status=$?
[ "$status" -eq 0 ] || fail "g++ under the library exited with $status: $(cat compile.err)"
expect_mapped cc1plus <compiler.map
cmp plain.o under.o || fail "the object file made under the library differs from the one made without it"
pass "g++ under the library made the same object file"

preloaded g++ -pthread -o tally under.o || fail "linking under the library failed"
actual=$(preloaded ./tally <input) || fail "the compiled program failed under the library"
[ "$actual" = "$expected" ] || fail "the program printed
$actual
instead of
$expected"
pass "compiled program's sums over $lines lines are right: $(tr '\n' ' ' <<<"$actual")"
