# Sourced by the scripts beside it: what they have in common.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$project" || exit 1

say() { printf '\n== %s\n' "$*"; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"
  elif command -v sudo >/dev/null; then sudo "$@"
  else fail "installing packages needs root or sudo"
  fi
}

# need NAME=PACKAGE...: installs the packages of the commands (or, with a leading @, of the packages themselves) that
# are missing. A command that comes from elsewhere than Debian's package counts as present.
need() {
  local missing=() wanted name package
  for wanted in "$@"; do
    name=${wanted%%=*} package=${wanted#*=}
    case $name in
      @*) dpkg-query -W -f '${db:Status-Status}\n' "${package#@}" 2>/dev/null | grep -qx installed ||
        missing+=("${package#@}") ;;
      *) command -v "$name" >/dev/null || missing+=("$package") ;;
    esac
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "Installing ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# The Debian mirror that this machine's apt uses, for roots of other releases and architectures.
debian_mirror() {
  local release name mirror=${SSO_DEBIAN_MIRROR:-}
  release=$(. /etc/os-release && echo "$VERSION_CODENAME")
  # The release as apt's sources name it, or as the mirror does.
  for name in Release Codename; do
    [ -n "$mirror" ] || mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Component: main' \
      "$name: $release" | head -n 1)
  done
  [ -n "$mirror" ] || fail "apt knows no Debian mirror: run apt-get update, or set SSO_DEBIAN_MIRROR"
  echo "$mirror"
}

# Where roots of other releases and architectures are kept between runs.
cache=$(realpath -m "${SSO_CACHE:-${XDG_CACHE_HOME:-$(echo ~)/.cache}/sso-discovery-service}")

need_build_tools() {
  need g++=g++ cmake=cmake ninja=ninja-build @libcurl4-openssl-dev @libssl-dev @libjwt-dev
}

need_armhf() {
  need clang=clang ld.lld=lld llvm-strip=llvm qemu-arm=qemu-user cmake=cmake ninja=ninja-build
}

# What the unit and system tests need beyond that.
need_tests() {
  need @libgtest-dev @libgmock-dev @libcpp-httplib-dev @python3 @python3-pytest @python3-cryptography \
    pkg-config=pkgconf groff=groff-base
  need_cloud
}

need_cloud() {
  need node=nodejs npm=npm openssl=openssl @ca-certificates
  # The lock file decides whether what is installed is what is needed.
  local installed=cloud/node_modules/.lock-used
  if ! cmp -s cloud/package-lock.json "$installed"; then
    say "Installing the local cloud's packages"
    npm --prefix cloud ci --no-audit --no-fund
    cp cloud/package-lock.json "$installed"
  fi
}

# build PRESET [TARGET...]: configures if need be, and builds.
build() {
  local preset=$1
  shift
  [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset"
  cmake --build "build/$preset" -- ${1:+"$@"}
}

# start_counting: counts begin at nothing, unless a script that calls this one has begun before.
start_counting() {
  mkdir -p build
  [ -z "${SSO_TEST_COUNTS:-}" ] || return 0
  export SSO_TEST_COUNTS=build/$(basename "$0")-counts
  : >"$SSO_TEST_COUNTS"
}

# count_tests LABEL COMMAND...: runs one test program and counts. What it prints goes to build/test-logs/LABEL.log and,
# when something failed, to standard output too. Prints "LABEL: N passed, N failed" and adds "N N" to the file
# SSO_TEST_COUNTS. Knows the closing lines of GoogleTest, pytest and node's test runner; a program that ends with a
# failure that none of them speaks of counts as one failed test, and so does one that ran no test.
count_tests() {
  local label=$1 log status summary passed failed errors
  shift
  log=build/test-logs/$label.log
  mkdir -p build/test-logs
  "$@" >"$log" 2>&1 </dev/null
  status=$?

  # closing PATTERN: the last line of the log that matches.   number TEXT PATTERN: the number that the pattern picks.
  closing() { grep -E "$1" "$log" | tail -n 1; }
  number() { grep -oE "$2" <<<"$1" | grep -oE '[0-9]+' | head -n 1; }

  if summary=$(closing '^\[==========\] [0-9]+ tests? from .* ran') && [ -n "$summary" ]; then
    passed=$(number "$(closing '^\[  PASSED  \] [0-9]+ test')" '[0-9]+')
    failed=$(number "$(closing '^\[  FAILED  \] [0-9]+ test')" '[0-9]+')
  elif summary=$(closing '^=+ .* in [0-9.]+s') && [ -n "$summary" ]; then
    passed=$(number "$summary" '[0-9]+ passed')
    failed=$(number "$summary" '[0-9]+ failed')
    errors=$(number "$summary" '[0-9]+ error')
    failed=$((${failed:-0} + ${errors:-0}))
  else
    passed=$(number "$(closing '^(#|ℹ) pass [0-9]+')" '[0-9]+')
    failed=$(number "$(closing '^(#|ℹ) fail [0-9]+')" '[0-9]+')
  fi
  passed=${passed:-0} failed=${failed:-0}
  if [ "$failed" -eq 0 ] && { [ "$status" -ne 0 ] || [ "$passed" -eq 0 ]; }; then
    echo "$label: exit status $status and no failed test named"
    failed=1
  fi
  [ "$failed" -eq 0 ] || cat "$log"
  grep -E '^SKIPPED|^\[  SKIPPED \]' "$log"
  echo "$label: $passed passed, $failed failed"
  echo "$passed $failed" >>"$SSO_TEST_COUNTS"
  [ "$failed" -eq 0 ]
}

# suite LABEL INPUT... -- COMMAND...: counts the tests of one program (see count-tests), unless neither its inputs nor
# their outcome can have changed since it last passed.
suite() {
  local label=$1 inputs=() stamp sum
  shift
  while [ "$1" != -- ]; do inputs+=("$1"); shift; done
  shift
  stamp=build/test-logs/$label.passed
  sum=$(find "${inputs[@]}" -type f -not -path '*/node_modules/*' -not -path '*/__pycache__/*' -print0 | sort -z |
    xargs -0 sha256sum | sha256sum | cut -d' ' -f1)
  if [ -z "${force:-}" ] && [ "$(cut -d' ' -f1 "$stamp" 2>/dev/null)" = "$sum" ]; then
    local passed
    passed=$(cut -d' ' -f2 "$stamp")
    echo "$label: $passed passed, 0 failed (unchanged since; not run again)"
    echo "$passed 0" >>"$SSO_TEST_COUNTS"
    return 0
  fi
  rm -f "$stamp"
  count_tests "$label" "$@" && echo "$sum $(tail -n 1 "$SSO_TEST_COUNTS" | cut -d' ' -f1)" >"$stamp"
}

# step LABEL COMMAND...: a check that counts as one test.
step() {
  local label=$1
  shift
  say "$label"
  if "$@"; then echo "1 0" >>"$SSO_TEST_COUNTS"; else
    echo "FAILED: $label"
    echo "0 1" >>"$SSO_TEST_COUNTS"
  fi
}

# system_tests EXECUTABLE [PYTEST-ARGUMENT...]
system_tests() {
  SSO_SERVICE=$project/$1 /usr/bin/python3 -m pytest tests/system "${@:2}"
}

# Prints the sum of the counts as the last line; fails when a test failed or none ran.
finish() {
  local passed failed
  read -r passed failed < <(awk '{p += $1; f += $2} END {print p + 0, f + 0}' "$SSO_TEST_COUNTS")
  printf '\n%s passed, %s failed\n' "$passed" "$failed"
  [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}
