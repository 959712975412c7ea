#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace kavra {

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

    std::string file;
    std::uint64_t line;
    std::string message;
};

// A failed precondition: the message holds "Precondition Violated:\n", the
// condition's source text, a blank and the explanation, ended by a newline.
class IPreconditionException : public IHeaderException
{
public:
    IPreconditionException(const std::string& condition, const std::string& message, const std::string& file,
                           std::uint64_t line);
};

} // namespace kavra
