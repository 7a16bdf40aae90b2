# Every target does its own set-up (scripts/setup.sh) on a fresh machine.
PYTHON ?= /usr/bin/python3
BUILD ?= build
PYTEST_ARGS ?=
# e.g. DEMO_ARGS="--scale 4 --iterations 20 --device cuda"
DEMO_ARGS ?=
# Device code targets; a single one (e.g. CUDA_ARCHS=90-real) builds faster while iterating.
CUDA_ARCHS ?= 75-real;80-real;86-real;89-real;90-real

RUN = PYTHONPATH=python $(PYTHON)

.PHONY: build demo tour test bench clean

build:
	@bash scripts/build.sh $(PYTHON) $(BUILD) -DCMAKE_CUDA_ARCHITECTURES="$(CUDA_ARCHS)"

demo: build
	@$(RUN) demo/kkt_refresh.py $(DEMO_ARGS)

tour: build
	@$(RUN) demo/tour.py

test: build
	@$(RUN) -m pytest -q tests $(PYTEST_ARGS)

bench: build
	@bash scripts/setup.sh $(PYTHON) $(BUILD)/deps matplotlib=python3-matplotlib >/dev/null
	@$(RUN) bench/run.py

clean:
	rm -rf $(BUILD) python/dravik/mirel/cones/cpp/_cpp_cuda*.so tests/_cpp_cuda_test_hooks*.so
