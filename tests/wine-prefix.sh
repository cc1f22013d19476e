#!/bin/sh
# setup PREFIX BINDIR: make a fresh Wine prefix and start the keeper process.
# cleanup PREFIX BINDIR: end the keeper and the prefix's wineserver.
set -u
action="$1"; prefix="$2"; bindir="$3"
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
pidfile="$prefix.keeper.pid"

stop_all() {
  if [ -f "$pidfile" ]; then kill "$(cat "$pidfile")" 2>/dev/null; rm -f "$pidfile"; fi
  [ -d "$prefix" ] && timeout 30 wineserver -k >/dev/null 2>&1
  [ -d "$prefix" ] && timeout 30 wineserver -w >/dev/null 2>&1
  return 0
}

case "$action" in
setup)
  stop_all
  rm -rf "$prefix"
  timeout 110 wineboot -i >/dev/null 2>&1 || { echo "wineboot failed"; exit 1; }
  # No sound hardware here: keep ALSA quiet.
  wine reg add 'HKCU\Software\Wine\Drivers' /v Audio /d '' /f >/dev/null 2>&1
  # Let the boot's wineserver and its services end before the run starts its
  # own: otherwise two service managers may answer in one prefix.
  timeout 60 wineserver -w >/dev/null 2>&1
  setsid nohup wine "$bindir/keeper.exe" >/dev/null 2>&1 </dev/null &
  echo $! >"$pidfile"
  sleep 1
  echo "prefix ready at $prefix (keeper $(cat "$pidfile"))"
  ;;
cleanup)
  stop_all
  echo "prefix shut down"
  ;;
*) echo "usage: $0 setup|cleanup PREFIX BINDIR"; exit 2 ;;
esac
