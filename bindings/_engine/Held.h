#pragma once

// What a call's threads touch, held alive and fixed while the interpreter
// lock is released.
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

} // namespace engine
} // namespace kavra
