#!/bin/sh
# Making the key of a table's cipher suite with corvida-pb, and handing keys
# to the tool without putting them on its command line.
#
#   cipher_keys.sh CORVIDA_PB SOURCE_DIR
#
# Runs in a scratch directory of its own; fails on the first unexpected
# result. docs/guide.md quotes the regions between START and END.
set -eu
tool=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
ln -s "$tool" "$work/bin/corvida-pb"
PATH="$work/bin:$PATH"
cd "$work"
cp "$source_dir/docs/examples/guide.proto" .
unset CORVIDA_PB_CIPHERS

fail() {
    echo "cipher_keys.sh: $*" >&2
    exit 1
}

# [START new-key]
corvida-pb cipher new -o fleet.key > new.txt  # 32 random bytes as hex text, in a file of mode 0600
cat new.txt
# wrote a new 32-byte key to fleet.key
# corvida_cipher_md5: <the MD5 to record in the table's corvida_cipher_md5 option>
corvida-pb cipher md5 --key-file fleet.key    # prints the same line again, from the key alone
# [END new-key]
[ "$(stat -c %a fleet.key)" = 600 ] || fail "the new key file is not private"
[ "$(corvida-pb cipher md5 --key-file fleet.key)" = "$(tail -n 1 new.txt)" ] || fail "cipher md5 disagrees with cipher new"
grep -Eq '^corvida_cipher_md5: [0-9a-f]{32}$' new.txt || fail "cipher new printed no MD5"

# The guide's Card table was made for this key of its "cards" suite.
echo 00112233445566778899aabbccddeeff102132435465768798a9bacbdcedfe0f > cards.key
[ "$(corvida-pb cipher md5 < cards.key)" = "corvida_cipher_md5: df669d27ff4ec90ba62a7fb07b5af670" ] ||
    fail "the MD5 of the cards key is not the one guide.proto records"

# [START cipher-file]
# A private file of NAME=HEXKEY lines...
printf 'cards=%s\n' "$(cat cards.key)" > ciphers && chmod 600 ciphers
corvida-pb key --proto guide.proto --table Card --text 'card_number: "4000123412341234"' --cipher-file ciphers
# ...or the same entries, separated by ";", in the environment.
CORVIDA_PB_CIPHERS="cards=$(cat cards.key)" \
    corvida-pb key --proto guide.proto --table Card --text 'card_number: "4000123412341234"'
# [END cipher-file]

[ "$(corvida-pb key --proto guide.proto --table Card --text 'card_number: "4000123412341234"' --cipher-file ciphers --format json |
    grep -c '"length":34')" = 1 ] || fail "the key from the cipher file is not the encrypted key"
echo "cipher_keys.sh: ok"
