#!/usr/bin/env bash
# Runs one Java test program of the JNI binding under -Xcheck:jni, in a
# private network namespace (its own loopback, so fixed ports are free) and a
# private mount namespace with an empty /tmp (the IPC channels live there).
# Fails when the program fails or the JVM printed any JNI warning.
#   run-jni-test.sh --lib LIBRARY --cp CLASSPATH [--preload SO] [--expect TEXT] [--forbid TEXT]
#                   [--] [JVM OPTIONS] MAIN [ARGS...]
# --expect and --forbid check the whole output (the engine's own standard
# output included) for a fixed text.
# Files under the host's /tmp (a build there) are copied into the new /tmp
# through a descriptor of the old one opened before it was replaced (the JVM
# resolves /proc/PID/fd links, so it cannot use them in place).
set -euo pipefail

if [ -z "${NFSENGINE_JNI_PRIVATE:-}" ]; then
  exec unshare --net --mount --propagation private env NFSENGINE_JNI_PRIVATE=1 bash "$0" "$@"
fi

ip link set lo up
exec 9</tmp
hostTmp=/proc/$$/fd/9
mount -t tmpfs tmpfs /tmp

mapPath() {
  case "$1" in
    /tmp/*)
      local copy="/tmp/.host/${1#/tmp/}"
      if [ -f "$hostTmp/${1#/tmp/}" ]; then
        mkdir -p "$(dirname "$copy")"
        cp -p "$hostTmp/${1#/tmp/}" "$copy"
      fi
      printf '%s' "$copy" ;;
    *) printf '%s' "$1" ;;
  esac
}

lib="" cp="" preload="" expect=() forbid=()
while [ $# -gt 0 ]; do
  case "$1" in
    --lib) lib=$(mapPath "$2"); shift 2 ;;
    --cp) cp=""; IFS=: read -ra parts <<<"$2"; for p in "${parts[@]}"; do cp="$cp${cp:+:}$(mapPath "$p")"; done; shift 2 ;;
    --preload) preload="$2"; shift 2 ;;
    --expect) expect+=("$2"); shift 2 ;;
    --forbid) forbid+=("$2"); shift 2 ;;
    --) shift; break ;;
    *) break ;;
  esac
done
args=()
for a in "$@"; do
  case "$a" in
    -D*=/tmp/*) args+=("${a%%=*}=$(mapPath "${a#*=}")") ;;
    *) args+=("$(mapPath "$a")") ;;
  esac
done

java=java
[ -n "${JAVA_HOME:-}" ] && java="$JAVA_HOME/bin/java"
env=()
if [ -n "$preload" ]; then
  # The sanitizer runtime must come first; the JVM's own signal handling
  # (SIGSEGV for null checks, stack banging) must stay the JVM's.
  env+=(LD_PRELOAD="$preload"
        ASAN_OPTIONS="handle_segv=0:handle_sigbus=0:handle_sigfpe=0:allow_user_segv_handler=1:detect_leaks=0:use_sigaltstack=0:detect_stack_use_after_return=0:halt_on_error=1"
        UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1")
fi
out=$(mktemp /tmp/jni-test-out.XXXXXX)
status=0
env "${env[@]}" "$java" -Xcheck:jni -Dnfsengine.library="$lib" -Djava.library.path="$(dirname "$lib")" \
  -cp "$cp" "${args[@]}" 2>&1 | tee "$out" || status=$?
warnings=$(grep -c 'WARNING' "$out" || true)
echo "JNI warnings: $warnings"
if [ "$status" -ne 0 ]; then
  echo "FAIL: the test program exited with $status"
  exit 1
fi
if [ "$warnings" -ne 0 ]; then
  echo "FAIL: -Xcheck:jni reported warnings"
  exit 1
fi
for text in "${expect[@]}"; do
  if ! grep -qF -- "$text" "$out"; then echo "FAIL: output lacks \"$text\""; exit 1; fi
  echo "ok - output holds \"$text\""
done
for text in "${forbid[@]}"; do
  if grep -qF -- "$text" "$out"; then echo "FAIL: output holds \"$text\""; exit 1; fi
  echo "ok - output lacks \"$text\""
done
