// The allocation frame: malloc and free, exported as quorla_malloc and quorla_free and, in
// the shared library, under the standard names as aliases of the same code.
#pragma once

#include <cstddef>

#include "foundation/quorla_base.h"
#include "quorlamalloc.h"
