#!/usr/bin/env bash
# The qxres tool end to end: builds a resource file from nothing, edits it, and reads back every
# change; opens the real sample files, lists them as their README says and round-trips each
# through a full rewrite; refuses damaged files and bad command lines with a message.
#
#   bash qxres-test.sh QXRES SAMPLE_DIR
set -uo pipefail

qxres=${1:?path to qxres}
samples=${2:-}
[ -d "$samples" ] || samples=/work/shared/testdata/rsrc

work=$(mktemp -d "${TMPDIR:-/tmp}/qxres-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# run EXPECTED_STATUS ARGS...: runs qxres, keeps stdout in $work/out and stderr in $work/err.
run() {
  local want=$1
  shift
  "$qxres" "$@" >"$work/out" 2>"$work/err"
  local got=$?
  if [ "$got" -ne "$want" ]; then
    fail "qxres $* exited $got, expected $want; stderr: $(head -c 300 "$work/err")"
    return 1
  fi
  if [ "$want" -ne 0 ] && [ ! -s "$work/err" ]; then
    fail "qxres $* failed without a message"
    return 1
  fi
  return 0
}

# Listing without the size column: 'TYPE' ID 0xAA ["NAME"].
strip_sizes() {
  sed -E 's/^('"'"'[^'"'"']*'"'"') +(-?[0-9]+) +(0x[0-9A-F]{2}) +([0-9]+|-)/\1 \2 \3/'
}

# --- Building a file from nothing ---------------------------------------------------------------

f=$work/made.rsrc
run 0 create "$f"
run 0 check "$f"
run 0 list "$f" && [ ! -s "$work/out" ] || fail "an empty file lists something"
run 1 create "$f"  # exists already

head -c 3000 /dev/zero | tr '\0' 'A' >"$work/a.bin"
printf 'binary \000\001\002\377 bytes' >"$work/b.bin"
: >"$work/empty.bin"
printf 'first line\nsecond\r\n\nfourth, after an empty one\n' >"$work/strings.txt"
# The same list built by hand: count 4, then length-prefixed strings.
printf '\000\004\012first line\006second\000\032fourth, after an empty one' >"$work/strings.expected"

run 0 add "$f" TEXT 128 "$work/a.bin" --name "Big A"
run 0 add "$f" 'd\xEBsc' -5 "$work/b.bin" --attrs 0x20
run 0 add "$f" TEXT 129 "$work/empty.bin"
run 0 add "$f" 'STR#' 200 "$work/strings.txt" --strings --name "Strings"
run 0 add "$f" TEXT -32768 "$work/b.bin" --attrs 8
run 1 add "$f" TEXT 128 "$work/b.bin"  # the id is taken
run 0 check "$f"

run 0 list "$f"
cat >"$work/list.expected" <<'EOF'
'TEXT' 128 0x00 3000 "Big A"
'TEXT' 129 0x00 0
'TEXT' -32768 0x08 17
'd\xEBsc' -5 0x20 17
'STR#' 200 0x00 48 "Strings"
EOF
tr -s ' ' <"$work/out" | diff -u "$work/list.expected" - || fail "listing of the built file"

for item in "TEXT 128 a.bin" "TEXT 129 empty.bin" 'd\xEBsc -5 b.bin' "TEXT -32768 b.bin" \
  "STR# 200 strings.expected"; do
  read -r type id input <<<"$item"
  run 0 extract "$f" "$type" "$id" "$work/x.bin" && cmp -s "$work/x.bin" "$work/$input" ||
    fail "extract $type $id differs from $input"
done

run 0 dump "$f" 'STR#' 200
grep -q '^4 strings$' "$work/out" && grep -q '^ *2 "second"$' "$work/out" &&
  grep -q '^ *3 ""$' "$work/out" || fail "dump of the string list: $(cat "$work/out")"
run 0 dump "$f" 'd\xEBsc' -5 --hex
grep -q '^00000000  62 69 6E 61 72 79 20 00  01 02 FF 20 62 79 74 65' "$work/out" ||
  fail "hex dump: $(cat "$work/out")"
run 0 dump "$f" TEXT 128 --text
[ "$(cat "$work/out")" = "$(cat "$work/a.bin")" ] || fail "text dump"
run 0 dump "$f" 'STR#' 200 --hex
grep -q '^00000000  00 04 0A 66' "$work/out" || fail "hex dump of a string list"

# Standard input and output stand for IN and OUT; a list shorter than its count is reported.
printf '\000\005\003abc\002d' | "$qxres" add "$f" 'STR#' 201 - && "$qxres" extract "$f" 'STR#' 201 - |
  cmp -s - <(printf '\000\005\003abc\002d') || fail "add from standard input, extract to standard output"
run 1 dump "$f" 'STR#' 201
grep -q '^ *1 "abc"$' "$work/out" && grep -q 'inside string 2 of 5' "$work/err" || fail "short string list"
run 0 remove "$f" 'STR#' 201

run 0 attrs "$f" 'd\xEBsc' -5 && [ "$(cat "$work/out")" = "0x20" ] || fail "attrs shows 0x20"
run 0 attrs "$f" 'd\xEBsc' -5 0x44
run 0 attrs "$f" 'd\xEBsc' -5 && [ "$(cat "$work/out")" = "0x44" ] || fail "attrs set to 0x44"
run 1 remove "$f" TEXT -32768  # protected
run 0 attrs "$f" TEXT -32768 0
run 0 remove "$f" TEXT -32768
run 1 remove "$f" TEXT -32768  # gone
run 0 remove "$f" TEXT 129
run 0 check "$f"
run 0 list "$f"
cat >"$work/list.expected" <<'EOF'
'TEXT' 128 0x00 3000 "Big A"
'd\xEBsc' -5 0x44 17
'STR#' 200 0x00 48 "Strings"
EOF
tr -s ' ' <"$work/out" | diff -u "$work/list.expected" - || fail "listing after the edits"

cp "$f" "$work/before-compact.rsrc"
run 0 compact "$f"
run 0 check "$f"
run 0 list "$f" && tr -s ' ' <"$work/out" | diff -u "$work/list.expected" - ||
  fail "listing after compact"
run 0 extract "$f" TEXT 128 "$work/x.bin" && cmp -s "$work/x.bin" "$work/a.bin" ||
  fail "data after compact"
# Removing every resource leaves a file as small as a new one.
run 0 remove "$f" TEXT 128 && run 0 remove "$f" 'd\xEBsc' -5 && run 0 remove "$f" 'STR#' 200
run 0 create "$work/new.rsrc"
[ "$(stat -c %s "$f")" = "$(stat -c %s "$work/new.rsrc")" ] || fail "emptied file size"
run 0 list "$f" && [ ! -s "$work/out" ] || fail "emptied file lists something"

# --- Random edits against a model ----------------------------------------------------------------
# A fixed seed makes the run the same every time. The model is a folder of blobs and three
# tables; after every tenth step the file's listing and every resource's bytes must match it.

RANDOM=7
f=$work/random.rsrc
run 0 create "$f"
# Types as the tool prints them, which is also how it reads them: 'a\\b ' is a, \, b and a space.
types=(TEXT PICT 'd\xEBsc' 'a\\b ')
declare -A msize mattr mname mblob
mkdir -p "$work/model"
pool=$(stat -c %s "$qxres")  # the tool's own bytes serve as data: every byte value occurs

compare_with_model() {
  local key type id line
  : >"$work/expected"
  for key in "${!msize[@]}"; do
    type=${types[${key%:*}]}
    id=${key#*:}
    line="'$type' $id $(printf '0x%02X' "${mattr[$key]}") ${msize[$key]}"
    [ -n "${mname[$key]}" ] && line="$line \"${mname[$key]}\""
    echo "$line" >>"$work/expected"
  done
  run 0 list "$f" || return
  diff -u <(LC_ALL=C sort "$work/expected") <(tr -s ' ' <"$work/out" | LC_ALL=C sort) ||
    fail "listing differs from the model at step $1"
  for key in "${!msize[@]}"; do
    type=${types[${key%:*}]}
    id=${key#*:}
    run 0 extract "$f" "$type" "$id" "$work/x.bin" &&
      cmp -s "$work/x.bin" "${mblob[$key]}" || fail "$key differs from the model at step $1"
  done
}

for step in $(seq 1 60); do
  t=$((RANDOM % 4))
  typearg=${types[t]}
  id=$((RANDOM % 7 - 3))
  key="$t:$id"
  case $((RANDOM % 5)) in
    0 | 1 | 2)
      n=$((RANDOM % 3 == 0 ? 0 : RANDOM % 3000))
      tail -c +$((RANDOM * 16 % (pool - n) + 1)) "$qxres" | head -c "$n" >"$work/in.bin"
      name=()
      ((RANDOM % 2)) && name=(--name "n$step")
      a=$((RANDOM % 256))
      if [ -n "${msize[$key]+set}" ]; then
        run 1 add "$f" "$typearg" "$id" "$work/in.bin"
      elif run 0 add "$f" "$typearg" "$id" "$work/in.bin" "${name[@]}" --attrs "$a"; then
        mblob[$key]=$work/model/$step
        cp "$work/in.bin" "${mblob[$key]}"
        msize[$key]=$n
        mattr[$key]=$((a & 0xFD))  # the changed bit never stays on disk
        mname[$key]=${name[1]:-}
      fi
      ;;
    3)
      if [ -z "${msize[$key]+set}" ]; then
        run 1 remove "$f" "$typearg" "$id"
      elif (( ${mattr[$key]} & 8 )); then
        run 1 remove "$f" "$typearg" "$id"
      elif run 0 remove "$f" "$typearg" "$id"; then
        unset "msize[$key]" "mattr[$key]" "mname[$key]" "mblob[$key]"
      fi
      ;;
    4)
      a=$((RANDOM % 256))
      if [ -z "${msize[$key]+set}" ]; then
        run 1 attrs "$f" "$typearg" "$id" "$a"
      elif run 0 attrs "$f" "$typearg" "$id" "$a"; then
        mattr[$key]=$((a & 0xFD))
      fi
      ;;
  esac
  if ((step % 10 == 0)); then
    ((step == 30)) && run 0 compact "$f"
    run 0 check "$f"
    compare_with_model "$step"
  fi
