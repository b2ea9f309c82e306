# The test runs of ./test: each run writes a report, and finish_runs adds the reports up.
# shellcheck shell=bash disable=SC2154 # cpp, py, quick, expression and pytest_arguments are ./test's options

start_runs() {
  processors=$(nproc)
  reports=$(mktemp -d "${TMPDIR:-/tmp}/kevra-test.XXXXXX")
  trap 'rm -rf "$reports"' EXIT
  broken=()
}

headline() { printf '\n== %s\n' "$*"; }

run_label() {
  local parts=() label
  [ "$quick" = 1 ] || parts+=(lanes)
  [ -z "$1" ] || parts+=("order $1")
  [ -z "$2" ] || parts+=(checked)
  label=$(printf ', %s' "${parts[@]}")
  label=${label:2}
  say "${label:-plain}"
}

# ctest_filter EXPRESSION: ctest's arguments for a pytest expression of the form "a or b", "a and not b" or "not a",
# letters in either case as with pytest; fails for any other form.
ctest_filter() {
  local wanted=${1%% and not *} unwanted
  [[ "$1" != "not "* ]] || wanted=''
  unwanted=${1#"$wanted"}
  unwanted=${unwanted# and }
  unwanted=${unwanted#not }
  wanted=${wanted// or /|}
  unwanted=${unwanted// and not /|}
  [[ "$wanted$unwanted" =~ ^[A-Za-z0-9_.:|/-]*$ ]] || return 1
  # pytest binds "and" closer than "or", which a pair of patterns cannot express.
  [[ -z "$unwanted" || "$wanted" != *"|"* ]] || return 1
  [ -z "$wanted" ] || printf -- '-R\n%s\n' "$(either_case "$wanted")"
  [ -z "$unwanted" ] || printf -- '-E\n%s\n' "$(either_case "$unwanted")"
}

either_case() { sed -E 's/\./\\./g; s/[A-Za-z]/[\U&\E\L&]/g' <<<"$1"; }

# run_cpp LABEL: the C++ tests of build_dir.
run_cpp() {
  local filter=() lines
  if [ -n "$expression" ]; then
    if ! lines=$(ctest_filter "$expression"); then
      say "The C++ tests are left out: -k '$expression' is more than words with or, and not."
      return 0
    fi
    mapfile -t filter <<<"$lines"
  fi
  headline "C++ tests ($1)"
  "$(first_running ctest)" --test-dir "$build_dir" -j "$processors" --output-on-failure --no-tests=ignore \
    --timeout 240 --output-junit "$reports/cpp-$1.xml" "${filter[@]}" || broken+=("C++ tests ($1)")
}

# run_pytest LABEL: the Python tests with the package of the virtual environment. Nearly all of their time goes into
# compiling kernels. Exit status 5 says that no test was selected, which a filter may well do.
run_pytest() {
  local status=0 filter=()
  [ -z "$expression" ] || filter=(-k "$expression")
  headline "Python tests ($1)"
  (cd "$root" && KEVRA_CPU_QUICK=$quick "$python" -m pytest -n "$processors" --junitxml "$reports/python-$1.xml" "${filter[@]}" \
    "${pytest_arguments[@]}") || status=$?
  [ $status = 0 ] || [ $status = 5 ] || broken+=("Python tests ($1)")
}

# Every run compiles its kernels anew: a kept cache could hide a compile that fails by now.
fresh_cache() {
  export KEVRA_CACHE_DIR=$reports/cache
  rm -rf "$KEVRA_CACHE_DIR"
}

# device_switches ORDER CHECK: the CPU device's switches for the run that follows.
device_switches() {
  unset KEVRA_CPU_ORDER KEVRA_CPU_CHECK KEVRA_CPU_QUICK
  [ -z "$1" ] || export KEVRA_CPU_ORDER=$1
  [ -z "$2" ] || export KEVRA_CPU_CHECK=$2
}

run_release() {
  local target=all
  [ -n "$cpp" ] || target=kevra_package
  if ! build_release "$target"; then
    broken+=("build")
    return 0
  fi
  device_switches "$2" "$3"
  fresh_cache
  [ -z "$cpp" ] || run_cpp "$1"
  [ -z "$py" ] || run_pytest "$1"
}

# kevra.torch, in the environment that setup_torch chose.
run_torch() {
  if ! build_release kevra_package; then
    broken+=("build")
    return 0
  fi
  device_switches '' ''
  fresh_cache
  pytest_arguments=(tests/python/with_torch "${pytest_arguments[@]}")
  run_pytest torch
}

# Sanitized objects take twice as long to compile with full optimisation as with little, and the compiler's warnings
# about them are often false.
run_sanitized() {
  if ! build_tree sanitize all -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O1 -DKEVRA_SANITIZE=ON \
    -DKEVRA_TESTS=ON -DKEVRA_WERROR=OFF; then
    broken+=("sanitized build")
    return 0
  fi
  device_switches "$1" "$2"
  fresh_cache
  # The leak checker of g++ 12 takes thread-local memory of libraries loaded late for a range of wild addresses.
  export ASAN_OPTIONS=intercept_tls_get_addr=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}
  run_cpp sanitized
}

# Both kinds of tests on a build that counts the lines that run, and the share of src/ that did.
run_coverage() {
  local site least=90
  site=$(echo "$venv"/lib/python3*/site-packages)
  if ! build_tree coverage all -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O1 -DKEVRA_COVERAGE=ON \
    -DKEVRA_PYTHON_MODULE=ON -DKEVRA_TESTS=ON -DPython_EXECUTABLE="$python" \
    -Dpybind11_DIR="$site/pybind11/share/cmake/pybind11" ||
    ! run_logged gcovr "Installing gcovr" "$python" -m pip install --disable-pip-version-check "gcovr>=8,<9"; then
    broken+=("coverage build")
    return 0
  fi
  find "$build_dir" -name '*.gcda' -delete
  device_switches '' ''
  fresh_cache
  export PYTHONPATH=$build_dir/package
  run_cpp coverage
  run_pytest coverage
  unset PYTHONPATH
  headline "Lines of src/ that ran"
  "$python" -m gcovr --root "$root" --object-directory "$build_dir" --filter "$root/src/" \
    --gcov-ignore-parse-errors=negative_hits.warn_once_per_file --sort uncovered-percent --fail-under-line $least \
    >"$log_dir/coverage.txt" || broken+=("coverage below $least %")
  grep '^TOTAL' "$log_dir/coverage.txt"
  say "File by file in $log_dir/coverage.txt"
}

# The package as a user gets it: a wheel, in an environment that has nothing else, away from the source; then the demo
# with it.
run_wheel() {
  local place=$reports/wheel
  unset KEVRA_HIP_PATH KEVRA_HIPRTC_PATH PYTHONPATH
  device_switches '' ''
  fresh_cache
  headline "Wheel"
  mkdir -p "$place"
  run_logged wheel-build "Building the wheel" "$python" -m pip wheel --no-deps -w "$place" "$root" &&
    run_logged wheel-venv "Creating an empty environment" "$python" -m venv "$place/venv" &&
    run_logged wheel-install "Installing the wheel" "$place/venv/bin/python" -m pip install "$place"/kevra-*.whl &&
    (cd "$place" && "$place/venv/bin/python" "$root/tests/wheel_smoke.py") &&
    run_logged wheel-demo-packages "Packages for the demo" \
      "$place/venv/bin/python" -m pip install --only-binary :all: matplotlib scipy &&
    (cd "$place" && "$place/venv/bin/python" "$root/python/demo/recording.py" --output "$place/out") &&
    say '<testsuite><testcase name="wheel"/></testsuite>' >"$reports/wheel.xml" || broken+=("wheel")
}

# The last line tells the sum of all runs; the exit status is 0 only when everything ran and passed.
finish_runs() {
  local status=0
  say ""
  "$python" "$root/setup/tally.py" "$reports" "${broken[@]}" || status=1
  exit $status
}
