#pragma once

#include <cstdint>
#include <string>

#include <ZembraPlatform/Export.h>

namespace zembra {

struct ClassDescription;

/// The signed and unsigned integer of the processor's native word.
using NSInteger = std::intptr_t;
using NSUInteger = std::uintptr_t;

/// The root of the object classes: whatever is held by `std::shared_ptr` and can stand in a `Value`.
///
/// It has no state and takes no locks; what a derived class allows to threads, that class says.
class ZEMBRA_EXPORT NSObject {
public:
    virtual ~NSObject();

    /// The name of the object's actual class, without namespaces.
    [[nodiscard]] std::string className() const;

    /// The description of the object's actual class, with its declared properties; `nullptr` where it has
    /// none.
    [[nodiscard]] virtual const ClassDescription* classDescription() const noexcept;

protected:
    NSObject() = default;
    NSObject(const NSObject&) = default;
    NSObject& operator=(const NSObject&) = default;
};

}  // namespace zembra
