#include "core/utils/Exception.h"

#include <new>
#include <sstream>

namespace kavra {

namespace {

// The text handed out by what(); the module runs with the interpreter lock
// held, which serialises every access.
std::string& WhatBuffer()
{
    static std::string buffer;
    return buffer;
}

} // namespace

IException::~IException() = default;

const char* IException::what() const noexcept
{
    return "Unknown exception";
}

IHeaderException::IHeaderException(const std::string& file_, std::uint64_t line_, const std::string& message_)
    : file(file_), line(line_), message(message_)
{
}

IHeaderException::~IHeaderException() = default;

const char* IHeaderException::what() const noexcept
{
    try {
        std::ostringstream text;
        text << "KAVRA-lib 2.0 Exception\n" << file << ":" << line << ":\n" << message;
        std::string& buffer = WhatBuffer();
        buffer = text.str();
        return buffer.c_str();
    } catch (const std::bad_alloc&) {
        return "KAVRA-lib 2.0 Exception (out of memory while formatting the message)";
    }
}

IPreconditionException::IPreconditionException(const std::string& condition, const std::string& message_,
                                               const std::string& file_, std::uint64_t line_)
    : IHeaderException(file_, line_, "")
{
    message = "Precondition Violated:\n" + condition + " " + message_ + "\n";
}

} // namespace kavra
