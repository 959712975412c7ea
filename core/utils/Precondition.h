#pragma once

#include <sstream>
#include <type_traits>

#include "core/utils/Exception.h"

namespace kavra {

// A message item that states the facts of its failure (core/utils/Failure.h):
// it has Facts(), and prints its part of the text.
struct FailureItem
{
};

namespace detail {

// The message of a failed check: its text, and the facts of the message
// item that states them.
class CheckMessage
{
public:
    template <class T>
    CheckMessage& operator<<(const T& value)
    {
        if constexpr (std::is_base_of<FailureItem, T>::value)
            failure = value.Facts();
        text << value;
        return *this;
    }

    std::ostringstream text;
    Failure failure;
};

} // namespace detail
} // namespace kavra

// PRECONDITION(condition, message): when `condition` is false, throw an
// IPreconditionException with the condition's source text, the message and
// the source position.  `message` is a chain for a text stream
// (PRECONDITION(n > 0, "n is " << n)); it is evaluated only on failure.
#define PRECONDITION(condition, message)                                                                  \
    do {                                                                                                  \
        if (!(condition)) {                                                                               \
            ::kavra::detail::CheckMessage kavraPreconditionText_;                                         \
            kavraPreconditionText_ << message;                                                            \
            throw ::kavra::IPreconditionException(#condition, kavraPreconditionText_.text.str(), __FILE__, \
                                                  __LINE__, kavraPreconditionText_.failure);              \
        }                                                                                                 \
    } while (false)
