#pragma once

#include "core/types/Records.h"
#include "core/utils/ElementTypes.h"
#include "core/utils/gridfunction_checking.h"

// A black-oil calculation's two entries: its own variant, and the engine's
// (float32 inputs read as they are; core/utils/ElementTypes.h).
#define KAVRA_BLACKOIL_DECLARE(Name, List, ...)                                                              \
    void Name(const List& list, GridFunctionPtr regions, __VA_ARGS__);                                       \
    void Name(EngineVariants, const List& list, GridFunctionPtr regions, __VA_ARGS__);
