#pragma once

// What a calculation on threads needs of its tables: to know that no cell
// can fail on them, and a copy of them that nothing else can change while
// the threads read it.
#include <vector>

#include "core/types/Records.h"

namespace kavra {

// Whether every table of a list has rows and every number that a
// calculation may read is set: then a cell fails only on a region number
// past the list.  Viscosities are never read and may be unset.
bool Complete(const TPVTList& list);
bool Complete(const TPVTOList& list);
bool Complete(const TPVTWList& list);
bool Complete(const TPVTGList& list);
bool Complete(const TRockList& list);

// A copy of a list whose scalars are new ones with the same numbers and
// labels, shared with nobody (an unset scalar stays unset).
TPVTList PrivateCopy(const TPVTList& list);
TPVTOList PrivateCopy(const TPVTOList& list);
TPVTWList PrivateCopy(const TPVTWList& list);
TPVTGList PrivateCopy(const TPVTGList& list);
TRockList PrivateCopy(const TRockList& list);

} // namespace kavra
