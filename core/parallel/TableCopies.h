#pragma once

// What a calculation on threads needs of its tables: to know that no cell
// can fail on them, and a copy of them that nothing else can change while
// the threads read it.
#include <vector>

#include "core/types/Records.h"

namespace kavra {

// Whether every table of a list (TPVTList, TPVTOList, TPVTGList) has rows,
// and every number that a calculation may read is set in every record of
// it (or of a TPVTWList, a TRockList): then a cell fails only on a region
// number past the list.  Viscosities are never read and may be unset.
template <class List>
bool Complete(const List& list);

// A copy of a list whose scalars are new ones with the same numbers and
// labels, shared with nobody (an unset scalar stays unset).
template <class List>
List PrivateCopy(const List& list);

} // namespace kavra
