// Assertions of the base library, with a handler that applications and tests may replace.
#pragma once

#include <functional>

#include <Fundel/Export.h>

namespace Qelvar::Fundel {

/// Called with the failed expression's text, the source path, line and function.
using AssertHandler = std::function<void(const char* expr, const char* file, int line,
                                         const char* function)>;

/// Installs the handler for failed assertions; an empty function restores the default,
/// which logs at level 1 and aborts. When an installed handler returns, the program
/// goes on after the assertion.
FUNDEL_API void SetAssertHandler(AssertHandler handler);

/// Reports a failed assertion to the installed handler.
FUNDEL_API void assertFailed(const char* expr, const char* file, int line, const char* function);

}  // namespace Qelvar::Fundel
