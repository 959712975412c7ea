#pragma once

// The tessel classes live in one shared library that both extension modules
// link, so their vtables and type_info have a single home.  Keep them visible
// even when a module is built with -fvisibility=hidden.
// A module that builds the classes into itself defines TESSEL_API as empty.
#ifndef TESSEL_API
#define TESSEL_API __attribute__((visibility("default")))
#endif
