# Every target does its own set-up (scripts/setup.sh) on a fresh machine.
PYTHON ?= /usr/bin/python3
BUILD ?= build
PYTEST_ARGS ?=
# e.g. DEMO_ARGS="--scale 4 --iterations 20 --device cuda"
DEMO_ARGS ?=
# Device code targets; a single one (e.g. CUDA_ARCHS=90-real) builds faster while iterating.
CUDA_ARCHS ?= 75-real;80-real;86-real;89-real;90-real

# The sanitizer build: its own folder and a staged copy of the package there.
SANITIZE_BUILD ?= build-sanitize

RUN = PYTHONPATH=python $(PYTHON)

.PHONY: build demo tour test test-sanitize test-gpu-sanitize fuzz bench clean

build:
	@bash scripts/build.sh $(PYTHON) $(BUILD) -DCMAKE_CUDA_ARCHITECTURES="$(CUDA_ARCHS)"

demo: build
	@$(RUN) demo/kkt_refresh.py $(DEMO_ARGS)

tour: build
	@$(RUN) demo/tour.py

test: build
	@$(RUN) -m pytest -q tests $(PYTEST_ARGS)

# Host suite (bounded fuzz profile included) under ASan and UBSan.
test-sanitize:
	@bash scripts/test_sanitize.sh $(PYTHON) $(SANITIZE_BUILD) $(BUILD)/deps $(PYTEST_ARGS)

# The property tests with the long profile.
fuzz: build
	@DRAVIK_FUZZ=long $(RUN) -m pytest -q tests/test_fuzz.py $(PYTEST_ARGS)

# GPU tests under compute-sanitizer (memcheck, synccheck, initcheck, racecheck);
# needs a GPU machine.
test-gpu-sanitize:
	@bash scripts/test_gpu_sanitize.sh $(PYTHON) $(BUILD) "$(CUDA_ARCHS)" $(PYTEST_ARGS)

bench: build
	@bash scripts/setup.sh $(PYTHON) $(BUILD)/deps matplotlib=python3-matplotlib >/dev/null
	@$(RUN) bench/run.py

clean:
	rm -rf $(BUILD) $(SANITIZE_BUILD) python/dravik/mirel/cones/cpp/_cpp_cuda*.so tests/_cpp_cuda_test_hooks*.so
