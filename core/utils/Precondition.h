#pragma once

#include <sstream>

#include "core/utils/Exception.h"

// PRECONDITION(condition, message): when `condition` is false, throw an
// IPreconditionException with the condition's source text, the message and
// the source position.  `message` is a chain for a text stream
// (PRECONDITION(n > 0, "n is " << n)); it is evaluated only on failure.
#define PRECONDITION(condition, message)                                                                  \
    do {                                                                                                  \
        if (!(condition)) {                                                                               \
            std::ostringstream kavraPreconditionText_;                                                    \
            kavraPreconditionText_ << message;                                                            \
            throw ::kavra::IPreconditionException(#condition, kavraPreconditionText_.str(), __FILE__,     \
                                                  __LINE__);                                              \
        }                                                                                                 \
    } while (false)
