// Callable and shared-ownership aliases of the base library.
#pragma once

#include <functional>
#include <memory>

namespace Qelvar::Fundel {

/// A callable taking three arguments.
template <class R, class A, class B, class C>
using TFunction3 = std::function<R(A, B, C)>;

/// Shared ownership of an object.
template <class T>
using TSharedPtr = std::shared_ptr<T>;

}  // namespace Qelvar::Fundel
