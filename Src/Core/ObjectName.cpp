#include "Core/ObjectName.h"

#include <cstdlib>
#include <cxxabi.h>

#include <Corvane/NetHandler.h>

namespace Qelvar::Corvane {

std::string type_name(const std::type_info* type)
{
    if (!type) return "NULL";
    int status = 0;
    char* demangled = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : type->name();
    std::free(demangled);
    return name;
}

std::string object_class_name(const CNetHandler* object)
{
    return object ? type_name(&typeid(*object)) : "NULL";
}

}  // namespace Qelvar::Corvane
