#!/usr/bin/env bash
# The GPU tests under NVIDIA's compute-sanitizer: memcheck, synccheck and
# initcheck over every GPU test, racecheck over small cases that between
# them launch every kernel using shared memory. Needs a usable CUDA device
# and CuPy or PyTorch; refuses clearly otherwise.
#
#   scripts/test_gpu_sanitize.sh PYTHON BUILD_DIR CUDA_ARCHS [pytest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

python=${1:-/usr/bin/python3}
build=${2:-build}
archs=${3:-90-real}
shift $(( $# > 3 ? 3 : $# ))

refuse() {
  echo "test-gpu-sanitize: $*" >&2
  exit 1
}

sanitizer=$(command -v compute-sanitizer || true)
if [ -z "$sanitizer" ] && [ -x /usr/local/cuda/bin/compute-sanitizer ]; then
  sanitizer=/usr/local/cuda/bin/compute-sanitizer
fi
[ -n "$sanitizer" ] || refuse "compute-sanitizer not found (on PATH or in /usr/local/cuda/bin); it comes with the CUDA toolkit"

# Only what the build and the GPU tests need: a GPU machine's Python may
# lack the host suite's extra packages and have no network.
DRAVIK_SETUP_HOST_TESTS=0 bash scripts/build.sh "$python" "$build" \
  -DCMAKE_CUDA_ARCHITECTURES="$archs"

export PYTHONPATH="$PWD/python:$PWD/tests"
"$python" -c "import sys; from dravik.mirel.cones.cpp import _cpp_cuda as m; sys.exit(not m.has_cuda())" \
  || refuse "no usable CUDA device (has_cuda() is false)"
"$python" -c "import cupy" 2>/dev/null \
  || "$python" -c "import sys, torch; sys.exit(not torch.cuda.is_available())" 2>/dev/null \
  || refuse "the GPU tests need CuPy or PyTorch with CUDA, and neither is importable"

# Every test array in its own allocation (no CuPy pool, no PyTorch cache),
# so that an access past an array's end is past a buffer, not into the
# pool's next block.
export DRAVIK_GPU_POOL=off PYTORCH_NO_CUDA_MEMORY_CACHING=1

gpu_tests=(tests/*_gpu.py)
# This test provokes cudaSetDevice's invalid-ordinal error on purpose; the
# sanitizer would report that API error as a failure.
expected_error=(--deselect tests/test_zero_cone_gpu.py::test_invalid_ordinal_reports_set_device_and_recovers)
# Racecheck is slow: one small case per shared-memory kernel.
race_cases=(
  # reduce_sum_sq_kernel, reduce_max_kernel: two blocks, two passes
  "tests/test_zero_cone_gpu.py::test_violation_and_membership_match_the_host[257]"
  # exp_violation_kernel
  "tests/test_nonnegative_exponential_gpu.py::test_exp_project_and_violation[False-257]"
  # exp_contains_kernel
  "tests/test_nonnegative_exponential_gpu.py::test_exp_contains[1000]"
  # soc_violation_kernel
  "tests/test_second_order_gpu.py::test_elementwise_functions_match_host[between-257]"
  # soc_nt_scaling_columns_kernel, soc_cublas_prepare_factors_kernel; 300 rows
  # spans more threads than a block has
  "tests/test_second_order_gpu.py::test_nt_scaling_paths_match_host[16-5]"
  "tests/test_second_order_gpu.py::test_nt_scaling_paths_match_host[1-300]"
)

sanitize() {
  local tool=$1
  shift
  echo "test-gpu-sanitize: $tool"
  "$sanitizer" --tool "$tool" --error-exitcode 1 --target-processes all \
    "$python" -m pytest -q -p no:cacheprovider "$@"
}

status=0
for tool in memcheck synccheck initcheck; do
  sanitize "$tool" "${gpu_tests[@]}" "${expected_error[@]}" "$@" || status=1
done
sanitize racecheck "${race_cases[@]}" "$@" || status=1
exit "$status"
