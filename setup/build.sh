# The C++ build: CMake configures a folder once for its options, ninja decides what is out of date.
# shellcheck shell=bash disable=SC2154 # the shared variables are set by common.sh, system.sh and python.sh

configure_and_build() {
  local folder=$1 target=$2 name key
  shift 2
  name=$(basename "$folder")
  key=$(hash_of "$root" "$cmake" "$ninja" "$(cat "$venv/pyvenv.cfg")" "$@")
  if ! stamp_is "$folder/.configured" "$key" || [ ! -f "$folder/build.ninja" ]; then
    # A folder configured for another compiler or interpreter keeps answers of that one.
    rm -rf "$folder/CMakeCache.txt" "$folder/CMakeFiles"
    run_logged "configure-$name" "Configuring build/$name" \
      "$cmake" -S "$root" -B "$folder" -G Ninja -DCMAKE_MAKE_PROGRAM="$ninja" "$@" || return 1
    stamp "$folder/.configured" "$key"
  fi
  run_logged "build-$name" "Building build/$name" "$ninja" -C "$folder" "$target"
}

# build_tree MODE TARGET [OPTION...]: builds TARGET in build/MODE and sets build_dir. CI takes warnings as errors.
build_tree() {
  local mode=$1 target=$2 strict=OFF
  shift 2
  [ -z "${CI:-}" ] || strict=ON
  build_dir=$build_root/$mode
  with_lock "build-$mode" configure_and_build "$build_dir" "$target" -DKEVRA_WERROR=$strict "$@"
}

# build_release TARGET: the importable package (target kevra_package) or that and the tests (target all), for the
# interpreter that setup_python chose. A path file lets that interpreter import the package from anywhere.
build_release() {
  local site path_file
  site=$(echo "$venv"/lib/python3*/site-packages)
  path_file=$site/kevra-build.pth
  build_tree "release$variant" "$1" -DCMAKE_BUILD_TYPE=Release -DKEVRA_PYTHON_MODULE=ON -DKEVRA_TESTS=ON \
    -DPython_EXECUTABLE="$python" -Dpybind11_DIR="$site/pybind11/share/cmake/pybind11" || return 1
  stamp_is "$path_file" "$build_dir/package" || stamp "$path_file" "$build_dir/package"
}
