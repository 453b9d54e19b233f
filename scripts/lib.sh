# Shared by the scripts: find CPython 3.12 and make a virtual environment.
# shellcheck shell=bash

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Print the path of a working CPython 3.12 interpreter. A pyenv shim named
# python3.12 may exist without 3.12 being selected, so every candidate is run.
find_python312() {
  local candidate
  local -a candidates=()
  [ -n "${PYTHON312:-}" ] && candidates+=("$PYTHON312")
  if command -v pyenv >/dev/null 2>&1; then
    local root
    root=$(pyenv root 2>/dev/null || true)
    for candidate in "$root"/versions/3.12*/bin/python3.12; do
      [ -x "$candidate" ] && candidates+=("$candidate")
    done
  fi
  for candidate in "$HOME"/.pyenv/versions/3.12*/bin/python3.12 /usr/local/bin/python3.12 /usr/bin/python3.12; do
    [ -x "$candidate" ] && candidates+=("$candidate")
  done
  command -v python3.12 >/dev/null 2>&1 && candidates+=("$(command -v python3.12)")
  for candidate in "${candidates[@]}"; do
    if "$candidate" -c 'import sys; sys.exit(sys.version_info[:2] != (3, 12))' >/dev/null 2>&1; then
      "$candidate" -c 'import sys; print(sys.executable)'
      return 0
    fi
  done
  echo "error: CPython 3.12 not found (set PYTHON312 to its path)" >&2
  return 1
}

# make_venv DIR: a fresh virtual environment with an up-to-date pip.
make_venv() {
  local dir=$1 python
  python=$(find_python312)
  rm -rf "$dir"
  "$python" -m venv "$dir"
  "$dir/bin/python" -m pip install --quiet --upgrade pip
}

# make_asan_venv DIR: a virtual environment with the extension built with
# AddressSanitizer and UndefinedBehaviorSanitizer, and the test tools.
make_asan_venv() {
  local dir=$1
  make_venv "$dir"
  "$dir/bin/pip" install --quiet pytest hypothesis meson-python meson ninja
  "$dir/bin/pip" install --quiet --no-build-isolation \
    -Cbuild-dir="build/$(basename "$dir")" \
    -Csetup-args=-Dbuildtype=debugoptimized \
    -Csetup-args=-Db_sanitize=address,undefined \
    -Csetup-args=-Db_lundef=false \
    "-Csetup-args=-Dcpp_args=-fno-sanitize-recover=all -fno-omit-frame-pointer" \
    "$ROOT"
}

# under_sanitizers CMD...: run CMD with the sanitizer runtimes loaded first.
under_sanitizers() {
  LD_PRELOAD="$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so):$(g++ -print-file-name=libstdc++.so)" \
  PYTHONMALLOC=malloc \
  ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:strict_init_order=1 \
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$@"
}

# Graphviz's dot lays out the architecture page's diagram (`ostrel-wiki build`).
ensure_graphviz() {
  command -v dot >/dev/null && return
  local sudo=()
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  "${sudo[@]}" apt-get update -qq
  "${sudo[@]}" apt-get install -y -qq graphviz >/dev/null
}
