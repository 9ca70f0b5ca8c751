#!/bin/sh
# The built udev rules give access to every maker's phones before the switch
# and to every accessory mode after it.
# Usage: udev-rules-cover-makers.sh phone-makers.txt 70-kesto-accessory.rules
set -eu
missing=""
for id in $(sed -n 's/^\([0-9a-f]\{4\}\)[[:space:]].*/\1/p' "$1"); do
    grep -qx "ATTR{idVendor}==\"$id\", GOTO=\"kesto_accessory_allow\"" "$2" || missing="$missing vendor:$id"
done
for product in 2d00 2d01 2d02 2d03 2d04 2d05; do
    grep -qx "ATTR{idVendor}==\"18d1\", ATTR{idProduct}==\"$product\", GOTO=\"kesto_accessory_allow\"" "$2" ||
        missing="$missing accessory:$product"
done
makers=$(grep -c '^[0-9a-f]\{4\}[[:space:]]' "$1")
if [ -n "$missing" ] || [ "$makers" -lt 1 ]; then
    echo "the udev rules lack:$missing ($makers makers listed)"
    exit 1
fi
