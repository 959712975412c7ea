#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace kavra {

// What a failure is about, as data, for callers that put it in their own
// words: set where the check fails (by the message items of
// core/utils/Failure.h), the cell added by the walk that met it.
struct Failure
{
    enum Kind
    {
        unstated,         // only the text says what failed
        region_past_list, // `region` (pvtID, from 0) is not below `count`, the list's size
        empty_table,      // the table of `region` has no rows
        pinch_out,        // a connection within one column that does not skip a layer
    };
    Kind kind = unstated;
    std::uint64_t region = 0;
    std::uint64_t count = 0;
    std::int64_t cell = -1; // the cell being computed, from 0; -1 when no cell is known
};

// Root of the library's exceptions.
class IException : public std::exception
{
public:
    ~IException() override;
    const char* what() const noexcept override;
};

// An exception that knows the source position it was raised at.
class IHeaderException : public IException
{
public:
    IHeaderException(const std::string& file, std::uint64_t line, const std::string& message);
    ~IHeaderException() override;

    // "KAVRA-lib 2.0 Exception\n<file>:<line>:\n<message>", rebuilt into one
    // process-wide buffer at each call: the text stays valid until the next
    // call of what() on any exception of the family.
    const char* what() const noexcept override;

    // The text of what(), built in a string of its own: safe on any thread.
    std::string Text() const;

    std::string file;
    std::uint64_t line;
    std::string message;
    Failure failure;
    // The condition and the explanation of a failed precondition, apart.
    std::string condition;
    std::string explanation;
};

// A failed precondition: the message holds "Precondition Violated:\n", the
// condition's source text, a blank and the explanation, ended by a newline.
class IPreconditionException : public IHeaderException
{
public:
    IPreconditionException(const std::string& condition, const std::string& message, const std::string& file,
                           std::uint64_t line);
    // With the facts of the failure.
    IPreconditionException(const std::string& condition, const std::string& message, const std::string& file,
                           std::uint64_t line, const Failure& failure);
};

} // namespace kavra
