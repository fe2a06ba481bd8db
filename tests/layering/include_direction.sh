#!/usr/bin/env bash
# Reads every #include line under zephlo/ and fails on one that goes the wrong way:
#   base <- platform <- socket, events <- core <- capture, stream <- extension
# Capture never sees the socket, the core or the stream; events see only base.
# The libraries that the platform wraps stay inside platform/ (libcbor inside the
# socket's codec too). Tests and their *_test_support headers may also use
# zephlo/testing/, which is test support and may use any folder, but never a
# program.
# Usage: include_direction.sh SOURCE_DIR
set -euo pipefail
cd "${1:-.}"

declare -A allowed=(
  [base]="base"
  [platform]="base platform"
  [socket]="base platform socket"
  [events]="base events"
  [core]="base platform socket events core"
  [capture]="base platform capture"
  [stream]="base platform socket events core capture stream"
  [extension]="base platform socket events core capture stream extension"
  [testing]="base platform socket events core capture stream extension testing"
)
# Third-party headers that only the platform layer includes.
platform_only='^(boost/asio|boost/beast|curl/|libswscale/|libavutil/|turbojpeg\.h|sqlite3\.h|openssl/)'

bad=0
complain() { echo "$1: $2" >&2; bad=1; }

while IFS= read -r file; do
  folder=${file#zephlo/}
  folder=${folder%%/*}
  if [[ -z ${allowed[$folder]+set} ]]; then
    complain "$file" "folder '$folder' has no place in the layering (add it to ${BASH_SOURCE[0]##*/})"
    continue
  fi
  ok=" ${allowed[$folder]} "
  [[ $file == *_test.* || $file == *_test_support.* ]] && ok+="testing "
  while IFS= read -r line; do
    if [[ $line =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\"([^\"]+)\" ]]; then
      target=${BASH_REMATCH[1]}
      if [[ $target == zephlo/* ]]; then
        to=${target#zephlo/}
        to=${to%%/*}
        [[ $ok == *" $to "* ]] || complain "$file" "includes $target ($folder may not depend on $to)"
      elif [[ $target == */* ]]; then
        complain "$file" "includes $target from outside the library"
      fi
    elif [[ $line =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\<([^\>]+)\> ]]; then
      target=${BASH_REMATCH[1]}
      if [[ $folder != platform && $folder != testing && $target =~ $platform_only ]]; then
        complain "$file" "includes <$target>, which only the platform layer wraps"
      fi
      if [[ $target == cbor.h || $target == cbor/* ]] && [[ $file != zephlo/socket/cbor_codec.cpp ]] &&
         [[ $folder != platform && $folder != testing ]]; then
        complain "$file" "includes <$target>; libcbor stays inside the socket's codec"
      fi
    fi
  done < "$file"
done < <(find zephlo -type f \( -name '*.hpp' -o -name '*.cpp' -o -name '*.h' \) | sort)

if (( bad )); then
  echo "include direction: FAILED" >&2
  exit 1
fi
echo "include direction: every include goes down the layers"
