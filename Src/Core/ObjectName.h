// Readable class names of handlers for log lines.
#pragma once

#include <string>
#include <typeinfo>

namespace Qelvar::Corvane {

class CNetHandler;

/// The demangled name of a type ("NULL" for a null type).
std::string type_name(const std::type_info* type);

/// The demangled dynamic class of a handler ("NULL" for null).
std::string object_class_name(const CNetHandler* object);

}  // namespace Qelvar::Corvane
