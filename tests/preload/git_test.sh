#!/usr/bin/env bash
# git under the library: a scratch repository with a few thousand files, commits, a
# branch, a three-way merge, log, an aggressive two-thread gc and fsck. Dates and names
# are fixed, so every object name must equal those of the same history made without the
# library.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v git >/dev/null || fail "git is missing (package git)"
files=1500
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && files=15000
export HOME="$scratch" GIT_CONFIG_NOSYSTEM=1 GIT_AUTHOR_NAME=Tester GIT_AUTHOR_EMAIL=t@example.org \
  GIT_COMMITTER_NAME=Tester GIT_COMMITTER_EMAIL=t@example.org GIT_AUTHOR_DATE="2020-01-01T00:00:00Z" \
  GIT_COMMITTER_DATE="2020-01-01T00:00:00Z" LC_ALL=C

# Builds the same history in $1 with every git command run through $2 (preloaded or plain),
# and prints what it ended with.
history() {
  local dir=$1 run=$2
  mkdir "$dir" && cd "$dir"
  $run git init -q -b main . || return 1
  # File i lives in d<i mod 37> and holds the numbers i to i+200.
  perl -e 'for $i (0 .. $ARGV[0] - 1) { mkdir "d" . $i % 37; open F, ">", "d" . $i % 37 . "/f$i.txt" or die;
    print F map { "$_\n" } $i .. $i + 200; close F }' "$files"
  # Edits every $2-th file from $1 on, except those in d$4 when given, with the perl code $3.
  edit() {
    perl -i -pe "$3; close ARGV if eof" $(for ((i = $1; i < files; i += $2)); do
      [ "$((i % 37))" = "${4:-}" ] || echo "d$((i % 37))/f$i.txt"; done)
  }
  $run git add -A && $run git commit -q -m "initial $files files" || return 1
  for round in 1 2 3; do
    edit "$round" 7 "\$_ .= \"round $round\\n\" if eof"
    $run git commit -q -a -m "round $round" || return 1
  done
  $run git checkout -q -b side || return 1
  edit 0 11 '$_ = "side $_" if $. == 1'
  $run git commit -q -a -m "side edits" && $run git rm -q -r d36 && $run git commit -q -m "side removes d36" || return 1
  $run git checkout -q main || return 1
  edit 3 13 '$_ .= "tail\n" if eof' 36
  $run git commit -q -a -m "main edits" || return 1
  $run git merge -q --no-edit side || return 1
  $run git -c pack.threads=2 gc -q --aggressive || return 1
  $run git fsck --full --strict --no-progress >&2 || return 1
  echo "head $($run git rev-parse HEAD)"
  echo "tree $($run git rev-parse 'HEAD^{tree}')"
  echo "log $($run git log --oneline --graph | md5sum)"
  echo "commits $($run git rev-list --count HEAD)"
  echo "files $($run git ls-files | wc -l)"
  echo "objects $($run git count-objects -v | grep -E '^(count|in-pack)')" | tr '\n' ' '; echo
  echo "diff $($run git diff --stat HEAD~1 HEAD | tail -n 1)"
}
plain() { "$@"; }
expected=$(history "$scratch/plain" plain) || fail "git without the library failed"
actual=$(history "$scratch/under" preloaded) || fail "git under the library failed"
[ "$actual" = "$expected" ] || fail "git under the library ended with
$actual
instead of
$expected"
grep -qx "commits 8" <<<"$actual" || fail "git: expected 8 commits (5 on main, 2 on side, the merge)"
grep -qx "files $((files - files / 37))" <<<"$actual" ||
  fail "git: wrong file count after the merge removed d36: $(grep files <<<"$actual")"
pass "git history made under the library is object for object the one made without it"
grep "head\|files\|objects" <<<"$actual"

# A batch reader answers one query, then waits on its input while its map is read.
cd "$scratch/under"
coproc reader { exec env LD_PRELOAD="$QUORLA_LIBRARY" git cat-file --batch-check; }
reader_pid=$reader_PID
echo HEAD >&"${reader[1]}"
read -r answer <&"${reader[0]}"
[[ "$answer" == *" commit "* ]] || fail "git cat-file answered '$answer'"
expect_mapped "git cat-file" <"/proc/$reader_pid/maps"
exec {reader[1]}>&-
wait "$reader_pid" || fail "git cat-file under the library exited with $?"
