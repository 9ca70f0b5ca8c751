#pragma once

#include <cstddef>

#include "kesto/KestoBearer.h"

// Writes the bearer's eleven entry points into table, slot by slot, but only
// the slots that lie wholly within size bytes; nothing past them is touched.
void FillInterfaceTable(KestoBearerInterface* table, size_t size);

// How many bytes of a table of pointer-sized slots to copy when the other side
// says it holds givenSize bytes: whole slots only (half a function pointer
// would be called as one), and never more than tableSize.
size_t WholeSlotBytes(size_t givenSize, size_t tableSize);
