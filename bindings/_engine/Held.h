#pragma once

// What a call's threads touch, held alive and fixed while the interpreter
// lock is released, and the release itself.
#include <Python.h>

#include <cstdint>
#include <vector>

namespace kavra {
namespace engine {

// Whether `object` is a NumPy array (of any subclass).
bool IsArray(PyObject* object);

// A NumPy array's memory, in place, for the life of this object.  Holding a
// reference keeps the array alive, but not its memory: an array that owns
// its memory frees it when ndarray.__setstate__ (or a new .data) replaces
// it, under any view.  So the owner at the end of the array's base chain is
// marked as not owning its memory while any call holds it; such a
// replacement then leaves the old memory alone (it is kept for good), and the
// mark is taken back by the last holder while the memory is still the
// array's.  Made and destroyed with the interpreter lock held.
class HeldArray
{
public:
    explicit HeldArray(PyObject* array);
    ~HeldArray();
    HeldArray(const HeldArray&) = delete;
    HeldArray& operator=(const HeldArray&) = delete;

    char* Data() const { return m_data; }

private:
    PyObject* m_array;
    PyObject* m_owner; // an ndarray that owned its memory, or nullptr
    char* m_data;
};

// Runs work() with the interpreter lock released.  The lock is taken back in
// plain code, never in a destructor or a handler: a thread that takes it
// back while the interpreter finalizes is ended by the interpreter
// (pthread_exit), and its unwinding must pass only frames that let it pass.
// work() must not throw.
template <class Work>
void WithoutLock(Work& work)
{
    PyThreadState* state = PyEval_SaveThread();
    work();
    PyEval_RestoreThread(state);
}

} // namespace engine
} // namespace kavra
