#!/bin/sh
# Phones that stop a connection part-way: the tool names the step it stopped
# at and the usual cause there, and exits 1.
# Usage: connect-stages.sh kesto-phone kesto-host plug-in
# A cross build names in KESTO_RUN_ON_TARGET the command its programs start
# through; kesto-phone is then already under umockdev's preload.
set -u
run=${KESTO_RUN_ON_TARGET:-}
phone=$1
host=$2
plugin=$3
failed=0

check() { # story exit-status expected-text output
    if [ "$2" -ne 1 ] || ! printf '%s\n' "$4" | grep -qF "$3"; then
        printf '%s: exit status %s, wanted 1 and "%s" in:\n%s\n' "$1" "$2" "$3" "$4"
        failed=1
    fi
}

out=$($run "$phone" --quiet --return-ms -1 -- $run "$host" echo -q --timeout 1 --plugin "$plugin" 2>&1)
check "a phone that never comes back in accessory mode" $? "usual cause: the cable" "$out"

out=$($run "$phone" --quiet --silent -- $run "$host" echo -q --timeout 3 --plugin "$plugin" 2>&1)
check "a phone whose accessory app is not running" $? "accessory app is not running" "$out"

out=$($run "$phone" --quiet -- $run "$host" echo -q --bus 1 --address 99 --plugin "$plugin" 2>&1)
check "no phone at the address given" $? "no phone at that address" "$out"
if ! printf '%s\n' "$out" | grep -qF "[LIBUSB_ERROR_"; then
    printf 'the libusb result quoted from the plug-in has no name:\n%s\n' "$out"
    failed=1
fi
exit $failed
