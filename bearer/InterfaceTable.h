#pragma once

#include <cstddef>

#include "kesto/KestoBearer.h"

// Writes the bearer's eleven entry points into table, slot by slot, but only
// the slots that lie wholly within size bytes; nothing past them is touched.
void FillInterfaceTable(KestoBearerInterface* table, size_t size);
