# Shared by the fault tests: scratch copies of a device root, device starts
# through tools/run-device, and a textual state of a finished course.
# Sourced, not run.

# init_fault_lib PROGRAM DEVICE-ROOT: sets $program, $sample and $work (a
# scratch directory removed at exit) and makes $work/trace.
init_fault_lib() {
  program=$(realpath "$1")
  sample=$(realpath "$2")
  run_device=$(realpath "$here/../tools/run-device")
  [[ -x $program ]] || { echo "no program at $1" >&2; exit 2; }
  [[ -d $sample/vendor ]] || { echo "no device root at $2" >&2; exit 2; }
  command -v strace >/dev/null || { echo "strace is needed: apt-get install strace" >&2; exit 2; }
  work=$(mktemp -d /tmp/tarnwick-faults.XXXXXX)
  trap 'rm -rf "$work"' EXIT
  mkdir -p "$work/trace"
  fresh_copy "$work/reference"
}

# fresh_copy DIR: DIR becomes a copy of the sample root as it is shipped.
fresh_copy() {
  rm -rf "$1"
  cp -a "$sample" "$1"
}

# device DIR [RUNNER-OPTIONS...]: one device start of DIR.
device() {
  local dir=$1
  shift
  "$run_device" --program "$program" "$@" "$dir"
}

# course_state DIR: runs clean starts on DIR until one asks for no restart (at
# most three), then prints the /odm tree (type, mode, content hash of every
# path) and the properties the last start ended with.
course_state() {
  device "$1" --starts 3 >/dev/null 2>&1 || echo "clean start failed: $?"
  (cd "$1/odm" && find . -printf '%p %y %m\n' | sort)
  (cd "$1/odm" && find . -type f -exec sha256sum {} + | sort -k2)
  local p
  for p in "$1"/dev/__properties__/*; do
    [[ -e $p ]] && printf '%s=%s\n' "${p##*/}" "$(cat "$p")"
  done
}

# syscall_counts TRACE: "COUNT NAME" for each system call in an strace log.
syscall_counts() {
  sed -n 's/^\([a-z0-9_]*\)(.*/\1/p' "$1" | sort | uniq -c | awk '{print $1, $2}'
}
