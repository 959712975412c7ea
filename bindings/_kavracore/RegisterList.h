#pragma once

// RegisterList<E>: one Python class over std::vector<E> with Python-like
// names.  Elements are copied in and copied out; records keep sharing their
// scalars between copies.
#include <boost/python.hpp>

#include <cstdint>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bindings/common/BindingHelpers.h"
#include "core/types/Records.h"
#include "core/utils/Precondition.h"

namespace kavra {
namespace python {

// Growing a vector beyond its maximum size is refused with the same words
// for every way of growing it.
template <class E>
void CheckGrowth(const std::vector<E>& v, std::uint64_t count)
{
    if (count > v.max_size())
        throw std::length_error("vector too long");
}

// Appends the items of a Python iterable, converted to E.  The iterable must
// have a length; the vector reserves once for it.  Items converted before a
// failing one stay appended.
template <class E>
void ExtendList(std::vector<E>& v, boost::python::object iterable)
{
    namespace bp = boost::python;
    bp::handle<> items(PrivateSequence(iterable.ptr(), "an iterable is required as first argument"));
    Py_ssize_t n = PySequence_Size(iterable.ptr());
    if (n == -1)
        bp::throw_error_already_set();
    // An object whose length exceeds what iterating it yields gets the items
    // it yielded, never more.
    if (n > PySequence_Fast_GET_SIZE(items.get()))
        n = PySequence_Fast_GET_SIZE(items.get());
    CheckGrowth(v, v.size() + static_cast<std::uint64_t>(n));
    if (v.size() + static_cast<std::size_t>(n) > v.capacity())
        v.reserve(v.size() + static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i)
        v.push_back(bp::extract<E>(PySequence_Fast_GET_ITEM(items.get(), i))());
}

// A new list filled from an iterable.  make_constructor puts the returned
// vector into a std::unique_ptr holder, which owns it from then on.
template <class E>
std::vector<E>* ListFromIterable(boost::python::object iterable)
{
    std::unique_ptr<std::vector<E>> v(new std::vector<E>());
    ExtendList(*v, iterable);
    return v.release();
}

// The text of one scalar field inside a list's repr.
inline void WriteField(std::ostream& os, const TScalarPtr& field)
{
    PRECONDITION(field.get()!=0, "A record field holds no TScalar (None) and has no text.");
    os << *field;
}

template <class... Fields>
void WriteRecord(std::ostream& os, const Fields&... fields)
{
    os << "(";
    const char* separator = "";
    ((os << separator, WriteField(os, fields), separator = ", "), ...);
    os << ")";
}

inline void WriteElement(std::ostream& os, const TPVT& r) { WriteRecord(os, r.P, r.B, r.Mi); }
inline void WriteElement(std::ostream& os, const TPVTO& r) { WriteRecord(os, r.Rs); }
inline void WriteElement(std::ostream& os, const TPVTW& r) { WriteRecord(os, r.P_ref, r.Bw_ref, r.Cw, r.Miw_ref, r.Cvw); }
inline void WriteElement(std::ostream& os, const TPVTGRecord& r) { WriteRecord(os, r.Rv, r.B, r.Mi); }
inline void WriteElement(std::ostream& os, const TPVTG& r) { WriteRecord(os, r.Pg); }
inline void WriteElement(std::ostream& os, const TRock& r) { WriteRecord(os, r.P_ref, r.Cr); }
// Tables inside a list show by name only; the letters of the oil and gas
// names are the long-standing ones.
inline void WriteElement(std::ostream& os, const TPVTTable&) { os << "TPVTTable"; }
inline void WriteElement(std::ostream& os, const TPVTOTable&) { os << "TPVOTTable"; }
inline void WriteElement(std::ostream& os, const TPVTGTable&) { os << "TPVGTTable"; }

namespace list_methods {

template <class E>
void Append(std::vector<E>& v, const E& element)
{
    CheckGrowth(v, v.size() + 1);
    v.push_back(element);
}

template <class E>
std::size_t Size(const std::vector<E>& v)
{
    return v.size();
}

template <class E>
E GetItem(const std::vector<E>& v, std::int64_t index)
{
    return v[NormalizeIndex(index, v.size(), "index out of range")];
}

// Elements leave a list only by being swapped out into a local, so that the
// release of their scalars, which can run Python (__del__, weakref
// callbacks) that uses this very list, happens once the list is whole again.
template <class E>
void SetItem(std::vector<E>& v, std::int64_t index, const E& element)
{
    E replaced(element);
    std::swap(v[NormalizeIndex(index, v.size(), "index out of range")], replaced);
}

template <class E>
std::string Repr(const std::vector<E>& v)
{
    std::ostringstream text;
    text << "vector([";
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (i != 0)
            text << ", ";
        WriteElement(text, v[i]);
    }
    text << "])";
    return text.str();
}

template <class E>
void Reserve(std::vector<E>& v, std::uint64_t count)
{
    CheckGrowth(v, count);
    v.reserve(static_cast<std::size_t>(count));
}

template <class E>
void Resize(std::vector<E>& v, std::uint64_t count)
{
    CheckGrowth(v, count);
    const std::size_t n = static_cast<std::size_t>(count);
    if (n < v.size()) {
        std::vector<E> dropped(std::make_move_iterator(v.begin() + static_cast<std::ptrdiff_t>(n)),
                               std::make_move_iterator(v.end()));
        v.erase(v.begin() + static_cast<std::ptrdiff_t>(n), v.end()); // moved-from: releases nothing
        return;                                                      // `dropped` dies here, after the list is whole
    }
    v.resize(n);
}

} // namespace list_methods

// Registers the list class `name` over std::vector<E> and returns the class object.
template <class E>
boost::python::object RegisterList(const char* name)
{
    namespace bp = boost::python;
    using namespace list_methods;
    typedef std::vector<E> L;
    return bp::class_<L, boost::shared_ptr<L>>(name, bp::init<>())
        .def(bp::init<const L&>())
        .def("__init__", bp::make_constructor(&ListFromIterable<E>))
        .def("push_back", &Append<E>)
        .def("append", &Append<E>)
        .def("size", &Size<E>)
        .def("__len__", &Size<E>)
        .def("__getitem__", &GetItem<E>)
        .def("__setitem__", &SetItem<E>)
        .def("__repr__", &Repr<E>)
        .def("extend", &ExtendList<E>)
        .def("reserve", &Reserve<E>)
        .def("resize", &Resize<E>)
        .def(bp::self == bp::self)
        .def(bp::self != bp::self);
}

} // namespace python
} // namespace kavra
