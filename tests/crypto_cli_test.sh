#!/usr/bin/env bash
# Drives `pelmora crypto` end to end: keygen -> sign -> verify (and a tampered file), encrypt ->
# decrypt through the standard streams, a known MD5, hex/unhex, and the password rules.
#   crypto_cli_test.sh PELMORA_BINARY SCRATCH_DIR
set -uo pipefail
tool=$1
dir=$2
rm -rf "$dir" && mkdir -p "$dir" && cd "$dir" || exit 2
failures=0

check() {  # check NAME EXPECTED ACTUAL
  if [[ "$2" == "$3" ]]; then echo "ok   $1"; else echo "FAIL $1: expected [$2], got [$3]"; failures=$((failures + 1)); fi
}

printf 'secret\n' > pw
printf 'the message to sign\n' > message

# Keys, signatures and the exit status of verify, at both levels.
for level in strong base; do
  "$tool" crypto keygen --level $level --password-file pw --public pub.$level --private priv.$level
  check "keygen $level" 0 $?
  check "public blob $level starts with PUBLICKEYBLOB" 0602000000240000 "$("$tool" crypto hex pub.$level | cut -c1-16)"
  "$tool" crypto sign --level $level --key priv.$level --password-file pw -o sig.$level message
  check "sign $level" 0 $?
  "$tool" crypto verify --level $level --key pub.$level --signature sig.$level message >/dev/null
  check "verify $level" 0 $?
  printf 'the message to sigN\n' > tampered
  "$tool" crypto verify --level $level --key pub.$level --signature sig.$level tampered 2>err
  check "verify tampered $level" 1 $?
  check "verify tampered text" "pelmora: crypto verify: error -2146893818: Invalid Signature." "$(cat err)"
done
"$tool" crypto verify --key sig.strong --signature sig.strong message 2>/dev/null
check "verify with a signature as key is another error" 2 $?
printf 'wrong\n' > badpw
"$tool" crypto sign --key priv.strong --password-file badpw message >/dev/null 2>err
check "sign with a wrong password" "1 pelmora: crypto sign: error -2146893819: Bad Data." "$? $(cat err)"

# Keys are never overwritten, and the private one is its owner's alone.
check "private blob mode" 600 "$(stat -c %a priv.strong)"
cp pub.strong pub.before
"$tool" crypto keygen --password-file pw --public pub.strong --private priv.new 2>err
check "keygen over an existing key" "2 pelmora: crypto keygen: pub.strong exists: remove it first (keys are never overwritten)" "$? $(cat err)"
check "the existing key is untouched" "" "$(cmp pub.strong pub.before)"
check "no private blob made" "" "$(ls priv.new 2>/dev/null)"

# Encryption round trip through the standard streams, with the password from a file.
head -c 3000 /dev/urandom > plain
"$tool" crypto encrypt --password-file pw < plain | "$tool" crypto decrypt --password-file pw - > back
check "encrypt/decrypt round trip" "$(md5sum < plain)" "$(md5sum < back)"
check "cipher text has the plain length" 3000 "$("$tool" crypto encrypt --password-file pw plain | wc -c)"
check "known RC4 key of MD5(secret)" "$(printf abc | openssl enc -rc4 -nosalt -K "$(printf secret | md5sum | cut -c1-32)" -provider legacy -provider default | xxd -p)" \
  "$(printf abc | "$tool" crypto encrypt --password-file pw | xxd -p)"

# Hash, hex and unhex.
check "md5 of abc" 900150983CD24FB0D6963F7D28E17F72 "$(printf abc | "$tool" crypto hash --hex)"
check "raw md5 is 16 bytes" 16 "$(printf abc | "$tool" crypto hash | wc -c)"
printf abc > abc.txt
check "hash --sum is md5sum's line" "$(md5sum abc.txt)" "$("$tool" crypto hash --sum abc.txt)"
check "hash --sum of standard input" "$(printf abc | md5sum)" "$(printf abc | "$tool" crypto hash --sum)"
check "help says what the algorithms are for" 1 \
  "$("$tool" crypto --help | grep -c 'not strong enough to protect new secrets')"
check "hex" 00FF41 "$(printf '\000\377A' | "$tool" crypto hex)"
check "unhex" 00ff41 "$(printf '00 ff\n41\n' | "$tool" crypto unhex | xxd -p)"
printf 'xyz' | "$tool" crypto unhex >/dev/null 2>err
check "unhex of text that is not hex" "2 pelmora: crypto unhex: the input is not hexadecimal digit pairs" "$? $(cat err)"
check "random" 40 "$("$tool" crypto random 20 --hex | tr -d '\n' | wc -c)"
"$tool" crypto random 0 2>err
check "random 0" "1 pelmora: crypto random: error 87: The parameter is incorrect." "$? $(cat err)"

# Passwords: never without a terminal or a file.
setsid -w "$tool" crypto encrypt plain </dev/null >/dev/null 2>err
check "no terminal, no password file" \
  "2 pelmora: crypto encrypt: no password: give --password-file FILE or PELMORA_PASSWORD, or run on a terminal to type it" "$? $(cat err)"
check "PELMORA_PASSWORD stands in for the file" "$("$tool" crypto encrypt --password-file pw plain | md5sum)" \
  "$(PELMORA_PASSWORD=secret setsid -w "$tool" crypto encrypt plain </dev/null | md5sum)"
: > empty
"$tool" crypto encrypt --password-file empty plain >/dev/null 2>err
check "empty password file" "2 pelmora: crypto encrypt: the password is empty" "$? $(cat err)"
"$tool" crypto encrypt --password secret plain >/dev/null 2>&1
check "no password on the command line" 2 $?
"$tool" crypto keygen --level weak --password-file pw --public a --private b >/dev/null 2>&1
check "unknown level" 2 $?

echo "$failures failure(s)"
[[ $failures -eq 0 ]]
