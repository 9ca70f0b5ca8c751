#!/bin/sh
# The udev rules and the tool's idea of a phone must name the same makers.
# Usage: vendor-lists-agree.sh DeviceLister.cpp 70-kesto-accessory.rules
set -eu
code=$(sed -n 's/^ *0x\([0-9A-Fa-f]\{4\}\), *\/\/.*/\1/p' "$1" | tr 'A-F' 'a-f')
rules=$(sed -n 's/^ATTR{idVendor}=="\([0-9a-f]\{4\}\)", GOTO="kesto_accessory_allow"$/\1/p' "$2")
if [ -z "$code" ] || [ "$code" != "$rules" ]; then
    echo "vendor ids differ"
    echo "DeviceLister.cpp:" $code
    echo "udev rules:      " $rules
    exit 1
fi
