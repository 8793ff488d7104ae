// The pools CTsMemory holds, for tests and diagnostics.
#pragma once

#include "Core/MemPool.h"

namespace Qelvar::Corvane::ts_memory {

/// The calling thread's pool; null on a thread that has not called CreateMemPool.
const CMemPool* thread_pool();

/// The shared pool; null before the first CreateMemPool and after DestroyMemPool.
const CMemPool* shared_pool();

}  // namespace Qelvar::Corvane::ts_memory
