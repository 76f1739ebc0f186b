#!/usr/bin/env bash
# Checks the manual page against the code (ctest runs it as man.page):
#   1. `mandoc -T lint` has nothing to say about man/quarrystat.1;
#   2. every short option of the getopt_long string in tool/main.cpp and every long option of its
#      table appears in the page (as \-x and \-\-name);
#   3. every exit status of the table below appears in the page's EXIT STATUS section as a
#      ".B <status>" line;
#   4. the code produces no status the table lacks: every exit(N) in tool/ is in the table, and
#      every negated errno name in tool/ is either a status of the table or named in
#      NOT_AN_EXIT_STATUS with the reason it never reaches main;
#   5. with a BINARY argument: every "# quarrystat ARGS" example of the first EXAMPLES block is
#      what BINARY prints on the sample snapshot (trailing blanks aside; standard error is not
#      part of an example).
# A status of the table whose code is not (or no longer) in tool/ is only warned about: the page
# may describe a status that a branch not yet merged adds. A new status is added to the table
# with the code that makes it; the check then demands a line for it in the page.
#   check-man.sh [BINARY]
set -euo pipefail
binary=${1:+$(realpath "$1")}
cd "$(dirname "$0")/.."
page=man/quarrystat.1
fail=0
problem() { echo "check-man: $*" >&2; fail=1; }

# status | fixed text in the code that produces it | where (file or folder) | what it means
STATUSES=(
  "0|return 0;|tool/main.cpp|a report"
  "1|exit(1)|tool/unmapped.cpp|-u or -n could not open /proc"
  "239|-EEXIST|tool|a source file could not be opened"
  "244|-ENOMEM|tool|memory ran out"
  "251|-EIO|tool/main.cpp|the report could not be written to standard output"
  "255|return -1;|tool/main.cpp|a usage text"
)
# Negated errno values that tool/ returns but main never does, and why.
NOT_AN_EXIT_STATUS=(
  "EINVAL|a malformed /proc/iomem line leaves one -s line out; -s still exits 0"
)

lint=$(mandoc -T lint "$page" 2>&1 || true)
[ -z "$lint" ] || problem "mandoc -T lint: $lint"

shorts=$(sed -n 's/.*getopt_long([^"]*"\([^"]*\)".*/\1/p' tool/main.cpp | tr -d ':')
[ -n "$shorts" ] || problem "no getopt_long option string in tool/main.cpp"
for ((i = 0; i < ${#shorts}; i++)); do
  grep -qF -- "\\-${shorts:i:1}" "$page" || problem "option -${shorts:i:1} is not in $page"
done
longs=$(sed -n 's/^ *{"\([a-z_]*\)", *[a-z_]*_argument.*/\1/p' tool/main.cpp)
[ -n "$longs" ] || problem "no long option table in tool/main.cpp"
for name in $longs; do
  grep -qF -- "\\-\\-${name//_/\\_}" "$page" || grep -qF -- "\\-\\-$name" "$page" ||
    problem "option --$name is not in $page"
done

section=$(sed -n '/^\.SH EXIT STATUS/,/^\.SH /p' "$page")
listed=()
for entry in "${STATUSES[@]}"; do
  IFS='|' read -r status text where meaning <<<"$entry"
  listed+=("$status")
  grep -qx "\.B $status" <<<"$section" || problem "exit status $status ($meaning) is not in EXIT STATUS of $page"
  grep -rqF -- "$text" "$where" ||
    echo "check-man: warning: exit status $status ($meaning): \"$text\" is not in $where" >&2
done
# Every exit(N) of the tool is a listed status.
for n in $(grep -rhoE '\bexit\(([0-9]+)\)' tool | tr -dc '0-9\n' | sort -u); do
  [[ " ${listed[*]} " == *" $n "* ]] || problem "tool/ calls exit($n); status $n is not in the table"
done
# Every negated errno the tool returns is a listed status or known not to reach main.
for name in $(grep -rhoE -- '-E[A-Z0-9]+\b' tool | sort -u | cut -c2-); do
  known=0
  for entry in "${STATUSES[@]}"; do [[ $entry == *"|-$name|"* ]] && known=1; done
  for entry in "${NOT_AN_EXIT_STATUS[@]}"; do [[ $entry == "$name|"* ]] && known=1; done
  [ $known = 1 ] || problem "tool/ returns -$name; add its status (256 - $name) to the table and the page, or explain it in NOT_AN_EXIT_STATUS"
done

if [ -n "$binary" ]; then
  examples=$(mktemp -d)
  # The first no-fill block of EXAMPLES, roff escapes undone, split at each "# quarrystat" line.
  sed -n '/^\.SH EXAMPLES/,/^\.SH /p' "$page" |
    awk '/^\.EX/ { n++; next } /^\.EE/ { if (n == 1) exit; next } n == 1' | sed 's/\\-/-/g; s/\\(aq/'"'"'/g; s/\\&//g' |
    awk -v d="$examples" '/^# quarrystat / { n++; sub(/^# quarrystat /, ""); sub(/ 2>\/dev\/null$/, "");
                                             print > (d "/args." n); next }
                          n { print > (d "/want." n) }'
  for args_file in "$examples"/args.*; do
    n=${args_file##*.}
    # shellcheck disable=SC2046  # the example's arguments are words
    scripts/run-in-tree.sh sample/device "$binary" $(cat "$args_file") 2>/dev/null | sed 's/ *$//' >"$examples/got.$n" || true
    touch "$examples/want.$n"
    diff -q "$examples/want.$n" "$examples/got.$n" >/dev/null ||
      problem "example \"quarrystat $(cat "$args_file")\" is not what $binary prints on sample/device: $(diff "$examples/want.$n" "$examples/got.$n" | head -5)"
  done
  [ -e "$examples/args.1" ] || problem "no \"# quarrystat\" examples in EXAMPLES"
  rm -rf "$examples"
fi

[ $fail = 0 ] && echo "check-man: $page lints clean; options $shorts and ${longs//$'\n'/ }, statuses ${listed[*]} documented"
exit $fail
