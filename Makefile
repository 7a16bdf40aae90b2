# Every target does its own set-up (scripts/setup.sh) on a fresh machine.
PYTHON ?= /usr/bin/python3
BUILD ?= build
# Fetched build inputs (nanobind), shared by every build folder.
DEPS ?= build/deps
PYTEST_ARGS ?=
# e.g. DEMO_ARGS="--scale 2 --device cuda" (the solve), REFRESH_ARGS="--scale 4 --iterations 20"
DEMO_ARGS ?=
REFRESH_ARGS ?=
# Device code targets; a single one (e.g. CUDA_ARCHS=90-real) builds faster while iterating.
CUDA_ARCHS ?= 75-real;80-real;86-real;89-real;90-real
# CUDA backend: AUTO (when a CUDA toolkit is found), ON, or OFF (the CPU-only module).
DRAVIK_CUDA ?= AUTO
# Backend of the module test-pip builds (CPU-only by default: quick, needs no toolkit).
PIP_CUDA ?= OFF

# The sanitizer build: its own folder and a staged copy of the package there.
SANITIZE_BUILD ?= build-sanitize

RUN = PYTHONPATH=python $(PYTHON)

.PHONY: build demo refresh tour test test-sanitize test-gpu-sanitize fuzz bench clean

build:
	@DRAVIK_DEPS=$(DEPS) bash scripts/build.sh $(PYTHON) $(BUILD) -DCMAKE_CUDA_ARCHITECTURES="$(CUDA_ARCHS)" \
	  -DDRAVIK_CUDA=$(DRAVIK_CUDA)

# The main job: a conic solve whose cone work runs on the module, against CVXOPT.
demo: build
	@$(RUN) demo/solve.py $(DEMO_ARGS)

# The KKT H-block refresh on synthetic pairs, checked against SciPy's assembly.
refresh: build
	@$(RUN) demo/kkt_refresh.py $(REFRESH_ARGS)

tour: build
	@$(RUN) demo/tour.py

test: build
	@$(RUN) -m pytest -q tests $(PYTEST_ARGS)

# Host suite (bounded fuzz profile included) under ASan and UBSan.
test-sanitize:
	@bash scripts/test_sanitize.sh $(PYTHON) $(SANITIZE_BUILD) $(DEPS) $(PYTEST_ARGS)

# The property tests with the long profile.
fuzz: build
	@DRAVIK_FUZZ=long $(RUN) -m pytest -q tests/test_fuzz.py $(PYTEST_ARGS)

# GPU tests under compute-sanitizer (memcheck, synccheck, initcheck, racecheck);
# needs a GPU machine.
test-gpu-sanitize:
	@bash scripts/test_gpu_sanitize.sh $(PYTHON) $(BUILD) "$(CUDA_ARCHS)" $(PYTEST_ARGS)

bench: build
	@bash scripts/setup.sh $(PYTHON) $(DEPS) matplotlib=python3-matplotlib >/dev/null
	@$(RUN) bench/run.py

clean:
	rm -rf $(BUILD) $(SANITIZE_BUILD) python/dravik/mirel/cones/cpp/_cpp_cuda*.so tests/_cpp_cuda_test_hooks*.so
	rm -f python/dravik/mirel/cones/cpp/_cpp_cuda.pyi

.PHONY: test-cpu test-pip stubs mutants

# The CPU-only module (no CUDA toolkit used) in a build folder of its own, and
# the host suite against it.
test-cpu:
	@$(MAKE) --no-print-directory test BUILD=$(BUILD)/cpu-only DRAVIK_CUDA=OFF \
	  PYTEST_ARGS='-m "not gpu" $(PYTEST_ARGS)'

# pip install . into a fresh virtual environment, offline, and a smoke test
# of the installed package from outside the checkout.
test-pip:
	@bash scripts/test_pip.sh $(PYTHON) $(DEPS) $(BUILD)/pip-venv \
	  --config-settings=cmake.define.DRAVIK_CUDA=$(PIP_CUDA) \
	  --config-settings=cmake.define.CMAKE_CUDA_ARCHITECTURES="$(CUDA_ARCHS)"

# After an intended change of the module's surface: the stub generated from
# the built module becomes the reference the stub test compares with.
stubs: build
	@cp python/dravik/mirel/cones/cpp/_cpp_cuda.pyi tests/reference/_cpp_cuda.pyi
	@echo "tests/reference/_cpp_cuda.pyi updated; review with git diff"

# Deliberate breakages of the host C++ (scripts/mutants.py), each built
# CPU-only in a private copy under $(BUILD)/mutants and run against the host
# suite; prints which the tests catch. MUTANTS="name ..." picks some.
MUTANTS ?=
mutants:
	@$(PYTHON) scripts/mutants.py --python $(PYTHON) --deps $(DEPS) --build $(BUILD)/mutants $(MUTANTS)