done
[ "${#msize[@]}" -ge 5 ] || fail "the random run left only ${#msize[@]} resources"

# --- Real files -----------------------------------------------------------------------------------

expect_listing() {
  local file=$1
  shift
  printf '%s\n' "$@" | sed '/^$/d' | sort >"$work/expected"
  if run 0 list "$samples/$file"; then
    strip_sizes <"$work/out" | tr -s ' ' | sort | diff -u "$work/expected" - ||
      fail "listing of $file"
  fi
}

expect_listing rsrcfork-empty.rsrc ""
expect_listing rsrcfork-testfile.rsrc "'STR ' 128 0x00" "'STR ' 129 0x00 \"The Name\"" \
  "'STR ' 130 0x0C" "'STR ' 131 0x40 \"The Name with Attributes\""
expect_listing rsrcfork-unicode.textClipping.rsrc "'utxt' 256 0x00" "'utf8' 256 0x00" \
  "'TEXT' 256 0x00" "'drag' 128 0x00"
expect_listing diamond-NovaTest.rsrc "'d\\x91sc' 128 0x00 \"Test Description\""
expect_listing diamond-SimpleFork.rsrc "'TEXT' 128 0x00 \"Test Name\"" \
  "'STR ' 128 0x00 \"Placeholder\""
expect_listing diamond-test.rsrc "'CODE' 0 0x00"
expect_listing lubert-test.ndat "'ds\\x95g' 128 0x00" "'w\\x91ap' 128 0x00 \"blaster\""
expect_listing fonttools-rez-testdata.rsrc "'TEST' 128 0x00 \"name1\"" \
  "'TEST' 129 0x00 \"name2\"" "'test' 130 0x00 \"name3\""
