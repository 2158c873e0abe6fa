#!/bin/sh
# Every exported function must be in the interface for C++, in ruvo_cli, in the tests' list of all operations, and in
# the manual pages.
set -eu
cd "$(dirname "$0")/.."

missing=0
# want NAME PLACE PATTERN FILE...: fails if no file has the pattern
want() {
  name=$1 place=$2 pattern=$3
  shift 3
  grep -qE -- "$pattern" "$@" || { echo "$name is missing from $place" >&2; missing=1; }
}

operations=0
for function in $(sed -nE 's/^ (RUVO_[A-Za-z]+)@.*/\1/p' packaging/libruvo1.symbols); do
  want "$function" "libruvo(3)" "^\.Fn $function " packaging/man/libruvo.3.in
  # Runs the same command as RUVO_ExecRedisCmd, but takes a va_list.
  [ "$function" != RUVO_ExecRedisvCmd ] || continue
  want "$function" ruvo.hpp "\\b$function\\(" src/openlib/ruvo/*.hpp
  case $function in
    RUVO_Init | RUVO_Fini | RUVO_FreeResult | RUVO_FreeReplyObject) continue ;;  # no operations
  esac
  case $function in
    RUVO_ExecRedisCmd) want "$function" ruvo_cli "pool\.command\(" tools/cli/raw_command.cpp ;;  # of ruvo.hpp
    *) want "$function" ruvo_cli "\\b$function\\b" tools/cli/operations.cpp ;;
  esac
  want "$function" every_operation.h "^ +Operation\{\"${function#RUVO_}\", " testing/every_operation.h
  operations=$((operations + 1))
done

commands=$(sed -nE 's/^      \{"([a-z]+)",$/\1/p' tools/cli/operations.cpp)
for command in $commands; do
  want "ruvo_cli $command" "ruvo_cli(1)" "^\.It Cm $command Ar " packaging/man/ruvo_cli.1.in
done
# The number of operations: a list that is misread would let everything pass.
if [ "$operations" -eq 0 ] || [ "$(echo "$commands" | wc -w)" -ne "$operations" ]; then
  echo "$operations operations, and in ruvo_cli:" $commands >&2
  missing=1
fi
exit $missing
