"""Running the module in a fresh interpreter, for tests that need another
environment (thread counts, a time limit) or the repository layout."""
import os
import subprocess
import sys

from dravik.mirel.cones.cpp import _cpp_cuda

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
# The package tree the module under test was loaded from: python/, or the
# staged copy of a variant build (the sanitizer build).
PACKAGE_ROOT = os.path.abspath(os.path.join(os.path.dirname(_cpp_cuda.__file__), *[".."] * 4))


def run_python(code, timeout=None, **env):
    """Runs `code` in a fresh interpreter with extra environment variables
    (for example OMP_NUM_THREADS) and returns its stdout; fails after
    `timeout` seconds if given."""
    full_env = dict(os.environ)
    full_env["PYTHONPATH"] = os.pathsep.join([PACKAGE_ROOT, HERE])
    full_env.update({k: str(v) for k, v in env.items()})
    done = subprocess.run([sys.executable, "-c", code], env=full_env, capture_output=True,
                          text=True, check=True, timeout=timeout)
    return done.stdout