expect_listing monobit-4x6.dfont "'NFNT' 4756 0x00" "'FOND' 4756 0x00 \"Fixed\""
expect_listing monobit-4x6.sfnt.dfont "'sfnt' 11345 0x00" "'NFNT' 11351 0x00" \
  "'FOND' 11345 0x00 \"Fixed\""

# Every classic file: sound, and unchanged in content by a full rewrite.
for sample in "$samples"/*; do
  name=$(basename "$sample")
  case "$name" in *.md | *not-classic*) continue ;; esac
  run 0 check "$sample" || continue
  copy=$work/$name
  cp "$sample" "$copy"
  chmod u+w "$copy"
  run 0 list "$copy" || continue
  cp "$work/out" "$work/listing"
  mkdir -p "$work/blobs"
  rm -f "$work/blobs"/*
  n=0
  while IFS= read -r line; do
    type=$(sed -E "s/^'([^']*)'.*/\\1/" <<<"$line")
    id=$(sed -E "s/^'[^']*' +(-?[0-9]+).*/\\1/" <<<"$line")
    n=$((n + 1))
    run 0 extract "$copy" "$type" "$id" "$work/blobs/$n" || fail "extract $type $id of $name"
  done <"$work/listing"
  run 0 compact "$copy" || continue
  run 0 check "$copy"
  run 0 list "$copy" && diff -u "$work/listing" "$work/out" || fail "listing of $name after compact"
  n=0
  while IFS= read -r line; do
    type=$(sed -E "s/^'([^']*)'.*/\\1/" <<<"$line")
    id=$(sed -E "s/^'[^']*' +(-?[0-9]+).*/\\1/" <<<"$line")
    n=$((n + 1))
    run 0 extract "$copy" "$type" "$id" "$work/x.bin" && cmp -s "$work/x.bin" "$work/blobs/$n" ||
      fail "$type $id of $name changed in compact"
  done <"$work/listing"
