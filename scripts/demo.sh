#!/usr/bin/env bash
# Sets everything up, builds, and shows tarvek-lamps on a private bus, driven with busctl
# the way a person explores a new service. Cleans up every process it starts.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/install-deps.sh
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVEK_BUILD_TESTS=OFF -DTARVEK_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo -j "$(nproc)" --target tarvek-lamps >/dev/null
lamps=$root/build/demo/examples/lamps/tarvek-lamps

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
run() { printf '$ %s\n' "$*"; "$@"; }

step "A private bus: dbus-daemon with its own configuration in $work"
cat > "$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address >"$work/address" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/address" ] && break; sleep 0.1; done
address="unix:path=$work/bus"
echo "bus address: $address"
bus() { busctl --address="$address" "$@"; }
run_bus() { printf '$ busctl %s\n' "$*"; bus "$@"; }

step "tarvek-lamps with the sample policy (examples/lamps/policy.conf) and a state directory"
dbus-monitor --address "$address" "type='signal',sender='org.sample.Lamps'" >"$work/monitor" 2>/dev/null &
pids+=($!)
VREL2_POLICY=$root/examples/lamps/policy.conf "$lamps" --bus-address "$address" --lamps 2 --state-dir "$work/state" \
  >"$work/lamps.out" &
lamps_pid=$!
pids+=($lamps_pid)
for _ in $(seq 100); do grep -q '^ready$' "$work/lamps.out" 2>/dev/null && break; sleep 0.1; done
grep -q '^ready$' "$work/lamps.out" || { echo "tarvek-lamps did not start" >&2; exit 1; }
echo "tarvek-lamps says: $(cat "$work/lamps.out")"

L=/org/sample/lamps/lamp1
step "What is there"
run_bus tree org.sample.Lamps
run_bus introspect org.sample.Lamps $L org.sample.Lamp

step "Read everything at once"
run_bus call org.sample.Lamps $L org.freedesktop.DBus.Properties GetAll s org.sample.Lamp

step "Write one property"
run_bus set-property org.sample.Lamps $L org.sample.Lamp Label s "reading lamp"
run_bus get-property org.sample.Lamps $L org.sample.Lamp Label

step "An atomic batch: MaxLevel=50 and Level=40 together"
run_bus call org.sample.Lamps $L com.omno.ExtendedProperties SetMany 'sa(sv)' org.sample.Lamp 2 MaxLevel u 50 Level u 40
run_bus call org.sample.Lamps $L com.omno.ExtendedProperties GetMany sas org.sample.Lamp 2 Level MaxLevel

step "A refused batch: Level=60 with MaxLevel 50 changes nothing"
run_bus call org.sample.Lamps $L com.omno.ExtendedProperties SetMany 'sa(sv)' org.sample.Lamp 2 Label s changed Level u 60 \
  || echo "(refused, as it should be)"
run_bus call org.sample.Lamps $L com.omno.ExtendedProperties GetMany sas org.sample.Lamp 2 Level Label

step "Ranges"
run_bus call org.sample.Lamps $L com.omno.ExtendedProperties GetRanges sas org.sample.Lamp 2 Level Color

step "Toggle, and Blink three times (answered after 30 ms, with a signal)"
run_bus call org.sample.Lamps $L org.sample.Lamp Toggle
run_bus call org.sample.Lamps $L org.sample.Lamp Blink u 3

step "Signals seen by a monitor"
sleep 0.3
grep -E 'member=(PropertiesChanged|Blinked|InterfacesAdded)' "$work/monitor" | sed 's/^signal time=[0-9.]* //'

step "Save state (SIGUSR1) and look at lamp1's file"
kill -USR1 $lamps_pid
for _ in $(seq 50); do [ -s "$work/state/org:sample:lamps:lamp1.json" ] && break; sleep 0.1; done
run ls "$work/state"
cat "$work/state/org:sample:lamps:lamp1.json"; echo

step "Stop"
kill -TERM $lamps_pid
wait $lamps_pid
echo "tarvek-lamps exited with status $?"
