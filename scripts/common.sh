# Shared by the scripts of this folder (sourced, not run): where the project is, how to speak, who may do what.

project_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() {
  printf '%s\n' "$*"
}

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

need_root() {
  [ "$(id -u)" -eq 0 ] || die "needs root ($1); run: sudo $0"
}

# Runs a command as the person behind sudo, so that the build folder stays theirs.
as_caller() {
  if [ "$(id -u)" -eq 0 ] && [ "${SUDO_UID:-0}" -ne 0 ]; then
    setpriv --reuid="$SUDO_UID" --regid="$SUDO_GID" --clear-groups "$@"
  else
    "$@"
  fi
}

# What root made inside the build folder belongs to the person behind sudo as well.
give_to_caller() {
  [ "${SUDO_UID:-0}" -eq 0 ] || chown -R "$SUDO_UID:$SUDO_GID" "$@"
}