done

# --- Damaged files and bad command lines ------------------------------------------------------------

run 1 check "$samples/diamond-SimpleExtendedFork.not-classic.rsrc"
run 1 list "$samples/diamond-SimpleExtendedFork.not-classic.rsrc"
head -c 400 "$samples/rsrcfork-testfile.rsrc" >"$work/truncated.rsrc"
run 1 check "$work/truncated.rsrc"
run 1 list "$work/truncated.rsrc"
yes 'not a resource file' | head -c 1000 >"$work/garbage.rsrc"
run 1 check "$work/garbage.rsrc"
run 1 list "$work/garbage.rsrc"
: >"$work/zero.rsrc"
run 1 check "$work/zero.rsrc"
run 1 check "$work/no-such-file"
run 1 add "$work/garbage.rsrc" TEXT 1 "$work/a.bin"
cmp -s "$work/garbage.rsrc" <(yes 'not a resource file' | head -c 1000) || fail "garbage file was changed"

# Block positions are 24 bits: a block may not start 16 MiB - 1 or more into the data area. A block
# of 17 MiB fits as the last one; nothing fits behind it, but a block of an earlier type still does.
g=$work/big.rsrc
head -c $((17 << 20)) /dev/zero >"$work/big.bin"
run 0 create "$g" && run 0 add "$g" AAAA 1 "$work/b.bin" && run 0 add "$g" BIGG 1 "$work/big.bin"
run 1 add "$g" BIGG 2 "$work/b.bin" && grep -q "16 MiB" "$work/err" || fail "a block past 16 MiB"
run 1 add "$g" CCCC 1 "$work/b.bin"
run 0 add "$g" AAAA 2 "$work/b.bin"
run 0 check "$g"
rm -f "$g" "$work/big.bin"

# A link stands for its target, and stays a link after a rewrite; a folder is no resource file.
run 0 create "$work/target.rsrc" && ln -s target.rsrc "$work/link.rsrc"
run 0 add "$work/link.rsrc" TEXT 1 "$work/b.bin"
[ -L "$work/link.rsrc" ] && run 0 list "$work/target.rsrc" && grep -q "^'TEXT' *1 " "$work/out" ||
  fail "an edit through a link"
run 1 list "$work"

f=$work/made.rsrc
run 2
run 2 frobnicate "$f"
run 2 list
run 2 list "$f" extra
run 2 dump "$f" TEXT
run 2 dump "$f" TOOLONG 1
run 2 dump "$f" TXT 1
run 2 dump "$f" 'TX\xZZ' 1
run 2 dump "$f" TEXT 32768
run 2 dump "$f" TEXT 12x
run 2 dump "$f" TEXT 1 --octal
run 2 attrs "$f" TEXT 1 256
run 2 add "$f" TEXT 1 "$work/a.bin" --name
run 1 dump "$f" TEXT 1  # not there
run 1 add "$f" TEXT 1 "$work/no-such-input"
run 0 --help && grep -q 'qxres list FILE' "$work/out" || fail "--help"
run 0 add --help && grep -q 'usage: qxres add' "$work/out" || fail "add --help"

if [ "$failures" -ne 0 ]; then
  echo "$failures failures"
  exit 1
fi
echo "qxres: all checks passed"
