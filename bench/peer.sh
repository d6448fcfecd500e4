#!/usr/bin/env bash
# The scripted peer: applies a phone image's translation rule file the way such
# migrations are usually scripted, one `crudini --get` and one `crudini --set` per
# rule, so the benchmark can compare cfgupgrade with it on the same image.
#
#   bench/peer.sh ROOT
#
# It follows the rules as the tool does: a destination part that is missing takes
# the source's, a rule without a complete destination is skipped, a rule without a
# complete source clears its destination, a missing destination file stops the run.
# With the lock setting on, a value marked dstEncrypt="1" is stored protected unless
# it already is; openssl stands in for the phone's password routine (its output is
# not the tool's, only the work is comparable). Rule elements are read one per line,
# as the rule files of the benchmark images are written.
set -u
root=$1
rules=/phone/resource/configTranslate.xml
key=000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f
iv=0f0e0d0c0b0a09080706050403020100

if [ ! -f "$root$rules" ]; then
  echo "The file [$rules] not exist !"
  exit 0
fi
lock=$(crudini --get "$root/config/user/user.ini" PhoneSetting EnLock 2>/dev/null) || lock=0
lock=${lock:-0}

line=
# Sets variable $1 to the value of attribute $1 on the current line (empty when absent).
attribute() {
  local re="[[:space:]]$1=\"([^\"]*)\""
  if [[ $line =~ $re ]]; then printf -v "$1" '%s' "${BASH_REMATCH[1]}"; else printf -v "$1" ''; fi
}

# Already protected: it decodes, to text without bytes of 0x80 or above.
protect() {
  local plain
  if plain=$(printf '%s' "$1" | openssl enc -d -aes-256-cbc -K $key -iv $iv -a -A 2>/dev/null) &&
     ! LC_ALL=C grep -q '[^[:print:][:space:]]' <<<"$plain"; then
    printf '%s' "$1"
  else
    printf '%s' "$1" | openssl enc -aes-256-cbc -K $key -iv $iv -a -A
  fi
}

while IFS= read -r line; do
  [[ $line == *'<'[A-Za-z]*' '*'/>'* ]] || continue
  for a in srcFile srcSec srcKey dstFile dstSec dstKey dstEncrypt; do attribute $a; done
  dstFile=${dstFile:-$srcFile}; dstSec=${dstSec:-$srcSec}; dstKey=${dstKey:-$srcKey}
  [ -n "$dstFile" ] && [ -n "$dstSec" ] && [ -n "$dstKey" ] || continue

  value=
  if [ -n "$srcFile" ] && [ -n "$srcSec" ] && [ -n "$srcKey" ]; then
    if [ -f "$root$srcFile" ]; then
      value=$(crudini --get "$root$srcFile" "$srcSec" "$srcKey" 2>/dev/null) || value=
    else
      echo "Can's load user's inifile [$srcFile]!"
    fi
    if [ "$lock" != 0 ] && [ "$dstEncrypt" = 1 ]; then value=$(protect "$value"); fi
  fi
  if [ ! -f "$root$dstFile" ]; then
    echo "Can's load user's inifile!"
    exit 0
  fi
  crudini --set "$root$dstFile" "$dstSec" "$dstKey" "$value"
done < "$root$rules"
exit 0
