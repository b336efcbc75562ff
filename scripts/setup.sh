# Sourced by the scripts beside it: brings the Debian packages that a job needs.

# need_packages NAME...: installs those of the packages that are missing, as root or through sudo.
need_packages() {
  local missing=() package
  for package in "$@"; do
    [[ $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) == *'ok installed' ]] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  echo "installing: ${missing[*]}" >&2
  "${as_root[@]}" apt-get update -qq >&2
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
