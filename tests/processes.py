"""Running the module in a fresh interpreter, for tests that need another
environment (thread counts) or the repository layout."""
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def run_python(code, **env):
    """Runs `code` in a fresh interpreter with extra environment variables
    (for example OMP_NUM_THREADS) and returns its stdout."""
    full_env = dict(os.environ)
    full_env["PYTHONPATH"] = os.pathsep.join([os.path.join(ROOT, "python"), HERE])
    full_env.update({k: str(v) for k, v in env.items()})
    done = subprocess.run([sys.executable, "-c", code], env=full_env, capture_output=True,
                          text=True, check=True)
    return done.stdout
