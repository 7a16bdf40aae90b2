"""Runs every benchmark module bench/bench_*.py (each defines main())."""
import importlib
import pathlib
import sys

here = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(here))

for path in sorted(here.glob("bench_*.py")):
    print(f"== {path.stem} ==")
    importlib.import_module(path.stem).main()
