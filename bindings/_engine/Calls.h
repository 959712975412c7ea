#pragma once

// What the engine's entries share: the words of a failure and the Python
// error made of it, the steps of a call that lets go of the interpreter lock,
// and what the entries read of NumPy arrays.
#include <Python.h>

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string>
#include <vector>

#include <nanobind/nanobind.h>

namespace kavra {
namespace engine {

// Who is calling, for the words of a failure.
struct Words
{
    std::string function;              // kavra's function
    std::string kind;                  // the table's name ("PVTO", "TPVTList", ...)
    std::vector<std::int64_t> shape;   // of the cells
};

// Sets the Python error of a failure that `error` holds (the lock is held):
// a failure of the core as a ValueError in kavra's words, built from the
// facts the exception carries, with the core's own text (built apart from
// what(), whose buffer the process shares) as a RuntimeError for its cause.
void SetError(const std::exception_ptr& error, const Words& words);

// Raises the Python error `type` with `message`, through nanobind.
[[noreturn]] void Refuse(PyObject* type, const std::string& message);

// What a call that releases the interpreter lock does: checked and held
// with the lock (Prepare), run without it (Run, which keeps its failure),
// finished with it (the result, or the failure as a Python error).
struct Job
{
    virtual ~Job() = default;
    virtual void Run() noexcept = 0;
    virtual PyObject* Result() = 0; // a new reference
    bool unlocked = false;          // run without the lock
    std::exception_ptr error;
    Words words;
};

// A Job that writes into the caller's arrays and gives None: `run` over the
// job itself, its failure kept.
template <class Self>
struct WritingJob : Job
{
    void Run() noexcept override
    {
        try {
            run(static_cast<Self&>(*this));
        } catch (...) {
            error = std::current_exception();
        }
    }
    PyObject* Result() override { Py_RETURN_NONE; }
    void (*run)(Self&) = nullptr;
};

// Sets the Python error of a failure while preparing or finishing.
void SetPreparingError();

// The Python entry of a Job.  The lock is taken back in plain code, never in
// a destructor or under a handler: a thread that takes it back while the
// interpreter finalizes is ended there by the interpreter (pthread_exit), and
// its unwinding must pass only frames that let it pass (a noexcept
// destructor or a catch (...) that swallows it aborts the process).  No
// frame here has a cleanup, so that thread unwinds to its start untouched;
// the job's references are then never released: the process is ending.
template <Job* (*prepare)(PyObject* const* args, Py_ssize_t nargs)>
PyObject* Entry(PyObject*, PyObject* const* args, Py_ssize_t nargs)
{
    Job* job = nullptr;
    try {
        job = prepare(args, nargs);
    } catch (...) {
        SetPreparingError();
        return nullptr;
    }
    if (job->unlocked) {
        PyThreadState* state = PyEval_SaveThread();
        job->Run();
        PyEval_RestoreThread(state);
    } else {
        job->Run();
    }
    PyObject* result = nullptr;
    try {
        if (job->error)
            SetError(job->error, job->words);
        else
            result = job->Result();
    } catch (...) {
        SetPreparingError();
    }
    delete job;
    return result;
}

// TypeError unless an entry got `expected` positional arguments.
void CheckArguments(Py_ssize_t nargs, Py_ssize_t expected, const char* name);

// The number of elements of a NumPy array.
std::uint64_t Length(PyObject* array);

// The element type of an array in the machine's byte order, as a NumPy type
// number with the 64-bit integers under one number each; -1 for any other.
int Kind(PyObject* array);

// Whether an array is C-contiguous (and aligned, unless `aligned` is false).
bool Contiguous(PyObject* array, bool aligned = true);

// Whether an array's element type, in the machine's byte order, is one of `types` (NumPy type numbers).
bool HasType(PyObject* array, std::initializer_list<int> types);

// Whether an array may be written.
bool Writable(PyObject* array);

} // namespace engine
} // namespace kavra
