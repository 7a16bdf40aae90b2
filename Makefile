# Every target does its own set-up (scripts/setup.sh) on a fresh machine.
PYTHON ?= /usr/bin/python3
BUILD ?= build
PYTEST_ARGS ?=
# Device code targets; a single one (e.g. CUDA_ARCHS=90-real) builds faster while iterating.
CUDA_ARCHS ?= 75-real;80-real;86-real;89-real;90-real

RUN = PYTHONPATH=python $(PYTHON)

.PHONY: build demo test bench clean

build:
	@bash scripts/build.sh $(PYTHON) $(BUILD) -DCMAKE_CUDA_ARCHITECTURES="$(CUDA_ARCHS)"

demo: build
	@$(RUN) demo/tour.py

test: build
	@$(RUN) -m pytest -q tests $(PYTEST_ARGS)

bench: build
	@$(RUN) bench/run.py

clean:
	rm -rf $(BUILD) python/dravik/mirel/cones/cpp/_cpp_cuda*.so
