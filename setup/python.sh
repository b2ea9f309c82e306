# The Python interpreter and its virtual environment.
# shellcheck shell=bash disable=SC2154,SC2034 # root is set by common.sh; python is what the scripts use

# 3.13 is what the module is developed with; the others follow from the newest.
python_versions="3.13 3.14 3.12 3.11 3.10"

# Every place where an interpreter of version $1 may stand: the path, then version managers' own folders.
python_candidates() {
  type -ap "python$1" python3 | awk '!seen[$0]++'
  local folder home=${HOME:-/nonexistent}
  for folder in "${PYENV_ROOT:-$home/.pyenv}/versions/$1".* "$home/.pyenv/versions/$1".* \
    "$home/.local/share/uv/python/cpython-$1".* "$home/.asdf/installs/python/$1".* \
    "$home/.local/share/mise/installs/python/$1".* /opt/python/"$1".* /opt/python/cp"${1/./}"-* "/opt/python$1"; do
    [ -x "$folder/bin/python$1" ] && printf '%s\n' "$folder/bin/python$1"
  done
  return 0
}

# Usable: of that very version, running, with venv and pip's bootstrap, and with the headers an extension needs.
python_is_usable() {
  "$1" -I - "$2" >/dev/null 2>&1 <<'PYTHON'
import ensurepip, pathlib, sys, sysconfig, venv
header = pathlib.Path(sysconfig.get_path("include")) / "Python.h"
sys.exit("%d.%d" % sys.version_info[:2] != sys.argv[1] or not header.is_file())
PYTHON
}

# find_python VERSIONS: the first usable interpreter of the versions, in their order. An interpreter that is itself
# a virtual environment's is resolved to the one behind it.
find_python() {
  local version candidate
  for version in $1; do
    while IFS= read -r candidate; do
      if python_is_usable "$candidate" "$version"; then
        "$candidate" -I -c 'import sys; print(getattr(sys, "_base_executable", sys.executable))'
        return 0
      fi
    done < <(python_candidates "$version")
  done
  return 1
}

# For a second run of the tests: a usable interpreter of another version than $1.
other_python_version() {
  local version
  for version in $python_versions; do
    [ "$version" = "$1" ] && continue
    find_python "$version" >/dev/null && say "$version" && return 0
  done
  return 1
}

# create_venv FOLDER INTERPRETER [PACKAGE...]
create_venv() {
  local folder=$1 interpreter=$2
  shift 2
  rm -rf "$folder"
  "$interpreter" -m venv "$folder" || return 1
  "$folder/bin/python" -m pip install --disable-pip-version-check --only-binary :all: \
    -r "$root/setup/requirements.txt" "$@"
}

# ensure_venv FOLDER KEY VERSIONS [PACKAGE...]: builds the environment, with packages beside those of requirements.txt,
# unless its stamp says that it is complete.
ensure_venv() {
  local folder=$1 key=$2 versions=$3 interpreter
  shift 3
  if stamp_is "$folder/.complete" "$key" && "$folder/bin/python" -c '' 2>/dev/null; then
    return 0
  fi
  if ! interpreter=$(find_python "$versions"); then
    [ "$versions" = "$python_versions" ] ||
      fail "No Python $versions with venv and development headers was found; install it (python$versions, python$versions-venv, python$versions-dev) or leave out --python."
    with_lock system install_packages python3 python3-venv python3-dev || exit 1
    hash -r
    interpreter=$(find_python "$versions") ||
      fail "No Python from 3.10 with venv and development headers was found; install one and run this again."
  fi
  run_logged "$(basename "$folder")" "Python packages for $("$interpreter" -V) in $(basename "$folder")" \
    create_venv "$folder" "$interpreter" "$@" ||
    fail "The Python packages could not be installed; check that pip reaches its package index and run this again."
  stamp "$folder/.complete" "$key"
}

# setup_python [VERSION]: sets venv, python and variant. Without a version the default interpreter is taken.
setup_python() {
  local versions=$python_versions
  venv=$root/.venv
  variant=
  if [ -n "${1:-}" ]; then
    versions=$1
    venv=$root/.venv-$1
    variant=-py$1
  fi
  local key
  key=$(hash_of "$venv" "$versions" "$(<"$root/setup/requirements.txt")")
  with_lock "python$variant" ensure_venv "$venv" "$key" "$versions" || exit 1
  python=$venv/bin/python
}

# torch_offer: "VERSION REQUIREMENT" for the first Python here that pip finds PyTorch's CPU build for. Such builds are
# marked +cpu; the unmarked ones bring gigabytes for GPUs. setup_python has chosen the pip that looks.
torch_offer() {
  local version build
  for version in $python_versions; do
    find_python "$version" >/dev/null || continue
    build=$("$python" -m pip index versions torch --python-version "$version" --only-binary :all: 2>/dev/null |
      grep -oE '[0-9][0-9.]*\+cpu' | sort -V | tail -n 1) || continue
    [ -z "$build" ] || { say "$version torch==$build" && return 0; }
  done
  return 1
}

# setup_torch: as setup_python, with an environment that has PyTorch, for whichever Python that takes. What was found
# once stays, so that later runs ask no package index.
setup_torch() {
  setup_python ""
  local folder=$root/.venv-torch offer key
  offer=$(cat "$folder/.offer" 2>/dev/null) || offer=$(torch_offer) ||
    fail "pip finds no CPU build of PyTorch for any Python here; let it see an index that has one (PIP_EXTRA_INDEX_URL) and run this again."
  key=$(hash_of "$folder" "$offer" "$(<"$root/setup/requirements.txt")")
  with_lock python-torch ensure_venv "$folder" "$key" "${offer% *}" "${offer#* }" || exit 1
  stamp "$folder/.offer" "$offer"
  venv=$folder
  variant=-torch
  python=$venv/bin/python
}
