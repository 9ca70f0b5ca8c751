# The scenarios, each with phones of its own on the guest's bus, one line each:
#   PASS name (seconds): what was measured   or   FAIL name (seconds): why, then the run's last lines
# and at the end "N passed, M failed".
passed=0
failed=0
phones=0
phone=""
kesto_host="/kesto/kesto-host"
plugin="/kesto/libkestobearer-USBAAP.so"

uptime_s() { cut -d' ' -f1 /proc/uptime; }

# The device path of the plugged-in phone (Google's vendor id), if any.
phone_device() {
  for d in /sys/bus/usb/devices/*; do
    [ "$(cat "$d/idVendor" 2>/dev/null)" = 18d1 ] && { echo "$d"; return 0; }
  done
  return 1
}

wait_until() { # tenths of a second, command...
  local tenths=$1; shift
  while ! "$@" >/dev/null 2>&1; do
    tenths=$((tenths - 1))
    [ $tenths -gt 0 ] || return 1
    sleep 0.1
  done
}

no_phone() { ! phone_device; }

# Plugs in a new phone with the given options and waits until the host has it.
plug_phone() {
  phones=$((phones + 1))
  kesto-ffs-phone --name "phone$phones" --serial "KESTO$phones" "$@" >/tmp/phone.log 2>&1 &
  phone=$!
  wait_until 50 phone_device
}

unplug_phone() {
  [ -n "$phone" ] || return 0
  kill -TERM "$phone" 2>/dev/null
  wait "$phone" 2>/dev/null
  phone=""
  wait_until 50 no_phone
}

report() { # verdict, name, started, why
  local took
  took=$(awk -v a="$3" -v b="$(uptime_s)" 'BEGIN { printf "%.1f", b - a }')
  if [ "$1" = PASS ]; then
    passed=$((passed + 1))
    echo "PASS $2 ($took s): $4"
  else
    failed=$((failed + 1))
    echo "FAIL $2 ($took s): $4"
    tail -n 12 /tmp/run.log | sed 's/^/  | host: /'
    tail -n 6 /tmp/phone.log | sed 's/^/  | phone: /'
  fi
}

# kesto.only=WORD on the kernel's command line runs only the scenarios whose
# names hold WORD, kesto.repeat=N each of them N times: for chasing a rare failure.
only=$(sed -n 's/.*kesto\.only=\([^ ]*\).*/\1/p' /proc/cmdline)
repeat=$(sed -n 's/.*kesto\.repeat=\([0-9]*\).*/\1/p' /proc/cmdline)

# scenario NAME SECONDS PHONE-OPTIONS -- COMMAND...: a new phone, the command under a time-out.
scenario() {
  case $1 in *"$only"*) ;; *) return ;; esac
  local round
  for round in $(seq "${repeat:-1}"); do run_scenario "$@"; done
}

run_scenario() {
  local name=$1 limit=$2 started rc why
  shift 2
  local options=""
  while [ "$1" != -- ]; do options="$options $1"; shift; done
  shift
  started=$(uptime_s)
  : >/tmp/run.log
  if ! plug_phone $options; then
    report FAIL "$name" "$started" "the phone did not appear on the host's bus"
    unplug_phone
    return
  fi
  export PHONE_PID=$phone PHONE_BUS PHONE_DEVNUM
  PHONE_BUS=$(cat "$(phone_device)/busnum") PHONE_DEVNUM=$(cat "$(phone_device)/devnum")
  timeout -s KILL "$limit" "$@" >/tmp/run.log 2>&1
  rc=$?
  why=""
  [ $rc -eq 0 ] || why="exit status $rc"
  [ $rc -ne 137 ] || why="no end within $limit s"
  [ -n "$why" ] || why=$(check_output)
  if [ -z "$why" ]; then report PASS "$name" "$started" "$(results)"; else report FAIL "$name" "$started" "$why"; fi
  unplug_phone
}

# What the host side measured, on one line.
results() {
  grep -E '^(round trip|[0-9]+ bytes echoed|error )' /tmp/run.log | sed 's/^round trip, //' | paste -s -d'|' |
    sed 's/|/; /g'
}

# Set per scenario: what else its output must show. Prints why it fails, if it does.
check_output() { :; }

# Every ping's round trip under a second: a lone message left waiting for a
# packet that ends it would take the run's whole time-out.
pings_within_a_second() {
  grep -q "^round trip" /tmp/run.log || { echo "no round trip reported"; return; }
  awk '/^round trip/ { if ($NF == "ms" && $(NF-1) + 0 >= 1000) print "a round trip took " $(NF-1) " ms" }' /tmp/run.log
}

echoed() { grep -q "bytes echoed in" /tmp/run.log || echo "no echo reported"; }

at_super_speed() {
  echoed
  grep -q "enabled at super-speed" /tmp/phone.log || echo "the phone did not run at SuperSpeed"
}

check_output() { echoed; }
scenario "the whole road, then 4 MiB echoed and every byte checked" 60 -- \
  $kesto_host echo --bytes 4M --pings 5

check_output() { pings_within_a_second; }
for size in 512 1024 16384; do
  scenario "a lone $size-byte message echoed within a second" 30 -- \
    $kesto_host echo --bytes 0 --pings 3 --ping-bytes $size
done

check_output() { echoed; }
scenario "a phone already in accessory mode" 30 --accessory -- \
  $kesto_host echo --bytes 1M
scenario "the debug-bridge interface listed first" 30 --debug-bridge-first -- \
  $kesto_host echo --bytes 1M

# The phone's process pulls its own cable on SIGUSR1; the checker sends it.
check_output() { :; }
scenario "the cable pulled mid-stream" 30 -- \
  sh -c 'exec /kesto/unplug-check "$0" "$PHONE_BUS" "$PHONE_DEVNUM" "$PHONE_PID"' "$plugin"

# dummy_hcd again, in SuperSpeed mode: 1024-byte packets.
unplug_phone
rmmod dummy_hcd && insmod /modules/dummy_hcd.ko is_super_speed=1 || echo "init: cannot reload dummy_hcd"
check_output() { at_super_speed; pings_within_a_second; }
scenario "the whole road at SuperSpeed, 4 MiB echoed and checked" 60 -- \
  $kesto_host echo --bytes 4M --pings 3 --ping-bytes 1024

echo "$passed passed, $failed failed"
