#!/usr/bin/env bash
# qxtoken end to end: check, tree and fmt on a sample document and on broken ones. The exit
# status of each run is checked; fmt's output must pass check and be its own canonical form.
#   bash qxtoken-test.sh PATH/TO/qxtoken
set -u
tool=${1:?usage: qxtoken-test.sh PATH/TO/qxtoken}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

expect() {  # expect STATUS DESCRIPTION -- COMMAND...
  local want=$1 what=$2
  shift 3
  "$@" >"$work/out" 2>"$work/err"
  local got=$?
  if [ "$got" -eq "$want" ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAIL: $what: exit $got, expected $want"
    sed 's/^/  stderr: /' "$work/err"
  fi
}

contains() {  # contains FILE TEXT DESCRIPTION
  if grep -qF -- "$2" "$1"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAIL: $3: '$2' not found in:"
    sed 's/^/  /' "$1"
  fi
}

# A hand-edited sample: odd spacing, LF and CR LF line ends, comments everywhere, a binary $
# block holding "$" and braces, a text $ block, nested blocks, strings with escapes.
printf '# settings\r\nVers 2\r\nFont   {\n  Name "my \\"name\\""   # the face\n  Size 12\n    Pos 10,20\r\n  Styl {  Bold 1 Ital 0 }\n # before the brace\n }\nData $00000004 {$}x$\r\nRuns $FFFFFFFF\r\n0000000100000002$\r\nRect 0,0,100,200\r\n# at the end\r\n' >"$work/sample.tok"
# A string longer than the token reader keeps (255 characters) must survive fmt whole.
long=$(printf 'ab\\"\\\\%.0s' $(seq 100))  # ab\"\\ a hundred times
printf 'Long "%s"\r\n' "$long" >>"$work/sample.tok"

expect 0 "check sample" -- "$tool" check "$work/sample.tok"
contains "$work/out" "6 top-level items" "check counts the items"
expect 0 "tree sample" -- "$tool" tree "$work/sample.tok"
contains "$work/out" 'Font { 4 items, line 3' "tree shows the block"
contains "$work/out" '    Bold = 1' "tree indents nested items"
contains "$work/out" '  Name = "my \"name\""' "tree keeps the string as written"
contains "$work/out" 'Data = $ block of 15 bytes' "tree shows the binary block"
contains "$work/out" "Long = \"$long\"" "tree shows the long string whole"

expect 0 "fmt sample to a file" -- "$tool" fmt "$work/sample.tok" -o "$work/fmt1.tok"
expect 0 "fmt sample to stdout" -- "$tool" fmt "$work/sample.tok"
cp "$work/out" "$work/stdout.tok"
expect 0 "fmt -o and stdout agree" -- cmp "$work/fmt1.tok" "$work/stdout.tok"
expect 0 "check the fmt output" -- "$tool" check "$work/fmt1.tok"
expect 0 "fmt the fmt output" -- "$tool" fmt "$work/fmt1.tok" -o "$work/fmt2.tok"
expect 0 "fmt is idempotent" -- cmp "$work/fmt1.tok" "$work/fmt2.tok"
# The same tree, but for the line numbers of the blocks.
expect 0 "tree is unchanged by fmt" -- bash -c \
  "diff <('$tool' tree '$work/sample.tok' | sed 's/, line [0-9]*//') \
        <('$tool' tree '$work/fmt1.tok' | sed 's/, line [0-9]*//')"
printf 'Font {\r\n Name "my \\"name\\""\r\n' >"$work/head.expected"
expect 0 "fmt layout: block and indentation" -- bash -c \
  "grep -A1 -a '^Font {' '$work/fmt1.tok' | cmp - '$work/head.expected'"
printf ' Styl {\r\n  Bold 1\r\n  Ital 0\r\n  }\r\n # before the brace\r\n }\r\n' \
  >"$work/tail.expected"
expect 0 "fmt layout: closing braces one further in" -- bash -c \
  "grep -B5 -a '^ }' '$work/fmt1.tok' | cmp - '$work/tail.expected'"

# Broken documents: exit 1 and the line of the first error.
broken() {  # broken NAME CONTENT LINE-TEXT
  printf "$2" >"$work/$1.tok"
  expect 1 "check $1" -- "$tool" check "$work/$1.tok"
  contains "$work/err" "$3" "check $1 names the place"
  expect 1 "fmt $1" -- "$tool" fmt "$work/$1.tok"
}
broken open-block 'Font {\r\n Size 1\r\n' ':3: byte 17: the file ends inside the block Font opened on line 1'
broken stray-brace 'Size 1\r\n}\r\n' ':2: byte 8: "}" without a block to close'
broken open-string 'Size 1\r\nName "abc\r\n' ':2: byte 13: the file ends inside a string'
broken no-end 'Size 1\r\nName x' ':2: byte 13: the file ends inside a word'
broken long-token 'Sizes 1\r\n' ':1: byte 0: a token of more than four characters'
broken no-value 'Size\r\n' ':2: byte 6: the file ends where the value of Size was expected'
broken short-binary 'Data $00000010 abc$\r\n' ':1: byte 5: a $ block runs past the end of the file'
broken bad-length 'Data $12$\r\n' ':1: byte 5: malformed length of a $ block'
broken zero-byte 'Size 1\0002\r\n' ':1: byte 5: a zero byte inside a word'
broken long-word "Size $(printf 'x%.0s' $(seq 300))\r\n" ':1: byte 5: a word of more than 255'

expect 1 "missing file" -- "$tool" check "$work/none.tok"
contains "$work/err" "cannot open" "missing file is named"
expect 2 "no arguments" -- "$tool"
expect 2 "unknown command" -- "$tool" lint "$work/sample.tok"
expect 2 "-o without a name" -- "$tool" fmt "$work/sample.tok" -o
expect 2 "two files" -- "$tool" check "$work/sample.tok" "$work/sample.tok"
expect 0 "--help" -- "$tool" --help
contains "$work/out" "usage: qxtoken check FILE" "--help prints the usage"
printf '' >"$work/empty.tok"
expect 0 "an empty document is well formed" -- "$tool" check "$work/empty.tok"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
