# Sourced by the shell test scripts that run one named case on a binary (SCRIPT BINARY CASE):
# sets top (the project, also the working directory), binary, case_name and work (a scratch
# folder removed on exit), and fail MESSAGE, which ends the case.
set -uo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
binary=$(realpath "$1")
case_name=$2
cd "$top" || exit 1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL $case_name: $*"; exit 1; }
