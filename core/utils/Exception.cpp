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
        std::string& buffer = WhatBuffer();
        buffer = Text();
        return buffer.c_str();
    } catch (const std::bad_alloc&) {
        return "KAVRA-lib 2.0 Exception (out of memory while formatting the message)";
    }
}

std::string IHeaderException::Text() const
{
    std::ostringstream text;
    text << "KAVRA-lib 2.0 Exception\n" << file << ":" << line << ":\n" << message;
    return text.str();
}

IPreconditionException::IPreconditionException(const std::string& condition_, const std::string& message_,
                                               const std::string& file_, std::uint64_t line_)
    : IHeaderException(file_, line_, "")
{
    message = "Precondition Violated:\n" + condition_ + " " + message_ + "\n";
    condition = condition_;
    explanation = message_;
}

IPreconditionException::IPreconditionException(const std::string& condition_, const std::string& message_,
                                               const std::string& file_, std::uint64_t line_, const Failure& failure_)
    : IPreconditionException(condition_, message_, file_, line_)
{
    failure = failure_;
}

} // namespace kavra
