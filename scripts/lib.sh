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
