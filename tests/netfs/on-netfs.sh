#!/usr/bin/env bash
# Runs a test program against two client mounts of one network directory,
# brought up for it with the mount options users have:
#   on-netfs.sh sshfs|gluster PROGRAM [ARGS...]
# The program finds them in ORVANE_NET_A and ORVANE_NET_B. Exit 77 (ctest's
# skip) when that file system cannot run on this machine.
set -uo pipefail
kind=$1; shift
root=$(cd "$(dirname "$0")/../.." && pwd)
state=$(mktemp -d "${TMPDIR:-/tmp}/orvane-$kind-test.XXXXXX")
case $kind in
  sshfs)  up=$root/scripts/netfs-up; down=$root/scripts/netfs-down ;;
  gluster) up=$root/scripts/glusterfs-up; down=$root/scripts/glusterfs-down ;;
  *) echo "on-netfs.sh: unknown file system $kind" >&2; exit 2 ;;
esac
trap '"$down" "$state" >/dev/null 2>&1' EXIT
out=$("$up" "$state" 2>"$state.log"); rc=$?
if [ $rc = 77 ]; then echo "$out"; rm -f "$state.log"; exit 77; fi
if [ $rc != 0 ]; then cat "$state.log" >&2; rm -f "$state.log"; exit 1; fi
rm -f "$state.log"
# shellcheck disable=SC1090
. "$state/env"
case $kind in
  sshfs)  export ORVANE_NET_A=$NETFS_A ORVANE_NET_B=$NETFS_B ;;
  gluster) export ORVANE_NET_A=$GLUSTER_A ORVANE_NET_B=$GLUSTER_B ;;
esac
"$@"
