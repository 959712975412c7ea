# make demo: install what is missing, build, run the example workflow.
# make test: install what is missing, build, run every test.
VENV   := .venv
PY     := $(VENV)/bin/python

.PHONY: all bootstrap build test demo bench clean

all: build

bootstrap:
	@bash scripts/bootstrap.sh

build: bootstrap
	$(PY) -m pip install -q --no-build-isolation .

# pytest exits with 5 when it collected no test: that is a broken suite here.
test: build
	@$(VENV)/bin/pytest tests; rc=$$?; \
	if [ $$rc -eq 5 ]; then echo "make test: pytest collected no tests" >&2; exit 1; fi; exit $$rc

demo: build
	$(PY) examples/workflow.py

# Native calculations against NumPy on 10^6 and 10^7 cells (BENCH_ARGS=--large adds 10^8).
bench: build
	$(PY) bench/run.py $(BENCH_ARGS)

clean:
	rm -rf build
