# make demo: install what is missing, build, run the example workflows.
# make test: install what is missing, build, run every test (the native unit
#   test of the column kernels first) on Python 3.11, then on 3.10, 3.12 and
#   3.13 each in its own environment (.venv-X.Y) and build directory, where
#   Boost.Python is missing and the tests that need it are skipped
#   (scripts/versions.sh; PYTHONS sets the versions, the first being .venv's).
# Both install the package with its deck extra (opm), so the deck tests and
# the deck workflow run.
# make ensemble: the same, then 20 realizations of a 10^6-cell grid on a local
#   Dask cluster of worker processes (examples/ensemble_dask.py), with a progress
#   bar and a summary per realization; about 15 s on two cores.
# make wheel: a wheel in dist/ that needs nothing from the system at run
#   time (Boost.Python, where the build found it, copied in by auditwheel).
# make wheels: a wheel per Python version of PYTHONS, each installed into a
#   fresh environment and tested there.
# make docs: the documentation site in build/docs/html (Sphinx: the README's
#   tour, the API from the docstrings, the examples run by sphinx-gallery),
#   warnings as errors; installs the package with its docs extra.
# make sanitize: the same tests on a build with AddressSanitizer and
#   UndefinedBehaviorSanitizer, kept apart in build/sanitize and .venv-sanitize.
VENV   := .venv
PY     := $(VENV)/bin/python
SAN_VENV  := .venv-sanitize
SAN_BUILD := build/sanitize
# Python versions: the first is Boost.Python's (Debian 12's), whose .venv
# bootstrap.sh makes; the others have no Boost.Python here.
PYTHONS   := 3.11 3.10 3.12 3.13

.PHONY: all bootstrap build test native-test wheel wheels sanitize demo ensemble bench docs clean

all: build

bootstrap:
	@VENV=$(VENV) bash scripts/bootstrap.sh

build: bootstrap
	$(PY) -m pip install -q --no-build-isolation ".[deck]"

# The column kernels, the chunk scheduler, the cell geometry and the volumetrics rows are plain C++:
# tested without Python.
native-test:
	@mkdir -p build
	$(CXX) -std=c++17 -O2 -ffp-contract=off -Wall -Wextra -I. tests/native/test_column_kernels.cpp \
		-o build/test_column_kernels
	build/test_column_kernels
	$(CXX) -std=c++17 -O2 -ffp-contract=off -Wall -Wextra -I. tests/native/test_parallel_chunks.cpp \
		core/utils/ParallelFor.cpp -pthread -o build/test_parallel_chunks
	build/test_parallel_chunks
	$(CXX) -std=c++17 -O2 -ffp-contract=off -Wall -Wextra -I. tests/native/test_cell_geometry.cpp \
		core/grid/CellGeometry.cpp core/utils/ParallelFor.cpp -pthread -o build/test_cell_geometry
	build/test_cell_geometry
	$(CXX) -std=c++17 -O2 -ffp-contract=off -Wall -Wextra -I. tests/native/test_volumetrics.cpp \
		-o build/test_volumetrics
	build/test_volumetrics

test: bootstrap native-test
	@bash scripts/versions.sh test $(PYTHONS)

# auditwheel copies the libraries that the modules need from outside the
# manylinux set (Boost.Python) into kavra.libs/ and points the modules at
# them; it tags the wheel with the oldest manylinux that its symbols allow.
wheel: bootstrap
	rm -rf dist/raw
	$(PY) -m pip wheel -q --no-build-isolation --no-deps -w dist/raw .
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" $(VENV)/bin/auditwheel repair -w dist dist/raw/kavra-*.whl
	rm -rf dist/raw

wheels: bootstrap
	@bash scripts/versions.sh wheels $(PYTHONS)

# The interpreter is not instrumented, so the sanitizer runtimes that the
# module links are preloaded ahead of it; its own leaks at exit are not ours.
# --capture=sys leaves file descriptor 2 alone: a sanitizer report printed just
# before an abort stays visible.
sanitize:
	@VENV=$(SAN_VENV) bash scripts/bootstrap.sh
	$(SAN_VENV)/bin/python -m pip install -q --no-build-isolation -C cmake.define.KAVRA_SANITIZE=ON ".[deck]" \
		-C build-dir=$(SAN_BUILD)
	@preload="$$(ldd $(SAN_BUILD)/_engine*.so | awk '/lib(a|ub)san/ {print $$3}' | sort -u | tr '\n' ' ')"; \
	if [ -z "$$preload" ]; then echo "make sanitize: the module links no sanitizer runtime" >&2; exit 1; fi; \
	LD_PRELOAD="$$preload" ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	PYTHONMALLOC=malloc $(SAN_VENV)/bin/pytest -p no:cacheprovider --capture=sys tests; rc=$$?; \
	if [ $$rc -eq 5 ]; then echo "make sanitize: pytest collected no tests" >&2; exit 1; fi; exit $$rc

demo: build
	$(PY) examples/workflow.py
	$(PY) examples/deck_workflow.py
	$(PY) examples/flow_case.py
	$(PY) examples/blackoil_flow.py
	$(PY) examples/satfunc_curves.py
	$(PY) examples/equil_flow.py
	$(PY) examples/volumetrics.py

# What the site generates in docs/ goes first, so that every page is made anew.
docs: bootstrap
	$(PY) -m pip install -q --no-build-isolation ".[docs]"
	rm -rf docs/auto_examples docs/generated docs/_pages docs/sg_execution_times.rst build/docs
	$(VENV)/bin/sphinx-build -W --keep-going -b html docs build/docs/html

ensemble: build
	$(PY) examples/ensemble_dask.py

# Native calculations against NumPy on 10^6 and 10^7 cells (bench/run.py), then
# the NumPy-first functions on one thread and on all against numba at 10^7 cells,
# and the size from which threads pay (bench/threads.py), then the engine against
# the module it replaced and its thread gain against numba's (bench/engine.py;
# bash bench/old_parallel.sh builds that module once), and the column maps and
# region totals of 10^8 cells against a parallel copy (bench/maps.py).  BENCH_ARGS goes to
# run.py; of it, --large (10^8 cells) goes to threads.py too.  numba is for the
# bench alone: bench/requirements.txt.
bench: build
	$(PY) -m pip install -q -r bench/requirements.txt
	$(PY) bench/run.py $(BENCH_ARGS)
	$(PY) bench/threads.py $(filter --large,$(BENCH_ARGS))
	$(PY) bench/engine.py
	$(PY) bench/maps.py
	$(PY) bench/blackoil.py

clean:
	rm -rf build
